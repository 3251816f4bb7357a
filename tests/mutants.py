#!/usr/bin/env python3
"""Do the tests bite? Plants one bug at a time, and runs the tests: those of the library for a bug in src/ or include/,
those of the program for one in tools/. Without --sample the bugs are those of mutants.txt, which must all be noticed.

    mutants.py WORK_DIRECTORY [--in FOLDERS] [--sample N [--seed S]] [--all] [TEXT]...

--in        src,include: only bugs in these folders, and only the tests of these
--sample N  bugs made by a machine (bugs.py): N in the library and N in the program, from lines drawn by the seed
--all       names all tests that notice, not only the first
TEXT        only bugs that hold it in their line of mutants.txt, or in the name of their file"""
import argparse, filecmp, itertools, json, math, os, random, re, shlex, shutil, signal, subprocess, sys, time
from collections import Counter
from concurrent.futures import FIRST_COMPLETED, ThreadPoolExecutor, wait
from pathlib import Path
from queue import Queue

from bugs import Bug, all_bugs

TESTS = Path(__file__).resolve().parent
SLOW = "*FaultSweep*:CrashTest*:CorruptFile*"
BROKEN, SAME, NOTICED, SURVIVED, UNDECIDED = "DOES NOT COMPILE", "THE SAME", "noticed", "SURVIVED", "NOT DECIDED"
LIBRARY, PROGRAM = ("kelvane_tests",), ("kelvane-hash", "message_tests")  # what a bug is built into
FOLDERS = {LIBRARY: ("src", "include"), PROGRAM: ("tools",)}


class Tree:
    """The sources, and what was built of them. One is without bugs, `base`; bugs are planted in others, whose objects
    are their own where they depend on the bug, and the base's otherwise."""

    def __init__(self, directory, base=None, targets=()):
        self.directory, self.base = Path(directory), base
        self.source, self.build, self.room = (self.directory / name for name in ("source", "build", "room"))
        shutil.rmtree(self.source, ignore_errors=True)
        shutil.copytree(base.source if base else TESTS.parent, self.source,
                        ignore=shutil.ignore_patterns("build", ".git", "__pycache__"))
        if base:
            shutil.rmtree(self.build, ignore_errors=True)
            (self.build / "include").mkdir(parents=True)
            (self.build / "include/kelvane").symlink_to(self.source / "include")
        else:
            self.make(targets)

    def make(self, targets):
        # Objects must be equal where the code is.
        flags = f"-O2 -w -frandom-seed=0 -ffile-prefix-map={self.directory}/="
        configure = ["-DCMAKE_BUILD_TYPE=None", "-DCMAKE_CXX_FLAGS=" + flags, "-DCMAKE_EXPORT_COMPILE_COMMANDS=ON",
                     "-DKELVANE_BUILD_EXAMPLES=OFF"]
        build = ["--parallel", str(os.cpu_count()), "--target", *targets, "call_shim"]
        for step in ["-S", self.source, "-B", self.build, *configure], ["--build", self.build, *build]:
            subprocess.run(["cmake", *step], check=True, stdout=subprocess.DEVNULL)
        self.commands = self.build / "compile_commands.json"
        self.objects = {}  # how each is compiled, and from which of the sources
        for entry in json.loads(self.commands.read_text()):
            compiled = Path(entry["directory"], re.search(r" -o (\S+)", entry["command"])[1])
            if compiled.exists():
                words = Path(f"{compiled}.d").read_text().replace("\\\n", " ").split()[1:]
                self.objects[compiled] = entry["command"], {Path(entry["directory"], word).resolve() for word in words}
        self.links = {path.parts[-2].partition(".dir")[0]: path for path in self.build.rglob("link.txt")}

    def compile(self, file, program):
        """The objects that are others than the base's, each with the base's. None: the bug does not compile."""
        made = {}
        for number, (original, (command, sources)) in enumerate(self.base.objects.items()):
            if self.base.source / file in sources and of_program(original) == program:
                command = command.replace(f"{self.base.directory}/", f"{self.directory}/")
                made[original] = self.build / f"{number}.o"
                command = re.sub(r" -o \S+", f" -o {made[original]}", command)
                if subprocess.run(shlex.split(command), cwd=self.directory, capture_output=True).returncode:
                    return None
        return {original: own for original, own in made.items() if not filecmp.cmp(original, own, shallow=False)}

    def link(self, target, made):
        """What the libraries have too is taken from the object that comes first."""
        directory = self.base.links[target].parents[2]
        (self.build / directory.name).mkdir(exist_ok=True)
        words = shlex.split(self.base.links[target].read_text())
        libraries = tuple(f"/{name}.dir/" for name in re.findall(r"/?lib(\w+)\.a\b", " ".join(words)))
        own = {os.path.relpath(original, directory): str(path) for original, path in made.items()}
        extra = [path for name, path in own.items() if any(library in name for library in libraries)]
        output = words.index("-o")
        words[:output + 2] = [own.get(word, word) for word in words[:output]] + extra + ["-o", self.program(target)]
        subprocess.run(words, cwd=directory, check=True, capture_output=True)

    def program(self, target):
        base = self.base or self
        return str(self.build / base.links[target].parents[2].name / target)

    def run(self, command, limit, environment):
        """Exit code and output; the code is None when the time is up."""
        environment = os.environ | {"TMPDIR": str(self.room), "GTEST_BRIEF": "1"} | environment
        shutil.rmtree(self.room, ignore_errors=True)  # a crash leaves files behind
        self.room.mkdir()
        with open(self.directory / "output", "w+", errors="replace") as output:
            process = subprocess.Popen(["prlimit", f"--as={16 << 30}", "--core=0", *map(str, command)], cwd=self.room,
                                       env=environment, stdout=output, stderr=subprocess.STDOUT, start_new_session=True)
            try:
                code = process.wait(limit)
            except subprocess.TimeoutExpired:
                code = None
            try:
                os.killpg(process.pid, signal.SIGKILL)  # what is left of it, too
            except ProcessLookupError:
                pass
            process.wait()
            output.seek(0)
            return code, output.read()


