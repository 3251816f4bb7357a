"""NBD exports as images: nbd_test.py PROGRAM SHIM"""
import os, random, shutil, signal, struct, sys, threading, time, unittest
from pathlib import Path
from random import randbytes
from subprocess import PIPE, Popen, run

from nbd_server import DATA, EXTENTS, FAILED, FLAGS, FLUSH, HOLE, NONE, READ, READ_ONLY, SEVERAL, STATUS, WRITE, ZERO, Server, uri
from program import BLOCK, FAR, MEASURED, PROGRAM, Case, main

UNIT = 64 << 10
TOOLS = shutil.which("nbdkit") and shutil.which("qemu-nbd")


def pattern(length):
    """Data, holes of many blocks, and zeros that are less than one."""
    data = bytearray(length)
    for start in range(0, length, 12 * UNIT):
        end = min(length, start + 2 * UNIT)
        data[start:end] = randbytes(end - start)
    data[BLOCK:BLOCK + 700] = bytes(700)
    return data


def extents(*lengths):
    return EXTENTS, struct.pack(">I", 1) + b"".join(struct.pack(">II", length, 3) for length in lengths)


def of(kind, change):
    """Falsifies the answers about one place."""
    def falsify(_, command, offset, length, chunks):
        return change(offset, length, chunks) if command == kind and offset in (0, PLACE)[kind != STATUS:] else chunks
    return {"falsify": falsify}


def part(offset, first, last):
    return DATA, struct.pack(">Q", offset + first) + bytes(last - first)


def refuse(*_):
    raise OSError


def await_another(server, *answer):
    while answer[0] == READ and len(server.lines) < 2:
        time.sleep(0.01)
    return answer[-1]


