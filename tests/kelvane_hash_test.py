"""Drives kelvane-hash and the example programs from end to end: kelvane_hash_test.py PROGRAM SHIM [EXAMPLE EXAMPLE]
Expected hashes come from the images alone, by oracle.py, which checks the hash files too."""
import copy, fcntl, os, random, re, resource, shutil, signal, unittest
from itertools import product
from pathlib import Path
from random import randbytes
from subprocess import PIPE, Popen, run

from program import (BLOCK, DEVICE, EXAMPLES, FAR, ORACLE, PROGRAM, Case, built, doubt_here, drop_override, flip, has_warned,
                     images, main)

ENTRIES, ENTRY = 4096, 33  # in a hash file, the start of the entries and the size of one


def limit_files(size):
    """What a build for coverage counts goes elsewhere, for it would be cut off, too."""
    return {"preexec_fn": lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (size, size)),
            "env": dict(os.environ, GCOV_PREFIX="counts")}


def grown():
    built()
    with open("a", "ab") as file:
        file.write(bytes(range(200)) * 100)


def wrong():
    built()
    flip("a", 3 * BLOCK, 4 * BLOCK, 19 * BLOCK)


def torn():
    built()
    with open("a.hashes", "r+b") as file:
        os.pwrite(file.fileno(), bytes(16), ENTRIES + 512)  # a crash lost the second half of entry 15


def judged(image, doubt="", checked=0, repaired=0, recorded=True):
    return dict(image=image, believed=not doubt, doubt=doubt, checkedBlocks=checked, repairedBlocks=repaired,
                openForWriting=False, writers=[], recorded=recorded)


SINCE, TORN = "it was changed since", "the hash file was changed or replaced since they were recorded as true"
CUT_SHORT = "the last run was cut short"
NO_RECORD = "no record says that they are true of it"
BUILD = dict(verdict="done", hashFile="a.hashes", created=False, blockSize=BLOCK, knownBlocks=20, bytesRead=0, bytesOfHoles=0,
             bytesKnownBefore=20 * BLOCK, freshness=judged("a"), changedMeanwhile=[])
VERIFY = dict(verdict="wrong", image="a", good=False, blocksChecked=20, badBlocks=3, marked=False, recordedSize=20 * BLOCK + 100,
              imageSize=20 * BLOCK + 100, freshness=judged("a", SINCE, recorded=False), changedMeanwhile=[],
              bad=[dict(offset=DEVICE + 3 * BLOCK, length=2 * BLOCK), dict(offset=DEVICE + 19 * BLOCK, length=BLOCK)])
DIFF = dict(verdict="different", equal=False, bytes=3 * BLOCK + 100, comparisons=22, bytesRead=200, sizes=[20 * BLOCK + 100] * 2,
            freshness=[judged("a"), judged("b")], changedMeanwhile=[],
            differing=[dict(offset=DEVICE + 3 * BLOCK, length=2 * BLOCK),
                       dict(offset=DEVICE + 12 * BLOCK, length=BLOCK), dict(offset=DEVICE + 20 * BLOCK, length=100)])
SYNC = dict(verdict="equal", equal=True, bytesCompared=20 * BLOCK + 100, bytesCopied=3 * BLOCK + 100, ranges=3, comparisons=22,
            bytesRead=200, verified=False, freshness=[judged("a"), judged("b")], changedMeanwhile=[])
CHECKED, COPIED = "a: 20 known blocks checked, 0 repaired\n", "3 ranges, TIME"