def of_program(path):
    """Whether an object is part of the program, or of the tests that are built with its sources."""
    return bool(re.search(r"/(kelvane_tool|kelvane-hash|message_\w+)\.dir/", str(path)))


class Suite:
    """Tests that one command runs."""

    def __init__(self, name, command, targets, chooses, chosen):
        """`chooses`: the variable of the environment that chooses tests."""
        self.name, self.command, self.targets, self.chooses, self.chosen = name, command, targets, chooses, chosen
        self.seconds = 0

    def run(self, tree, programs, chosen, everything):
        """The tests that fail. None: the time was up, be it a test's own."""
        limit = 30 + 5 * self.seconds if self.seconds else None
        until = {} if everything else {"FAIL_FAST": "1", "GTEST_FAIL_FAST": "1"}
        code, output = tree.run(self.command(programs), limit, {self.chooses: chosen} | until)
        if code == 0:
            return []
        if code is None or "TimeoutExpired" in output:
            return None
        names = re.findall(r"^\[  FAILED  \] (\S+?),? .*\(\d+ ms\)$|^(?:FAIL|ERROR): (\w+) ", output, re.MULTILINE)
        return list(dict.fromkeys("".join(each) for each in names)) or [f"{self.name} (exit code {code})"]

    def failing(self, tree, everything, programs):
        """Likewise, and None, too, where the first of them does not fail again, alone."""
        failed = self.run(tree, programs, self.chosen, everything)
        if failed and not self.run(tree, programs, self.chosen if "(" in failed[0] else failed[0], everything):
            return None
        return failed


def suites_of(base, part):
    """Of the library or of the program. The program's tests are the files that say they are called so."""
    shim = base.build / "tests/libcall_shim.so"
    if part == LIBRARY:
        return [Suite(name, lambda programs: [programs[0]], LIBRARY, "GTEST_FILTER", chosen)
                for name, chosen in (("kelvane_tests", "-" + SLOW), ("kelvane_tests, the slow ones", SLOW))]
    program = [Suite(path.name, lambda programs, path=path: [sys.executable, "-B", path, programs[0], shim],
                     PROGRAM, "ONLY", "")
               for path in sorted((base.source / "tests").glob("*_test.py"))
               if "_test.py PROGRAM SHIM" in path.read_text()]
    return [Suite("message_tests", lambda programs: [programs[1]], PROGRAM, "GTEST_FILTER", "*"), *program]


