"""kelvane-hash and what answers for it on another machine, or speaks to it as a client: peers_test.py PROGRAM SHIM"""
import os, pwd, re, shutil, struct, subprocess, sys
from pathlib import Path
from random import randbytes

from frames import (ALIVE, ASK_NODES, DIGESTS, ERROR, NOTE, OPENED, PROGRESS, OneSided, encoded, frame, hello, opened,
                    opening, start, string)
from oracle import blake2sp
from program import BLOCK, PROGRAM, main, shimmed

SIZE = 20 * BLOCK

# Says what is in the file "answer"; then, again and again, a frame of the file "more", as long as anybody listens.
TALKER = """import os, sys, time
answer, more = (open(name, "rb").read() for name in ("answer", "more"))
os.write(1, answer)
for at in range(0, len(more), size := len(more) // 2000 or 1):
    time.sleep(0.003)
    os.write(1, more[at:at + size])
time.sleep(int(sys.argv[1]))"""
TALK = f"unset LD_PRELOAD; exec 2>/dev/null {sys.executable} -c '{TALKER}' "


class Peers(OneSided):
    def setUp(self):
        super().setUp()
        Path("near").write_bytes(randbytes(SIZE))
        self.call("build near")

    def prepare(self, first, more):
        begun = encoded(first)
        Path("answer").write_bytes(begun)
        Path("more").write_bytes(encoded(first + more)[len(begun):])

    def test_nobody_is_waited_for_for_ever(self):
        """By a clock that runs fast. The timeout is a day, but for those who have not yet said anything."""
        begun = hello() + opened(SIZE)
        for name, first, more, cause, clock in (
                ("alive", begun, frame(ALIVE), "nothing but signs of life for 24 hours", "30000 1"),
                ("progress", begun, frame(PROGRESS, string("hash") + struct.pack("<qq", 1, 2)),
                 "nothing but signs of life for 24 hours", "30000 1"),
                ("notes", begun, frame(NOTE, b"x"), "notes without end", "1"),
                ("silence", [], [], "no sign of life for 600 seconds", "200 1")):
            self.prepare(first, 2000 * more)
            with self.subTest(name):
                told = self.against("sync h:far near", TALK + "60", "--timeout", "1" if name == "silence" else "86400",
                                    SHIM_CLOCK=clock)
                self.assertRegex(told, rf"\A(.* note: .*\n)*kelvane-hash: h: .*{cause}.*\n\Z")
                self.assertLessEqual(told.count("note:") - told.count("note: near: "), 100)
        self.prepare(hello(timeout=86400) + opening("near"), 2000 * frame(ALIVE))  # and the other way round
        reading, writing = os.pipe()
        os.write(writing, Path("answer").read_bytes())  # what it would not wait for as long
        Path("answer").write_bytes(b"")
        with subprocess.Popen([sys.executable, "-c", TALKER, "60"], stdout=writing, stderr=subprocess.DEVNULL) as talker:
            os.close(writing)
            server = subprocess.run([PROGRAM, "serve"], stdin=reading, stdout=subprocess.PIPE,
                                    env=shimmed(SHIM_CLOCK="30000 2"))
            talker.kill()
        os.close(reading)
        self.assertIn(b"nothing but signs of life for 24 hours", server.stdout)

    def test_what_leads_there_and_does_not_get_there(self):
        greeted = "before the program there answers, something else does"
        for name, script, causes in (
                ("no program", "exec nothing-of-that-name", ("ended with 127", "see --remote-program")),
                ("no way", "exit 255", ("ended with 255", "see --remote-program")),
                ("killed", "kill -9 $$", ("was ended by signal 9",)),
                ("closed", "exec >&-; sleep 5", ("closed the connection",)),
                ("banner", r"printf '\n\r\nWelcome \033[1mto\342\200\256 this machine\nThe 2nd line\n'; exec cat >/dev/null",
                 (greeted, r'"Welcome \?\[1mto\? this machine"\n')),
                ("slow", "for i in a b; do printf Wel; sleep 0.1; printf '%s' come; done; echo; exec cat >/dev/null",
                 (greeted, '"WelcomeWelcome"')),
                ("short", 'echo no; exec "$2" serve', (greeted, '"no"')),
                ("cut", 'printf no; exec "$2" serve', (greeted, '"no"')),
                ("refused", "echo Go away!; exit 1", (greeted, '"Go away!"')),
                ("long", "yes | tr -d '\\n'", (greeted, r'"(yy){90,100}\.\.\."')),
                ("binary", r"printf '\001\002\003\004\005\006\007\010\011\013\014\015\016\017'; exec cat >/dev/null",
                 ("a frame is damaged, or none",))):
            with self.subTest(name):
                told = self.against("diff h:far near", script, "--remote-program", PROGRAM)
                for cause in causes:
                    self.assertRegex(told, cause)
        shutil.copy2("near", "far")
        self.against("diff h:far near", 'sleep 3; exec "$2" serve', "--timeout", "1", "--remote-program",
                     PROGRAM, expect=0)  # as somebody who types a password

    def test_addresses_that_other_programs_know(self):
        for given in "host::x", "rsync://host/x", "ssh://host/x", "[::1]::x":
            self.check_complaint(f"sync near {given}", re.escape(f"{given}: there is no such address; HOST:PATH"))
        self.assertEqual(list(Path().glob("*:*")), [])
        self.assertRegex(self.against("diff near [::1]:none", 'shift; exec "$@"', "--remote-program", PROGRAM),
                         r"\[::1\]: none: cannot open: No such file or directory")
        shutil.copy2("near", "far")
        self.assertIn('"[::1]:far"', subprocess.run([PROGRAM, "diff", "near", "[::1]:far", "--rsh", "./peer",
                                                      "--remote-program", PROGRAM, "--json"], capture_output=True,
                                                     text=True).stdout)
        os.mkdir("home")
        os.rename("near", "home/far")
        user = pwd.getpwuid(os.geteuid())
        for path, answer in (("~/far", OPENED), ("./~/far", ERROR), ("~/none", ERROR), ("~nobody-of-that-name/x", ERROR),
                             (f"~{user.pw_name}/no/such/far", ERROR)):
            kind, text = self.serve(hello() + opening(path), HOME=os.path.abspath("home"))
            self.assertEqual(kind, answer, (path, text))
        self.assertIn(os.fsencode(user.pw_dir), text)
        new = opening("~/new", True, "~/x.hashes")
        self.assertEqual(self.serve(hello() + new, HOME=os.path.abspath("home"))[0], OPENED)

    def test_texts_and_numbers_of_the_other_side(self):
        for text, shown in ((b"\xc3\xa9t\xc3\xa9 \xe2\x82\xac \xf0\x9f\x90\xa7", "été € 🐧"), (b"a\x9b\xc2\x9bm\x1b", "a??m?"),
                            (b"\xe2\x80\xae\xe2\x81\xa6\xd8\x9c\xe2\x80\x8f", "????"), (b"\xe2\x82", "??"), (b"x\xc3", "x?"),
                            (b"\xc0\xaf\xed\xa0\x80\xf5", "??????"), (b"x" * 999 + b"\xc3\xa9", "x" * 999 + "..."),
                            (b"\xe2\x80\xa8\xef\xbb\xbf\r\n", "????")):
            Path("answer").write_bytes(encoded(hello() + opened(SIZE) + frame(ERROR, text)))
            told = self.against("diff h:far near", "cat answer; exec cat >/dev/null")
            self.assertEqual(re.sub(r"\A.* note: near: .*\n", "", told), f"kelvane-hash: h: {shown}\n")
        most = (1 << 63) - 1
        self.prepare(hello() + opened(SIZE), sum((300 * frame(PROGRESS, string(name) + struct.pack("<qq", done, total))
                                                  for name, done, total in (("hash", 1, 2), ("hash", most, 1),
                                                                            ("x" * 99, 1, most))), []))
        told = self.against("diff h:far near", TALK + "0", "--progress", "json", SHIM_CLOCK="5")
        self.assertRegex(told, '"secondsLeft":[0-9]')
        self.assertNotRegex(told, '"secondsLeft":-')
        command = ["script", "-qec", f"{PROGRAM} diff h:far near --rsh ./peer", "/dev/null"]  # on a terminal
        seen = subprocess.run(command, stdout=subprocess.PIPE, env=shimmed(SHIM_CLOCK="5")).stdout.decode()
        self.assertRegex(seen, r"\A(kelvane-hash: note: .*\r\n)*(\r[^-\r\n]{0,79}\x1b\[K)+\r\x1b\[Kkelvane-hash: h: .*\n\Z")
        self.assertRegex(seen, r"hash +\[#{15} {15}\] +50%  .*hash +\[#{30}\] 100% .* \d+.* left")

    def test_nodes_behind_the_end(self):
        ready = hello() + opening("near", True) + start(SIZE, SIZE)
        nothing = struct.pack("<I", 1) + blake2sp(b"") + b"\0"
        for level, index in (0, 20), (0, (1 << 63) - 1), (5, 1), (5, (1 << 58) - 1), (18, 9), (62, 1):
            asked = frame(ASK_NODES, struct.pack("<BIIq", 0, level, 1, index))
            self.assertEqual(self.serve(ready + asked), (DIGESTS, nothing), (level, index))


main()
