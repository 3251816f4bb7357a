"""Drives kelvane-hash and the example programs from end to end: kelvane_hash_test.py PROGRAM [RANGE_HASH TWO_MACHINES]

Expected hashes and differences are computed from the images alone, with Python's hashlib."""
import json
import os
import random
import signal
import subprocess
import sys
import tempfile
import unittest

from oracle import aggregate, read_entries

PROGRAM, *EXAMPLES = sys.argv[1:]
BLOCK = 4096


def content(path):
    with open(path, "rb") as file:
        return file.read()


def noise(size, seed=1):
    return random.Random(seed).randbytes(size)


class KelvaneHash(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.path = lambda name: os.path.join(directory.name, name)

    def image(self, name, data):
        with open(self.path(name), "wb") as file:
            file.write(data)
        return self.path(name)

    def run_program(self, *arguments, expect=0):
        done = subprocess.run([PROGRAM, *arguments], capture_output=True, text=True, timeout=300)
        self.assertEqual(done.returncode, expect, done)
        return done

    def json(self, *arguments, expect=0):
        return json.loads(self.run_program(*arguments, "--json", expect=expect).stdout)

    def patch(self, path, offset, data):
        with open(path, "r+b") as file:
            file.seek(offset)
            file.write(data)

    def differences(self, a, b, base=0):
        """The blocks in which two byte strings differ, joined, as diff lists them."""
        found = []
        for at in range(0, max(len(a), len(b)), BLOCK):
            if a[at:at + BLOCK] != b[at:at + BLOCK]:
                end = min(at + BLOCK, max(len(a), len(b)))
                if found and sum(found[-1].values()) == base + at:
                    found[-1]["length"] += end - at
                else:
                    found.append({"offset": base + at, "length": end - at})
        return found

    def check_hash_file(self, image):
        """Every whole block is known, with the hash of the image's bytes."""
        block, _, entries = read_entries(content(image + ".hashes"), content(image))
        data = content(image)
        for i in range(len(data) // block):
            self.assertEqual(entries[i][0], 1, i)
        self.run_program("verify", image)
        self.assertEqual(self.json("hash", image)["hash"], aggregate(data, block, 0, len(data)).hex())

    def test_build_hash_info_of_a_partition(self):
        data = noise(300 * BLOCK + 777)
        image, partition = self.image("p.img", data), 1048576 + 512
        for jobs in "1", "3":
            hashes = self.path("p" + jobs)
            at = ("--hash-file", hashes)
            self.json("build", image, *at, "--partition-offset", str(partition), "--block-size", "4K", "-j", jobs)
            self.assertEqual(self.json("build", image, *at)["bytesRead"], 0)
            info = self.json("info", hashes)
            self.assertEqual((info["targetEnd"], info["partitionOffset"]), (partition + len(data), partition))
            self.assertEqual((info["knownBlocks"], info["unknownBlocks"], info["partialBlockBytes"]), (300, 0, 777))
            for start, length in (0, len(data)), (5000, 100000), (4096, 8192), (17, 10), (4096, 0):
                result = self.json("hash", image, *at, "--range", f"{partition + start}:{length}")
                self.assertEqual(result["hash"], aggregate(data, BLOCK, start, start + length).hex())
            self.run_program("hash", image, *at, "--range", "0:10", expect=2)
            self.run_program("build", image, *at, "--block-size", "8192", expect=2)
        self.assertEqual(content(self.path("p1")), content(self.path("p3")))

    def test_verify_finds_marks_and_build_repairs(self):
        data = noise(2000 * BLOCK + 1)
        image = self.image("v.img", data)
        self.run_program("build", image)
        self.assertEqual(self.json("verify", image, "--sample", "0.2")["blocksChecked"], 400)
        for offset in 3 * BLOCK, 4 * BLOCK + 9, 1999 * BLOCK:
            self.patch(image, offset, b"changed")
        wrong = [{"offset": 3 * BLOCK, "length": 2 * BLOCK}, {"offset": 1999 * BLOCK, "length": BLOCK}]
        for jobs in "1", "2":
            self.assertEqual(self.json("verify", image, "-j", jobs, expect=1)["bad"], wrong)
        os.utime(image, (0, 0))  # as a copy may that keeps its original's time
        self.assertIn("newer than its hash file", self.run_program("hash", image).stderr)
        self.json("verify", image, "--mark", expect=1)
        self.assertEqual(self.json("info", image + ".hashes")["unknownBlocks"], 3)
        self.assertEqual(self.json("build", image)["bytesRead"], 3 * BLOCK)
        self.check_hash_file(image)

    def test_diff(self):
        a = noise(1000 * BLOCK + 100)
        b = bytearray(a + noise(5000, 2))
        for offset in 0, BLOCK - 1, BLOCK, 500 * BLOCK + 7, 999 * BLOCK, 1000 * BLOCK + 99:
            b[offset] ^= 1
        first, second = self.image("a", a), self.image("b", bytes(b))
        result = self.json("diff", first, second, "--partition-offset", "1M", expect=1)
        self.assertEqual(result["differing"], self.differences(a, b, 1048576))
        self.assertEqual(result["bytesRead"], 2 * len(a))
        again = self.json("diff", first, second, expect=1)
        self.assertEqual(again["bytesRead"], 2 * 100)
        self.assertLess(again["comparisons"], 60)
        self.image("c", a)
        self.assertTrue(self.json("diff", first, self.path("c"), "--partition-offset", "1M")["equal"])
        self.image("c", a + bytes(1))
        self.json("diff", first, self.path("c"), expect=1)

    def test_sync_changes_sizes_and_keeps_the_store_true(self):
        a = noise(700 * BLOCK + 300)
        source = self.image("source", a)
        for name, old in ("same", a), ("long", a + noise(50000, 3)), ("short", a[:400 * BLOCK + 5]), ("empty", b""):
            with self.subTest(name):
                old = bytearray(old)
                for offset in range(0, len(old), 90 * BLOCK + 1):
                    old[offset] ^= 255
                target = self.image(name, bytes(old))
                if name != "empty":
                    self.run_program("build", target)
                expected = sum(d["length"] for d in self.differences(a, bytes(old[:len(a)]).ljust(len(a), b"\0")))
                result = self.json("sync", source, target, "--verify", "-j", "2")
                self.assertEqual((result["bytesCopied"], content(target) == a), (expected, True))
                self.check_hash_file(target)
                self.assertEqual(self.json("sync", source, target)["bytesCopied"], 0)
        self.run_program("sync", source, self.path("new"))
        self.assertEqual(content(self.path("new")), a)

    def test_an_image_that_shrinks_and_grows_again(self):
        image = self.image("r", noise(200 * BLOCK))
        self.run_program("build", image)
        for size in 150 * BLOCK + 10, 190 * BLOCK, 151 * BLOCK, 200 * BLOCK + 1:
            start = min(size, os.path.getsize(image))
            os.truncate(image, start)
            if size < start or start == size:
                self.assertFalse(self.json("verify", image, expect=1)["bad"])
            with open(image, "ab") as file:
                file.write(noise(size - start, size))
            self.run_program("build", image)
            self.check_hash_file(image)

    def test_holes_are_not_read(self):
        image = self.image("s", b"")
        os.truncate(image, 64 << 20)
        self.patch(image, (20 << 20) + 5, b"data")
        result = self.json("build", image, "--block-size", "10000")
        self.assertEqual(result["bytesRead"] + result["bytesOfHoles"], (64 << 20) // 10000 * 10000)
        self.assertLess(result["bytesRead"], 1 << 20)
        self.check_hash_file(image)

    def test_interrupted_it_goes_on_where_it_stopped(self):
        for jobs in "1", "2":
            image = self.image("i" + jobs, b"")
            os.truncate(image, 16 << 30)
            build = [PROGRAM, "build", image, "--block-size", "1MiB", "--progress=json", "-j", jobs]
            with subprocess.Popen(build, stderr=subprocess.PIPE, text=True) as process:
                done = json.loads(process.stderr.readline())["done"]
                process.send_signal(signal.SIGINT)
                error = process.stderr.read().splitlines()[-1]
            self.assertEqual(process.returncode, 130)
            self.assertIn("interrupted", error)
            info = self.json("info", image + ".hashes")
            self.assertGreaterEqual(info["knownBlocks"] << 20, done)
            self.assertGreater(info["unknownBlocks"], 64)
            os.truncate(image, (info["knownBlocks"] + 64) << 20)  # the rest would take long
            result = self.json("build", image)
            self.assertEqual(result["bytesKnownBefore"], info["knownBlocks"] << 20)
            self.assertEqual(self.json("info", image + ".hashes")["unknownBlocks"], 0)

    def test_interrupted_sync_leaves_no_wrong_hash(self):
        size = 256 << 20
        source, target = self.image("s", os.urandom(size)), self.image("t", b"")
        os.truncate(target, size)
        self.run_program("build", target)
        with subprocess.Popen([PROGRAM, "sync", source, target, "--progress=json"], stdout=subprocess.DEVNULL,
                              stderr=subprocess.PIPE, text=True) as process:
            while json.loads(process.stderr.readline())["phase"] != "copy":
                pass
            process.send_signal(signal.SIGINT)
            process.stderr.read()
        self.assertEqual(process.returncode, 130)
        self.assertGreater(self.json("verify", target)["blocksChecked"], 0)
        self.assertIn(self.json("sync", source, target, "--verify")["bytesCopied"], range(1, size))
        self.run_program("verify", target)
        self.assertEqual(content(target), content(source))

    def test_after_a_crash_half_an_entry_is_no_hash(self):
        image = self.image("t", noise(100 * BLOCK))
        self.run_program("build", image)
        self.patch(image + ".hashes", 4096 + 512, bytes(16))  # the second half of entry 15
        result = self.json("build", image, "--after-crash")
        self.assertEqual((result["tornEntries"], result["bytesRead"]), (1, BLOCK))
        self.check_hash_file(image)

    @unittest.skipUnless(EXAMPLES, "the examples were not built")
    def test_examples(self):
        range_hash, two_machines = EXAMPLES
        a = noise(500 * BLOCK + 9)
        b = bytearray(a)
        b[77 * BLOCK + 5] ^= 1
        b[-1] ^= 1
        images = self.image("a", a), self.image("b", bytes(b))
        found = subprocess.run([two_machines, *images], capture_output=True, text=True, timeout=60)
        self.assertEqual(found.returncode, 1, found)
        expected = [f"differ: {d['offset']} + {d['length']}" for d in self.differences(a, b)]
        self.assertEqual(found.stdout.splitlines()[:-1], expected)
        subprocess.run([range_hash, images[0], self.path("h")], check=True, capture_output=True, timeout=60)

    def test_errors_are_one_line_with_the_file_and_the_cause(self):
        image = self.image("e", noise(BLOCK))
        no_hashes = self.image("no.hashes", b"something else" * 1000)
        missing = self.path("missing")
        for arguments, texts in (
                (("build", missing), (missing, "No such file")), (("build", self.path("")), ("neither",)),
                (("build", image, "--hash-file", no_hashes), (no_hashes, "offset 0", "not a hash file")),
                (("info", no_hashes), (no_hashes, "offset 0")), (("verify", image), (image + ".hashes", "No such file")),
                (("build", image, "--block-size", "0"), ("block size",)),
                (("build", image, "--block-size", "4X"), ("4X",)), (("build", image, "--jobs", "0"), ("jobs",)),
                (("hash", image, "--range", "0:8192"), (image, "offset 0", "8,192")), (("nonsense",), ("--help",)),
                (("diff", image, image), (image, "given twice"))):
            with self.subTest(arguments):
                lines = self.run_program(*arguments, expect=2).stderr.splitlines()
                self.assertEqual(len(lines), 1, lines)
                for text in texts:
                    self.assertIn(text, lines[0])
        for command in "build", "info", "hash", "verify", "diff", "sync":
            self.assertIn("Example:\n  kelvane-hash " + command, self.run_program(command, "--help").stdout)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