# What was prepared, a command, its exit code, and all that it says, with and without --json.
ANSWERS = [
    (images, "build a", 0, dict(BUILD, created=True, bytesRead=20 * BLOCK, bytesKnownBefore=0),
     "a.hashes: 20 blocks known\n80.00 KiB read, 0 bytes of holes, 0 bytes known before, in TIME\n"),
    (built, "build a", 0, BUILD,
     "a.hashes: 20 blocks known\n0 bytes read, 0 bytes of holes, 80.00 KiB known before, in TIME\n"),
    (grown, "build a", 0, dict(BUILD, knownBlocks=24, bytesRead=24 * BLOCK, bytesKnownBefore=0,
                               freshness=judged("a", SINCE, 20), adaptedFrom=20 * BLOCK + 100),
     "a.hashes: 24 blocks known, adapted from 82,020 to 102,020 bytes\n"
     "96.00 KiB read, 0 bytes of holes, 0 bytes known before, in TIME\n" + CHECKED),
    (torn, "build a --after-crash", 0,
     dict(BUILD, bytesRead=20 * BLOCK, bytesKnownBefore=0, freshness=judged("a", TORN, 19), tornEntries=1),
     "a.hashes: 20 blocks known, torn hashes discarded: 1\n80.00 KiB read, 0 bytes of holes, 0 bytes known before, in "
     "TIME\na: 19 known blocks checked, 0 repaired\n"),
    (torn, "build a", 0, dict(BUILD, bytesRead=20 * BLOCK, bytesKnownBefore=0, freshness=judged("a", TORN, 20, 1)),
     "a.hashes: 20 blocks known\n80.00 KiB read, 0 bytes of holes, 0 bytes known before, in TIME\n"
     "a: 20 known blocks checked, 1 repaired\n"),
    (wrong, "build a --assume-unchanged", 0, dict(BUILD, freshness=judged("a", recorded=False)),
     "a.hashes: 20 blocks known\n0 bytes read, 0 bytes of holes, 80.00 KiB known before, in TIME\n"),
    (built, "verify a --mark", 0, dict(VERIFY, verdict="good", good=True, badBlocks=0, bad=[], freshness=judged("a")),
     "a: 20 known blocks checked, 0 wrong\n"),
    (wrong, "verify a", 1, VERIFY,
     "wrong: 1060864 + 8192\nwrong: 1126400 + 4096\na: 20 known blocks checked, 3 wrong\n"),
    (wrong, "verify a --mark -j 1", 1, dict(VERIFY, marked=True, freshness=judged("a", SINCE)),
     "wrong: 1060864 + 8192\nwrong: 1126400 + 4096\na: 20 known blocks checked, 3 wrong, now unknown\n"),
    (grown, "verify a", 1, dict(VERIFY, badBlocks=0, bad=[], imageSize=20 * BLOCK + 20100),
     "size: 102,020 bytes, 82,020 recorded; build adapts it\na: 20 known blocks checked, 0 wrong\n"),
    (built, "diff a b", 1, DIFF, "1060864 + 8192\n1097728 + 4096\n1130496 + 100\n"
     "# different: 12,388 bytes in 3 ranges; 22 comparisons, 200 bytes of data read\n"),
    (grown, "diff a b", 1,
     dict(DIFF, bytes=3 * BLOCK + 20100, sizes=[20 * BLOCK + 20100, 20 * BLOCK + 100], bytesRead=24 * BLOCK + 200,
          freshness=[judged("a", SINCE, 20), judged("b")],
          differing=DIFF["differing"][:2] + [dict(offset=DEVICE + 20 * BLOCK, length=20100)]),
     "1060864 + 8192\n1097728 + 4096\n1130496 + 20100\n# sizes: 102,020 bytes and 82,020 bytes\n# " + CHECKED +
     "# different: 32,388 bytes in 3 ranges; 22 comparisons, 98,504 bytes of data read\n"),
    (built, "sync a b", 0, SYNC,
     f"82,020 bytes compared by 22 comparisons and 200 bytes of data read, 12,388 bytes copied in {COPIED}\n"),
    (built, "sync a b --verify", 0, dict(SYNC, verified=True),
     f"82,020 bytes compared by 22 comparisons and 200 bytes of data read, 12,388 bytes copied in {COPIED}\n"
     "reread: equal\n"),
    (grown, "sync b a", 0, dict(SYNC, bytesRead=20 * BLOCK + 200, formerSize=20 * BLOCK + 20100,
                                freshness=[judged("b"), judged("a", SINCE, 20)]),
     CHECKED + f"82,020 bytes compared by 22 comparisons and 82,120 bytes of data read, 12,388 bytes copied in {COPIED}"
     "\na: 102,020 bytes before\n"),
]


def given_here(command, answer):
    """What is said where no image is believed: what is known is checked each time, and nothing of that is recorded."""
    answer = copy.deepcopy(answer)
    sides = answer["freshness"] if isinstance(answer["freshness"], list) else [answer["freshness"]]
    for side in sides if doubt_here() else []:
        side["recorded"] = False
        if "--assume-unchanged" in command or answer.get("created"):
            continue
        if side["believed"] and not command.startswith("verify"):
            side["checkedBlocks"] = 20
            answer["bytesRead"] += 20 * BLOCK
            answer.update({"bytesKnownBefore": 0} if "bytesKnownBefore" in answer else {})
        side.update(believed=False, doubt=doubt_here())
    return answer


