"""Two images made equal on one machine: sync_test.py PROGRAM SHIM"""
import os, resource, subprocess
from pathlib import Path
from random import randbytes

from program import BLOCK, PROGRAM, RELAY, Case, built, doubt_here, drop_override, flip, main

FAR = f"--rsh {RELAY} --remote-program {PROGRAM}"


def on_disk(name):
    return os.stat(name).st_blocks * 512


def in_memory(name):
    return int(subprocess.run(["fincore", "-bnoRES", name], stdout=subprocess.PIPE, check=True).stdout)


class Sync(Case):
    def test_sync_changes_sizes_and_keeps_the_store_true(self):
        a = randbytes(700 * BLOCK + 300)
        Path("source").write_bytes(a)
        self.call("build source --block-size 4096")
        for name, old, expected in (("same", a, 8 * BLOCK), ("long", a + bytes(50000), 8 * BLOCK),
                                    ("short", a[:400 * BLOCK + 5], len(a) - 395 * BLOCK), ("new", b"", len(a))):
            if old:
                Path(name).write_bytes(old)
                flip(name, *range(0, len(old), 90 * BLOCK + 1))
                self.call("build " + name)
            self.assertEqual(self.json(f"sync source {name} --verify -j 2")["bytesCopied"], expected, name)
            self.assertEqual(Path(name).read_bytes(), a, name)
            self.check_hash_file(name)
            self.assertEqual(self.json(f"sync source {name}")["bytesCopied"], 0, name)
        self.call("build source --hash-file large --block-size 64K")
        self.call("sync source other --source-hash-file large")
        self.call("build other --hash-file small --block-size 512")
        self.call("diff source other --hash-file-a made --hash-file-b small")
        self.assertEqual([self.json(f"info {name}")["blockSize"] for name in ("other.hashes", "made")], [65536, 512])

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
        """Half of the source was in memory, of DEST nothing. The rest of the source is read from the disk, once."""
        Path("a").write_bytes(randbytes(40 << 20))
        os.sync()
        for command, keeps in (("build a", False), ("sync a b", False), ("sync a h:c", False), ("sync h:a d -j 1", False),
                               ("verify b", False), ("diff a b", False), ("sync a e --keep-cache", True)):
            os.system("rm -f a.hashes*")
            for name in filter(os.path.exists, "abcd"):
                with open(name, "rb") as image:
                    os.posix_fadvise(image.fileno(), 0, 0, os.POSIX_FADV_DONTNEED)
                    os.posix_fadvise(image.fileno(), 0, 0, os.POSIX_FADV_RANDOM)
                    os.pread(image.fileno(), (16 << 20) if name == "a" else 0, 0)
            before, disk = in_memory("a"), resource.getrusage(resource.RUSAGE_CHILDREN).ru_inblock
            if before == 40 << 20:
                self.skipTest("a file system that is in memory")
            with self.subTest(command):
                self.call(f"{command} {FAR if 'sync' in command else ''}")
                read = (resource.getrusage(resource.RUSAGE_CHILDREN).ru_inblock - disk) * 512
                self.assertLess(read, (40 << 20) - before + (2 << 20) if "a" in command.split()[1:] else 42 << 20)
                self.assertEqual(in_memory("a"), 40 << 20 if keeps else before)
                self.assertFalse(any(in_memory(name) for name in filter(os.path.exists, "bcd")))

    def test_sync_keeps_holes(self):
        Path("s").write_bytes(randbytes(1 << 20))
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
