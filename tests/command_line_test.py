"""What the program makes of its arguments: command_line_test.py PROGRAM SHIM"""
import os, re, signal
from pathlib import Path
from random import randbytes

from program import BLOCK, Case, main


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

    def test_a_terminal_that_is_closed(self):
        Path("a").write_bytes(randbytes(40 << 20))
        hangup = {"SHIM_AT": "mmap a", "SHIM_DO": "1 1"}  # from the shell, and from the system
        self.assertIn("goes on from here", self.call("build a -j 1", 129, shim=hangup).stderr)
        known = self.json("info a.hashes")
        self.assertTrue(known["record"]["clean"] and known["knownBlocks"] > 0, known)
        self.call("build a -j 1", shim=hangup, preexec_fn=lambda: signal.signal(signal.SIGHUP, signal.SIG_IGN))


main()
