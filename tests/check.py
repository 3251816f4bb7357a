#!/usr/bin/env python3
"""Runs every check and prints its figures, one line each; fails when one of them fails or prints too few of them.

Usage: check.py [NAME]...; KELVANE_MODEL_ROUNDS and FUZZ_SECONDS make the model's run and the fuzzer's longer."""
import os, re, subprocess, sys, time
from concurrent.futures import ThreadPoolExecutor

PROGRAM = "build/release/tests/kelvane_tests"
TEST_LOG = ["cat", "build/release/Testing/Temporary/LastTest.log"]  # what the tests printed a moment ago
MODEL_ROUNDS = os.environ.get("KELVANE_MODEL_ROUNDS", "200")
FUZZ_SECONDS = os.environ.get("FUZZ_SECONDS", "60")

# What a check is called, how it is run, which lines of its output are figures (the groups alone, where there are
# groups), and how many of them there must be.
CHECKS = [
    ("fault sweep", TEST_LOG, r"fault sweep.*, 0 wrong", 2),
    ("corrupt files", TEST_LOG, r"(?:corrupt files|corpus replay): .* 0 wrong.*", 3),
    ("crash states", TEST_LOG,
     r"(?!negative).* power cuts, .* 0 with a wrong known entry|negative.* [1-9]\d* with a wrong known entry", 16),
    ("limits", TEST_LOG, r"limits: .*: right", 2),
    ("truth", TEST_LOG, r"truth: .*; 0 disagreements", 1),
    ("skipped", TEST_LOG, r"skipped: .*", 0),
    ("test share", ["scripts/test_share.py"], r".*%.*", 1),
    ("valgrind", ["make", "valgrind"], r"\[  PASSED  \] (\d+ tests).*|.*(ERROR SUMMARY: 0 errors).*", 2),
    ("model", [PROGRAM, "--gtest_filter=ModelTest.*"], r"model: \d+ operations.*", 1),
    ("fuzzers", ["make", "fuzz", f"FUZZ_SECONDS={FUZZ_SECONDS}"],
     r".*DONE +(cov: \d+).*|Done (\d+ runs in \d+ second).*", 4),
    ("address, undefined", ["make", "sanitize"], r"(\d+% tests passed.*)", 1),
    ("64-bit ARM", ["make", "arm64"], r"(\d+% tests passed.*)|(digests on NEON.* for 0 of them .*|left out.*)", 3),
    ("coverage", ["make", "coverage"], r"((?:library|program): (?:lines|branches): .*)", 4),
]


def figures(output, pattern):
    for line in output.splitlines():
        match = re.fullmatch(pattern, line.strip())
        if match:
            yield " ".join(filter(None, match.groups())) or line.strip()


def run(title, command, pattern, count):
    start = time.monotonic()
    environment = dict(os.environ, **({"KELVANE_MODEL_ROUNDS": MODEL_ROUNDS} if title == "model" else {}))
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, env=environment)
    output = done.stdout.decode(errors="replace")
    found = list(figures(output, pattern))
    good = done.returncode == 0 and len(found) >= count
    found.append(f"took {time.monotonic() - start:.0f} s")
    lines = [f"{'ok' if good else 'FAILED':7}{title:20}{line}" for line in found]
    print("\n".join(lines if good else [output[-5000:]] + lines), flush=True)
    return good


def main():
    os.chdir(os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
    chosen = [check for check in CHECKS if len(sys.argv) == 1 or check[0] in sys.argv[1:]]
    if not chosen:
        sys.exit("no such check")
    with ThreadPoolExecutor(2) as pool:  # some keep one processor busy alone
        return 0 if all(list(pool.map(lambda check: run(*check), chosen))) else 1


if __name__ == "__main__":
    sys.exit(main())
