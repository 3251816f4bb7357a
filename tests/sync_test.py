"""Two images made equal on one machine: sync_test.py PROGRAM SHIM"""
import json, os, resource, shutil, subprocess, unittest
from pathlib import Path
from random import randbytes

from frames import HELLO
from program import BLOCK, DEVICE, FAR, Case, built, doubt_here, drop_override, flip, has_warned, main


def on_disk(name):
    return os.stat(name).st_blocks * 512


def stamps():
    images = {name: os.stat(name) for name in os.listdir() if ".hashes" not in name}
    return {name: (image.st_mtime_ns, image.st_size, image.st_ino) for name, image in images.items()}


def in_memory(name):
    return int(subprocess.run(["fincore", "-bnoRES", name], stdout=subprocess.PIPE, check=True).stdout)


class Sync(Case):
    def test_block_sizes_are_those_of_hash_files_that_are_there(self):
        Path("source").write_bytes(randbytes(70 * BLOCK + 300))
        self.call("build source --hash-file large --block-size 64K")
        self.call("sync source other --source-hash-file large")
        self.call("build other --hash-file small --block-size 512")
        self.call("diff source other --hash-file-a made --hash-file-b small")
        self.assertEqual([self.json(f"info {name}")["blockSize"] for name in ("other.hashes", "made")], [65536, 512])

    def test_a_new_destination_teaches_both_sides_what_is_read(self):
        """Of the source nothing was known, or some, of which some was wrong; DEST is missing, or was emptied."""
        Path("list").write_text(f"{20 * BLOCK} + 1\n")
        for source, destination in ("a", "t"), ("a", "h:t"), ("h:a", "t"):
            for path in [*Path().glob("a*"), *Path().glob("t*")]:
                path.unlink()
            for unknown in 50, 1:
                Path("a").write_bytes(bytes(9 * BLOCK) + randbytes(41 * BLOCK + 9))
                if unknown == 1:
                    self.call("build a")
                    self.call("invalidate a --from list --format lines")
                    flip("a", 2 * BLOCK, 10 * BLOCK, 40 * BLOCK)
                    os.truncate("t", 0)
                answer = self.json(f"sync {source} {destination} {FAR}")
                with self.subTest(f"{source} {destination}", unknown=unknown):
                    self.assertEqual((answer["bytesRead"], answer["comparisons"]), (0, 0))
                    fresh = answer["freshness"]
                    self.assertEqual(fresh[0]["repairedBlocks"], 0 if unknown == 50 else 3)
                    self.assertEqual((fresh[1]["doubt"], fresh[1]["recorded"]),
                                     ("" if unknown == 50 else "it was just made", not doubt_here()))
                    for name in "at":
                        self.check_hash_file(name)

    def test_what_would_be_done_is_told_and_not_done(self):
        a = randbytes(70 * BLOCK + 300)
        Path("source").write_bytes(a)
        for number, (old, copied, verdict) in enumerate((
                (a, 0, "equal"), (a[:9 * BLOCK] + b"x" + a[9 * BLOCK + 1:], BLOCK, "different"),
                (a + bytes(9000), 0, "different"), (a[:40 * BLOCK + 5], len(a) - 40 * BLOCK - 5, "different"),
                (None, len(a), "different"), (b"", len(a), "different"))):
            for source, destination in ("source", "t"), ("h:source", "t"), ("source", "h:t"):
                with self.subTest(f"{number} {source} {destination}"):
                    for path in Path().glob("t*"):
                        path.unlink()
                    if old is not None:
                        Path("t").write_bytes(old)
                    before = stamps()
                    told = self.json(f"sync -n {source} {destination} {FAR}", verdict != "equal")
                    self.assertEqual((told["verdict"], told["bytesCopied"], told["dryRun"]), (verdict, copied, True))
                    self.assertEqual(stamps(), before)
                    self.assertEqual(os.path.exists("t.hashes"), old is not None)
                    words = self.call(f"sync --dry-run {source} {destination} {FAR}", verdict != "equal").stdout
                    self.assertRegex(words, f"{copied:,} bytes? to be copied in [01] ranges?, ")
                    self.assertEqual(("t: to be made\n" in words, " bytes, to be resized\n" in words),
                                     (old is None, len(old or a) != len(a) and bool(old) or old == b""))
                    done = self.json(f"sync {source} {destination} {FAR}")
                    self.assertIn(told["bytesCopied"], range(done["bytesCopied"] - BLOCK, len(a) + 1))
                    self.assertEqual((done.get("formerSize", ""), "dryRun" in done), (told.get("formerSize", ""), False))
                    self.assertEqual([told["bytesCompared"], done["bytesCompared"]],
                                     [min(len(a), len(old)), len(a)] if old else [0, 0])
                    self.assertEqual(Path("t").read_bytes(), a)
                    self.check_hash_file("t")
                    self.assertEqual(self.json(f"sync {source} {destination} --verify {FAR}")["bytesCopied"], 0)
        os.truncate("t", BLOCK)
        for command, cause in ("source t --verify", "excludes"), ("source no/t", "no/t: .*No such file"), ("t t", "itself"):
            self.check_complaint(f"sync -n {command}", cause)

    @unittest.skipIf(doubt_here(), f"no image is believed here: {doubt_here()}")
    def test_changes_are_told_in_the_same_run(self):
        built()
        self.call("sync a b")
        Path("list").write_text(f"{DEVICE + 3 * BLOCK} + 1\n{DEVICE + 12 * BLOCK} {BLOCK}\n")
        for destination in "b", "h:b":
            flip("a", 3 * BLOCK, 12 * BLOCK, 17 * BLOCK)
            told = self.json(f"sync a {destination} --changes list {FAR}")
            source = told["freshness"][0]
            self.assertEqual((told["told"], told["bytesCopied"]), ({"bytes": BLOCK + 1, "ranges": 2}, 2 * BLOCK))
            self.assertEqual((source["believed"], source["recorded"], source["checkedBlocks"]), (True, True, 0))
            flip("a", 17 * BLOCK)  # what was not told is as it was: that was promised
            self.assertEqual(Path("a").read_bytes(), Path("b").read_bytes())
            self.call("build a")
        with open("a", "r+b"):  # as the disk of a machine that is paused: again and again
            for block in 5, 6:
                flip("a", block * BLOCK)
                Path("list").write_text(f"{DEVICE + block * BLOCK} + 1\n")
                source = self.json("sync a b --changes list --assume-unchanged")["freshness"][0]
                self.assertEqual((source["believed"], source["recorded"], source["checkedBlocks"]), (True, True, 0))
                self.assertEqual(Path("a").read_bytes(), Path("b").read_bytes())
                flip("b", 2 * BLOCK)  # no list and no word is of the destination
            source = self.json("sync a b --changes list", 1)["freshness"][0]
            self.assertEqual((source["believed"], source["openForWriting"], source["recorded"]), (True, True, False))
        source = self.json("sync a b --changes list")["freshness"][0]  # what the list adds to is not known
        self.assertEqual((source["believed"], source["recorded"], source["checkedBlocks"]), (False, True, 19))
        before = Path("b").read_bytes()
        flip("a", 3 * BLOCK)
        Path("wrong").write_text("12 13 x\n")
        for command, cause in (
                ("a b --changes wrong", "wrong: line 1"), ("h:a b --changes list", "h:a: .*on this machine"),
                ("a b --changes list --check", "excludes"), ("a b --format lines", "--format.*--changes"),
                ("a new --changes none", "none: cannot read"), ("a h:new --changes wrong", "wrong: line 1")):
            self.check_complaint(f"sync {command} {FAR}", cause)
        Path("a.hashes.state").unlink()
        self.check_complaint("sync a b --changes list", "may be of another image")
        self.assertEqual((Path("b").read_bytes(), os.path.exists("new")), (before, False))
        Path("a.hashes").unlink()  # nothing is known, so nothing is to be forgotten
        self.json(f"sync a b --changes list --partition-offset {DEVICE}")
        self.assertEqual(Path("a").read_bytes(), Path("b").read_bytes())

    def test_several_images_go_into_a_directory(self):
        names = [f"{number}.img" for number in range(4)]
        for near, far, directory in ("", "", "d"), ("", "", "d/"), ("", "h:", "h:d/"), ("", "h:", "h:"), ("h:", "", "d"):
            with self.subTest(near + directory):
                shutil.rmtree("d", ignore_errors=True)
                os.mkdir("d")
                place = "" if directory == "h:" else "d/"
                os.makedirs("s", exist_ok=True)
                for number, name in enumerate(names):
                    Path("s/" + name).write_bytes(randbytes(10 * BLOCK + number))
                shutil.copy("s/1.img", place + "1.img")
                shutil.rmtree(place + "2.img", ignore_errors=True)
                os.mkdir(place + "2.img")  # which is no image
                command = f"sync {' '.join(near + 's/' + name for name in names)} {directory} {FAR}"
                log = {"env": dict(os.environ, RELAY_LOG="log")}
                done = self.call(command, 2, **log)
                self.assertRegex(done.stderr, r"(?m)^kelvane-hash: .*2.img: .*regular file")
                copied = [f"{10 * BLOCK:,}", "0", f"{10 * BLOCK + 3:,}"]
                self.assertRegex(done.stdout, r"\A" + "".join(
                    rf"{far}{place}{names[i]}: equal, {copied.pop(0)} of .* copied, .* s\n" for i in (0, 1, 3)) + r"\Z")
                if near + far:  # a connection ends with what fails there
                    self.assertEqual([frame[:2] for frame in self.frames()].count((">", HELLO)), 2 if far else 1)
                os.rmdir(place + "2.img")
                all_done = json.loads(self.call(command + " --json", **log).stdout)
                self.assertEqual([each["bytesCopied"] for each in all_done], [0, 0, 10 * BLOCK + 2, 0])
                self.assertEqual([each["destination"] for each in all_done], [far + place + name for name in names])
                if near + far:
                    frames = self.frames()
                    self.assertEqual([frame[:2] for frame in frames].count((">", HELLO)), 1)
                    for way, total in ("<", "bytesReceived"), (">", "bytesSent"):
                        self.assertEqual(sum(size for found, _, size in frames if found == way),
                                         sum(each["line"][total] for each in all_done))
                for name in names:
                    self.assertEqual(Path(place + name).read_bytes(), Path("s/" + name).read_bytes())
                    self.check_hash_file(place + name)
                    os.remove(place + name)
        shutil.rmtree("d")
        os.mkdir("d")
        self.assertEqual(self.json("sync s/1.img d")["bytesCopied"], 10 * BLOCK + 1)  # one alone: as ever
        told = json.loads(self.call("sync -n s/0.img s/1.img d --json", 1).stdout)
        self.assertEqual([each["verdict"] for each in told], ["different", "equal"])
        for command, cause in (("s/0.img s/1.img new", "comes a directory.*not new"), ("s/0.img s/1.img h:d", "not h:d"),
                               ("s/0.img d/0.img d", "another image of that name"), ("s/0.img s/ d", "no image"),
                               ("s/0.img s/1.img d --changes x", "one SOURCE at a time"),
                               ("s/0.img s/1.img d --dest-hash-file x", "one SOURCE at a time")):
            self.check_complaint("sync " + command, cause)

    def test_progress_counts_what_goes_over_the_line(self):
        data = (b"0123456789abcdef" * 60000)[:200 * BLOCK] + randbytes(20 * BLOCK) + bytes(300 * BLOCK)
        for source, destination in ("a", "h:b"), ("h:a", "b"):
            Path("a").write_bytes(data)
            Path("b").write_bytes(b"x" * len(data))
            done = self.call(f"sync {source} {destination} -z --json --progress json {FAR}")
            last = json.loads([line for line in done.stderr.splitlines() if '"phase":"copy"' in line][-1])
            line = json.loads(done.stdout)["line"]
            self.assertEqual((last["done"], last["total"]), (len(data), len(data)))
            self.assertIn(last["onTheLine"], range(20 * BLOCK, line["bytesSent"] + line["bytesReceived"] + 1))
            self.assertLess(last["onTheLine"], 40 * BLOCK)
        done = self.call("sync a c --progress json")
        self.assertNotIn("onTheLine", done.stderr)

    def test_pieces_never_take_more_room_than_there_is(self):
        """Blocks that are larger than a piece, or no multiple of what a file system keeps; data, zeros and holes."""
        size = (40 << 20) + 77
        Path("dense").write_bytes(randbytes(size))
        Path("mixed").write_bytes(bytes(5 << 20) + randbytes(3 << 20))
        for offset in range(9 << 20, size, 7 << 20):
            with open("mixed", "r+b") as file:
                os.pwrite(file.fileno(), randbytes(100 << 10), offset)
        os.truncate("mixed", size)
        for block, source, *sides in (
                (1500000, "dense", "dense", "t"), (1500000, "mixed", "h:mixed", "t"), (3000000, "mixed", "mixed", "t"),
                ((1 << 20) + 1, "dense", "h:dense", "t"), ((1 << 20) + 1, "mixed", "mixed", "h:t"),
                (1 << 16, "mixed", "mixed", "t"), (1 << 16, "mixed", "mixed", "h:t"), (5000, "mixed", "mixed", "t")):
            with self.subTest(f"{block}: {sides}"):
                Path("t").write_bytes(randbytes(size) if source == "mixed" else bytes(size))
                self.call(f"sync {' '.join(sides)} --block-size {block} --source-hash-file s{block} "
                          f"--dest-hash-file t{block} --adopt {FAR}")
                self.assertEqual(Path("t").read_bytes(), Path(source).read_bytes())
                self.call(f"verify t --hash-file t{block}")
                self.assertEqual(self.json(f"info t{block}")["unknownBlocks"], 0)

    def test_every_slice_of_a_large_image_counts(self):
        for name in "ab":  # more than two times 2^18 blocks
            Path(name).write_bytes(bytes(40 << 20))
        for offset in 5 << 20, 20 << 20, 39 << 20:
            flip("b", offset)
            self.assertIn(f"{offset} + 64\n", self.call("diff a b --block-size 64", 1).stdout)
            self.call("sync a b")
            self.assertEqual(Path("a").read_bytes(), Path("b").read_bytes())

    def test_sync_verify_reads_every_byte_again(self):
        built()
        flip("b", 7 * BLOCK)
        self.assertEqual(self.json("sync a b --verify --assume-unchanged", 1)["firstDifference"], 7 * BLOCK)
        self.call("sync a b --verify")
        tail = {"SHIM_AT": self.at("sync a b --verify", "read b", 1),
                "SHIM_DO": f"printf xy | dd of=b bs=1 seek={20 * BLOCK + 98} conv=notrunc status=none"}
        self.assertEqual(self.json("sync a b --verify", 1, shim=tail)["firstDifference"], 20 * BLOCK + 98)
        self.call("sync a b --verify")

    def test_what_others_write_at_the_same_time_is_in_no_hash(self):
        built()
        with open("b", "r+b"):
            answer = self.json("sync a b", 1)
            self.assertEqual((answer["verified"], answer["freshness"][1]["writers"][0]["pid"]), (True, os.getpid()))
        stripes = b"".join(bytes([i % 2]) * 64 for i in range(20000))  # copied in three batches
        for at in 1 / 3, 2 / 3:
            for end in "TERM", "KILL":
                for name, content in ("a", stripes), ("b", bytes(len(stripes))):
                    for path in name, name + ".hashes", name + ".hashes.state":
                        Path(path).unlink(missing_ok=True)
                    Path(name).write_bytes(content)
                    self.call(f"build {name} --block-size 64")
                place = self.at("sync a b", "pwrite b", at)
                Path("b").write_bytes(bytes(len(stripes)))
                self.call("build b")
                foreign = f"printf x | dd of=b bs=1 conv=notrunc status=none; kill -{end} $PPID"
                shim = {"SHIM_AT": place, "SHIM_DO": foreign}
                self.call("sync a b", {"TERM": 143, "KILL": -9}[end], shim=shim)
                self.call("sync a b")
                self.assertEqual(Path("a").read_bytes(), Path("b").read_bytes(), (at, end))

    def test_a_hash_file_that_cannot_be_written_is_noticed_before_anything_is_changed(self):
        for size in 5000, 900:  # of DEST
            for unwritable, command in ("b", "sync a b"), ("b", f"sync a h:b {FAR}"), ("a", f"sync a h:b {FAR}"):
                for name, length in ("a", 3000), ("b", size):
                    Path(name + ".hashes").unlink(missing_ok=True)
                    Path(name).write_bytes(randbytes(length))
                    self.call(f"build {name} --block-size 512 --adopt")
                if unwritable == "a":
                    os.truncate("a", 2000)
                before = Path("b").read_bytes()
                os.chmod(unwritable + ".hashes", 0o444)
                self.check_complaint(command, "cannot be written", preexec_fn=drop_override)
                self.assertEqual(Path("b").read_bytes(), before, (size, unwritable, command))

    def test_memory_is_left_as_it_was_found(self):
        """Half of the source was in memory, of DEST nothing; or all is kept there. The rest of the source is read from the disk, once."""
        if doubt_here() or has_warned():
            self.skipTest("a file system of which what is in memory is left there, or dropped")
        Path("a").write_bytes(randbytes(40 << 20))
        os.sync()

        def seen(command):
            os.system("rm -f a.hashes*")
            for name in filter(os.path.exists, "abcdf"):
                with open(name, "rb") as image:
                    os.posix_fadvise(image.fileno(), 0, 0, os.POSIX_FADV_DONTNEED)
                    os.posix_fadvise(image.fileno(), 0, 0, os.POSIX_FADV_RANDOM)
                    os.pread(image.fileno(), (16 << 20) if name == "a" else 0, 0)
            before, disk = in_memory("a"), resource.getrusage(resource.RUSAGE_CHILDREN).ru_inblock
            self.call(f"{command} {FAR if 'sync' in command else ''}")
            read = (resource.getrusage(resource.RUSAGE_CHILDREN).ru_inblock - disk) * 512
            return before, in_memory("a"), sum(map(in_memory, filter(os.path.exists, "bcdef"))), read

        for command in "build a", "sync a b", "sync a h:c", "sync h:a d -j 1", "verify b", "diff a b", "sync a f --block-size 3000", \
                "hash a", "hash a --range 1048577:99999", "sync a e --keep-cache":
            for _ in range(5):  # whatever else runs on this machine may empty its memory
                before, after, others, read = seen(command)
                expected = (40 << 20, 40 << 20) if "keep" in command else (before, 0)
                if (after, others) == expected:
                    break
                made = command.split()[2].replace("h:", "") if command.startswith("sync") else "none"
                os.system(f"rm -f {made} {made}.*")
            with self.subTest(command):
                self.assertEqual((after, others), expected)
                self.assertLess(read, 42 << 20 if command in ("verify b", "diff a b") else (42 << 20) - before)

    def test_sync_keeps_holes(self):
        Path("s").write_bytes(randbytes(1 << 20) + bytes(3 << 20))  # zeros that are no hole become one
        os.truncate("s", 40 << 20)
        flip("s", 30 << 20)
        for options, holds in ("", range(1 << 20, 3 << 20)), ("--no-sparse", range(40 << 20, 42 << 20)):
            Path("t").write_bytes(randbytes(40 << 20))
            self.call(f"sync s t --verify {options}")
            self.assertIn(on_disk("t"), holds)
            self.check_hash_file("t")
        os.truncate("s", 99 << 20)
        Path("large").write_bytes(randbytes(99 << 20))
        self.call("sync s large --verify --block-size 3M --source-hash-file s3")  # a long hole begins within a block
        self.assertIn(on_disk("large"), range(1 << 20, 8 << 20))
        os.truncate("s", 15 << 40)
        self.call("sync s t --block-size 1M --source-hash-file s2 --dest-hash-file t2")
        self.assertLess(on_disk("t"), 42 << 20)

    def test_no_holes_are_left(self):
        """In a new DEST, in one that grows by more than is filled at once, in between, and behind what differs."""
        for source, destination in ("s1", "t1"), ("s2", "h:t2"), ("h:s3", "t3"):
            s, t = (side.replace("h:", "") for side in (source, destination))
            Path(s).touch()
            for size, differing in (20 << 20, ()), ((57 << 20) + 5, ()), ((57 << 20) + 5, (3, 40 << 20)):
                os.truncate(s, size)
                if on_disk(s) >= size:
                    self.skipTest("a file system that makes no holes")
                if differing:
                    flip(s, *differing)
                    self.call(f"sync {source} {destination} {FAR}")
                    os.truncate(t, 0)
                    os.truncate(t, size)
                command = f"sync {source} {destination} --no-sparse {FAR}"
                copied = len(differing) * BLOCK if os.path.exists(t) else size
                with self.subTest(command, size=size, differing=differing):
                    self.assertEqual(self.json(command)["bytesCopied"], copied)
                    self.assertGreaterEqual(on_disk(t), size)
                    self.call(f"verify {t}")
                    before = os.stat(t)
                    again = self.json(command)
                    self.assertEqual((again["bytesCopied"], again["freshness"][1]["doubt"]), (0, doubt_here()))
                    self.assertEqual((os.stat(t).st_mtime_ns, on_disk(t)), (before.st_mtime_ns, before.st_blocks * 512))
            self.assertEqual(Path(t).read_bytes(), Path(s).read_bytes())
            self.check_hash_file(t)


main()