class Answers(Case):
    def say(self, command, expect):
        done = self.call(command, expect).stdout
        return re.sub(r"\d+\.\d\d s|\d+:\d\d", "TIME", done)

    def test_every_command_says_what_it_found(self):
        for prepare, command, expect, answer, text in ANSWERS:
            with self.subTest(f"{prepare.__name__}: {command}"):
                found = []
                for ask in self.json, self.say:
                    for path in os.listdir():
                        os.remove(path)
                    random.seed(1)
                    prepare()
                    found.append(ask(command, expect))
                found[0].pop("seconds", None)
                self.assertEqual(found[0], here := given_here(command, answer))
                if here.get("bytesRead") == answer.get("bytesRead"):
                    self.assertEqual(found[1], text)

    def test_a_known_hash_is_believed_only_while_nothing_can_have_changed(self):
        self.need_belief()
        built()
        times = os.stat("a")
        flip("a", 5 * BLOCK)
        os.utime("a", ns=(times.st_atime_ns, times.st_mtime_ns))
        self.assertEqual(self.json("hash a --range 1M:100")["freshness"]["doubt"], SINCE)
        self.assertEqual(self.json("sync a b")["bytesCopied"], 4 * BLOCK + 100)
        self.assertEqual(Path("a").read_bytes(), Path("b").read_bytes())
        for option, answer in (("--check", judged("a", "that was asked for", 20)), ("--assume-unchanged", judged("a")),
                               ("", judged("a"))):
            self.assertEqual(self.json(f"build a {option}")["freshness"], answer)
        shutil.copyfile("a.hashes", "copy")  # as a user of the library may keep one
        self.assertEqual(self.json("build a --hash-file copy")["freshness"], judged("a", NO_RECORD, 20))
        Path("first").write_text("1\n")
        Path("second").write_text("2\n")
        for boot, doubt in (("first", "the machine was started again since"), ("first", ""),
                            ("second", "the machine was started again since")):
            self.assertEqual(self.json("build a", shim={"SHIM_BOOT": boot})["freshness"]["doubt"], doubt)
        self.call("build a")
        self.assertEqual(self.json("build a", shim={"SHIM_LATE": "99"})["freshness"]["doubt"],
                         "it changes all the time, or its times of change lie in the future")
        flip("a", 5 * BLOCK)
        self.call("build a", -signal.SIGKILL, shim={"SHIM_AT": "pwrite a.hashes", "SHIM_DO": "9"})
        self.assertEqual(self.json("build a")["freshness"]["doubt"], CUT_SHORT)
        changes = {"SHIM_AT": "read a", "SHIM_DO": "printf x | dd of=a bs=1 seek=70000 conv=notrunc status=none"}
        self.assertEqual(self.json("build a --check -j 1", 1, shim=changes)["changedMeanwhile"], ["a"])
        self.call("build a")
        flip("a", 5 * BLOCK)
        self.call("build a --check")
        Path("list").write_text("1048576 100\n")
        self.call("invalidate a --from list")
        disturbs = {"SHIM_AT": "read a",  # before it writes itself
                    "SHIM_DO": "printf x | dd of=a.hashes bs=1 seek=4500 conv=notrunc status=none"}
        self.assertIn("a.hashes: was changed or replaced", self.call("build a -j 1", 1, shim=disturbs).stdout)
        self.assertRegex(self.json("build a")["freshness"]["doubt"], "hash file was changed by something else while")
        grows = {"SHIM_AT": "fsync a", "SHIM_DO": "head -c 5000 /dev/zero >>a"}  # between its opening and a first look
        self.assertIn("changed: a was changed while", self.call("build a --check", 1, shim=grows).stdout)
        os.truncate("a", 20 * BLOCK + 100)
        self.call("build a")
        shutil.copyfile("a", "same")
        touched = {"SHIM_AT": "read a", "SHIM_DO": "touch a"}
        done = self.call("diff a same --check -j 1", 1, shim=touched)
        self.assertRegex(done.stdout, r"\n# changed: a .*\n# undecided; ")
        self.call("verify a")
        self.assertIn("unchanged", self.call("info a.hashes").stdout)
        Path("a.hashes.state").write_text(Path("a.hashes.state").read_text().replace("82020", "82021"))
        self.assertEqual(self.json("build a")["freshness"]["doubt"], NO_RECORD)  # its checksum

    def test_a_hash_file_of_another_image_is_taken_over_only_when_that_is_said(self):
        built()
        shutil.copyfile("a.hashes", "copy")
        self.call("build a --hash-file copy --check")
        shutil.copyfile("copy", "other")
        shutil.copyfile("a", "b")
        Path("c").write_bytes(bytes(50000))
        self.check_complaint("build c --hash-file copy",
                             "copy: made for .*an image of 82,020 bytes, not for c of 50,000")
        self.check_complaint("build c --hash-file other",
                             "other: made for an image of 82,020 bytes, not for c of 50,000")
        self.check_complaint("build b --hash-file a.hashes", "made for .*/a, an image of 82,020 bytes, not for b of")
        self.check_complaint("verify b --hash-file a.hashes --mark", "a.hashes: what is wrong of b may be true of .*/a")
        self.call("build a --check", -9, shim={"SHIM_AT": "fsync a.hashes", "SHIM_DO": "9"})
        Path("list").write_text(f"{DEVICE} 1\n")
        self.check_complaint("invalidate c --from list --hash-file a.hashes", "another image has taken its place")
        self.assertEqual(self.json("build b --hash-file a.hashes --adopt")["freshness"],
                         judged("b", NO_RECORD, 20, recorded=not doubt_here()))