class Judge:
    def __init__(self, work, everything, parts):
        self.everything, self.base = everything, Tree(work / "base", targets=itertools.chain(*parts))
        self.trees, self.noticed = Queue(), Counter()
        count = os.cpu_count()
        with ThreadPoolExecutor(count) as self_test:
            trees = list(self_test.map(lambda number: Tree(work / f"tree{number}", self.base), range(count)))
            self.suites = {part: suites_of(self.base, part) for part in parts}
            for failed in self_test.map(self.without_bug, trees):  # at once, as later
                assert not failed, f"the tests fail without any bug: {failed}"
        for tree in trees:
            self.trees.put(tree)

    def without_bug(self, tree):
        failed = []
        for suite in itertools.chain(*self.suites.values()):
            start = time.monotonic()
            programs = [self.base.program(target) for target in suite.targets]
            failing = suite.run(tree, programs, suite.chosen, False)
            failed += [suite.name + " (too long)"] if failing is None else failing
            suite.seconds = max(suite.seconds, time.monotonic() - start)
        return failed

    def order(self, suites, file):
        """The suites that are likely to notice, and do not take long, first."""
        words = [word.lower() for word in re.findall("[A-Z]?[a-z]+", file)]
        def cost(suite):
            named = any(word in suite.name for word in words)
            return suite.seconds / (0.2 + named + self.noticed[suite.name, os.path.dirname(file)])
        return sorted(suites, key=cost)

    def judge(self, bug):
        """The outcome, and what noticed."""
        tree = self.trees.get()
        path = tree.source / bug.file
        original = path.read_text(encoding="latin-1")
        try:
            path.write_text(bug.planted(original), encoding="latin-1")
            program = bug.file.startswith("tools/")
            made = tree.compile(bug.file, program)
            if not made:
                return BROKEN if made is None else SAME, []
            targets = PROGRAM if program else LIBRARY
            for target in targets:
                tree.link(target, made)
            return self.test(tree, bug, targets)
        finally:
            path.write_text(original, encoding="latin-1")
            self.trees.put(tree)

    def test(self, tree, bug, targets):
        noticed, outcome = [], SURVIVED
        for suite in self.order(self.suites[targets], bug.file):
            failing = suite.failing(tree, self.everything, [tree.program(target) for target in targets])
            if failing is None:
                outcome = UNDECIDED
            elif failing:
                self.noticed[suite.name, os.path.dirname(bug.file)] += 1
                noticed += failing
                if not self.everything:
                    break
        return NOTICED if noticed else outcome, noticed

    def judge_all(self, bugs, wanted=math.inf):
        """Yields each bug with its outcome, until `wanted` of them could be tested. Which they are does not depend on
        how long each takes."""
        running, tested = {}, 0
        with ThreadPoolExecutor(self.trees.qsize()) as pool:
            while True:
                while len(running) < min(wanted - tested, os.cpu_count()) and (bug := next(bugs, None)):
                    running[pool.submit(self.judge, bug)] = bug
                if not running:
                    return
                for done in wait(running, return_when=FIRST_COMPLETED).done:
                    tested += done.result()[0] not in (SAME, BROKEN)
                    yield running.pop(done), *done.result()


def listed_bugs(root, texts):
    """Those of mutants.txt. Ends the program with a list of those that do not apply."""
    bugs, stale = [], []
    for line in (TESTS / "mutants.txt").read_text().splitlines():
        if line.startswith("@ "):
            directory = line[2:]
        elif not line.startswith("# ") and all(text in line for text in texts):
            before, after = (part.strip(" ").replace(r"\n", "\n") for part in line.split("=>", 1))
            found = [(path, match.start()) for path in sorted((root / directory).rglob("*.*")) if path.is_file()
                     for match in re.finditer(re.escape(before), path.read_text(encoding="latin-1"))]
            if len(found) == 1:
                path, start = found[0]
                bugs.append(Bug(str(path.relative_to(root)), start, start + len(before), after, "listed"))
            else:
                stale.append(f"there {len(found)} times, not once, in {directory}: {line}")
    if stale:
        sys.exit("mutants.txt:\n" + "\n".join(stale))
    return bugs


def known_equivalents():
    """Those of equivalent_mutants.txt, as file, operator, and the line before and after."""
    for line in (TESTS / "equivalent_mutants.txt").read_text().splitlines():
        if line.startswith("@ "):
            file = line[2:]
        elif line and not line.startswith("# "):
            operator, _, change = line.partition(": ")
            yield file, operator, *(part.strip() for part in re.split(" => ?", change, maxsplit=1))


