"""What the tests of the program share; they are called with PROGRAM SHIM [EXAMPLE EXAMPLE]."""
import ctypes, functools, json, mmap, os, random, re, shlex, sys, tempfile, unittest
from pathlib import Path
from random import randbytes
from subprocess import DEVNULL, PIPE, Popen, run

from file_systems import images_are_believed

PROGRAM, SHIM, *EXAMPLES = map(os.path.abspath, sys.argv[1:])
ORACLE, RELAY = (Path(__file__).resolve().with_name(name) for name in ("oracle.py", "relay.py"))
FAR = f"--rsh {RELAY} --remote-program {PROGRAM}"
BLOCK = 4096
DEVICE = 1 << 20  # the partition offset where there is one
HOME = os.getcwd()
MEASURED = """import os, sys  # which is small itself, for memory is counted from before the program took its place on
_, status, usage = os.wait4(os.posix_spawn(sys.argv[1], sys.argv[1:], os.environ), 0)
print(usage.ru_maxrss)
sys.exit(os.waitstatus_to_exitcode(status))"""


def flip(path, *offsets):
    with open(path, "r+b") as file, mmap.mmap(file.fileno(), 0) as data:
        for offset in offsets:
            data[offset] ^= 255


def shimmed(**shim):
    return dict(os.environ, LD_PRELOAD=SHIM, ASAN_OPTIONS="verify_asan_link_order=0", **shim)


def service(unit, **settings):
    """What a unit of systemd among the examples runs, and with which environment."""
    examples = ORACLE.parent.with_name("examples")
    conf = (examples / "systemd/example.conf").read_text()
    settings = {**dict(line.split("=", 1) for line in conf.splitlines() if line[0] != "#"), **settings}
    command = re.search("^ExecStart=(.*)$", (examples / f"systemd/kelvane-{unit}@.service").read_text(), re.M)[1]
    words = []
    for word in shlex.split(command.replace("%i", "disk")):
        name = next(iter(re.findall(r"\A/usr/local/lib/kelvane/(.*)", word)), None)
        split = re.fullmatch(r"\$(\w+)", word)  # the others are one argument, whatever is in them
        words += ([next(examples.rglob(name))] if name else settings[split[1]].split() if split else
                  [re.sub(r"\$\{(\w+)\}", lambda variable: settings[variable[1]], word)])
    return words, dict(os.environ, PATH=f"{os.path.dirname(PROGRAM)}:{os.environ['PATH']}", STATE_DIRECTORY=os.getcwd())


def drop_override():
    """A file that may not be written is not written by the superuser either."""
    ctypes.CDLL(None).prctl(24, 1)


def images():
    a = randbytes(20 * BLOCK + 100)
    Path("a").write_bytes(a)
    Path("b").write_bytes(a)
    flip("b", 4 * BLOCK - 1, 4 * BLOCK, 12 * BLOCK, 20 * BLOCK + 7)


def built():
    images()
    for name in "ab":
        run([PROGRAM, "build", name, f"--partition-offset={DEVICE}"], check=True, capture_output=True)


@functools.cache
def doubt_here():
    """Why the program believes no image where the tests run, in its own words; empty where it has to."""
    if images_are_believed(HOME):
        return ""
    with tempfile.TemporaryDirectory(dir=HOME) as directory:
        Path(directory, "image").write_bytes(bytes(BLOCK))
        build = [PROGRAM, "build", directory + "/image", "--json"]
        doubt = [json.loads(run(build, capture_output=True, check=True).stdout)["freshness"]["doubt"] for _ in "12"][1]
    assert doubt, "it believes what it knows on a file system that it cannot know"
    return doubt


def has_warned():
    """Whether the file system here has told of trouble once: an image that nothing is known of is read from the disk."""
    device = os.stat(HOME).st_dev
    name = os.path.basename(os.path.realpath(f"/sys/dev/block/{os.major(device)}:{os.minor(device)}"))
    counts = [Path(f"/sys/fs/ext4/{name}/{kind}_count") for kind in ("errors", "warning")]
    return any(count.exists() and int(count.read_text()) > 0 for count in counts)


