#!/usr/bin/env python3
"""Prints the share of test code in all lines of C++, Python and shell that are not blank; fails above a third."""
import os, re, subprocess, sys

MOST = 33  # per cent


def lines(name):
    return sum(1 for line in open(name, "rb") if line.strip())


def is_code(name):
    return name.endswith((".cpp", ".h", ".py", ".sh")) or (os.path.isfile(name) and not re.search(r"\.\w+$", name)
                                                           and open(name, "rb").read(2) == b"#!")


def main():
    os.chdir(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
    names = subprocess.run(["git", "ls-files", "-co", "--exclude-standard"], capture_output=True, text=True,
                           check=True).stdout.splitlines()
    code = {name: lines(name) for name in names if is_code(name)}
    tests = sum(count for name, count in code.items() if name.startswith(("tests/", "fuzz/")))
    share = 100 * tests / sum(code.values())
    print(f"test code: {tests} of {sum(code.values())} lines, {share:.1f}%")
    return 1 if share > MOST else 0


sys.exit(main())