# What a server says, or does, and what is said of that.
PLACE = 4 * UNIT
HERE, HOLES = f"at offset {PLACE}: cannot read", "at offset 0: cannot tell data from holes"
LIES = {
    "less": (of(READ, lambda o, l, c: [part(o, 0, l // 2)]), HERE),
    "nothing": (of(READ, lambda o, l, c: [(NONE, b"")]), HERE),
    "twice": (of(READ, lambda o, l, c: c + c), HERE),
    "overlapping": (of(READ, lambda o, l, c: [part(o, 0, l * 3 // 4), part(o, l // 4, l // 2)]), HERE),
    "gap": (of(READ, lambda o, l, c: [part(o, 0, 9), (HOLE, struct.pack(">QI", o + 10, l - 10))]), HERE),
    "elsewhere": (of(READ, lambda o, l, c: [part(o, 1, l + 1)]), "at offset [0-9]+: cannot read"),
    "error": (of(READ, lambda o, l, c: FAILED), HERE + ": Input/output error"),
    "lost": (of(READ, refuse), "at offset [0-9]+: cannot read"),
    "silence": (of(READ, lambda o, l, c: None), HERE + ": the server has said nothing for 1 second"),
    "no extents": (of(STATUS, lambda o, l, c: [(NONE, b"")]), HOLES),
    "empty extents": (of(STATUS, lambda o, l, c: [extents(0, l)]), HOLES),
    "never ending": (of(STATUS, lambda o, l, c: [extents(*[0] * 5000)]), HOLES),
    "extents twice": (of(STATUS, lambda o, l, c: [extents(UNIT), extents(UNIT)]), HOLES),
    "behind the end": (of(STATUS, lambda o, l, c: [extents(l + UNIT)]), HOLES),
    "odd extents": ({**of(STATUS, lambda o, l, c: [extents(UNIT + 1, UNIT - 1)]), "unit": 512}, HOLES),
    "other context": (of(STATUS, lambda o, l, c: [(EXTENTS, struct.pack(">III", 7, l, 3))]), HOLES),
    "odd size": ({"unit": 4096, "size": lambda server: len(server.data) - 5}, "the server's sizes do not fit"),
    "other size": ({"flags": FLAGS | SEVERAL, "data": bytearray(b"1" * (17 << 20)), "falsify": await_another,
                    "size": lambda server: len(server.data) - UNIT * (len(server.lines) > 1)},
                   "something else of it on another connection"),
}

# How an export of the file "raw", or of the same in a qcow2, is served.
SERVERS = {
    "file": "nbdkit -f file raw",
    "no extents": "nbdkit -f --filter=noextents file raw",
    "large blocks": "nbdkit -f --filter=blocksize-policy file raw blocksize-minimum=64K blocksize-preferred=64K "
                    "blocksize-maximum=128K blocksize-error-policy=error",
    "preferring": "nbdkit -f --filter=blocksize-policy file raw blocksize-minimum=512 blocksize-preferred=2M "
                  "blocksize-maximum=2M blocksize-error-policy=error",
    "no zeros": "nbdkit -f --filter=nozero file raw zeromode=none",
    "one connection, slow": "nbdkit -f --filter=multi-conn --filter=delay file raw multi-conn-mode=disable delay-read=2ms",
    "no structured replies": "nbdkit -f --no-sr file raw",
    "keys": "nbdkit -f --tls=require --tls-psk=keys file raw",
    "qcow2": "qemu-nbd --persistent --shared=3 --discard=unmap -f qcow2 qcow2",
}


LACKS_NBD = b"without libnbd" in run([PROGRAM, "build", uri("none"), "--hash-file", "none"], stderr=PIPE).stderr


@unittest.skipIf(LACKS_NBD, "the program was built without libnbd")
class Exports(Case):
    def serve(self, path="s", **how):
        Path(path).unlink(missing_ok=True)
        server = Server(path, **how)
        self.addCleanup(server.close)
        return server

    def start(self, command):
        """A server of a package."""
        Path("s").unlink(missing_ok=True)
        words = command.split()
        words[1:1] = ["-U", os.path.abspath("s")] if words[0] == "nbdkit" else ["-k", os.path.abspath("s")]
        server = Popen(words, stderr=PIPE)
        self.addCleanup(server.communicate)
        self.addCleanup(server.kill)
        while not os.path.exists("s"):
            self.assertIsNone(server.poll(), command)
            time.sleep(0.01)
        return server

    def true_hash(self, data):
        Path("truth").write_bytes(data)
        return self.json("hash truth --check")["hash"]

    def forget(self):
        for path in Path().glob("h*"):
            path.unlink()

    def check_hashes(self, data):
        """Those that are known are true."""
        self.serve(data=data)
        self.assertEqual(self.json(f"hash {uri('s')} --hash-file h --assume-unchanged")["hash"], self.true_hash(data))

    @unittest.skipUnless(TOOLS, "no nbdkit, or no qemu-utils")
    def test_servers(self):
        """Read, compared, written with and without holes, and copied out again, by every kind of server."""
        Path("keys").write_text("me:00112233445566778899aabbccddeeff\n")
        for name, command in SERVERS.items():
            data = pattern(33 * UNIT + (100 if name in ("file", "no zeros") else 0))
            Path("dense").write_bytes(data)
            run("cp --sparse=always dense raw; qemu-img convert -f raw -O qcow2 raw qcow2", shell=True, check=True)
            at = f"nbds+unix://me@/?socket=s&tls-psk-file={os.path.abspath('keys')}" if name == "keys" else uri("s")
            new = bytearray(data)
            new[3 * UNIT:6 * UNIT], new[-9000:] = bytes(3 * UNIT), randbytes(9000)
            new[10 * UNIT:10 * UNIT + 5 * BLOCK] = randbytes(5 * BLOCK)
            Path("new").write_bytes(new)
            self.start(command)
            with self.subTest(name):
                built = self.json(f"build {at} --hash-file h -j 2")
                self.assertEqual(built["bytesOfHoles"] > 0, name not in ("no extents", "no structured replies"), built)
                self.assertEqual(self.json(f"hash {at} --hash-file h")["hash"], self.true_hash(data))
                self.call(f"verify {at} --hash-file h")
                for options in "", "--no-sparse":
                    self.assertTrue(self.json(f"sync new {at} --dest-hash-file h --verify {options}")["equal"])
                    self.call(f"sync {at} out --source-hash-file h {options}")
                    self.assertEqual(Path("out").read_bytes(), new)
                    self.call(f"diff {at} new --hash-file-a h")
            self.forget()

    def test_requests_are_on_their_way_side_by_side(self):
        """And over as many connections as there are jobs, where a server says that it takes them."""
        data = randbytes(800 * UNIT)
        Path("a").write_bytes(data[:40 * UNIT + BLOCK] + bytes(2 * UNIT) + randbytes(14 * UNIT))
        for flags, jobs, lines in (FLAGS, 3, 1), (FLAGS | SEVERAL, 1, 1), (FLAGS | SEVERAL, 2, 2):
            server = self.serve(data=data, flags=flags, patience=0.01)
            self.json(f"build {uri('s')} --hash-file h -j {jobs}")
            self.assertEqual((len(server.lines), server.most >= 16), (lines, True))
            server.close()
            self.forget()
        for options, flag, old in ("", 0, randbytes(57 * UNIT)), ("--no-sparse", 2, bytes(57 * UNIT)):
            server = self.serve(data=bytearray(old), unit=UNIT, patience=0.01)
            self.call(f"sync a {uri('s')} --dest-hash-file h {options}")
            self.assertGreaterEqual(server.most, 8)
            kinds = [command for command, *_ in server.log]
            self.assertEqual({each[3] for each in server.log if each[0] == ZERO}, {flag})
            self.assertIn(FLUSH, kinds[max(kinds.index(ZERO), len(kinds) - 1 - kinds[::-1].index(WRITE)):])
            self.assertTrue(server.data.startswith(Path("a").read_bytes()))
            self.forget()

    def test_what_is_refused(self):
        Path("a").write_bytes(pattern(41 * UNIT))
        os.mkdir("d")
        there = f"nbd+unix:///?socket={os.path.abspath('s')}"
        before = sorted(os.listdir())
        for command, cause, flags in (
                (f"build {uri('s')}", "an export: say where its hash file is", FLAGS),
                (f"sync {uri('s')} new --dest-hash-file h", "an export: say where its hash file is", FLAGS),
                (f"sync a {uri('s')} --dest-hash-file h", "at offset 2621440: too small, and of a fixed size", FLAGS),
                (f"sync a {uri('s')} --dest-hash-file h", "cannot write: the export is read-only", FLAGS | READ_ONLY),
                (f"sync {uri('s')} {there} --source-hash-file g --dest-hash-file h", "this is the source itself", FLAGS),
                (f"sync {uri('s')} d --source-hash-file h", "an export has no name in a directory", FLAGS),
                (f"sync a h:{there} {FAR}", "an export is opened where the command runs", FLAGS),
                ("build nbd+unix:///?socket=none --hash-file h", "cannot connect: .*No such file", FLAGS),
                ("build nbd+unix:///x?hash --hash-file h", "cannot connect: ", FLAGS),
                ("build nbd:a --hash-file h", "nbd:a: .*No such file", FLAGS)):
            with self.subTest(command):
                server = self.serve(data=pattern(40 * UNIT), flags=flags)
                self.check_complaint(command, cause)
                self.assertEqual(([each for each in server.log if each[0] != STATUS], sorted({*os.listdir()} - {"s"})), ([], before))
                server.close()

    def test_evidence_is_none(self):
        data = pattern(40 * UNIT)
        server = self.serve(data=data)
        build = f"build {uri('s')} --hash-file h"
        self.call(build)
        data[7 * BLOCK] ^= 1
        for options, doubt, checked, repaired in (("--assume-unchanged", "", 0, 0), ("", "an export shows no evidence", 640, 1)):
            fresh = self.json(f"{build} {options}")["freshness"]
            self.assertEqual((fresh["doubt"], fresh["checkedBlocks"], fresh["repairedBlocks"], fresh["recorded"]),
                             (doubt, checked, repaired, False))
        self.assertIn("not believed of nbd+unix:///?socket=s: an export shows no evidence", self.call("info h").stdout)
        self.serve(path="other", data=data)
        self.serve(data=bytes(41 * UNIT))
        for name, repaired in ("other", 0), ("s", 128):  # the same elsewhere; in the same place one of another size
            build = f"build {uri(name)} --hash-file h"
            self.check_complaint(build, "made for .*--adopt it is taken over")
            self.assertEqual(self.json(build + " --adopt")["freshness"]["repairedBlocks"], repaired)

    @unittest.skipUnless(TOOLS, "no nbdkit, or no qemu-utils")
    @unittest.skipIf(b"__asan_init" in Path(PROGRAM).read_bytes(), "sanitizers take memory")
    def test_memory_at_15_tib(self):
        self.start("nbdkit -f data size=15T data=1@0x80000000000(2*30000000)@0xEFFFFFFFFFF3")
        command = [PROGRAM, "build", uri("s"), "--hash-file", "h", "--block-size", "4M", "-j", "2"]
        told = run([sys.executable, "-c", MEASURED, *command], stdout=PIPE, text=True, check=True).stdout
        self.assertIn("3,932,160 blocks known\n36.00 MiB read", told)
        self.check_measured(told)

    def test_lies(self):
        """They are errors, and teach nothing."""
        data = pattern(40 * UNIT)
        data[:20 * UNIT] = randbytes(20 * UNIT)
        for name, (how, cause) in LIES.items():
            with self.subTest(name):
                server = self.serve(**{"data": data, **how})
                self.check_complaint(f"build {uri('s')} --hash-file h --block-size 4096 -j 2 --timeout 1", rf"socket=s: .*{cause}")
                server.close()
                self.check_hashes(server.data)
            self.forget()

    def test_a_server_fails_at_any_request(self):
        """Is lost, or says so, while it is read, and while it is written: no hash is wrong, and the same command goes on."""
        source = pattern(40 * UNIT)
        Path("a").write_bytes(source)
        for number, command in enumerate(12 * (f"sync a {uri('s')} --dest-hash-file h", f"sync {uri('s')} b --source-hash-file h")):
            data = bytearray(40 * UNIT) if number % 4 < 2 else pattern(40 * UNIT)
            last, failed, is_lost = random.randrange(30), threading.Event(), number % 3 > 0

            def falsify(server, _command, *answer, last=last, failed=failed, is_lost=is_lost):
                if len(server.log) == last or failed.is_set() and is_lost:
                    return refuse(failed.set()) if is_lost else (failed.set(), FAILED)[1]
                return answer[-1]

            with self.subTest(command, data=number % 4 // 2, last=last, is_lost=is_lost):
                server = self.serve(data=data, falsify=falsify)
                self.assertEqual(self.call(command, None).returncode, 2 if failed.is_set() else 0)
                server.close()
                self.check_hashes(data)
                self.assertTrue(self.json(command)["equal"])
                self.assertEqual(data, Path("ab"[number % 2]).read_bytes())
            self.forget()
            Path("b").unlink(missing_ok=True)
            Path("b.hashes").unlink(missing_ok=True)

    def test_what_a_server_has_not_written_has_no_hash(self):
        """It says so while more is on its way."""
        Path("a").write_bytes(randbytes(400 * UNIT))
        server = self.serve(data=bytearray(400 * UNIT), **of(WRITE, lambda *_: FAILED))
        self.check_complaint(f"sync a {uri('s')} --dest-hash-file h", f"at offset {PLACE}: cannot write: Input/output error")
        server.close()
        self.check_hashes(server.data)

    def test_signals_while_a_request_hangs(self):
        Path("a").write_bytes(pattern(40 * UNIT))
        for kind, command in ((READ, f"build {uri('s')} --hash-file h"), (STATUS, f"build {uri('s')} --hash-file h"),
                              (WRITE, f"sync a {uri('s')} --dest-hash-file h"), (FLUSH, f"sync a {uri('s')} --dest-hash-file h")):
            silent = threading.Event()

            def falsify(_server, command, *answer, kind=kind, silent=silent):
                return silent.set() if command == kind else answer[-1]

            with self.subTest(command):
                server = self.serve(data=bytearray(randbytes(40 * UNIT)), falsify=falsify)
                with Popen([PROGRAM, *command.split()], stderr=PIPE) as process:
                    self.assertTrue(silent.wait(60))
                    process.send_signal(signal.SIGINT)
                    self.assertIn(b"interrupted", process.communicate(timeout=50)[1])
                    self.assertEqual(process.returncode, 130)
                server.close()
                self.check_hashes(server.data)
            self.forget()


main()