def sampled_bugs(lines, contents, equivalents, seed):
    """One bug of each line, the lines in an order drawn by the seed; then a second one of each."""
    lines = [[bug for bug in bugs if (bug.file, bug.operator, *bug.shown(contents[bug.file])) not in equivalents]
             for _, bugs in sorted(lines.items())]
    draw = random.Random(seed)
    draw.shuffle(lines)
    for bugs in lines:
        draw.shuffle(bugs)
    return filter(None, itertools.chain.from_iterable(itertools.zip_longest(*lines)))


class Report:
    def __init__(self, contents):
        self.contents, self.results = contents, []

    def add(self, bug, outcome, tests):
        self.results.append((bug, outcome))
        if outcome not in (SAME, BROKEN) or bug.operator == "listed":
            content = self.contents[bug.file]
            before, after = bug.shown(content)
            by = " by " + ", ".join(tests) if tests else ""
            print(f"{bug.file}:{bug.line(content)}: {bug.operator}: {outcome}{by}")
            print(f"    - {before}\n    + {after}", flush=True)

    def count(self, outcome, part=""):
        return sum(found == outcome for bug, found in self.results if bug.file.startswith(part))

    def line(self, title, part=""):
        noticed, survived, undecided = (self.count(outcome, part) for outcome in (NOTICED, SURVIVED, UNDECIDED))
        decided = noticed + survived
        share = f"{100 * noticed / decided:.0f}%" if decided else "-"
        return f"{title:24}{noticed:9}{survived:9}{undecided:12}{share:>8}"

    def table(self, title):
        folders = sorted({os.path.dirname(bug.file) + "/" for bug, _ in self.results})
        print(f"\n{title:24}  noticed survived not decided  share")
        print("\n".join([*(self.line(folder, folder) for folder in folders), self.line("all")]))
        print(f"besides: {self.count(BROKEN)} did not compile, {self.count(SAME)} made the same object code\n")


def main():
    parser = argparse.ArgumentParser(usage=__doc__)
    parser.add_argument("work", type=lambda name: Path(name).resolve())
    parser.add_argument("texts", nargs="*")
    parser.add_argument("--in", dest="folders", default=["src", "include", "tools"], type=lambda text: text.split(","))
    parser.add_argument("--sample", type=int)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--all", action="store_true")
    options = parser.parse_args()
    listed = listed_bugs(TESTS.parent, options.texts) if options.sample is None else None
    parts = [part for part, folders in FOLDERS.items() if set(folders) & set(options.folders)]
    judge = Judge(options.work, options.all, parts)
    root = judge.base.source
    contents = {str(path.relative_to(root)): path.read_text(encoding="latin-1")
                for folder in options.folders for path in (root / folder).rglob("*.*") if path.is_file()}
    if listed is not None:
        report = Report(contents)
        for result in judge.judge_all(bug for bug in listed if bug.file in contents):
            report.add(*result)
        report.table("listed bugs")
        return report.count(NOTICED) < len(report.results)
    lines = {place: bugs for place, bugs in all_bugs(root, judge.base.commands, os.cpu_count()).items()
             if place[0] in contents}
    equivalents = {known for known in known_equivalents() if known[0].split("/")[0] in options.folders}
    known = {(bug.file, bug.operator, *bug.shown(contents[bug.file])) for bugs in lines.values() for bug in bugs}
    many = sum(map(len, lines.values()))
    print(f"{many} bugs can be made in {len(lines)} lines; {len(equivalents & known)} of them are none", flush=True)
    for part in parts:
        chosen = {place: bugs for place, bugs in lines.items() if place[0].startswith(FOLDERS[part])
                  and all(text in place[0] for text in options.texts)}
        report = Report(contents)
        for result in judge.judge_all(sampled_bugs(chosen, contents, equivalents, options.seed), options.sample):
            report.add(*result)
        report.table(f"{', '.join(FOLDERS[part])}, seed {options.seed}")
    for stale in sorted(equivalents - known):
        print("equivalent_mutants.txt: no such bug:", *stale, sep="\n    ")
    return bool(equivalents - known)


sys.exit(main())
