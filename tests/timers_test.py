"""The units of systemd among the examples: timers_test.py PROGRAM SHIM"""
import json, os, shutil, signal, unittest
from pathlib import Path
from subprocess import PIPE, STDOUT, Popen, run

from program import BLOCK, ORACLE, Case, flip, images, main, service

UNITS = ORACLE.parent.with_name("examples") / "systemd"


class Timers(Case):
    def start(self, unit, **settings):
        words, environment = service(unit, **settings)
        return Popen(words, stdout=PIPE, stderr=PIPE, text=True, start_new_session=True, env=environment)

    def check(self, process, unit, code, cause=None):
        """One line, kept as well; what it says of the result."""
        line, error = process.communicate(timeout=60)
        self.assertEqual((process.returncode, line), (code, Path(f"disk-{unit}.json").read_text()), error)
        self.assertRegex(line, r"\A[^\n]+\n\Z")
        told = json.loads(line)
        self.assertEqual((told["name"], told["exitCode"], told["result"] is None), (f"disk-{unit}", code, bool(cause)))
        self.assertLessEqual(told["began"], told["ended"])
        self.assertRegex(error, cause or r"\A(kelvane-hash: note: .*\n)*\Z")
        return told["result"]

    def test_what_the_services_tell(self):
        images()
        source = "a  \"'\\"
        os.rename("a", source)
        copy = {"SOURCE": source, "DEST": "b", "OPTIONS": "--block-size 8K --verify"}
        self.assertEqual(self.check(self.start("copy", **copy), "copy", 0)["bytesCopied"], 6 * BLOCK + 100)
        self.assertEqual(Path(source).read_bytes(), Path("b").read_bytes())
        for share in "0.5", "1":
            self.assertEqual(self.check(self.start("verify", VERIFIED=source, SHARE=share), "verify", 0)["badBlocks"], 0)
        flip(source, 3 * BLOCK)
        self.assertEqual(self.check(self.start("verify", VERIFIED=source, SHARE="1"), "verify", 1)["badBlocks"], 1)
        self.check(self.start("copy", **dict(copy, SOURCE="none")), "copy", 2, "none: .*No such file")
        Path("way").write_text("#!/bin/sh\nread name <started\nexec sleep 60")
        os.chmod("way", 0o755)
        os.mkfifo("started")
        stopped = self.start("copy", **dict(copy, DEST="host:b", OPTIONS="--rsh ./way"))
        Path("started").write_text("\n")
        os.killpg(stopped.pid, signal.SIGTERM)  # as systemd does
        self.check(stopped, "copy", 128 + signal.SIGTERM, "interrupted")

    @unittest.skipUnless(shutil.which("systemd-analyze"), "no systemd")
    def test_what_systemd_says_of_them(self):
        for unit in UNITS.glob("kelvane-*"):
            Path(unit.name).write_text(unit.read_text().replace("/usr/local/lib/kelvane/report", str(UNITS / "report")))
        names = [f"./{name}" for name in sorted(os.listdir())]
        done = run(["systemd-analyze", "verify", *names], stdout=PIPE, stderr=STDOUT, text=True, timeout=60)
        self.assertEqual((len(names), done.returncode, done.stdout), (6, 0, ""))


main()
