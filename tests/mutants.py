#!/usr/bin/env python3
"""Do the tests bite? Plants one bug of mutants.txt at a time in a copy of the sources, rebuilds, and runs the tests.
mutants.py WORK_DIRECTORY [--all: name all tests that fail] [TEXT: plant the bugs that hold it]"""
import os, re, shutil, subprocess, sys, tempfile
from pathlib import Path

SLOW = "*FaultSweep*:CrashTest*:CorruptFile*"
TESTS = os.path.dirname(os.path.abspath(__file__))
# Of the program. Those of the file that has the bug come first.
PROGRAM_TESTS = {"Sync|Copier": "sync_test.py", "RangeList|Invalidate|Diff": "lists_test.py",
                 "command_line|Number|Interrupt|Descriptor": "command_line_test.py",
                 "tools/(base|terminal|image|hash_file|command)": "kelvane_hash_test.py",
                 "SideFiles": "side_files_test.py", "tools/remote": "remote_test.py", "^$": "truth_test.py"}


def bugs(options):
    for line in Path(TESTS, "mutants.txt").read_text().splitlines():
        if line.startswith("# "):
            continue
        if line.startswith("@ "):
            directory = line[2:]
        elif all(option in line for option in options if option != "--all"):
            yield directory, line, *(part.strip(" ").replace(r"\n", "\n") for part in line.split("=>", 1))


def place_of(copy, directory, text):
    """The one file of a directory that holds the text, and its content."""
    found = []
    for path in sorted(Path(copy, directory).rglob("*.*")):
        found += [(path, path.read_text())] * path.read_text().count(text) if path.is_file() else []
    assert len(found) == 1, f"{directory}: there {len(found)} times, not once: {text}"
    return found[0]


def run(command, environment):
    return subprocess.run(["timeout", "200", *command], capture_output=True, env=environment, cwd=environment["TMPDIR"],
                          errors="replace")


def failing_tests_of_library(build, everything, environment):
    """The first test that fails, or all of them; a hang and a crash count too."""
    failed = []
    for test_filter in ["-" + SLOW, SLOW]:
        done = run([build + "/tests/kelvane_tests", "--gtest_filter=" + test_filter,
                    f"--gtest_fail_fast={not everything:d}"], environment)
        failed += dict.fromkeys(re.findall(r"^\[  FAILED  \] (\S+?),? .*\(\d+ ms\)$", done.stdout, re.MULTILINE))
        failed += {0: [], 1: [] if failed else ["a test"], 124: ["a hang"]}.get(done.returncode, ["a crash"])
        if failed and not everything:
            break
    return failed


def failing_tests_of_program(build, everything, environment, path):
    failed = []
    environment = environment if everything else dict(environment, FAIL_FAST="1")
    first = [test for names, test in PROGRAM_TESTS.items() if path and re.search(names, str(path))]
    for test in dict.fromkeys(first + list(PROGRAM_TESTS.values())):
        done = run([sys.executable, "-B", os.path.join(TESTS, test), build + "/tools/kelvane-hash",
                    build + "/tests/libcall_shim.so"], environment)
        names = re.findall(r"^(?:FAIL|ERROR): (\w+) ", done.stderr, re.MULTILINE)
        failed += [] if done.returncode == 0 else dict.fromkeys(names or [test])
        if failed and not everything:
            break
    return failed


def main():
    work, *options = sys.argv[1:]
    copy, build = (os.path.join(os.path.abspath(work), name) for name in ("copy", "build"))
    shutil.rmtree(copy, ignore_errors=True)
    shutil.copytree(os.path.dirname(TESTS), copy, ignore=shutil.ignore_patterns("build", ".git"),
                    copy_function=shutil.copy)
    subprocess.run(["cmake", "-S", copy, "-B", build, "-DCMAKE_BUILD_TYPE=None", "-DCMAKE_CXX_FLAGS=-O1 -w",
                    "-DKELVANE_BUILD_EXAMPLES=OFF"], check=True, stdout=subprocess.DEVNULL)
    results = []
    for directory, line, before, after in [("src", "no bug", "", None), ("tools", "no bug", "", None), *bugs(options)]:
        path, original = place_of(copy, directory, before) if before else (None, "")
        if path:
            path.write_text(original.replace(before, after))
        targets = ["kelvane-hash", "call_shim"] if directory == "tools" else ["kelvane_tests"]
        made = subprocess.run(["cmake", "--build", build, "--parallel", "2", "-t", *targets], capture_output=True)
        if made.returncode:
            sys.exit(f"{directory}: does not compile: {line}\n{made.stderr.decode()[-2000:]}")
        with tempfile.TemporaryDirectory() as temporary:  # a crash leaves files behind
            environment = dict(os.environ, TMPDIR=temporary, GTEST_BRIEF="1")
            everything = "--all" in options
            tests = failing_tests_of_program(build, everything, environment, path) if directory == "tools" \
                else failing_tests_of_library(build, everything, environment)
        if not path:
            assert not tests, f"the tests fail without any bug: {tests}"
            continue
        path.write_text(original)
        results.append(bool(tests))
        print(f"{path.relative_to(copy)}: {line}\n    {'caught by ' + ', '.join(tests) if tests else 'NOT CAUGHT'}",
              flush=True)
    print(f"mutants: {len(results)} planted, {sum(results)} caught")
    return not all(results)


sys.exit(main())
