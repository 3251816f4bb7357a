"""Moments of exports that have names: points_test.py PROGRAM SHIM"""
import json, os, random, select, shutil, signal, socket, struct, sys, unittest
from pathlib import Path
from subprocess import DEVNULL, PIPE, Popen, run

from nbd_server import EXTENTS, READ, STATUS, Server, uri
from oracle import known_are_true
from program import FAR, MEASURED, ORACLE, PROGRAM, SHIM, Case, main, service

sys.path.insert(0, str(ORACLE.parent.with_name("examples")))
import night

SIZE = 8 << 20
CHUNK = 64 << 10  # of a bitmap
MOMENT = "nbd+unix:///moment?socket=nbd"
TOOLS = "qemu-storage-daemon", "qemu-img", "qemu-io"


def extents(*entries):
    return EXTENTS, struct.pack(">I", 2) + b"".join(struct.pack(">II", *entry) for entry in entries)


class Bitmaps(Case):
    """By a server of ours."""
    size, dirty = 4 << 30, (3 << 30) + (8 << 20)

    def serve(self, name, changed=None):
        """All zeros. `changed`: the answer on the bitmap from an offset on."""
        def answer(_server, command, offset, length, chunks):
            if command != STATUS:
                return chunks
            zeros = EXTENTS, struct.pack(">III", 1, min(length, self.size - offset), 3)
            return [zeros, *changed(offset)] if changed else [zeros]

        server = Server(name, b"", size=lambda _: self.size, bitmap=bool(changed), falsify=answer)
        server.extents = lambda *_: b""
        self.addCleanup(server.close)

    def test_a_server_that_is_lost(self):
        """What was hashed until then is of its moment, and of no other."""
        data = random.randbytes(32 << 20)

        def lose(_server, command, offset, _length, chunks):
            if command == READ and offset >= 24 << 20:
                raise OSError
            return chunks

        for again, read in ("p0", range(1, 28 << 20)), ("p1", [32 << 20]):
            for falsify in lose, None:
                server = Server("s", data, falsify=falsify)
                build = f"build {uri('s')} --hash-file h -j 1 --point"
                if falsify:
                    self.check_complaint(f"{build} p0", "cannot read")
                else:
                    answer = self.json(f"{build} {again}")
                    self.assertTrue(answer["bytesRead"] in read and answer["freshness"]["recorded"], answer)
                server.close()
                os.unlink("s")
            self.assertTrue(known_are_true(Path("h").read_bytes(), data))
            os.unlink("h")

    def test_what_is_no_list_of_changes(self):
        """It is an error, and forgets nothing."""
        build = "build nbd+unix:///?socket={} --hash-file h --block-size 1M --adopt --point {}"
        self.serve("s")
        self.call(build.format("s", "p0"))
        for name, changed in (("none", lambda offset: []), ("twice", lambda offset: 2 * [extents((4096, 0))]),
                              ("empty", lambda offset: [extents((0, 1))]), ("other", lambda offset: [(EXTENTS, bytes(12))]),
                              ("behind", lambda offset: [extents((1 << 30, 0), (4096, 1))]),
                              ("ends", lambda offset: [extents((1 << 30, 0))] if offset == 0 else [])):
            os.rename("s", "before")
            self.serve("s", changed)
            with self.subTest(name):
                self.check_complaint(build.format("s", "p1") + " --since p0 --bitmap b", "cannot tell what has changed")
        os.unlink("s")
        self.serve("s", lambda offset: [extents((min(1 << 30, self.size - offset), 0))])
        answer = self.json(build.format("s", "p1") + " --since p0 --bitmap b")
        self.assertEqual((answer["bytesOfHoles"], answer["freshness"]["doubt"]), (0, ""))

    def test_memory_of_many_changes(self):
        """What lies between them counts as changed, but not what lies behind."""
        build = f"build {uri('s')} --hash-file h --block-size 1M -j 1 --point".split()
        self.serve("s", lambda offset: [extents(*((512, 1), (512, 0)) * 8192) if offset < self.dirty else extents(
            (min(1 << 30, self.size - offset), 0))])
        self.call(build[0], arguments=[*build[1:], "p0"])
        told = run([sys.executable, "-c", MEASURED, PROGRAM, *build, "p1", "--since", "p0", "--bitmap", "b"],
                   stdout=PIPE, text=True, check=True).stdout
        self.assertIn("3.01 GiB of holes, 1016.00 MiB known before", told)
        self.check_measured(told)


