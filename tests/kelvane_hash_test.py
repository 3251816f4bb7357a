"""Drives kelvane-hash and the example programs from end to end: kelvane_hash_test.py PROGRAM [RANGE_HASH TWO_MACHINES]
Expected hashes come from the images alone, by oracle.py, which checks the hash files too."""
import ctypes, fcntl, json, mmap, os, platform, random, resource, signal, struct, sys, tempfile, unittest
from pathlib import Path
from random import randbytes
from subprocess import DEVNULL, PIPE, Popen, run

PROGRAM, *EXAMPLES = map(os.path.abspath, sys.argv[1:])
ORACLE = Path(__file__).resolve().with_name("oracle.py")
FSYNC = {"x86_64": 74, "aarch64": 82}.get(platform.machine())  # the number of the call
BLOCK, ENTRIES, ENTRY = 4096, 4096, 33  # of an image; in a hash file, the start of the entries and the size of one


def flip(path, *offsets):
    with open(path, "r+b") as file, mmap.mmap(file.fileno(), 0) as data:
        for offset in offsets:
            data[offset] ^= 255


def refuse_to_flush(fd):
    """From now on the kernel fails every fsync of a descriptor with EIO, by a filter for call and argument."""
    fail, allow = (6, 0, 0, 0x50005), (6, 0, 0, 0x7FFF0000)
    rules = (0x20, 0, 0, 0), (0x15, 0, 3, FSYNC), (0x20, 0, 0, 16), (0x15, 0, 1, fd), fail, allow
    code = ctypes.create_string_buffer(b"".join(struct.pack("HBBI", *rule) for rule in rules))
    prctl = ctypes.CDLL(None, use_errno=True).prctl
    if prctl(38, 1, 0, 0, 0) or prctl(22, 2, struct.pack("HxxxxxxP", len(rules), ctypes.addressof(code))):
        raise OSError(ctypes.get_errno(), "no filter")


