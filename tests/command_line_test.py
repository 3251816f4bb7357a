"""What the program makes of its arguments: command_line_test.py PROGRAM SHIM"""
import os, re, signal
from pathlib import Path
from random import randbytes
from subprocess import DEVNULL

from program import BLOCK, PROGRAM, Case, doubt_here, flip, images, main


class CommandLine(Case):
    def test_numbers_are_decimal_and_exact(self):
        Path("a").write_bytes(randbytes(600 * BLOCK))
        self.call("build a")
        for given, number in (("010", 10), ("0008", 8), ("1K", 1 << 10), ("01kb", 1 << 10), ("1Ki", 1 << 10),
                              ("1mIb", 1 << 20), ("00b", 0), ("9B", 9)):
            answer = self.json(f"hash a --range {given}:{given} -j 010")
            self.assertEqual((answer["offset"], answer["length"]), (number, number), given)
        Path("list").write_text("00010 010\n")
        self.assertEqual(self.json("invalidate a --from list")["bytes"], 10)
        most = (1 << 63) - 1
        for given, told in ((f"0{most}", most), ("7EiB", 7 << 60), (f"{(1 << 53) - 1}K", ((1 << 53) - 1) << 10)):
            self.check_complaint(f"hash a --range {given}:1", f"at offset {told}:")
        for option, *wrong in (
                ("hash a --range 0:", "0x10", "+1", "-1", "1.5K", "1e3", "8E", f"{1 << 63}", "4X", "1bb", "1KiBs", "K",
                 f"{1 << 53}K", "", "1_0"),
                ("build a --block-size ", "0", "4G", "0x1000", "-1"), ("build a --jobs ", "0", "1025", "0x2", "+2", "-2"),
                ("verify a --seed ", "-1", "+1", "0x1", f"{1 << 64}", "1K"),
                ("verify a --sample ", "nan", "-nan", "inf", "1e400", "1e-400", "0x1p-1", "+1", "-1", "0", "1.01", "1,0"),
                ("sync a b --timeout ", "0", "0x10", "86401"), ("sync a b --compress=", "0", "20", "0x3", "-3", "no"),
                ("sync a b --bwlimit ", "0x1", "-1")):
            for value in wrong:
                name = option[option.index("--"):].split("=")[0].split()[0]
                self.check_complaint(option + value, f"{name}: .*" + re.escape(value) + r" \(see --help\)")
        self.assertFalse(os.path.exists("b"))

    def test_what_commands_and_options_are_there(self):
        images()
        for command, cause in (
                ("bulid", r"unknown command: bulid \(see"), ("bulid a --help", "unknown command: bulid"),
                ("build a --adopt --assume-unchanged", "excludes"), ("build a --check --assume-unchanged", "excludes"),
                ("serve --json", "--json"), ("sync -P a b", "-P.*--progress json"), ("sync a b -zP", "-P.*--progress json"),
                ("sync --progress a b", "--progress: not one of auto, json, none: a"), ("sync -Q a b", "-Q"),
                ("invalidate a --from b --format nbd", "--format: not one of diff, era_invalidate, lines, nbdinfo, qemu"),
                *((f"sync a b --changes l --era-block-size {size}", f"--era-block-size: not .* its unit.*: {size}")
                  for size in ("128", "64", "4095B", "9s", "0K", f"{1 << 60}s"))):
            self.check_complaint(command, cause)
        Path("there").write_text(f'#!/bin/sh\necho "$@" >way\nshift 2\nexec {PROGRAM} "$@"\n')
        os.chmod("there", 0o755)
        self.assertTrue(self.json("sync a host:b -z -e ./there")["equal"])
        self.assertEqual(Path("way").read_text(), "host kelvane-hash serve\n")
        for command in "sync", "diff":
            text = self.call(f"{command} --help").stdout
            self.assertEqual((text.count("HOST:PATH"), text.count("{")), (2, 0), text)

    def test_a_terminal_that_is_closed(self):
        Path("a").write_bytes(randbytes(40 << 20))
        hangup = {"SHIM_AT": "read a", "SHIM_DO": "1 1"}  # from the shell, and from the system
        self.assertIn("goes on from here", self.call("build a -j 1", 129, shim=hangup).stderr)
        known = self.json("info a.hashes")
        self.assertTrue(known["record"]["clean"] != bool(doubt_here()) and known["knownBlocks"] > 0, known)
        self.call("build a -j 1", shim=hangup, preexec_fn=lambda: signal.signal(signal.SIGHUP, signal.SIG_IGN))

    def test_standard_descriptors_that_are_closed(self):
        images()
        self.call("build a")
        Path("list").write_text("0 + 1\n")
        for closed in (0, 1, 2), (2,), (0, 2), (1,), (0,), (1, 2):
            flip("a", 5 * BLOCK)  # so that a note is made
            expect = 2 if 1 in closed else 0
            for command, code in (("sync a b --progress json", expect), ("build a --check", expect),
                                  ("invalidate b --from list --json", expect),
                                  ("invalidate b --format lines --from -", 2 if 0 in closed else expect),
                                  ("build missing", 2)):
                self.call(command, code, preexec_fn=lambda: [os.close(fd) for fd in closed], stdin=DEVNULL)
            self.assertEqual(Path("a").read_bytes(), Path("b").read_bytes())
            self.call("build b")
            for name in "ab":
                self.check_hash_file(name)


main()