@unittest.skipUnless(all(map(shutil.which, TOOLS)), "no qemu-utils, or no qemu-system-common")
class Disks(Case):
    """A disk in QEMU's storage daemon, which is written."""
    def setUp(self):
        super().setUp()
        run(f"qemu-img create -q -f qcow2 disk.qcow2 {SIZE}", shell=True, check=True)
        monitors = [word for name in ("qmp", "other") for word in (
            "--chardev", f"socket,path={name},server=on,wait=off,id={name}", "--monitor", f"chardev={name}")]
        daemon = Popen(["qemu-storage-daemon", *monitors, "--blockdev", "driver=qcow2,node-name=disk,file.driver=file,file.filename=disk.qcow2",
                        "--nbd-server", "addr.type=unix,addr.path=nbd", "--export",
                        "type=nbd,id=disk,node-name=disk,name=disk,writable=on", "--daemonize", "--pidfile", "pid"])
        self.assertEqual(daemon.wait(60), 0)
        self.addCleanup(lambda pid: os.kill(pid, signal.SIGKILL), int(Path("pid").read_text()))
        self.monitor = night.Monitor("qmp")
        self.addCleanup(self.monitor.socket.close)

    def write(self, *chunks):
        for chunk in chunks:
            offset, length = chunk * CHUNK + 9, random.randrange(1, CHUNK - 9)
            run(["qemu-io", "-f", "raw", "-c", f"write -q -P {random.randrange(256)} {offset} {length}",
                 "nbd+unix:///disk?socket=nbd"], check=True)

    def begin(self, point, since=None):
        """The export shows the disk as it is now, and what has changed since a point."""
        self.monitor.clear("disk")
        run(f"qemu-img create -q -f qcow2 scratch {SIZE}", shell=True, check=True)
        self.monitor.begin("disk", point, since, os.path.abspath("scratch"))
        run(["qemu-img", "convert", "-f", "raw", "-O", "raw", MOMENT, "moment.raw"], check=True)

    def told(self, command, **options):
        answer = self.json(f"{command} {MOMENT} --hash-file h", **options)
        return answer["bytesRead"], answer["freshness"]["doubt"], answer["freshness"]["recorded"]

    def test_by_which_names_hashes_are_believed(self):
        self.write(*range(SIZE // CHUNK))  # no holes
        self.begin("p0")
        self.assertEqual(self.told("build --point p0"), (SIZE, "", True))
        self.assertEqual(self.told("build --point p0"), (0, "", True))
        self.write(3, 70, 71)
        self.begin("p1", since="p0")
        self.write(5)
        before = Path("h").read_bytes()
        for options, cause in (("--point p1 --since p0 --bitmap lost", "does not show qemu:dirty-bitmap:lost"),
                               ("--point p0 --since p0 --bitmap changes", "two moments have one name: p0"),
                               ("--point p1 --since p0", "--since requires --bitmap"), ("--bitmap b", "requires --since"),
                               ("--check --since p0 --bitmap changes", "excludes"), ("--point \x1b", r"not a name: \?"),
                               ("--assume-unchanged --point p1", "excludes"), ("--point ", "not a name: ")):
            self.check_complaint("build", cause, arguments=[MOMENT, "--hash-file", "h", *options.split(" ")])
        self.check_complaint("build moment.raw --point p1", "points are those of exports")
        self.check_complaint(f"verify {MOMENT} --hash-file h --point p1", "they are of the point p0")
        self.assertEqual(Path("h").read_bytes(), before)
        self.assertEqual(self.json("info h")["record"]["point"], "p0")
        self.assertEqual(self.told("build --point p1 --since p0 --bitmap changes"), (3 * CHUNK, "", True))
        self.assertIn("at the point p1\n", self.call("info h").stdout)
        self.assertTrue(known_are_true(Path("h").read_bytes(), Path("moment.raw").read_bytes()))
        self.call(f"verify {MOMENT} --hash-file h --point p1")
        for options, read, doubt, recorded in (
                ("--point p2", SIZE, "they are of the point p1", True),
                ("--point p3 --since p1 --bitmap changes", SIZE, "they are of the point p2", True),
                ("--since p3 --bitmap changes", 3 * CHUNK, "", False),
                ("--point p4", SIZE, "an export shows no evidence", True), ("", SIZE, "they are of the point p4", False),
                ("--point p4", 0, "", True), ("--point p4 --check", SIZE, "that was asked for", True)):
            self.assertEqual(self.told(f"build {options}"), (read, doubt, recorded), options)
        record = Path("h.state")
        record.write_text(record.read_text().replace('"p4"', '"p5"'))
        self.assertEqual(self.told("build --point p5")[:2], (SIZE, "no record says that they are true of it"))
        other = Path("boot")
        other.write_text("another start of the machine\n")
        self.assertEqual(self.told("build --point p5", shim={"SHIM_BOOT": "boot"})[:2],
                         (SIZE, "the machine was started again since"))

    def test_what_is_said_is_true_whatever_happens(self):
        """Kills and failures, points of now and of before; never a hash that is not true of the moment recorded."""
        random.seed(int(os.environ.get("SEED", 1)))
        moments, good = [], 0
        for number in range(16):
            self.write(*random.sample(range(SIZE // CHUNK), random.randrange(4)))
            since = random.choice((moments or [None])[-2:])
            point = f"p{number}"
            self.begin(point, since)
            moments.append(point)
            for _ in range(random.randrange(1, 4)):
                words = ["build", MOMENT, "--hash-file", "h"] if random.random() < 0.5 else [
                    "sync", MOMENT, "copy", "--source-hash-file", "h"]
                words += ["--point", point] if random.random() < 0.9 else []
                words += ["--since", since, "--bitmap", "changes"] if since and random.random() < 0.7 else []
                shim = {"SHIM_AT": str(random.randrange(1, 90)), "SHIM_DO": random.choice(("9", "15", "fail 5"))}
                done = self.call(words[0], None, arguments=words[1:], shim=shim if random.random() < 0.5 else None)
                moment = Path("moment.raw").read_bytes()
                if done.returncode == 0:
                    good += 1
                    self.assertTrue(known_are_true(Path("h").read_bytes(), moment), words)
                    self.assertTrue(words[0] == "build" or Path("copy").read_bytes() == moment, words)
                if os.path.exists("h") and (self.json("info h")["record"] or {}).get("point") == point:
                    self.assertTrue(known_are_true(Path("h").read_bytes(), moment), words)
        self.assertGreater(good, 10)

    def copy(self, cut=None):
        """A night whose connection to the monitor ends with a command, and what is told of it."""
        Path("bin").mkdir(exist_ok=True)
        Path("bin/kelvane-hash").write_text(f"""#!/bin/sh
            [ $1 = sync ] && qemu-img convert -f raw -O raw "$2" moment.raw
            [ $1 = sync ] && rm killed 2>/dev/null && export LD_PRELOAD={SHIM} SHIM_AT='pwrite h' SHIM_DO=9 \\
                ASAN_OPTIONS=verify_asan_link_order=0
            exec {PROGRAM} "$@" """)
        os.chmod("bin/kelvane-hash", 0o755)
        with socket.create_server("cut", family=socket.AF_UNIX) as server:
            words, environment = service("night", QMP="cut", NBD="nbd", HASHES="h", DEST="far:copy", OPTIONS=FAR)
            script = Popen(words, stdout=PIPE, stderr=PIPE, env=environment | {"PATH": f"{os.getcwd()}/bin:{environment['PATH']}"})
            near, far = server.accept()[0], socket.socket(socket.AF_UNIX)
        os.unlink("cut")
        far.connect("other")
        with near, far:
            count = 0
            while ready := select.select([near, far], [], [])[0]:
                data = ready[0].recv(1 << 16)
                count += ready[0] is near
                if not data or count == cut:
                    break
                (far if ready[0] is near else near).sendall(data)
        told = json.loads(script.communicate(timeout=60)[0])
        self.assertEqual(told["exitCode"], script.returncode)
        return told

    def test_a_night_that_fails_at_any_step(self):
        writer = Popen(["bash", "-c", "while echo write -q -P $((RANDOM % 256)) $((RANDOM * 200)) 3000; do sleep 0.01; done |"
                        "exec qemu-io -f raw nbd+unix:///disk?socket=nbd"], start_new_session=True, stdout=DEVNULL)
        self.addCleanup(lambda: (os.killpg(writer.pid, signal.SIGKILL), writer.wait()))
        self.assertEqual(self.copy()["exitCode"], 0)
        for step in range(1, 99):
            if step == 1:
                Path("killed").touch()
            if self.copy(None if step == 1 else step)["exitCode"] == 0:
                break
            with self.subTest(step=step):
                told = self.copy()
                self.assertEqual(told["exitCode"], 0)
                self.assertEqual(Path("copy").read_bytes(), Path("moment.raw").read_bytes())
                self.assertEqual(told["result"]["freshness"][0]["doubt"], "the last run was cut short" if step == 1 else "")
                self.assertEqual(list(self.monitor.bitmaps("disk")), [self.json("info h")["record"]["point"]])
        self.assertGreater(step, 15)


main()
