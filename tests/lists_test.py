"""Lists of changed ranges, as `invalidate` takes them: lists_test.py PROGRAM SHIM"""
import json, os, random, re, shutil, unittest
from pathlib import Path
from random import randbytes
from subprocess import PIPE, Popen, run

from program import BLOCK, DEVICE, ORACLE, PROGRAM, Case, built, doubt_here, flip, main

CHUNK = 128 * 512
THIN = '<superblock uuid="" time="2" transaction="2" version="2" data_block_size="128" nr_data_blocks="999">%s</superblock>'
THIN_DELTA = THIN % "<diff>%s</diff>"


class Lists(Case):
    @unittest.skipUnless(shutil.which("qemu-nbd") and shutil.which("nbdinfo"), "no qemu-utils, or no libnbd-bin")
    def test_changes_that_qemu_tells(self):
        script = ORACLE.parent.with_name("examples") / "told_changes.sh"
        done = run([script, os.path.dirname(os.path.dirname(PROGRAM)), "."], capture_output=True, text=True, timeout=60)
        self.assertEqual(done.returncode, 0, done)
        self.assertIn('"bytesCopied": 106496,', done.stdout)
        self.assertEqual('"bytesRead": 135168,' in done.stdout, not doubt_here())

    @unittest.skipIf(doubt_here(), f"no image is believed here: {doubt_here()}")
    @unittest.skipUnless(shutil.which("qemu-system-x86_64") and shutil.which("qemu-img") and shutil.which("nbdinfo"),
                         "no qemu-system-x86, no qemu-utils, or no libnbd-bin")
    def test_a_running_machine_as_the_document_has_it(self):
        """A machine without a processor, whose monitor writes to its disk."""
        document = (ORACLE.parent.with_name("docs") / "program.md").read_text()
        once, each_time = re.findall(r"^```qmp\n(.*?)^```$", document, re.MULTILINE | re.DOTALL)
        for command in ("qemu-img create -q -f qcow2 -o data_file=disk.raw,data_file_raw=on disk.qcow2 8M",
                        "qemu-io -f qcow2 -c 'write -q -P 1 0 3M' disk.qcow2"):
            run(command, shell=True, check=True)
        os.mkdir("bin")
        Path("bin/kelvane-hash").write_text(f'#!/bin/sh\nexec {PROGRAM} "$@" --rsh ./there --json >result')
        Path("there").write_text(f'#!/bin/sh\nmkdir -p "$1" && cd "$1" && exec {PROGRAM} serve')
        for script in "bin/kelvane-hash", "there":
            os.chmod(script, 0o755)
        machine = Popen(["qemu-system-x86_64", "-M", "none", "-nodefaults", "-display", "none", "-qmp", "stdio", "-blockdev",
                         "driver=qcow2,node-name=disk,file.driver=file,file.filename=disk.qcow2"], text=True, stdin=PIPE,
                        stdout=PIPE, bufsize=1)
        self.addCleanup(machine.communicate)
        self.addCleanup(machine.kill)

        def tell(line):
            machine.stdin.write(line + "\n")
            while "return" not in (answer := json.loads(machine.stdout.readline())):
                self.assertNotIn("error", answer, line)

        def do(block):
            for kind, line in re.findall(r"^(->|\$) (.*)$", block, re.MULTILINE):
                if kind == "->":
                    tell(line)
                else:
                    run(line, shell=True, check=True, env=dict(os.environ, PATH=os.path.abspath("bin") + ":" + os.environ["PATH"]))

        tell('{"execute": "qmp_capabilities"}')
        do(once)
        for offset, read in ("1M", 8 << 20), ("5M", 128 << 10), ("6M", 128 << 10):
            tell(json.dumps({"execute": "human-monitor-command",
                             "arguments": {"command-line": f'qemu-io disk "write -q -P 7 {offset} 100k"'}}))
            do(each_time)
            self.assertEqual(Path("disk.raw").read_bytes(), Path("host/disk.raw").read_bytes())
            result = json.loads(Path("result").read_text())
            self.assertTrue(result["equal"] and result["freshness"][0]["recorded"], result)
            self.assertLessEqual(result["bytesRead"], 2 * read)
            self.assertEqual(result["told"]["bytes"], 128 << 10)

    @unittest.skipUnless(shutil.which("thin_delta") and shutil.which("era_invalidate"), "no thin-provisioning-tools")
    def test_changes_that_the_device_mapper_tells(self):
        """Of devices that are metadata alone: which chunk stands where, and when it was written."""
        chunks = 62
        Path("a").write_bytes(randbytes((chunks - 1) * CHUNK + BLOCK + 1))
        before, after = ([random.choice((None, i, other + i)) for i in range(chunks)] for other in (100, 200))
        eras = [random.randint(1, 4) for _ in range(chunks)]
        devices = "".join(f'<device dev_id="{number}" mapped_blocks="{chunks - device.count(None)}" transaction="0" '
                          'creation_time="0" snap_time="0">' + "".join(
                              f'<single_mapping origin_block="{i}" data_block="{chunk}" time="0"/>'
                              for i, chunk in enumerate(device) if chunk is not None) + "</device>"
                          for number, device in enumerate((before, after)))
        metadata = {"thin": THIN % devices,
                    "era": f'<superblock uuid="" block_size="128" nr_blocks="{chunks}" current_era="4"><era_array>' + "".join(
                        f'<era block="{i}" era="{era}"/>' for i, era in enumerate(eras)) + "</era_array></superblock>"}
        for name, text in metadata.items():
            Path(f"{name}.xml").write_text(text)
            run(f"truncate -s 4M {name} && {name}_restore -q -i {name}.xml -o {name}", shell=True, check=True,
                capture_output=True)
        moved = [old != new for old, new in zip(before, after)]
        for command, changed in (("thin_delta --thin1 0 --thin2 1 thin", moved),
                                 ("thin_delta --verbose --thin1 0 --thin2 1 thin", moved),
                                 ("era_invalidate --written-since 3 era", [era >= 3 for era in eras])):
            run(f"{command} >list", shell=True, check=True)
            self.call("build a")
            self.call("invalidate a --from list --era-block-size 128s")
            entries = Path("a.hashes").read_bytes()[4096::33]  # as far as their flags
            unknown = [entry == 0 for entry in entries[:(chunks - 1) * CHUNK // BLOCK + 1]]
            self.assertEqual(unknown, [changed[i * BLOCK // CHUNK] for i in range(len(unknown))], command)

    def test_what_is_listed_is_forgotten(self):
        built()
        flip("a", 3 * BLOCK, 12 * BLOCK)
        lists = {
            "lines": (f"{DEVICE + 3 * BLOCK} + 1\n# more\n{DEVICE + 12 * BLOCK}\t{BLOCK}\n", 2 * BLOCK),
            "diff": ('{"verdict": "different", "freshness": [{"differing": [{}]}], "changedMeanwhile": [], '
                     '"differing": [{"offset": %d, "length": 9}], "line": {}}' % (DEVICE + 3 * BLOCK), BLOCK),
            "bitmap": ('[{"offset": 0, "length": 4096, "type": 2}, {"offset": 8192, "length": 5000, "type": 3}, '
                       '{"offset": 77824, "length": 4608, "type": 1}]', 3 * BLOCK),  # of whole sectors, as QEMU has it
            "rbd": ('[{"offset":8192,"length":5000,"exists":"true"},{"offset":77824,"length":4608,"exists":"false"}]',
                    3 * BLOCK),
            "map": ('[{"start": 0, "length": 4096, "zero": true, "data": false}, '
                    '{"start": 4096, "length": 8192, "zero": false, "data": true}, '
                    '{"start": 77824, "length": 4196, "zero": false, "data": true}, '
                    '{"start": 82020, "length": 412, "zero": true, "data": false}]', 3 * BLOCK)}
        Path("a.hashes.state").unlink()  # what is told need not be all that has changed
        Path("told").write_text(f"{DEVICE} + 1\n")
        self.check_complaint("invalidate a --from told", "a: .*may be of another image: no record says")
        self.assertEqual(self.json("build a")["freshness"]["repairedBlocks"], 2)
        flip("a", 3 * BLOCK, 12 * BLOCK)
        for name, (text, unknown) in lists.items():
            Path(name).write_text(text)
            self.call("build a")
            flip("a", 19 * BLOCK)
            answer = self.json(f"invalidate a --from {name}")
            self.assertEqual(answer["freshness"]["recorded"], not doubt_here())
            answer = self.json("build a")
            found = answer["bytesRead"], answer["freshness"]["doubt"], answer["freshness"]["repairedBlocks"]
            told = name in ("bitmap", "rbd", "map")  # what else was changed; where it is not, there is only the promise
            self.assertEqual(found, (20 * BLOCK, doubt_here(), 1 - told) if doubt_here() else (unknown, "", 0))
        self.json("build a --check")
        self.call("invalidate a --from map --what zero")
        self.assertEqual(self.json("info a.hashes")["unknownBlocks"], 1)
        self.call("invalidate a --from map --what all --format qemu-img")
        self.assertEqual(self.json("info a.hashes")["unknownBlocks"], 4)

    def check_refused(self, text, cause):
        Path("wrong").write_text(text)
        before = Path("a.hashes").read_bytes()
        self.check_complaint("invalidate a --from wrong", f"wrong: .*{cause}")
        self.assertEqual(Path("a.hashes").read_bytes(), before)

    def test_what_is_no_list_changes_nothing(self):
        built()
        for text, cause in (
                ("12 13 x\n", "line 1: not a range"), ("0x10 1\n", "line 1"), ("1048576 + +1\n", "line 1"),
                ("\n1048576 + 1\n-5 + 6\n", "line 3"), ("equal; 1 comparison\n", "line 1"),
                ("12 13\x1b[2J\n", r"12 13\?\[2J"),
                (f"{DEVICE} + 1\n{DEVICE} + 40", "line 2: .* cut off"), (f"{DEVICE} + 1\n# eq", "line 2: .* cut off"),
                ("\n", "is empty"), ("[1]", "entry 1: is no range"), ("{}", 'no "differing"'),
                ("[{", "entry 1: no JSON from byte 3 on"), ("[]]", "no JSON from byte 3 on"),
                ("1048575 + 1\n",
                 rf"line 1: 1048575 \+ 1 is not in a, which reaches from {DEVICE} to {DEVICE + 82020}$"),
                (f"# {DEVICE}\n{DEVICE} + 82021\n", "line 2: "),
                ('{"differing": [{"offset": %d, "length": 82021}]}' % DEVICE, "entry 1: .* is not in a"),
                ('[{"start": 0, "length": 82433, "zero": false, "data": true}]', "entry 1: .* is not in a"),
                ('[{"offset": 0, "length": 9, "type": 0}, {"offset": 82020, "length": 413, "type": 1}]',
                 "entry 2: .* is not in a"),
                ('[{"offset": 0, "length": 1, "type": 1}, {"offset": -1, "length": 1, "type": 1}]',
                 'entry 2: "offset" is no number'),
                ('{"differing": [{"offset": 0, "offset": 0, "length": 1}]}', 'entry 1: "offset" stands there twice'),
                ('{"differing": [{"offset": 0, "length": 1, "type": 1}]}', 'entry 1: "type" is unknown'),
                ('[{"offset": 0, "length": 1, "start\\u001b": 1}]', r'entry 1: "start\?" is unknown'),
                ('{"differing": [], "differing": []}', '"differing" stands there twice'),
                ('{"differing": 5}', "no list of ranges"), ("5", "line 1"), ('{"a": ' + "[" * 50, "nested too deep"),
                ('{"differing": [[]]}', "entry 1: is no range"), ('{"differing": [{}]}', 'entry 1: no "offset"'),
                ('[{"start": 0, "length": 1, "zero": 0, "data": true}]', 'entry 1: "zero" is neither'),
                ('[{"start": 0, "length": 1, "data": true}]', 'entry 1: no "zero"'),
                ('[{"offset": 0, "length": 1, "type": true}]', 'entry 1: "type" is no whole number'),
                ('[{"offset": 0, "length": 1.0, "type": 1}]', 'entry 1: "length" is no number of bytes'),
                ('[{"offset": %d, "length": 0, "type": 1}]' % (1 << 63), 'entry 1: "offset" is too large'),
                ('[{"offset": %d, "length": 0, "type": 1}]' % (1 << 64), 'entry 1: "offset" is no number of bytes'),
                ('[{"offset": %d, "length": 1, "type": 1}]' % ((1 << 63) - 1), "entry 1: impossible range"),
                ('{"verdict": "undecided", "differing": []}', "diff was undecided"),
                ('{"verdict": "done", "differing": []}', '"verdict" is not one of diff'),
                ('{"differing": [], "changedMeanwhile": ["a"]}', "diff was undecided"),
                ('{"differing": [], "changedMeanwhile": "a"}', '"changedMeanwhile" is no list'),
                (f"{1 << 62} + {1 << 62}\n{DEVICE} + {(1 << 63) - 1}\n", "line 1"),
                (f"{DEVICE} + 1\n{1 << 64} + 1\n", "line 2"),
                ('[{"offset": 0, "length": 1, "exists": true}]', 'entry 1: "exists" is no text'),
                ('[{"offset": 0, "length": 1, "exists": "no"}]', 'entry 1: "exists" is neither'),
                ("<html><body/></html>", "<html> is no list"), ("<blocks/>", "name --era-block-size"), ("<", "no XML from"),
                ('<!DOCTYPE superblock [<!ENTITY x "0">]>' + THIN_DELTA % "", "has a document type"),
                (THIN_DELTA % '<different begin="&x;" length="1"/>', "no XML from byte .*: undefined entity"),
                (THIN_DELTA % "" + "<blocks/>", "no XML from"), (THIN % "", "no <diff>"), (THIN % "<device/>", "<device> is un"),
                (THIN_DELTA[:-13] % '<different begin="0" length="1"/>', "entry 1: no XML from byte"),
                (THIN_DELTA % "<same><same><same>", "<same> is unknown there"), (THIN_DELTA % "0", "text between"),
                (THIN_DELTA % '<same begin="0" length="1"><range/>', "entry 1: <range> is unknown there"),
                (THIN_DELTA % "<different/>", "<different> holds no range"),
                (THIN_DELTA % '<different begin="0"/>', 'entry 1: no "length"'),
                (THIN_DELTA % '<different begin="-1" length="1"/>', 'entry 1: "begin" is no number: -1'),
                (THIN_DELTA % '<same begin="0" length="0"/>', "entry 1: impossible range"),
                (THIN_DELTA % '<same begin="0" length="%d"/>' % (1 << 47), "entry 1: impossible range"),
                (THIN_DELTA % '<left_only begin="1" length="2"/>', r"entry 1: 65536 \+ 131072 is not in a"),
                *((THIN_DELTA.replace("128", sectors) % "", f'"data_block_size" is none of a pool: {sectors}$')
                  for sectors in ("0", "100", "192", "2097280"))):
            with self.subTest(text):
                self.check_refused(text, cause)

    def test_files_that_hold_no_list(self):
        built()
        os.mkdir("list")
        os.mkfifo("pipe")
        run(["truncate", "-s", "1G", "long"], check=True)
        for name, cause in ("list", "Is a directory"), ("long", "longer than 256 MiB"), ("none", "No such file"):
            self.check_complaint(f"invalidate a --from {name}", f"{name}: .*{cause}")
        waits = Popen([PROGRAM, "invalidate", "a", "--from", "pipe"], stderr=PIPE)
        with open("pipe", "w") as pipe:  # it has opened the other end
            waits.terminate()
            self.assertIn(b"interrupted", waits.communicate(timeout=60)[1])

    def test_memory_is_that_of_the_text(self):
        built()
        for name, text in (("wide", '{"freshness": [' + "0," * (25 << 20)), ("deep", "[" * (50 << 20)),
                           ("tag", '<superblock a="' + "x" * (20 << 20)), ("tags", "<blocks>" * (2 << 20))):
            Path(name).write_text(text)
            self.assertRegex(self.check_memory(f"invalidate a --from {name}", 500 << 20, expect=2),
                             f"{name}: .*(no JSON from byte|is no range|nested too deep|tag without end|--era-block).*\n")

    def test_lists_of_diff(self):
        built()
        same = "a\n1048576 + 4096"  # which would be a range, were it not for the remark's beginning
        shutil.copyfile("a", same)
        run([PROGRAM, "build", same, f"--partition-offset={DEVICE}"], check=True, capture_output=True)
        Path("list").write_text(self.call("diff a b", 1).stdout)
        with open("list") as lines:
            self.assertEqual(self.json("invalidate a --from -", stdin=lines)["bytes"], 3 * BLOCK + 100)
        self.call("build a")
        for other, verdict in ("a", "undecided; "), ("b", "undecided: 12,388 bytes in 3 ranges; "):
            os.utime(same)
            touches = {"SHIM_AT": f"read {same}", "SHIM_DO": f"touch '{same}'"}
            text = self.call("diff", 1, arguments=[same, other], shim=touches).stdout
            self.assertIn(f"\n# {verdict}", text)
            self.assertRegex(text, r"\A(\d+ \+ \d+\n|# .*\n)*\Z")
            self.check_refused(text, "diff was undecided")
            os.utime(same)
            text = self.call("diff --json", 1, arguments=[same, other], shim=touches).stdout
            self.check_refused(text, "diff was undecided")


main()