class KelvaneHash(Case):
    def test_build_hash_info_of_a_partition_with_holes(self):
        block, size, start = 10000, 2000 * 10000 + 777, 1048576 + 512
        Path("p").write_bytes(randbytes(123 * block))
        os.truncate("p", size)
        flip("p", 1800 * block + 5)
        for jobs in 1, 3:
            build = f"build p --hash-file p{jobs} --partition-offset {start} --block-size {block} -j {jobs}"
            result = self.json(build)
            self.assertEqual(result["bytesRead"] + result["bytesOfHoles"], 2000 * block)
            self.assertLess(result["bytesRead"], 130 * block)
        self.assertEqual(Path("p1").read_bytes(), Path("p3").read_bytes())
        self.assertEqual(self.json(build)["bytesKnownBefore"], 0 if doubt_here() else 2000 * block)
        known = dict(targetEnd=start + size, partitionOffset=start, knownBlocks=2000, partialBlockBytes=777)
        info = self.json("info p3")
        self.assertLessEqual(known.items(), info.items())
        self.assertEqual((info["record"]["clean"], info["freshness"]["believed"], info["freshness"]["doubt"]),
                         (not doubt_here(), not doubt_here(), doubt_here()))
        ranges = [f"{start + at}:{n}" for at, n in ((0, size), (5000, size - 5000), (block, block), (17, 10), (7, 0))]
        hashes = [self.json(f"hash p --hash-file p3 --range {at}")["hash"] for at in ranges]
        self.assertEqual(self.call(f"p3 p {' '.join(ranges)}".replace(":", " "), program=ORACLE).stdout.split(), hashes)
        flip("p3", ENTRIES + 2 * ENTRY + 20)
        self.assertEqual(self.call("p3 p", 1, ORACLE).stdout, "block 2 has another digest\n")

    def test_verify_samples_and_build_repairs(self):
        Path("v").write_bytes(randbytes(2000 * BLOCK + 1))
        self.call("build v")
        self.assertEqual(self.json("verify v --sample 0.2")["blocksChecked"], 400)
        self.assertEqual(self.json("verify v --sample 0.000000001")["blocksChecked"], 16)
        flip("v", *range(0, 2000 * BLOCK, BLOCK))
        chosen = self.json("verify v --sample 0.1", 1)
        same, other = (self.json(f"verify v --sample 0.1 --seed {chosen['seed'] ^ i}", 1)["bad"] for i in (0, 1))
        self.assertTrue(chosen["bad"] == same != other, "the seed chooses the blocks")
        self.call("verify v --mark --sample 0.1", 1)
        info = self.json("info v.hashes")
        self.assertEqual(info["unknownBlocks"], chosen["badBlocks"])
        self.assertRegex(info["map"], r"\A[+#.]{64}\Z")
        self.assertIn("+", info["map"])  # pieces of 16 blocks in cells of 31
        self.assertEqual(self.json("build v")["freshness"]["repairedBlocks"], 2000 - chosen["badBlocks"])
        self.check_hash_file("v")

    def test_diff(self):
        block, a = 5000, randbytes(5000000 + 100)
        Path("a").write_bytes(a)
        Path("b").write_bytes(a + bytes(5000))
        flip("b", 0, block - 1, block, 500 * block + 7, 999 * block, 1000 * block + 99)
        result = self.json("diff a b --partition-offset 1M --block-size 5000", 1)
        differing = [(found["offset"] - DEVICE, found["length"]) for found in result["differing"]]
        self.assertEqual(differing, [(0, 2 * block), (500 * block, block), (999 * block, block + 5100)])
        self.assertEqual(result["bytesRead"], 2 * len(a))
        result = self.json("diff a b --assume-unchanged", 1)
        self.assertTrue(result["bytesRead"] == 2 * 100 and result["comparisons"] < 120, result)
        for end in b"", bytes(1):
            Path("c").write_bytes(a + end)
            self.assertEqual(self.json("diff a c --partition-offset 1M", len(end))["equal"], not end)

    def test_interrupted_commands_go_on_where_they_stopped(self):
        Path("s").write_bytes(randbytes(80 << 20))
        for jobs in 1, 2:
            Path("s.hashes").unlink(missing_ok=True)
            place = self.at(f"build s -j {jobs}", "read s", 0.4)
            Path("s.hashes").unlink()
            begun = {"SHIM_AT": place, "SHIM_DO": "2", "SHIM_LOG": f"calls{jobs}"}
            self.assertIn("goes on from here", self.call(f"build s -j {jobs}", 130, shim=begun).stderr)
            calls = Path(f"calls{jobs}").read_text().splitlines()
            known = self.json("info s.hashes")["knownBlocks"]
            self.assertTrue(0 < known < 15000, known)
            last = {name: max((i for i, call in enumerate(calls) if call == name), default=-1)
                    for name in ("pwrite s.hashes", "fsync s.hashes", "pwrite s.hashes.state")}
            self.assertEqual(list(last), sorted(last, key=last.get), "what was done is on the disk, and recorded")
            again = self.json(f"build s -j {jobs}")
            self.assertEqual(again["bytesKnownBefore"], 0 if doubt_here() else known * BLOCK)
            self.assertEqual(again["freshness"]["checkedBlocks"], known if doubt_here() else 0)
        self.call("build s")
        for command in "build s --check -j 1", "verify s -j 1", "sync s s2 --verify":
            self.call(command)
            done = self.call(command, 143, shim={"SHIM_AT": self.at(command, "read s", 0.8), "SHIM_DO": "15"})
            self.assertIn("interrupted; the hash files are in order, the same command checks everything", done.stderr)
        self.call("build s --check", -signal.SIGTERM, shim={"SHIM_AT": "read s", "SHIM_DO": "15 15"})

    def check_order(self, calls, known):
        """Before b is written, the hashes of all that will be, where they are known, are forgotten on the disk; no hash is
        stored while data of its block is not there. Returns the number of flushes of b that had data to write."""
        unflushed, flushing, forgotten, written = {"b": set(), "b.hashes": set()}, {}, set(), set()
        flushes = awaited = dirty = 0
        for kind, name, *numbers in (call.split(" ") for call in calls):
            if name not in unflushed:
                continue
            if kind == "fsync":
                flushing[name] = set(unflushed[name])
                flushes += name == "b" and bool(unflushed[name])
            elif (kind, name) == ("await", "b"):
                self.assertEqual(numbers[0], str(awaited), "what the disk began with first is waited for first")
                awaited += int(numbers[1])
            elif kind == "fsynced":
                unflushed[name] -= flushing[name]
            elif kind in ("pwrite", "fallocate"):
                start, length = map(int, numbers)
                if name == "b":
                    dirty += length
                    self.assertLess(dirty - awaited, 130 << 20, "too much is on its way to the disk")
                    self.assertTrue(written or not unflushed["b.hashes"], unflushed["b.hashes"])
                    written.update(range(start // BLOCK, (start + length) // BLOCK))
                    unflushed["b"].add((start, start + length))
                elif start >= ENTRIES:
                    first, end = (start - ENTRIES) // ENTRY * BLOCK, -(-(start + length - ENTRIES) // ENTRY) * BLOCK
                    early = [data for data in unflushed["b"] if data[0] < end and first < data[1]]
                    self.assertFalse(early, (first, end))
                    unflushed[name].add((first, end))
                    forgotten.update(range(first // BLOCK, end // BLOCK) if not written else ())
        self.assertFalse(unflushed["b"] | unflushed["b.hashes"])
        self.assertTrue(not known or set() < written <= forgotten, written - forgotten)
        return flushes

    def test_no_crash_leaves_a_hash_of_what_is_not_there(self):
        """Few flushes are needed for that; where the clock runs fast, many, while other data is written."""
        built()
        Path("a").write_bytes(randbytes(140 << 20))
        commands = "sync a b --adopt -j 1", "sync a b --check", "sync a b", f"sync a h:b {FAR}"
        flushes = {"1": [], "100000": []}
        for clock, command in [*product(["1"], commands), *product(["100000"], commands[:3])]:
            if clock != "1":
                os.truncate("b", 0)
            calls = self.calls(command, SHIM_RANGES="1", SHIM_CLOCK=clock)
            flushes[clock].append(self.check_order(calls, clock == "1" and "-j 1" not in command))
            self.assertEqual(self.json("info b.hashes")["unknownBlocks"], 0, command)
            flip("b" if "-j 1" in command else "a", *range(0, 140 << 20, 1 << 20))
        self.assertTrue(max(flushes["1"]) <= 2 < max(flushes["100000"]), flushes)
        for size, at, error in (
                (90 << 20, "fsync b", 5), (90 << 20, "fsync b.hashes", 5), (BLOCK, "fsync b", 30), (0, "await b", 30),
                (BLOCK, "fsync b.hashes#2", 5), (0, "pwrite b.hashes#4,pwrite b.hashes#5", 5)):
            os.truncate("b", size)
            self.call("build b --adopt")
            fails = {"SHIM_AT": at, "SHIM_DO": f"fail {error}"}
            self.check_complaint("sync a b", f"b.*: {os.strerror(error)}", shim=fails)
            self.assertRegex(Path("b.hashes.state").read_text(), "open|flush failed", at)
        self.call("verify b --mark")

    def test_a_failed_store_leaves_no_half_hash(self):
        images()
        self.call("build a --hash-file known")
        for jobs in 1, 2:
            for end in 10 * ENTRY + 17, 19 * ENTRY + 32:
                Path("a.hashes").write_bytes(Path("known").read_bytes()[:ENTRIES].ljust(2 * ENTRIES, b"\0"))
                self.check_complaint(f"build a -j {jobs}", "a.hashes: .*File too large", **limit_files(ENTRIES + end))
                self.call("a.hashes a", program=ORACLE)

    def test_an_image_that_cannot_be_read(self):
        for jobs in 1, 2:
            for name, at, do, cause in (
                    ("cut", "read cut", f"truncate -s {50 * BLOCK + 10} cut",
                     f"at offset {50 * BLOCK + 10}: .*ends here"),
                    ("gone", "populated -", f"truncate -s {50 * BLOCK} gone", f"at offset {50 * BLOCK}: .*ends here"),
                    ("tail", "populated -", f"truncate -s {99 * BLOCK + 1} tail",
                     f"at offset {99 * BLOCK + 1}: .*ends"),
                    ("bad", "populate -,read bad", "fail", "at offset 0: cannot read: Input/output error")):
                if at == "populated -" and (doubt_here() or has_warned()):
                    continue  # nothing is mapped there
                Path(name).write_bytes(randbytes(100 * BLOCK))
                Path(name + ".hashes").unlink(missing_ok=True)
                shim = {"SHIM_AT": at, "SHIM_DO": do}
                self.check_complaint(f"build {name} -j {jobs} --adopt", f"{name}: {cause}", shim=shim)
                self.assertEqual(self.json(f"info {name}.hashes")["knownBlocks"], 0)

    def test_runs_at_once_and_a_hash_file_that_cannot_be_written(self):
        images()
        flip("b", 20 * BLOCK)
        started = [Popen([PROGRAM, "build", "a", "--jobs=2"], stdout=PIPE, stderr=PIPE, text=True) for _ in range(40)]
        for process in started:
            complaint = process.communicate()[1]
            self.assertIn((process.returncode, "the hash file is in use, or was given twice\n" in complaint),
                          ((0, False), (2, True)), complaint)
        self.assertEqual(sorted(os.listdir()), ["a", "a.hashes", "a.hashes.state", "b"])
        self.check_hash_file("a")
        self.call("build b")
        os.chmod("a.hashes", 0o444)
        as_user = {"preexec_fn": drop_override}
        for command, expect in ("verify a", 0), ("hash a --range 0:50000", 0), ("diff a b", 1), ("sync a new", 0):
            self.call(command, expect, **as_user)
        flip("a", 7)
        self.check_complaint("hash a", "a.hashes: hashes have to be stored, but the hash file cannot be", **as_user)
        with open("a.hashes") as file:
            fcntl.flock(file, fcntl.LOCK_EX)
            self.assertEqual(self.json("info a.hashes", **as_user)["map"], "#" * 20)
            self.check_complaint("verify a", "in use")

    def test_time_and_memory(self):
        Path("t").write_bytes(randbytes(4 << 20))
        self.assertRegex(self.call("build t", shim={"SHIM_CLOCK": "10000000"}).stdout, r" in \d+:\d\d:\d\d\n")
        Path("u").write_bytes(randbytes(1 << 20))
        for command in "build u --block-size 4294967295", "sync u w", "diff u w", "verify u":
            self.check_memory(command, 2 << 30)

    @unittest.skipUnless(EXAMPLES, "the examples were not built")
    def test_examples(self):
        run(["truncate", "-s", str(500 * BLOCK + 9), "x", "y"], check=True)
        flip("y", 77 * BLOCK + 5, 500 * BLOCK + 8)
        expected = [f"differ: {77 * BLOCK} + {BLOCK}", f"differ: {500 * BLOCK} + 9"]
        self.assertEqual(self.call("x y", 1, EXAMPLES[1]).stdout.splitlines()[:-1], expected)
        self.call("x x.hashes", program=EXAMPLES[0])

    def test_errors_are_one_line_with_the_file_and_the_cause(self):
        Path("e").write_bytes(randbytes(1000 * BLOCK))
        Path("f").write_bytes(randbytes(1000 * BLOCK))
        os.mkfifo("pipe")
        self.call("build e")
        self.call("build f --block-size 8K")
        hashes = Path("e.hashes").read_bytes()
        Path("cut").write_bytes(hashes[:-4096])
        for offset in 8, 16, 25, 48:  # version, start of the entries, block size, hash function
            Path("odd").write_bytes(hashes[:offset] + bytes([0 if offset == 25 else 7]) + hashes[offset + 1:])
            self.check_complaint("info odd", f"odd: at offset {offset // 8 * 8}: .*not known")
        for command, cause in (
                ("build missing", "missing: .*No such file"), ("build .", "neither"), ("build pipe", "neither"),
                ("nonsense", "--help"), ("info e", "e: at offset 0: not a hash file"),
                ("diff e e", "e.hashes: given as .* of both"), ("sync e e.hashes", "e.hashes: .*a hash file"),
                ("sync e new --dest-hash-file new/x", "new/x: cannot make .*No such"),
                ("build e --hash-file e", "e: given as an image and as"), ("build e.hashes", "e.hashes: .*a hash file"),
                ("info cut", "cut: .*remove it to start anew"), ("verify e --hash-file none", "none: .*No such file"),
                ("diff e f", "f.hashes.* 4,096 bytes|f.hashes.* 8,192 bytes"),
                ("build e --block-size 8K", "e.hashes: at offset 24"), ("hash e --partition-offset 1", " offset 40"),
                (f"build e --hash-file h --partition-offset {(1 << 63) - 1}", "e: the partition offset is too large"),
                ("hash e --range 4092K:8192", "e: at offset 4190208: .*8,192")):
            self.check_complaint(command, cause)
        self.assertFalse(os.path.exists("new"), "the destination is made once all is in order")
        with open("/dev/full", "w") as full:
            for command in "--help", "--version", "info e.hashes":
                self.check_complaint(command, "standard output: cannot write", stdout=full)
        self.check_complaint("sync e large", "large: .*File too large", **limit_files(1 << 20))
        self.assertEqual(list(Path().glob("large*")), [])


main()
