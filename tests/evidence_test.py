"""Others write unseen, disks fail, names are swapped: evidence_test.py PROGRAM SHIM

Every table has a row for a way in which an image, a hash file or a name can change without the stamps and counters that
tell of it. Whatever ends with 0 must be true of what the disks hold, then and later on; and where nothing was done the
hashes must be believed."""
import fcntl, mmap, os, shutil, signal, struct, time
from contextlib import closing
from itertools import product
from pathlib import Path
from random import randbytes
from subprocess import PIPE, STDOUT, Popen, TimeoutExpired, run

from disks import LIBC, MAKE, SIZE, WRITERS, Direct, Disks, Held, Mapped, Rows, Throttle, shut_down, write
from program import BLOCK, FAR, PROGRAM, SHIM, doubt_here, drop_override, flip, main, shimmed

BLOCKS = 50
OTHER = b"written by somebody else".ljust(2 * BLOCK, b"!")
PLACE = 20 * BLOCK
PRECIOUS = randbytes(12347)
READING = ("build m/a", "verify m/a", "hash m/a", "diff m/a m/c", "sync m/a m/b")


class Evidence(Disks):
    def images(self):
        """An image, an equal one, and one that is to become equal; all that is known of them is believed."""
        for path in Path("m").iterdir():
            path.is_file() and path.unlink()
        content = randbytes(BLOCKS * BLOCK + 100)
        for name, data in ("m/a", content), ("m/c", content), ("m/b", randbytes(BLOCKS * BLOCK)):
            self.put(name, data)
            self.ask(f"build {name}")
        self.believed("build m/a")

    def later(self, earlier):
        """What an image that is believed wrongly shows, after the command that looked at it earlier."""
        for command in "hash m/a", "diff m/a m/b" if "sync" in earlier else "diff m/a m/c":
            self.ask(command)

    def test_writes_that_began_before_and_end_later(self):
        """Their stamps are those of their beginning; their bytes come when the command has ended."""
        for kind, how, when in (("ext4", "direct", "before"), ("ext4", "closed", "meanwhile"),
                                ("xfs", "closed", "before"), ("xfs", "direct", "meanwhile")):
            with self.row(kind, how, when):
                device = self.file_system(kind)
                for command in "build m/a", "diff m/a m/c", "sync m/a m/b", "sync m/b m/a":
                    self.images()
                    self.write_late(command, device, how, when)

    def write_late(self, command, device, how, when):
        writes = []

        def begin():
            throttle = self.stack.enter_context(closing(Throttle(device)))
            writes.append(Held(throttle, "m/a", PLACE, OTHER, how == "closed"))

        if when == "before":
            begin()
            code, answer = self.ask(command, writes=writes)
        else:
            with self.asked(begin) as words:
                code, answer = self.ask(command, {"SHIM_AT": "fsync a", "SHIM_DO": words}, writes)
        was_pending = not writes[0].is_over
        writes[0].go()
        self.later(command)
        if was_pending:
            self.assertEqual(code, 1, (command, answer))
            if (how, when) == ("direct", "before"):
                self.assertIn(writes[0].process, self.writers(answer))

    def test_writes_that_began_before_and_end_meanwhile(self):
        """Behind what was read already, and nobody has the image open in the end."""
        with self.row():
            throttle = self.stack.enter_context(closing(Throttle(self.file_system("ext4"))))
            self.images()
            held = Held(throttle, "m/a", PLACE, OTHER)
            with self.asked(held.go) as words:
                code, answer = self.ask("build m/a --check", {"SHIM_AT": "fsync a#2", "SHIM_DO": words}, [])
            self.assertEqual((held.is_over, code, self.writers(answer)), (True, 1, [held.process]), answer)
            self.later("")

    def test_pages_that_are_dirty_already(self):
        """Only the first store into a page of a mapping leaves a stamp, until the page is written to the disk."""
        for kind in "ext4", "xfs", "btrfs":
            with self.row(kind):
                self.file_system(kind)
                for command in "build m/a", "verify m/a", "sync m/a m/b":
                    self.images()
                    with closing(Mapped("m/a")) as writer:
                        def store():
                            writer.write(PLACE, randbytes(BLOCK))
                            time.sleep(0.02)  # its stamp is an old one when the program looks

                        with self.asked(lambda: None, store, store) as words:
                            code, answer = self.ask(command, {"SHIM_AT": "fsynced a,fsync a", "SHIM_DO": words}, [])
                        self.later(command)
                        self.assertEqual((code, self.writers(answer)), (1, [os.getpid()]), (command, answer))

    def test_an_image_that_others_have_open(self):
        for kind in WRITERS:
            with self.row(kind):
                self.file_system("ext4")
                for command in (*READING, "sync m/b m/a") if kind == "pwrite" else ("build m/a", "sync m/b m/a"):
                    self.images()
                    with open("m/a", "rb"):  # who reads it changes nothing
                        self.believed("hash m/a")
                    with closing(WRITERS[kind]("m/a")) as writer:
                        code, answer = self.ask(command)
                        self.assertEqual((code, self.writers(answer)), (1, [os.getpid()]), (command, answer))
                        self.assertIn(answer["verdict"], ("done", "undecided", "different", "good", "equal"))
                        if command != "verify m/a":  # which looks at everything
                            self.assertEqual(self.ask(command + " --assume-unchanged")[0], 0)
                        writer.write(PLACE, OTHER)
                        self.later(command)
                        writer.write(PLACE - BLOCK, OTHER)
                    self.later(command)
                    self.believed("hash m/a")

    def test_where_it_cannot_be_asked_who_writes(self):
        self.put("a", randbytes(BLOCKS * BLOCK))
        os.chown("a", 1234, -1)
        for command in "build a", "hash a", "hash a":
            code, answer = self.ask(command, preexec_fn=lambda: LIBC.prctl(24, 28))  # without CAP_LEASE
            self.assertEqual(code, 0)
        self.assertTrue(not answer["freshness"]["believed"] and answer["freshness"]["doubt"], answer)

    def test_devices_that_cannot_be_told_from_each_other(self):
        with self.row():
            self.file_system("ext4")
            self.put("m/a", randbytes(BLOCKS * BLOCK))
            Path("nothing").touch()
            image, _ = self.attach("m/a", "--read-only")
            self.mount("nothing", f"/sys/block/{os.path.basename(image)}/diskseq", "--bind")  # as with old systems
            for command in "build", "hash":
                answer = self.ask(f"{command} {image} --hash-file=h")[1]["freshness"]
            self.assertTrue(not answer["believed"] and not answer["recorded"] and answer["doubt"], answer)

    def test_a_crash_of_the_file_system_takes_stamps_back_and_keeps_data(self):
        for kind in "ext4", "xfs":
            for command in "", "build m/a":
                with self.row(kind, command):
                    device = self.file_system(kind)
                    self.images()
                    run(["sync", "--file-system", "m"], check=True)
                    before = os.stat("m/a")
                    write("m/a", PLACE, OTHER, Direct)
                    if command:
                        self.ask(command)
                    shut_down("m")
                    self.remount(device)
                    self.assertTrue(command or os.stat("m/a").st_ctime_ns == before.st_ctime_ns)
                    self.later("")

    def test_another_image_under_the_same_name_or_number(self):
        """Each step leaves the name, the number, or the size and times as they were."""
        for name in ("inode", "number", "offset", "start", "file", "name", "covered", "covered image"):
            with self.row(name):
                self.file_system("ext4")
                Path("list").write_text("0 + 1\n")
                old, new = (randbytes(BLOCKS * BLOCK) for _ in "ab")
                Path("m/disk").write_bytes(old + new)
                Path("m/other").write_bytes(new + old)
                if name in ("inode", "covered image"):
                    image, words = "m/disk", "m/disk --hash-file=h"
                else:
                    image, held = self.attach("m/disk", "--read-only", "--partscan")  # else partitions outlive it
                    if name == "start":
                        disk, image = image, image + "p1"
                        run(["addpart", disk, "1", "0", str(len(old) // 512)], check=True)
                    words = f"{image} --hash-file=h"
                if name == "name":
                    os.link("m/disk", "m/same")
                    self.mount("m/other", "m/disk", "--bind")
                self.ask(f"build {words}")
                self.ask(f"build {words}")
                if name == "inode":
                    os.remove("m/other")
                    number = os.stat(image).st_ino
                    os.remove(image)
                    Path(image).write_bytes(new + old)
                    self.assertEqual(os.stat(image).st_ino, number)
                elif name == "number":
                    held.close()
                    run(["losetup", "--read-only", image, "m/other"], check=True)
                    self.stack.callback(run, ["losetup", "--detach", image])
                elif name == "offset":
                    status = bytearray(232)
                    with open(image, "rb") as device:
                        fcntl.ioctl(device, 0x4c05, status)  # LOOP_GET_STATUS64
                        status[24:32] = (len(old)).to_bytes(8, "little")
                        fcntl.ioctl(device, 0x4c04, bytes(status))
                elif name == "start":
                    run(["delpart", disk, "1"], check=True)
                    time.sleep(0.1)  # until its number is free
                    run(["addpart", disk, "1", str(len(old) // 512), str(len(old) // 512)], check=True)
                    Path(image).read_bytes()  # so that it counts
                elif name == "file":
                    with open(image, "rb") as device, open("m/other", "rb") as other:
                        fcntl.ioctl(device, 0x4c06, other.fileno())  # LOOP_CHANGE_FD
                elif name == "name":
                    write("m/same", PLACE, OTHER, Direct)
                elif name == "covered":
                    other, _ = self.attach("m/other", "--read-only")
                    self.mount(other, image, "--bind")
                else:
                    self.mount("m/other", image, "--bind")
                for command in "invalidate", "hash", "build":
                    self.ask(f"{command} {words}" + (" --from=list" if command == "invalidate" else ""))

    def test_a_device_that_is_written_past_what_others_hold_in_memory(self):
        for name in "file", "partition", "whole disk", "mounted":
            for built in True, False:
                with self.row(name, "" if built else "not built before"):
                    Path("m.disk").write_bytes(bytes(4 << 20))
                    if name == "mounted":
                        image = self.file_system("ext4", make="-O ^has_journal -E lazy_itable_init=0")
                    else:
                        disk, _ = self.attach("m.disk", "--partscan", *["--read-only"] * (name == "file"))
                        run(["addpart", disk, "1", "2048", "2048"], check=True)
                        image, past, offset = {"file": (disk, "m.disk", 0), "partition": (disk + "p1", disk, 1 << 20),
                                               "whole disk": (disk, disk + "p1", 0)}[name]
                    at = (name == "whole disk") << 20  # of what others hold
                    words = f"{image} --hash-file=h"
                    if built:
                        self.ask(f"build {words}")
                        self.ask(f"build {words}")
                    with open(image, "rb") as device, \
                            mmap.mmap(device.fileno(), 0x100000, prot=mmap.PROT_READ, offset=at) as kept:
                        kept[:]
                        if name == "mounted":
                            self.put("m/file", OTHER)
                            run(["sync", "--file-system", "m"], check=True)
                        else:
                            write(past, offset + PLACE, OTHER, Direct)
                        for command in "build", "hash", "verify", "build":
                            answer = self.ask(f"{command} {words}")[1]
                        if name != "file":
                            fresh = answer["freshness"]
                            self.assertTrue(not fresh["believed"] and fresh["doubt"], answer)
                            self.assertEqual("is it mounted?" in fresh["doubt"], name == "mounted", answer)

    def test_a_disk_that_does_not_take_what_is_written(self):
        """It is full for a while, beneath the file system. What could not be written is gone once it leaves memory."""
        size = 400 * BLOCK
        for kind, make in ("xfs", ""), ("ext4", "-O ^has_journal"), ("ext4", ""):
            for what in "new", "copied", "hash file", "image", "image, told":
                if what in ("copied", "hash file") and kind != "xfs":
                    continue  # their blocks would be written where the old ones are
                if what == "image, told" and kind == "xfs":
                    continue  # which does not count its failures
                with self.row(kind, make, what):
                    self.mount("tmpfs", "thin", "-t", "tmpfs")
                    os.symlink("thin/m.disk", "m.disk")
                    Path("thin/m.disk").touch()
                    os.truncate("thin/m.disk", SIZE[kind])
                    device = self.file_system(kind, make=make)
                    self.put("a", randbytes(size))
                    command = {"hash file": "build a --hash-file=m/h", "image": "build m/a --hash-file=h --adopt"}.get(
                        what.split(",")[0], "sync a m/b --source-hash-file=h --dest-hash-file=g")
                    if what in ("copied", "hash file"):
                        self.put("m/b", randbytes(size))
                        self.ask(command)
                        self.put("a", randbytes(size))
                        run("cp --reflink=always m/b m/b2 && cp --reflink=always m/h m/h2" if what == "hash file" else
                            "cp --reflink=always m/b m/b2", shell=True, check=True)
                    if "image" in what:
                        self.put("m/a", b"")
                    run(["sync", "--file-system", "m"], check=True)
                    room = os.statvfs("thin")
                    used = (room.f_blocks - room.f_bfree) * room.f_bsize
                    run(["mount", "-o", f"remount,size={used}", "thin"], check=True)
                    if what == "image":  # of somebody who does not ask whether it arrived
                        Path("m/a").write_bytes(randbytes(size))
                    elif what == "image, told":  # nobody else is told then
                        self.assertRaises(OSError, self.put, "m/a", randbytes(size))
                    self.assertIn(self.ask(command)[0], (0, 2) if what == "image, told" else (2,))
                    self.ask(command)
                    run(["mount", "-o", "remount,size=50%", "thin"], check=True)
                    self.ask(command)
                    self.remount(device)
                    code, answer = self.ask(command)
                    self.assertEqual(code, 0, answer)
                    self.ask(command.replace("build", "hash").replace("sync", "diff")
                             .replace("source-hash-file", "hash-file-a").replace("dest-hash-file", "hash-file-b"))

    def test_a_file_system_that_has_stopped_writing(self):
        """Flushing it does nothing, and does not fail."""
        with self.row():
            device = self.file_system("ext4", options=("-o", "errors=remount-ro"))
            self.put("m/a", randbytes(BLOCKS * BLOCK))
            write("m/a", PLACE, OTHER)
            Path(f"/sys/fs/ext4/{os.path.basename(device)}/trigger_fs_error").write_text("by the test")
            self.assertEqual(self.ask("build m/a --hash-file=h")[0], 2)
            self.remount(device)
            self.assertEqual(self.ask("build m/a --hash-file=h")[0], 0)

    def test_which_file_systems_are_believed(self):
        for kind, make, believed in (("ext4", "", True), ("ext4", "-O ^has_journal", True), ("xfs", "", True),
                                     ("btrfs", "", True), ("ext4", "-I 128", True), ("tmpfs", "", False),
                                     ("bindfs", "", False), ("overlay", "", False)):
            with self.row(kind, make):
                if kind in MAKE:
                    self.file_system(kind, make=make)
                elif kind == "bindfs":
                    os.makedirs("below")
                    os.makedirs("m")
                    self.tool("bindfs below m")
                    self.stack.callback(run, ["umount", "--lazy", "m"])
                elif kind == "overlay":
                    self.file_system("ext4", "d")
                    for name in "upper", "work", "lower":
                        os.mkdir("d/" + name)
                    layers = "upperdir=d/upper,workdir=d/work,lowerdir=d/lower"
                    self.mount("overlay", "m", "-t", "overlay", "-o", layers)
                else:
                    self.mount("tmpfs", "m", "-t", "tmpfs")
                self.put("m/a", randbytes(BLOCKS * BLOCK))
                for command in "build m/a --hash-file=m/h", "hash m/a --hash-file=m/h":
                    self.ask(command)
                    fresh = self.ask(command)[1]["freshness"]
                    self.assertEqual((fresh["believed"], bool(fresh["doubt"])), (believed, not believed), fresh)
                write("m/a", PLACE, OTHER)
                self.ask("hash m/a --hash-file=m/h")

    def decay(self, name="m/a"):
        """A block of the image, on the disk."""
        with open(name, "rb") as image:
            number, = struct.unpack("i", fcntl.ioctl(image, 1, struct.pack("i", 0)))  # FIBMAP
            size = os.fstatvfs(image.fileno()).f_bsize
            write("m.disk", number * size, randbytes(size))
            os.posix_fadvise(image.fileno(), 0, 0, os.POSIX_FADV_DONTNEED)

    def test_a_hash_found_wrong_by_copying_or_rereading(self):
        for destination in "m/b", f"h:m/b {FAR}":
            with self.row(destination):
                self.file_system("ext4")
                content = randbytes(BLOCKS * BLOCK)
                self.put("m/a", content)
                self.put("m/b", randbytes(BLOCK) + content[BLOCK:])
                self.ask("build m/a")
                self.believed("hash m/a")
                self.decay()
                self.check_complaint(f"sync m/a {destination}", "m/a: at offset 0: its hash was wrong, though recorded")
                self.assertEqual(self.json(f"sync m/a {destination}")["freshness"][0]["checkedBlocks"], BLOCKS)
                self.ask("diff m/a m/b")
                self.decay("m/b")
                self.assertEqual(self.json(f"sync m/a {destination} --verify", 1)["firstDifference"], 0)
                self.assertEqual(self.json(f"sync m/a {destination}")["freshness"][1]["repairedBlocks"], 1)

    def test_hashes_found_wrong_in_a_hash_file_that_cannot_be_written(self):
        for name, options in ("mode", {"preexec_fn": drop_override}), ("mount", {}):
            with self.row(name):
                self.file_system("ext4")
                self.put("m/a", randbytes(BLOCKS * BLOCK))
                self.ask("build m/a --hash-file=m/h")
                os.chmod("m/h", 0o400)
                self.ask("build m/a --hash-file=m/h")  # which the superuser may all the same
                self.believed("hash m/a --hash-file=m/h")
                if name == "mount":
                    self.mount("m/h", "m/h", "--bind")
                    run(["mount", "-o", "remount,bind,ro", "m/h"], check=True)
                self.decay()
                self.assertEqual(self.ask("verify m/a --hash-file=m/h", **options)[0], 1)
                self.ask("hash m/a --hash-file=m/h", **options)

    def test_block_devices(self):
        for access, believed in ("--read-only", not doubt_here()), ("--partscan", False):
            with self.row(access):
                self.put("disk", randbytes(200 * BLOCK + 512))
                device, _ = self.attach("disk", access)
                self.check_complaint(f"build {device}", "say where its hash file is, with --hash-file")
                build = f"build {device} --hash-file hashes --adopt"
                self.call(build)
                self.assertEqual(self.json(build)["bytesRead"], 0 if believed else 200 * BLOCK)
                flip("disk", 7 * BLOCK)  # the device, and what the system holds of it, know nothing of that
                self.assertEqual(self.json(build)["freshness"]["repairedBlocks"], 1)
                if access == "--partscan":
                    self.put("new", randbytes(200 * BLOCK + 512))
                    self.call(f"sync new {device} --dest-hash-file hashes --verify --adopt")
                    self.assertEqual(Path("disk").read_bytes(), Path("new").read_bytes())
                    self.assertIn(f"by {device};", self.call("build disk", 1).stdout)

    def test_the_file_beneath_a_mounted_disk_is_no_destination(self):
        with self.row():
            device = self.file_system("ext4")
            self.put("a", randbytes(64 << 20))
            for destination in "m.disk", device:
                self.assertEqual(self.ask(f"sync a {destination} --dest-hash-file=h")[0], 2, destination)
            self.remount(device)


SWAPS = {"link": "ln -s ../precious", "another name": "ln ../precious", "pipe": "mkfifo"}


class Swaps(Rows):
    """Names that are swapped between any two of the program's calls, as who may rename in a directory can."""

    def prepare(self, known):
        self.put("precious", PRECIOUS)
        os.chmod("precious", 0o644)
        self.put("source", PRECIOUS if known == "at all" else randbytes(3 * BLOCK))
        os.mkdir("there")
        if known:
            self.put("there/n", randbytes(3 * BLOCK))
            if known.startswith("and "):
                self.ask("build there/n")
                write("there/n" if known == "and built" else "there/n.hashes", BLOCK, OTHER)
        Path("far").write_text(f"#!/bin/sh\nexec env LD_PRELOAD={SHIM} {PROGRAM} serve --root there\n")
        os.chmod("far", 0o755)
        shutil.copytree("there", "clean")

    def once(self, command, environment):
        shutil.rmtree("there")
        shutil.copytree("clean", "there")
        environment = shimmed(**self.more, **environment)
        if "far" in command:  # which has it there
            del environment["LD_PRELOAD"]
        with Popen([PROGRAM, *command.split(), "-j1"], stdout=PIPE, stderr=STDOUT, text=True, env=environment,
                   start_new_session=True) as process:
            try:
                return process.communicate(timeout=10)[0], process.returncode
            except TimeoutExpired:
                os.killpg(process.pid, signal.SIGKILL)  # the server, too
                return "", "hangs"

    def test_nothing_outside_is_touched_or_told(self):
        named = {"SHIM_NAMED": "1"}  # where no file can be made without a name
        for command, known, self.more in (
                ("build there/n", "at all", {}), ("build there/n", "at all", named), ("build there/n", "and built", {}),
                ("build there/n", "and damaged", {}),
                ("sync source there/n", "", {}), ("sync source h:n --rsh ./far", "", {}),
                ("sync source h:n --rsh ./far", "and built", {}), ("diff source h:n --rsh ./far", "at all", {})):
            with self.row(command, known, *self.more):
                self.prepare(known)
                for environment in {}, {"SHIM_LOG": "calls"}:
                    self.once(command, environment)
                calls = Path("calls").read_text().splitlines()
                names = {"n", "n.hashes", "n.hashes.state", "n.hashes.state.new"}
                places = {(name, calls[0]) for name in names}
                for i, call in enumerate(calls):
                    kind, name = call.split()[0], call.split("/")[-1].split()[-1]
                    if kind in ("open", "link", "unlink") and name.startswith("n"):
                        places.add((name, f"{call}#{calls[:i + 1].count(call)}"))
                self.assertLessEqual({"n", "n.hashes"}, {name for name, place in places if "#" in place})
                for (name, place), how in product(sorted(places), SWAPS):
                    if name != "n" or (how != "another name" and "far" in command):  # else it is what the user means
                        self.swap(command, place, f"cd there && rm -f {name} && {SWAPS[how]} {name}")

    def swap(self, command, place, swap):
        output, code = self.once(command, {"SHIM_AT": place, "SHIM_DO": swap})
        touched = Path("precious").read_bytes() != PRECIOUS or os.stat("precious").st_mode & 0o777 != 0o644
        self.assertIn((code, touched), [(code, False) for code in (0, 1, 2)],
                      f"{command}, before {place}: {swap}: {output}")
        if command.startswith("diff"):
            self.assertNotEqual(code, 0, (command, place, swap))
        else:
            self.assertNotRegex(output, "12,?347", (command, place, swap))


class Made(Rows):
    """What the program makes."""

    def test_a_destination_has_the_permissions_of_its_source(self):
        for mode, umask in product((0o600, 0o640, 0o755), (0o022, 0o027)):
            for destination in "n", f"h:n {FAR}":
                with self.row(oct(mode), oct(umask), destination):
                    self.put("a", randbytes(BLOCK))
                    os.chmod("a", mode)
                    self.call("sync a " + destination, umask=umask)
                    self.assertEqual(oct(os.stat("n").st_mode & 0o777), oct(mode & ~umask))

    def test_a_destination_that_was_made_is_not_believed(self):
        for options in "", "--assume-unchanged", "--adopt", "--adopt --assume-unchanged":
            with self.row(options):
                self.put("a", randbytes(BLOCKS * BLOCK))
                self.ask("sync a b")
                os.remove("b")
                code, answer = self.ask(f"sync a b {options}")
                self.assertEqual(code, 0 if options == "--adopt" else 2)  # it is another image
                self.ask(f"sync a b --adopt")


main()