class Case(unittest.TestCase):
    def setUp(self):
        random.seed(1)  # now and then a whole entry looks torn: not in these images
        self.directory = tempfile.TemporaryDirectory(dir=HOME)  # /tmp may be in memory, whose times say little
        self.addCleanup(self.directory.cleanup)
        self.addCleanup(os.chdir, HOME)
        os.chdir(self.directory.name)

    def need_belief(self):
        if doubt_here():
            self.skipTest("no image is believed here: " + doubt_here())

    def call(self, command, expect=0, program=PROGRAM, arguments=(), stdout=PIPE, shim=None, **options):
        if shim:
            options["env"] = shimmed(**shim)
        command = [program, *command.split(), *arguments]
        done = run(command, stdout=stdout, stderr=PIPE, text=True, timeout=300, **options)
        self.assertIn(expect, (None, done.returncode), done)
        return done

    def json(self, command, expect=0, **options):
        return json.loads(self.call(command + " --json", expect, **options).stdout)

    def check_memory(self, command, most, expect=0):
        """It holds no more bytes at a time. What it complains of."""
        with Popen([PROGRAM, *command.split()], stdout=DEVNULL, stderr=PIPE, text=True) as process:
            complaint = process.stderr.read()
            _, process.returncode, usage = os.wait4(process.pid, 0)
        self.assertTrue(process.returncode == expect << 8 and usage.ru_maxrss << 10 < most, (command, usage))
        return complaint

    def calls(self, command, **shim):
        """What the program does with files, in order."""
        Path("calls").unlink(missing_ok=True)
        self.call(command, shim={"SHIM_LOG": "calls", **shim})
        return Path("calls").read_text().splitlines()

    @staticmethod
    def frames(log="log"):
        """Direction, type and size of those that went through relay.py since it was asked last."""
        frames = [line.split() for line in Path(log).read_text().splitlines()]
        os.remove(log)
        return [(way, int(kind), int(size)) for way, kind, size in frames]

    def at(self, command, call, share, **shim):
        """One of the calls of a kind that a command makes, from the first one at 0 to the last one at 1."""
        count = self.calls(command, **shim).count(call)
        self.assertGreater(count, 0, call)
        return f"{call}#{1 + round(share * (count - 1))}"

    def check_complaint(self, command, cause, **options):
        """It fails with one line on standard error."""
        self.assertRegex(self.call(command, 2, **options).stderr,
                         rf"\A(kelvane-hash: note: .*\n)*kelvane-hash: .*{cause}.*\n\Z", command)

    def check_measured(self, told):
        """Of what MEASURED ran: 64 MiB at most, but with sanitizers."""
        if b"__asan_init" not in Path(PROGRAM).read_bytes():
            self.assertLess(int(told.split()[-1]), 64 << 10, "KiB")

    def check_hash_file(self, image):
        """Every whole block is known, with the hash of the image's bytes."""
        self.assertEqual(self.json(f"info {image}.hashes")["unknownBlocks"], 0)
        expected = self.call(f"{image}.hashes {image} 0 {os.path.getsize(image)}", program=ORACLE).stdout
        self.assertEqual(self.json(f"hash {image}")["hash"], expected.strip())


def main():
    """Of what was skipped a line is printed, which `make test` shows again at its end. ONLY: the name of a test."""
    only = ["-k", os.environ["ONLY"]] if os.environ.get("ONLY") else []
    done = unittest.main(argv=sys.argv[:1] + only, failfast="FAIL_FAST" in os.environ, exit=False).result
    for test, reason in done.skipped:
        print(f"skipped: {test.id().removeprefix('__main__.')}: {reason}")
    sys.exit(not done.wasSuccessful())
