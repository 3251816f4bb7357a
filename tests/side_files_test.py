"""What is made beside an image, and what stands there already: side_files_test.py PROGRAM SHIM"""
import os, signal
from pathlib import Path
from random import randbytes
from subprocess import run

from program import BLOCK, Case, main

NEEDS, BOTH = "this is an image, and the hash file (here/)?[xh] would need its name", "given as an image and as a hash"


class SideFiles(Case):
    def files(self):
        return {path: path.is_file() and path.read_bytes() for path in Path().rglob("*")}

    def test_nothing_is_overwritten_but_what_is_its_own(self):
        for name in "n", "x.new", "x.state", "x.state.new", "y", "y.hashes.new":
            Path(name).write_bytes(randbytes(2 * BLOCK))
        os.link("n", "n2")
        os.symlink(".", "here")
        os.symlink("nowhere", "link")
        before = self.files()
        for command, cause in (
                ("build x.new --hash-file x", NEEDS), ("build x.state --hash-file here/x", NEEDS),
                ("build x.state.new --hash-file x", NEEDS), ("verify x.new --hash-file x", NEEDS),
                ("build n --hash-file n2", "n2: " + BOTH), ("sync n b --dest-hash-file here/b", "here/b: " + BOTH),
                ("sync n b --source-hash-file b", "b: " + BOTH), ("sync n h.state --source-hash-file h", NEEDS),
                ("sync n b --source-hash-file h --dest-hash-file h", "h: given as the hash file of both"),
                ("diff n y --hash-file-a h --hash-file-b h.state.new", "h.state.new: .* h needs the same"),
                ("sync n link --source-hash-file h", "link: cannot open: No such"),
                ("build y", "y.hashes.new: .*move the file away")):
            self.check_complaint(command, cause)
            self.assertEqual(self.files(), before, command)
        self.call("build n")
        for command in "sync y n.hashes.state", "build n.hashes.state":
            self.check_complaint(command, "n.hashes.state: this is the record beside a hash file")

    def test_a_record_takes_the_place_of_nothing_else(self):
        Path("n").write_bytes(randbytes(2 * BLOCK))
        self.call("build n")
        record = Path("n.hashes.state").read_bytes()
        for make in "echo mine >", "mkdir", "mkfifo", "truncate -s 1M", "ln -s boot":
            for name in "n.hashes.state", "n.hashes.state.new":
                run(f"rm -rf n.hashes.state*; {make} {name}", shell=True, check=True)
                before = os.lstat(name)[:7]
                self.assertIn("n.hashes.state: cannot write: ", self.call("build n --check").stderr)
                os.remove("n.hashes")
                self.call("build n")
                self.assertEqual(os.lstat(name)[:7], before)
        for left in b"", record[:9], record[:99], bytes(99):  # a crash may leave that
            run("rm -rf n.hashes.state*", shell=True, check=True)
            for name in "n.hashes.state", "n.hashes.state.new":
                Path(name).write_bytes(left)
            self.call("build n")
            self.assertTrue(self.json("info n.hashes")["record"]["clean"])

    def test_a_killed_run_leaves_nothing_in_the_way(self):
        Path("n").write_bytes(randbytes(2 * BLOCK))
        self.call("build n", -signal.SIGKILL, shim={"SHIM_AT": "rename n.hashes", "SHIM_DO": "9"})
        hashes = Path("n.hashes.new").read_bytes()
        self.assertIn("ftruncate n.hashes.new", self.calls("build n"), "its room is free before room is looked for")
        for left in b"", bytes(1 << 20), hashes, hashes[:4096]:
            os.remove("n.hashes")
            Path("n.hashes.new").write_bytes(left)
            self.call("build n")
            self.assertFalse(os.path.exists("n.hashes.new"))
        self.call("build n --hash-file n.hashes.new")  # which some user may want
        os.remove("n.hashes")
        self.check_complaint("build n", "n.hashes.new: .*move the file away")
        for foreign in Path("n").read_bytes(), bytes((1 << 20) + 1):
            Path("n.hashes.new").write_bytes(foreign)
            self.check_complaint("build n", "n.hashes.new: .*move the file away")
        run(["truncate", "-s", "20G", "large"], check=True)
        steps = [i for i, call in enumerate(self.calls("build large"), 1) if call == "pwrite large.hashes.new"]
        for at in steps[0], steps[len(steps) // 2], steps[-1]:
            os.remove("large.hashes")
            self.call("build large", -signal.SIGKILL, shim={"SHIM_AT": str(at), "SHIM_DO": "9"})
            self.assertTrue(os.path.exists("large.hashes.new"))
            self.call("build large")


main()
