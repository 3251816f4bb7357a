"""kelvane-hash between two machines: remote_test.py PROGRAM SHIM. The other machine is reached through relay.py, which
disturbs the line, or it is played by this test, which then does not keep to the protocol."""
import fcntl, json, os, shlex, shutil, struct, subprocess, sys, time
from itertools import product
from pathlib import Path
from random import randbytes

from frames import (ALIVE, ANNOUNCE, ASKEW, ASK_BYTES, ASK_NODES, CONCLUDE, DATA, DIGESTS, DISTRUST, DROP_CACHE, END,
                    ERROR, HELLO, NOTE, OPENED, PROGRESS, READ, STARTED, START_WRITING, OneSided, encoded, frame, hello,
                    opened, opening, start)
from oracle import known_are_true
from program import BLOCK, FAR, PROGRAM, RELAY, doubt_here, flip, main

# Runs a command and tells the memory of its largest process in KiB. Python in between, for a process begins with the
# peak of the one that it was forked from.
PEAK = """import resource, subprocess, sys
code = subprocess.run(sys.argv[1:]).returncode
print(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss)
sys.exit(code)"""


class Remote(OneSided):
    PUSH, PULL = "sync near host:there/far", "sync host:there/far near"

    def images(self):
        shutil.rmtree("there", ignore_errors=True)
        for path in Path().glob("near*"):
            path.unlink()
        os.mkdir("there")
        data = bytearray(randbytes(60 * BLOCK + 99))
        data[20 * BLOCK:30 * BLOCK] = bytes(10 * BLOCK)
        Path("near").write_bytes(data)
        data[20 * BLOCK:22 * BLOCK] = randbytes(2 * BLOCK)
        for block in 3, 4, 40, 59:
            data[block * BLOCK:block * BLOCK + 5] = b"other"
        Path("there/far").write_bytes(data)
        for name in "near", "there/far":
            self.call(f"build {name}")

    def remote(self, command, expect=0, **relay):
        environment = dict(os.environ, **{"RELAY_" + name.upper(): str(value) for name, value in relay.items()})
        timeout = 1 if relay.get("do") == "silence" else 30
        return self.call(f"{command} {FAR} --timeout {timeout}", expect, env=environment)

    def check_known(self, name):
        self.assertTrue(known_are_true(Path(name + ".hashes").read_bytes(), Path(name).read_bytes()), name)

    def test_does_what_it_does_on_one_machine(self):
        for source, destination, options in (("near", "host:there/far", ""), ("host:there/far", "near", "--compress"),
                                             ("near", "host:there/new", "--compress=9"),
                                             ("host:there/far", "near2", "")):
            self.images()
            local = [path.replace("host:", "") for path in (source, destination)]
            self.remote(f"diff {source} {destination}", 2 if "new" in destination or "2" in destination else 1)
            self.remote(f"sync {source} {destination} --verify {options}")
            self.assertEqual(*map(Path.read_bytes, map(Path, local)))
            self.check_known(local[1])
            again = self.remote(f"sync {source} {destination} --json")
            self.assertIn('"bytesCopied": 0', again.stdout)
            self.assertEqual("note" in again.stderr, bool(doubt_here()))
            checked = "(# .* 60 known blocks checked, 0 repaired\n){2}" if doubt_here() else ""
            self.assertRegex(self.remote(f"diff {destination} {source}").stdout,
                             rf"\A{checked}# .* bytes sent, .*\n# equal; .* read\n\Z")
            flip(local[0], 7)
            doubt = doubt_here() or "it was changed since"
            self.assertIn(doubt, self.remote(f"diff {source} {destination}", 1).stderr)
        self.images()
        with open("there/far.hashes") as used:  # so the other side refuses, and nothing is changed here
            fcntl.flock(used, fcntl.LOCK_EX)
            os.truncate("near", 5 * BLOCK)
            self.assertRegex(self.remote("sync host:there/far near", 2).stderr, "host: .*in use")
        self.assertEqual(os.path.getsize("near"), 5 * BLOCK)
        self.images()
        wrong = self.remote("sync near host:nothing/there", 2)
        note = r"(kelvane-hash: note: near: its known .*\n)?" if doubt_here() else ""
        self.assertRegex(wrong.stderr, rf"\A{note}kelvane-hash: host: nothing/there.*No such file or directory\n\Z")
        self.call("build there/far --hash-file large --block-size 8K")
        wrong = self.remote("sync near host:there/far --dest-hash-file large", 2)
        self.assertRegex(wrong.stderr, r"near.hashes: its blocks have 4,096 bytes, those of host:large 8,192 bytes")
        for host in "-oProxyCommand=touch", "", "u@", "u@-x", "[-x]":
            done = subprocess.run([PROGRAM, "diff", "--rsh", RELAY, "--", "near", host + ":x"], capture_output=True)
            self.assertIn(b"the host before the colon", done.stderr)
        Path("hosts").write_text(f'#!/bin/sh\nprintf %s "$1" >host\nexec "{RELAY}" "$@"\n')
        os.chmod("hosts", 0o755)
        for given, host in ("[::1]", "::1"), ("u@[fe80::2%eth0]", "u@fe80::2%eth0"), ("u@h", "u@h"):
            self.call(f"diff near {given}:x --rsh ./hosts", 2)
            self.assertEqual(Path("host").read_text(), host)
        self.assertRegex(self.remote("diff a:b c:d", 2).stderr, "one of the two images must be on this machine")

    def test_takes_few_trips_and_sends_little(self):
        for name in "near", "far":
            subprocess.run(["truncate", "-s", "64G", name], check=True)
            self.call(f"build {name} --block-size 64K")
        for differences, most_trips, most_bytes in (0, 2, 2000), (50, 12, 200000):
            with open("near", "r+b") as file:
                for i in range(differences):
                    os.pwrite(file.fileno(), b"x", (64 << 30) * i // 50 + 12345)
            self.call("build near")
            self.remote("diff near host:far", 1 if differences else 0, log="log")
            frames = self.frames()
            ways = "".join(way for way, kind, _ in frames if kind != PROGRESS)
            self.assertLessEqual(ways.count("><"), most_trips, ways)
            self.assertLess(sum(size for *_, size in frames), most_bytes)

    def test_memory_does_not_grow_with_the_images(self):
        size = 15 << 40
        for name in "near", "far":
            try:
                Path(name).touch()
                os.truncate(name, size)
            except OSError as error:
                self.skipTest(f"no file of 15 TiB can be made here: {error}")
        with open("near", "r+b") as file:
            for offset in range(12345, size, size // 16):
                os.pwrite(file.fileno(), randbytes(1 << 20), offset)
        Path("waits").write_text('#!/bin/sh\nshift\n"$@"\nexit $?\n')  # so that the server's memory is counted, too
        os.chmod("waits", 0o755)
        for command in "sync near h:far --block-size 1M --json", "sync h:far near --check --json", "diff h:far near":
            done = subprocess.run([sys.executable, "-c", PEAK, PROGRAM, *command.split(), "--rsh", "./waits",
                                   "--remote-program", PROGRAM], capture_output=True, text=True, timeout=300,
                                  env=dict(os.environ, ASAN_OPTIONS="quarantine_size_mb=16"))
            self.assertEqual(done.returncode, 0, done)
            self.assertLess(int(done.stdout.split()[-1]), 128 << 10, command)
            if "near h:far" in command:
                self.assertIn(f'"bytesCopied": {32 << 20},', done.stdout)

    def in_one_go(self, command, prepare, answer, question, more):
        """Runs a command, and once again on a line on which no such answer comes before the client has sent all up to the
        first such question, and some more: with what nobody waits for, that makes no difference."""
        hold = {"log": "log"}
        for _ in range(2):
            prepare()
            line = json.loads(self.remote(command + " --json", **hold).stdout)["line"]
            self.assertEqual(Path("near").read_bytes(), Path("there/far").read_bytes())
            if "log" in hold:
                asked = [kind for way, kind, _ in self.frames() if way == ">"] + [question]
                hold = {"hold": f"{answer} {asked.index(question) + more}"}
        return line["roundTrips"]

    def test_asks_in_one_go_what_needs_no_answer(self):
        self.need_belief()
        self.images()
        self.remote(self.PUSH)
        for blocks, trips in ((), 1), ((3, 40), 2):
            Path("changes").write_text("".join(f"{block * BLOCK} {BLOCK}\n" for block in blocks))

            def change():
                flip("near", *(block * BLOCK for block in blocks))
                self.call("invalidate near --from changes --format lines")

            self.assertEqual(self.in_one_go(self.PUSH, change, HELLO, START_WRITING, 0), trips)
            self.check_known("there/far")
        striped = b"".join(bytes([i % 2]) * 64 for i in range(20000))  # 10,000 ranges, of which 4096 go into one Read
        for name in "near", "there/far":
            Path(name).write_bytes(bytes(len(striped)))
            Path(name + ".hashes").unlink()
            self.call(f"build {name} --block-size 64")
        self.in_one_go(self.PULL, lambda: Path("near").write_bytes(striped), DATA, READ, 2)

    def test_changes_nothing_before_both_sides_agree(self):
        self.images()
        Path("there/short").write_bytes(bytes(5 * BLOCK))
        self.call("build there/short --block-size 8K")
        wrong = self.remote("sync near host:there/short", 2)
        self.assertRegex(wrong.stderr, "its blocks have 4,096 bytes|made for a block size of 8192")
        with open("near.hashes") as used:
            fcntl.flock(used, fcntl.LOCK_EX)
            for images in "near host:there/short", "near host:there/new", "host:near new", "near new":
                self.assertRegex(self.remote(f"sync {images}", 2).stderr, "near.hashes: .*in use")
        shutil.copy("near.hashes", "kept.hashes")
        for name in "new", "kept":
            fails = {"SHIM_AT": f"open {name}#2", "SHIM_DO": "fail"}
            self.check_complaint(f"sync near {name} --adopt", f"{name}: cannot make", shim=fails)
        self.assertEqual(Path("there/short").read_bytes(), bytes(5 * BLOCK))
        self.assertEqual([*Path().rglob("new*")], [], "not even a hash file")
        self.assertTrue(Path("kept.hashes").exists())
        flip("near", 0)  # what is read for long is not read in vain
        wrong = self.remote("sync near host:there/far.hashes", 2)
        self.assertRegex(wrong.stderr, r"\Akelvane-hash: host: .*a hash file, not an image\n\Z")

    def test_options_reach_the_other_side(self):
        self.images()
        told = encoded(hello(timeout=9) + opening("x", True, "y", trust=1, jobs=3, level=7, rate=1 << 20))
        for capabilities, text in (0xFFFFFFFF, "enough"), (0xFFFFFFFE, "has no zstd"):
            Path("answer").write_bytes(encoded(hello(capabilities=capabilities) + frame(ERROR, b"enough")))
            complaint = self.against("sync near h:x --jobs 3 --compress=7 --bwlimit 1M --check --timeout 9 "
                                     "--dest-hash-file y", f"head -c {len(told)} >got; cat answer; exec cat >/dev/null")
            self.assertRegex(complaint, rf"\Akelvane-hash: h: .*{text}.*\n\Z")
            self.assertEqual(Path("got").read_bytes(), told)

    def test_whatever_happens_to_the_line_nothing_is_untrue(self):
        for command, destination in (self.PUSH, "there/far"), (self.PULL, "near"):
            self.images()
            shutil.rmtree("kept", ignore_errors=True)
            shutil.copytree(".", "kept")
            self.remote(command, log="log")
            frames, copied = len(self.frames()), set()
            for at in range(1, frames + 1):
                for do in ("cut", "truncate", "flip") + (("silence",) if at % 9 == 4 else ()):
                    subprocess.run("rm -rf near* there; cp -a kept/. .", shell=True, check=True)
                    with self.subTest(f"{command}, {do} at {at} of {frames}"):
                        done = self.remote(command, None, at=at, do=do)
                        self.assertIn(done.returncode, (2,) if do == "flip" else (0, 1, 2), done)
                        if done.returncode == 0:
                            self.assertEqual(Path("near").read_bytes(), Path("there/far").read_bytes())
                        copied.add(self.recover(command, destination))
            self.assertGreater(len(copied), 2, "what arrived is not sent again")

    def recover(self, command, destination):
        """What is known after a failure is true, and the same command makes all good. How much it copies."""
        self.wait_for_server(destination)
        for name in "near", "there/far":
            self.check_known(name)
        copied = json.loads(self.remote(command + " --json").stdout)["bytesCopied"]
        self.assertEqual(Path("near").read_bytes(), Path("there/far").read_bytes())
        self.check_known(destination)
        return copied

    def wait_for_server(self, name):
        released = subprocess.run(["flock", "--wait", "60", name + ".hashes", "true"])
        self.assertEqual(released.returncode, 0, "the server goes on for ever")

    def test_a_client_killed_while_its_bandwidth_is_limited(self):
        for command in self.PUSH, self.PULL:
            self.images()
            flip("near", *range(0, 60 * BLOCK, BLOCK))
            self.call("build near")
            Path("log").write_text("")
            client = subprocess.Popen([PROGRAM, *f"{command} {FAR} --bwlimit={BLOCK}".split()],
                                      stdout=subprocess.DEVNULL, env=dict(os.environ, RELAY_LOG="log"))
            while client.poll() is None and Path("log").read_text().count(f" {DATA} ") < 2:  # of 60, a second each
                time.sleep(0.01)
            client.kill()
            self.assertEqual(client.wait(), -9)
            self.recover(command, "there/far")
            for name in "near", "there/far":
                self.check_hash_file(name)

    def test_no_more_bytes_per_second_than_are_allowed(self):
        """By the program's own clock, which runs fast here; the limit is far below what it does without one."""
        for command in self.PUSH, self.PULL:
            seconds, rate = 0, 0
            for _ in "without", "with":
                self.images()
                flip("near", *range(0, 20 * BLOCK, BLOCK))
                self.call("build near")
                done = self.json(f"{command} {FAR} --timeout 86400 --bwlimit={rate}",
                                 shim={"SHIM_CLOCK": "20", "RELAY_LOG": "log"})
                frames = self.frames()
                free, limit, seconds = seconds, rate, done["seconds"]
                rate = int(20 * BLOCK / seconds / 5)
            sent = [size for way, kind, size in frames  # of which each one waits for those before it
                    if kind in (ASK_NODES, DIGESTS, DATA) and way == (">" if command == self.PUSH else "<")]
            self.assertLess(max(sent), 2 * max(limit, BLOCK), "a piece takes no longer than a second, or is one block")
            least = sum(sent[:-1]) / limit
            self.assertGreater(least, 2 * free)
            self.assertGreaterEqual(seconds, least)

    def test_a_server_that_does_not_keep_to_the_protocol(self):
        self.images()
        there = opened(60 * BLOCK + 99)
        started = frame(STARTED, struct.pack("<qqBI", 0, 0, 0, 0))
        digests = [frame(DIGESTS, struct.pack("<I", count) + bytes(32 * count) + b"\0") for count in range(61)]
        answers = hello() + there + started + digests[1] + digests[1]  # of the end, of all, of pairs, of blocks
        reading = answers + digests[30] + digests[60]
        lies = {
            "closed": ([], "ended with 0"), "text": ([b"Welcome to this machine!\n" * 10], "Welcome to this machine!"),
            "version": (hello(2), "speaks version 2 of the protocol"),
            "magic": (frame(HELLO, bytes(16)), "no kelvane-hash"), "kind": (frame(DATA, hello()[0][1]), "no greeting"),
            "zeros": (hello() + [b"\0" * 13], "damaged"), "type": (hello() + frame(99), "of type 99 with"),
            "long": (hello() + frame(OPENED, bytes(2 << 20)), "with 2097152 bytes"),
            "order": (hello() + started, "type 5"),
            "short": (hello() + frame(OPENED, bytes(9)), "too short"),
            "excess": (hello() + there + started + started, "type 5"),
            "negative": (hello() + frame(OPENED, b"\xff" * 50), "too large"),
            "silence": (hello() + there, "no sign of life"),
            "error": (hello() + there + frame(PROGRESS, struct.pack("<I", 2) + b"\xff\n" + bytes(16))
                      + frame(NOTE, b"h\n\x1b") + frame(ERROR, b"on\n\x1b\xc2\x9bfire" + bytes(9999)),
                      r"on\?\?\?fire\?{100,999}\.\.\."),
            "sum": (hello() + there + frame(STARTED, struct.pack("<qqBI", 0, (1 << 63) - 1, 0, 0)), "too large"),
            "new blocks": (hello() + there + frame(STARTED, struct.pack("<qqBI2q", 0, 0, 0, 2, 7, 7)), "out of order"),
            "count": (answers + digests[7], "another number of hashes"), "lost": (hello() + there + there, "type 3"),
            "unasked": (reading + frame(DATA, struct.pack("<qqB", 5 * BLOCK, 9 << 40, 0)), "too large"),
            "behind": (reading + frame(DATA, struct.pack("<qqB", 1 << 40, BLOCK, 0)), "too large"),
            "gap": (reading + frame(DATA, struct.pack("<qqB", BLOCK, BLOCK, 0)), "data is missing"),
            "missing": (hello() + opened(0, 1), "far: the program there says that it is missing"),
            "missing, a size": (hello() + opened(60 * BLOCK, 1), "missing and is not"),
            "missing, a device": (hello() + opened(0, 1, 1), "missing and is not"),
            "alive": (hello() + frame(ALIVE, b"x"), "too long"),
            "bomb": (reading + frame(DATA, struct.pack("<qqBB", 0, 60 * BLOCK, 2, 1) + bytes(64)),
                     "compressed data is damaged"),
            "askew": (reading + ASKEW[0], "parts of several blocks"),
            "hash": (reading + frame(DATA, struct.pack("<qqBB", 0, BLOCK, 1, 1) + bytes(32 + BLOCK)), "not the hash"),
        }
        ends = {"silence": "trap '' TERM; exec sleep 70", "closed": "exit", "error": "exec sleep 1"}
        before = Path("near").read_bytes()
        for name, (answer, text) in lies.items():
            Path("answer").write_bytes(encoded(answer))
            deaf = "exec <&-; " if name == "error" else ""  # what is sent to it fails before its error is read
            with self.subTest(name):
                told = self.against("sync h:there/far near --progress json",
                                    f"{deaf}cat answer; {ends.get(name, 'cat >/dev/null')}",
                                    "--timeout", "1" if name == "silence" else "30")
                self.assertRegex(told, rf"\A(.* note: .*\n|{{.*\n)*kelvane-hash: h: ?.*{text}.*\n\Z")
                self.assertEqual(Path("near").read_bytes()[BLOCK:], before[BLOCK:])
                self.check_known("near")

    def test_a_client_that_does_not_keep_to_the_protocol(self):
        self.images()
        size = 60 * BLOCK + 99
        ready = hello() + opening("there/far", True) + start(size, size)
        writing = ready + frame(START_WRITING, b"\0") + frame(ANNOUNCE, b"\1")
        reading = hello() + opening("there/far") + start(0, size)

        def nodes(level, *indexes):
            return frame(ASK_NODES,
                         struct.pack("<BII", 0, level, len(indexes)) + struct.pack(f"<{len(indexes)}q", *indexes))

        lies = [hello() + opening(""), [], [b"GET / HTTP/1.1\r\n\r\n"], hello(7), opening("near"), hello() + hello(),
                hello() + opening("near", jobs=1025), hello() + opening("near", level=20),
                hello(capabilities=2) + opening("near", level=1),
                hello() + opening("there/far") + start(0, 0, 0),
                hello() + opening("there/far") + start(0, size + 1),
                hello() + opening("fresh", True, "there/../fresh"), hello() + opening("far.state", True, "./far"),
                reading + frame(START_WRITING, b"\0"), reading + nodes(0, 3, 3), reading + nodes(63, 0),
                reading + nodes(0, 1 << 62, -1), reading + nodes(60, 9),
                reading + frame(ASK_NODES, struct.pack("<BII", 0, 0, 9999)),
                reading + frame(ASK_BYTES, struct.pack("<qqq", 0, size, 0)),
                reading + frame(ASK_BYTES, struct.pack("<qqq", 0, size + 1, 4096)),
                reading + frame(ASK_BYTES, struct.pack("<qqq", 0, size, (1 << 20) + 1)),
                reading + frame(ASK_BYTES, struct.pack("<qqq", 0, 8193 * 4, 4)),
                reading + frame(READ, struct.pack("<Bqq", 0, 0, size + 1)),
                reading + frame(READ, struct.pack("<Bqq", 0, 1, 5)),
                reading + frame(READ, struct.pack("<Bqqqq", 0, BLOCK, BLOCK, 0, BLOCK)),
                reading + frame(READ, bytes(17)), reading + frame(ANNOUNCE, b"\1"), writing + frame(ANNOUNCE, b"\1"),
                ready + frame(START_WRITING, b"\0") + frame(DATA, struct.pack("<qqB", 0, BLOCK, 0)),
                ready + frame(START_WRITING, b"\0") + frame(ANNOUNCE, struct.pack("<Bqq", 1, 0, size + 1)),
                writing + frame(DATA, struct.pack("<qqB", size, 1, 0)),
                writing + frame(DATA, struct.pack("<qqB", 5, 5, 0)),
                writing + frame(DATA, struct.pack("<qqBB", 0, BLOCK, 1, 1) + bytes(32 + BLOCK)),
                writing + frame(DATA, struct.pack("<qqBB", 0, BLOCK, 2, 1) + bytes(32 + 99)),
                writing + frame(DATA, struct.pack("<qqB", -1 << 63, -1, 0)),
                writing + frame(READ, struct.pack("<Bqq", 0, 0, BLOCK)),
                writing + frame(DATA, struct.pack("<qqB", 0, 7, 0)) + frame(END),
                *(writing + askew + frame(END) for askew in ASKEW),
                writing + frame(DATA, struct.pack("<qqB", 0, 1, 0)) + frame(DATA, struct.pack("<qqB", 1, size - 1, 0))
                + frame(END),
                *(ready + frame(kind, b"x") for kind in (DROP_CACHE, DISTRUST, CONCLUDE, ALIVE)),
                ready + frame(START_WRITING, b"\0x"), writing + frame(END, b"x")]
        before = Path("there/far").read_bytes()
        for number, lie in enumerate(lies):
            with self.subTest(number):
                kind, text = self.serve(lie)
                self.assertTrue(kind == ERROR and text or number == 1, (kind, text))
                self.assertEqual(text == b"a frame is too long", number >= len(lies) - 6, text)
                self.assertEqual(Path("there/far").read_bytes()[BLOCK:], before[BLOCK:])  # a part of one may come first
                self.check_known("there/far")

    def test_frames_without_content_are_not_held_without_bound(self):
        self.images()
        many = hello() + opening("there/far", rate=100000) + start(0, 60 * BLOCK)
        many += frame(READ, struct.pack("<Bqq", 0, 0, 60 * BLOCK)) + 60000 * frame(DROP_CACHE)
        done = subprocess.run([sys.executable, "-c", PEAK, "sh", "-c", f"exec {PROGRAM} serve >&2"],
                              input=encoded(many), capture_output=True, timeout=120)
        self.assertLess(int(done.stdout.split()[-1]), 128 << 10)

    def test_a_server_that_is_ended(self):
        with subprocess.Popen([PROGRAM, "serve"], stdin=subprocess.PIPE, stdout=subprocess.PIPE) as server:
            server.stdin.write(encoded(hello()))
            server.stdin.flush()
            server.stdout.read(13)
            server.terminate()
            self.assertIn(b"interrupted there", server.stdout.read())
        self.assertEqual(server.returncode, 143)

    def test_serves_what_lies_in_the_root(self):
        self.images()
        here, outside, missing = os.getcwd(), "outside of what is served", "No such file or directory"
        os.makedirs("there/sub")
        os.mkdir("outside2")
        os.rename("near", "outside")
        for name in "sub/inside", "trap", "trap2":
            Path("there/" + name).write_bytes(bytes(BLOCK))
        for link, target in (("out", "../outside"), ("out.new", "../fresh"), ("dir", "../outside2"), ("in", "sub/inside"),
                             ("abs", f"{here}/outside"), ("back", ".."), ("self", "/proc/self/cwd/outside"),
                             ("trap.hashes", "../planted"), ("trap2.hashes.state", "../planted"),
                             ("abs.in", f"{here}/there/sub/inside"), ("dir.in", f"{here}/there/sub"),
                             ("updown", "sub/../sub/inside"), ("round", f"{here}/there/round"),
                             ("nowhere", f"{here}/there/none"), ("here", here), ("out2", f"{here}/there/../outside"),
                             ("two", "dir.in/inside"), ("root", f"{here}/there"), ("linked", f"{here}/link/sub/inside"),
                             ("sub/inner", f"{here}/there/sub/inside"), ("../link", "there"), ("../up", ".")):
            os.symlink(target, f"there/{link}")
        files = {path: path.stat().st_mtime_ns for path in Path(".").rglob("*") if path.is_file()}
        answers = {outside: ("../outside", "out", "abs", "back/outside", "sub/../../outside", f"{here}/outside", "..",
                             "dir/new", "out.new", "self", "/etc/passwd", "round", "here", "here/there/sub/inside",
                             "out2", "dir.in/../../outside"),
                   missing: ("no/such", "sub/no/such", "nowhere"), "Not a directory": ("far/new",),
                   None: (".", "", "sub/..", "trap", "trap2", "sub/", "\0far"),
                   "": ("far", "in", "sub/../far", "sub/inside", "abs.in", "sub/inner", "dir.in/inside", "two", "updown",
                        "root/dir.in/../sub/inside")}
        for root in "there", "link", "link/", "up/there", f"{here}/link":  # which absolute paths may name, or the links
            named = [os.path.abspath(root) + "/", f"{here}/there/"]
            for answer, paths in answers.items():
                for prefix, path, destination in product(["", *named], paths, {False, root == "there"}):
                    if prefix and (path.startswith("/") or "\0" in path):
                        continue
                    kind, text = self.serve(hello() + opening(prefix + path, destination), "--root", root)
                    self.assertEqual(kind, OPENED if answer == "" else ERROR, (root, prefix, path, text))
                    self.assertTrue(not answer or text.decode().endswith(f": {answer}"), (root, prefix, path, text))
            kind, text = self.serve(hello() + opening("linked"), "--root", root)
            self.assertEqual(kind, OPENED if "link" in root else ERROR, (root, text))
        root = ("--root", "there")
        self.assertEqual(self.serve(hello() + opening("far", False, "../outside.hashes"), *root)[0], ERROR)
        for new in "sub/fresh", "dir.in/new":
            self.assertEqual(self.serve(hello() + opening(new, True), *root)[0], OPENED)
        read_only = (*root, "--read-only")
        self.assertEqual(self.serve(hello() + opening("far", True), *read_only)[0], ERROR)
        self.assertEqual(self.serve(hello() + opening("sub/inside") + start(0, BLOCK), *read_only)[0], ERROR)
        self.assertEqual(self.serve(hello() + opening("far") + start(0, BLOCK), *read_only)[0], STARTED)
        self.assertEqual(files, {path: path.stat().st_mtime_ns for path in Path(".").rglob("*") if path.is_file()})
        swap = {"SHIM_AT": "link fresh.hashes,ftruncate fresh",
                "SHIM_DO": "mv there/sub there/moved; ln -s ../outside2 there/sub"}
        self.assertEqual(self.serve(hello() + opening("sub/fresh", True) + start(BLOCK, BLOCK), *root, **swap)[0], STARTED)
        self.assertEqual(os.listdir("outside2"), [])
        self.assertLess({"fresh", "fresh.hashes"}, set(os.listdir("there/moved")))
        self.assertIn(b"sub/fresh: ", self.serve(hello() + opening("moved/no/sub/fresh"), *root)[1])

    def test_through_ssh(self):
        self.images()
        sshd = shutil.which("sshd", path=os.environ["PATH"] + ":/usr/sbin:/sbin")
        if not sshd or not shutil.which("ssh") or os.geteuid() != 0:
            self.skipTest("no sshd that can be started")
        here = os.getcwd()
        for name in "host_key", "key":
            subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", name], check=True)
        Path("/run/sshd").mkdir(exist_ok=True)
        public = Path("key.pub").read_text()
        Path("authorized").write_text(f'restrict,command="{PROGRAM} serve --root {here}/there" {public}')
        Path("config").write_text(f"HostKey {here}/host_key\nUsePAM no\nAuthorizedKeysFile {here}/authorized\n"
                                  "StrictModes no\nPermitRootLogin yes\nPidFile none\n")
        # Each connection starts its own server, at the other end of a pipe: none to wait for, and no port to be free.
        ssh = (f"ssh -F none -i {here}/key -o StrictHostKeyChecking=no -o UserKnownHostsFile={here}/known "
               f"-o BatchMode=yes -o LogLevel=ERROR -o 'ProxyCommand={sshd} -i -f {here}/config'")
        probe = subprocess.run([*shlex.split(ssh), "127.0.0.1", "x"], stdin=subprocess.DEVNULL, capture_output=True,
                               text=True)
        if probe.returncode == 255:
            self.skipTest("ssh does not get through here: " + probe.stderr[-200:])
        for command in "sync near 127.0.0.1:far --verify", "diff 127.0.0.1:far near":
            done = subprocess.run([PROGRAM, *command.split(), "--rsh", ssh], capture_output=True, text=True, timeout=60)
            self.assertEqual(done.returncode, 0, done)
        self.assertEqual(Path("near").read_bytes(), Path("there/far").read_bytes())
        done = subprocess.run([PROGRAM, "diff", f"127.0.0.1:{here}/near", "near", "--rsh", ssh], capture_output=True,
                              text=True)
        self.assertRegex(done.stderr, r"\Akelvane-hash: 127.0.0.1: .*outside of what is served\n\Z")


main()