class KelvaneHash(unittest.TestCase):
    def setUp(self):
        random.seed(1)  # now and then a whole entry looks torn: not in these images

    def call(self, command, expect=0, program=PROGRAM, stdout=PIPE, **options):
        done = run([program, *command.split()], stdout=stdout, stderr=PIPE, text=True, timeout=300, **options)
        self.assertEqual(done.returncode, expect, done)
        return done

    def json(self, command, expect=0, **options):
        return json.loads(self.call(command + " --json", expect, **options).stdout)

    def check_complaint(self, command, cause, **options):
        """It fails with one line on standard error."""
        self.assertRegex(self.call(command, 2, **options).stderr, rf"\Akelvane-hash: .*{cause}.*\n\Z", command)

    def check_hash_file(self, image):
        """Every whole block is known, with the hash of the image's bytes."""
        self.assertEqual(self.json(f"info {image}.hashes")["unknownBlocks"], 0)
        expected = self.call(f"{image}.hashes {image} 0 {os.path.getsize(image)}", program=ORACLE).stdout
        self.assertEqual(self.json(f"hash {image}")["hash"], expected.strip())

    def interrupt(self, command, phase):
        """Stops a command in one of its phases; how much of that it had said was done."""
        with Popen([PROGRAM, *command.split(), "--progress=json"], stdout=DEVNULL, stderr=PIPE, text=True) as process:
            while (report := json.loads(process.stderr.readline()))["phase"] != phase:
                pass
            process.send_signal(signal.SIGINT)
            self.assertIn("interrupted", process.stderr.read().splitlines()[-1])
        self.assertEqual(process.returncode, 130)
        return report["done"]

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
        self.assertEqual(self.json(build)["bytesKnownBefore"], 2000 * block)
        info = dict(targetEnd=start + size, partitionOffset=start, knownBlocks=2000, partialBlockBytes=777)
        self.assertLessEqual(info.items(), self.json("info p3").items())
        ranges = [f"{start + at}:{n}" for at, n in ((0, size), (5000, size - 5000), (block, block), (17, 10), (7, 0))]
        hashes = [self.json(f"hash p --hash-file p3 --range {at}")["hash"] for at in ranges]
        self.assertEqual(self.call(f"p3 p {' '.join(ranges)}".replace(":", " "), program=ORACLE).stdout.split(), hashes)
        flip("p3", ENTRIES + 2 * ENTRY + 20)
        self.assertEqual(self.call("p3 p", 1, ORACLE).stdout, "block 2 has another digest\n")

    def test_verify_finds_marks_and_build_repairs(self):
        Path("v").write_bytes(randbytes(2000 * BLOCK + 1))
        self.call("build v")
        self.assertEqual(self.json("verify v --sample 0.2")["blocksChecked"], 400)
        flip("v", 3 * BLOCK, 4 * BLOCK + 9, 1999 * BLOCK)
        wrong = [{"offset": 3 * BLOCK, "length": 2 * BLOCK}, {"offset": 1999 * BLOCK, "length": BLOCK}]
        for jobs in 1, 2:
            self.assertEqual(self.json(f"verify v -j {jobs}", 1)["bad"], wrong)
        os.utime("v", (0, 0))  # as a copy may that keeps its original's time
        self.assertIn("newer than its hash file", self.call("hash v").stderr)
        self.call("verify v --mark", 1)
        self.assertEqual(self.json("info v.hashes")["unknownBlocks"], 3)
        with open("v.hashes", "r+b") as file:
            os.pwrite(file.fileno(), bytes(16), ENTRIES + 512)  # a crash lost the second half of entry 15
        rebuilt = dict(tornEntries=1, bytesRead=4 * BLOCK)
        self.assertLessEqual(rebuilt.items(), self.json("build v --after-crash").items())
        self.check_hash_file("v")

    def test_diff(self):
        block, a = 5000, randbytes(5000000 + 100)
        Path("a").write_bytes(a)
        Path("b").write_bytes(a + bytes(5000))
        flip("b", 0, block - 1, block, 500 * block + 7, 999 * block, 1000 * block + 99)
        result = self.json("diff a b --partition-offset 1M --block-size 5000", 1)
        differing = [(found["offset"] - (1 << 20), found["length"]) for found in result["differing"]]
        self.assertEqual(differing, [(0, 2 * block), (500 * block, block), (999 * block, block + 5100)])
        self.assertEqual(result["bytesRead"], 2 * len(a))
        result = self.json("diff a b", 1)
        self.assertTrue(result["bytesRead"] == 2 * 100 and result["comparisons"] < 60, result)
        for end in b"", bytes(1):
            Path("c").write_bytes(a + end)
            self.assertEqual(self.json("diff a c --partition-offset 1M", len(end))["equal"], not end)

    def test_sync_changes_sizes_and_keeps_the_store_true(self):
        a = randbytes(700 * BLOCK + 300)
        Path("source").write_bytes(a)
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

    def test_an_image_that_shrinks_and_grows_again(self):
        data = randbytes(200 * BLOCK)
        Path("r").write_bytes(data)
        self.call("build r")
        for size in 150 * BLOCK + 10, 190 * BLOCK, 151 * BLOCK, 200 * BLOCK + 1:
            data = data[:size] + randbytes(max(0, size - len(data)))
            Path("r").write_bytes(data)
            self.assertEqual(self.json("verify r", 1)["bad"], [])
            self.call("build r")
            self.check_hash_file("r")

    def test_interrupted_commands_go_on_where_they_stopped(self):
        for jobs in "1", "2":
            run(["truncate", "-s", "16G", jobs], check=True)
            done = self.interrupt(f"build {jobs} --block-size 1MiB -j {jobs}", "build")
            info = self.json(f"info {jobs}.hashes")
            self.assertTrue(info["knownBlocks"] << 20 >= done and info["unknownBlocks"] > 64, info)
            os.truncate(jobs, (info["knownBlocks"] + 64) << 20)  # the rest would take long
            self.assertEqual(self.json(f"build {jobs}")["bytesKnownBefore"], info["knownBlocks"] << 20)
        Path("s").write_bytes(os.urandom(256 << 20))
        run(["truncate", "-s", "256M", "t"], check=True)
        self.call("build t")
        self.interrupt("sync s t", "copy")
        self.call("verify t")
        self.assertIn(self.json("sync s t --verify")["bytesCopied"], range(1, 256 << 20))

    @unittest.skipUnless(FSYNC and os.path.exists("/proc/sys/kernel/seccomp"), "the kernel has no such filter")
    def test_hashes_are_stored_once_the_image_is_on_the_disk(self):
        Path("d").write_bytes(randbytes(20 * BLOCK))
        for jobs in 1, 2:
            self.check_complaint(f"build d -j {jobs}", "d: cannot flush: Input", preexec_fn=lambda: refuse_to_flush(3))
            self.assertEqual(self.json("info d.hashes")["unknownBlocks"], 20)

    def test_info_reads_a_hash_file_in_use_or_read_only(self):
        Path("u").write_bytes(randbytes(20 * BLOCK))
        self.call("build u")
        flip("u.hashes", ENTRIES + 7 * ENTRY)  # bit 0 alone says whether it is known
        os.chmod("u.hashes", 0o444)
        as_user = {"preexec_fn": lambda: ctypes.CDLL(None).prctl(24, 1)}  # drops CAP_DAC_OVERRIDE
        self.check_complaint("verify u", "u.hashes: .*Permission denied", **as_user)
        with open("u.hashes") as file:
            fcntl.flock(file, fcntl.LOCK_EX)
            self.assertEqual(self.json("info u.hashes", **as_user)["map"], "#" * 7 + "." + "#" * 12)

    @unittest.skipUnless(EXAMPLES, "the examples were not built")
    def test_examples(self):
        run(["truncate", "-s", str(500 * BLOCK + 9), "x", "y"], check=True)
        flip("y", 77 * BLOCK + 5, 500 * BLOCK + 8)
        expected = [f"differ: {77 * BLOCK} + {BLOCK}", f"differ: {500 * BLOCK} + 9"]
        self.assertEqual(self.call("x y", 1, EXAMPLES[1]).stdout.splitlines()[:-1], expected)
        self.call("x x.hashes", program=EXAMPLES[0])

    def test_errors_are_one_line_with_the_file_and_the_cause(self):
        Path("e").write_bytes(randbytes(1000 * BLOCK))
        self.call("build e")
        hashes = Path("e.hashes").read_bytes()
        Path("cut").write_bytes(hashes[:-4096])
        for offset in 8, 16, 25, 48:  # version, start of the entries, block size, hash function
            Path("odd").write_bytes(hashes[:offset] + bytes([0 if offset == 25 else 7]) + hashes[offset + 1:])
            self.check_complaint("info odd", "odd: at offset 8: .*not known")
        for command, cause in (
                ("build missing", "missing: .*No such file"), ("build .", "neither"), ("nonsense", "--help"),
                ("info e", "e: at offset 0: not a hash file"), ("diff e e", "e.hashes: .*in use.* given twice"),
                ("info cut", "cut: .*remove it to start anew"), ("verify e --hash-file none", "none: .*No such file"),
                ("build e --block-size 8K", "e.hashes: at offset 24"), ("hash e --partition-offset 1", " offset 40"),
                ("build e --block-size 0", "block size"), ("build e --block-size 4X", "4X"),
                ("build e --jobs 0", "jobs"), ("hash e --range 4092K:8192", "e: at offset 4190208: .*8,192")):
            self.check_complaint(command, cause)
        with open("/dev/full", "w") as full:
            for command in "--help", "--version", "info e.hashes":
                self.check_complaint(command, "standard output: cannot write", stdout=full)
        run(["truncate", "-s", str(2 * 65075263 + 1), "huge"], check=True)
        Path("huge.hashes").write_bytes(struct.pack("<QQQIIQQQ", 0x20001312, 0, 4096, 2, 0, 2 * 65075263 + 1, 0, 1))
        os.truncate("huge.hashes", 4096 * (1 + -(-65075264 * ENTRY // 4096)))
        self.check_complaint("hash huge", "huge: at offset 0: .* at most 65,075,262 .* has 65,075,263 blocks")
        limited = {"preexec_fn": lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (1 << 20, 1 << 20))}
        self.check_complaint("sync e large", "large: .*File too large", **limited)


with tempfile.TemporaryDirectory() as directory:
    os.chdir(directory)
    unittest.main(argv=sys.argv[:1])
