"""What is made beside an image, and what stands there already: side_files_test.py PROGRAM SHIM"""
import os, signal
from itertools import product
from pathlib import Path
from random import randbytes
from subprocess import run

from program import BLOCK, PROGRAM, Case, doubt_here, main

NEEDS, BOTH = "this is an image, and the hash file (here/)?[xh] would need its name", "given as an image and as a hash"


class SideFiles(Case):
    def files(self):
        return {path: path.is_file() and path.read_bytes() for path in Path().rglob("*")}

    def test_nothing_is_overwritten_but_what_is_its_own(self):
        for name in "n", "x.state", "y", "z":
            Path(name).write_bytes(randbytes(2 * BLOCK))
        os.link("n", "n2")
        os.symlink(".", "here")
        os.symlink("nowhere", "link")
        os.symlink("nowhere", "z.hashes")
        before = self.files()
        for command, cause in (
                ("build x.state --hash-file here/x", NEEDS), ("verify x.state --hash-file x", NEEDS),
                ("build n --hash-file link", "link: .*a link that leads nowhere"), ("build z", "z.hashes: .*nowhere"), ("build n --hash-file n2", "n2: " + BOTH), ("sync n b --dest-hash-file here/b", "here/b: " + BOTH),
                ("sync n b --source-hash-file b", "b: " + BOTH), ("sync n h.state --source-hash-file h", NEEDS),
                ("sync n b --source-hash-file h --dest-hash-file h", "h: given as the hash file of both"),
                ("diff n y --hash-file-a h --hash-file-b h.state", "h.state: .* h needs the same"),
                ("sync n link --source-hash-file h", "link: cannot open: No such"),
                ("sync n n2", "n2: this is the source itself"), ("sync n n", "n: this is the source itself")):
            self.check_complaint(command, cause)
            self.assertEqual(self.files(), before, command)
        self.call("build n")
        for command in "sync y n.hashes.state", "build n.hashes.state":
            self.check_complaint(command, "n.hashes.state: this is the record beside a hash file")
        self.check_complaint("sync n x.state --dest-hash-file link", "link: .*a link that leads nowhere")
        self.assertFalse(os.path.lexists("nowhere"))

    def test_a_record_takes_the_place_of_nothing_else(self):
        Path("n").write_bytes(randbytes(2 * BLOCK))
        self.call("build n")
        record = Path("n.hashes.state").read_bytes()
        for make in "echo mine >", "mkdir", "mkfifo", "truncate -s 1M", "ln -s boot":
            run(f"rm -rf n.hashes.state; {make} n.hashes.state", shell=True, check=True)
            before = os.lstat("n.hashes.state")[:7]
            tells = "n.hashes.state: cannot write: " in self.call("build n --check").stderr
            self.assertEqual(tells, not doubt_here())  # where nothing is ever recorded as true nothing is written
            os.remove("n.hashes")
            self.call("build n")
            self.assertEqual(os.lstat("n.hashes.state")[:7], before)
        for left, name in product((b"", record[:9], record[:99], bytes(99)), ("state", "state.new", "new")):
            run("rm -rf n.hashes*", shell=True, check=True)  # a crash may leave that
            Path(f"n.hashes.{name}").write_bytes(left)
            os.chmod(f"n.hashes.{name}", 0o666)
            self.call("build n")
            self.assertEqual(os.stat("n.hashes").st_mode & 0o777, 0o600)
            self.assertEqual(self.json("info n.hashes")["record"]["clean"], not doubt_here())
            self.assertEqual(os.stat("n.hashes.state").st_mode & 0o777, 0o600)

    def test_a_killed_run_leaves_nothing_in_the_way(self):
        run(["truncate", "-s", "20G", "large"], check=True)
        for named, name in ({}, "unnamed"), ({"SHIM_NAMED": "1"}, "large.hashes"):
            calls = self.calls("build large", **named)
            steps = [i for i, call in enumerate(calls, 1) if call == "pwrite " + name]
            for at in (*steps[::len(steps) // 3], *["link large.hashes"] * (not named)):
                os.remove("large.hashes")
                self.call("build large", -signal.SIGKILL, shim={**named, "SHIM_AT": str(at), "SHIM_DO": "9"})
                self.assertTrue(named or not os.path.exists("large.hashes"))
                again = run([PROGRAM, "build", "large"], capture_output=True, text=True)
                self.assertEqual((again.returncode, "cut short, unless one is under way; remove it" in again.stderr),
                                 (2, True) if again.returncode and named else (0, False), again)
            os.remove("large.hashes")


main()
