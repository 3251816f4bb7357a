"""Disks, file systems, and other programs that write, for tests of what the program believes.

Mounts are in a namespace of this process's own, and loop devices are let go with their last user: whatever ends a test,
neither stays behind."""
import ctypes, fcntl, json, mmap, os, shutil, signal, struct, tempfile, threading, time, unittest
from contextlib import ExitStack, contextmanager, suppress
from pathlib import Path
from subprocess import DEVNULL, PIPE, Popen, TimeoutExpired, run

import oracle
from program import BLOCK, PROGRAM, Case, shimmed

LIBC = ctypes.CDLL(None, use_errno=True)
CALLS = {"x86_64": {"io_setup": 206, "io_destroy": 207, "io_getevents": 208, "io_submit": 209},
         "aarch64": {"io_setup": 0, "io_destroy": 1, "io_submit": 2, "io_getevents": 4}}
MAKE = {"ext4": "mkfs.ext4 -q -F", "xfs": "mkfs.xfs -q -f", "btrfs": "mkfs.btrfs -q -f"}
SIZE = {"ext4": 64 << 20, "xfs": 320 << 20, "btrfs": 128 << 20}  # the least that they are made of


def system_call(name, *arguments):
    """Those that the C library has no function for, too."""
    number = CALLS.get(os.uname().machine, {}).get(name)
    result = getattr(LIBC, name)(*arguments) if number is None else LIBC.syscall(number, *arguments)
    if result < 0:
        raise OSError(ctypes.get_errno(), os.strerror(ctypes.get_errno()))
    return result


def address_of(memory):
    return ctypes.addressof(ctypes.c_char.from_buffer(memory))


def aligned(data):
    memory = mmap.mmap(-1, len(data))
    memory[:] = data
    return memory


def on_disk(path):
    """What the disk holds, whatever is in memory."""
    try:
        reader = os.open(path, os.O_RDONLY | os.O_DIRECT)
    except OSError:  # a file system in memory
        with open(path, "rb") as file:
            return file.read()
    try:
        size = os.lseek(reader, 0, os.SEEK_END)
        memory = mmap.mmap(-1, size // 4096 * 4096 + 4096)
        offset = 0
        while offset < size:
            offset += os.preadv(reader, [memoryview(memory)[offset:]], offset)
        return memory[:size]
    finally:
        os.close(reader)


# How other programs write. Each has the image open from the start until `close`.

class Pwrite:
    FLAGS = os.O_RDWR

    def __init__(self, path):
        self.image = os.open(path, self.FLAGS)

    def write(self, offset, data):
        os.pwrite(self.image, data, offset)

    def close(self):
        os.close(self.image)


class Direct(Pwrite):
    """Past the memory of the system: offsets and lengths are multiples of 512."""
    FLAGS = os.O_RDWR | os.O_DIRECT

    def write(self, offset, data):
        os.pwritev(self.image, [aligned(data)], offset)


class Asynchronous(Direct):
    """`begin` returns before the bytes are anywhere; `finish` waits for them."""

    def __init__(self, path):
        super().__init__(path)
        self.context = ctypes.c_ulong(0)
        system_call("io_setup", 1, ctypes.byref(self.context))

    def begin(self, offset, data):
        self.memory = aligned(data)
        request = ctypes.create_string_buffer(struct.pack("QIiHhIQQqQII", 0, 0, 0, 1, 0, self.image,
                                                          address_of(self.memory), len(data), offset, 0, 0, 0))
        system_call("io_submit", self.context, 1, ctypes.byref(ctypes.c_void_p(ctypes.addressof(request))))

    def finish(self):
        event = ctypes.create_string_buffer(32)
        system_call("io_getevents", self.context, ctypes.c_long(1), ctypes.c_long(1), event, None)
        assert struct.unpack("QQqq", event.raw)[2] == len(self.memory), event.raw

    def write(self, offset, data):
        self.begin(offset, data)
        self.finish()

    def close(self):
        system_call("io_destroy", self.context)
        super().close()


class Mapped:
    """The image's descriptor is closed at once, as linkers and databases do."""

    def __init__(self, path):
        with open(path, "r+b") as file:
            self.image = mmap.mmap(file.fileno(), 0)

    def write(self, offset, data):
        self.image[offset:offset + len(data)] = data

    def close(self):
        self.image.close()


WRITERS = {"pwrite": Pwrite, "direct": Direct, "asynchronous": Asynchronous, "mapped": Mapped}


def write(path, offset, data, kind=Pwrite):
    writer = kind(path)
    writer.write(offset, data)
    writer.close()


def shut_down(mounted):
    """The file system is lost as with its disk; its log is not written any more."""
    directory = os.open(mounted, os.O_RDONLY)
    fcntl.ioctl(directory, 0x8004587d, struct.pack("I", 2))
    os.close(directory)


class Throttle:
    """A group of processes whose writes to a disk are held back by the system, until `go`."""

    def __init__(self, disk):
        number = os.stat(disk).st_rdev
        disk = f"{os.major(number)}:{os.minor(number)}"
        mounts = [line.split() for line in Path("/proc/self/mounts").read_text().splitlines()]
        parents = [mount[1] for mount in mounts if mount[2] == "cgroup" and "blkio" in mount[3].split(",")]
        self.file, least, self.none = "blkio.throttle.write_bps_device", f"{disk} 1", f"{disk} 0"
        if not parents:
            parents = [mount[1] for mount in mounts if mount[2] == "cgroup2"]
            self.file, least, self.none = "io.max", f"{disk} wbps=1", f"{disk} wbps=max"
        try:
            if self.file == "io.max":
                self.put(os.path.join(parents[0], "cgroup.subtree_control"), "+io")
            self.group = tempfile.mkdtemp(prefix="kelvane-", dir=parents[0])
            self.put(os.path.join(self.group, self.file), least)
        except (IndexError, OSError) as error:
            raise unittest.SkipTest(f"no group of processes can be held back: {error}")

    @staticmethod
    def put(path, text):
        with open(path, "w") as file:
            file.write(text)

    def enter(self):
        self.put(os.path.join(self.group, "cgroup.procs"), "0")

    def go(self):
        self.put(os.path.join(self.group, self.file), self.none)

    def close(self):
        self.go()
        for _ in range(1000):  # until the processes have left
            try:
                return os.rmdir(self.group)
            except OSError:
                time.sleep(0.01)


class Held:
    """A direct write of another process, that the system holds back until `go`. With `closes`, that process has closed
    the image already: nobody can be named who writes."""

    is_over = False

    def __init__(self, throttle, image, offset, data, closes=False):
        self.throttle = throttle
        begun, begins = os.pipe()
        self.process = os.fork()
        if self.process == 0:
            LIBC.prctl(1, signal.SIGKILL)  # when its parent ends
            try:
                throttle.enter()
                if not closes:
                    writer = Direct(image)
                    os.write(begins, b"-")
                    writer.write(offset, data)
                else:
                    writer = Asynchronous(image)
                    writer.begin(offset, data)
                    os.close(writer.image)
                    os.write(begins, b"-")
                    writer.finish()
            finally:
                os._exit(0)
        os.close(begins)
        os.read(begun, 1)
        os.close(begun)
        time.sleep(0.02)  # it is on its way into the system's hands
        if os.waitpid(self.process, os.WNOHANG)[0]:
            raise unittest.SkipTest("the system does not hold back what a group of processes writes")

    def go(self):
        if not self.is_over:
            self.is_over = True
            self.throttle.go()
            os.waitpid(self.process, 0)


# ---------------------------------------------------------------------------------------------------

class Rows(Case):
    """Tables of which every row has a directory of its own."""

    @contextmanager
    def row(self, *name):
        """A row of a table, in an empty directory; what it makes is gone at its end."""
        with self.subTest(" ".join(map(str, name))), ExitStack() as self.stack:
            directory = self.stack.enter_context(tempfile.TemporaryDirectory(dir=self.directory.name))
            self.stack.callback(os.chdir, os.getcwd())
            os.chdir(directory)
            yield

    def put(self, name, content):
        with open(name, "wb") as file:
            file.write(content)
            file.flush()
            os.fsync(file.fileno())

    def ask(self, command, shim=None, writes=None, **options):
        """A command's exit code and its answer, which is true where that is 0, of what the disks hold. Not so while
        there is a list of writes that begin: these go on when the command does not end without them."""
        if shim:
            options["env"] = shimmed(**shim)
        with Popen([PROGRAM, *command.split(), "--json"], stdout=PIPE, stderr=PIPE, text=True, **options) as process:
            try:
                output, complaint = process.communicate(timeout=60 if writes is None else 1)
            except TimeoutExpired:
                for begun in writes or ():
                    begun.go()
                output, complaint = process.communicate(timeout=60)
        self.assertIn(process.returncode, (0, 1, 2), command + complaint)
        answer = json.loads(output) if output else {"complaint": complaint}
        if process.returncode == 0 and writes is None:
            self.assertTrue(self.is_true(command.split(), answer), f"not true: {command}: {answer}{complaint}")
        return process.returncode, answer

    def is_true(self, words, answer):
        kind, *images = (word for word in words if not word.startswith("-"))
        named = [word.split("=")[1] for word in words if "hash-file" in word]
        hash_files = named or [image + ".hashes" for image in images]
        contents = [on_disk(image) for image in images]
        if kind == "hash":
            return answer["hash"] == oracle.aggregate(contents[0], BLOCK, 0, len(contents[0])).hex()
        if kind == "invalidate":  # on the user's word
            return True
        if kind in ("diff", "sync") and contents[0] != contents[1][:len(contents[0])]:
            return False
        return all(map(oracle.known_are_true, map(on_disk, hash_files), contents))

    @staticmethod
    def writers(answer):
        """The processes that had an image open for writing."""
        fresh = answer.get("freshness", [])
        return [writer["pid"] for side in (fresh if isinstance(fresh, list) else [fresh])
                for writer in side.get("writers", [])]

    def believed(self, command):
        """It believes what it knows. Without that the rows would show nothing."""
        code, answer = self.ask(command)
        fresh = answer["freshness"]
        self.assertTrue(code == 0 and all(side["believed"] for side in (fresh if isinstance(fresh, list) else [fresh])),
                        (command, answer))

    @contextmanager
    def asked(self, *actions):
        """The words that make the program ask this process, whenever the shim acts, to do the next of the actions."""
        os.mkfifo("poke")
        os.mkfifo("done")
        rest, failures = list(actions), []

        def serve():
            while True:
                with open("poke") as poke:
                    word = poke.read()
                if "end" in word:
                    return
                try:
                    rest and rest.pop(0)()
                except Exception as failure:
                    failures.append(failure)
                with open("done", "w") as done:
                    done.write("\n")

        server = threading.Thread(target=serve)
        server.start()
        try:
            yield "each echo >poke; read _ <done"
        finally:
            with open("poke", "w") as poke:
                poke.write("end")
            server.join()
            os.remove("poke")
            os.remove("done")
        for failure in failures:
            raise failure


class Disks(Rows):
    """Those that need the superuser, or what not every system has."""

    @classmethod
    def setUpClass(cls):
        if os.geteuid() != 0:
            raise unittest.SkipTest("devices and file systems are made by the superuser alone")
        try:
            system_call("unshare", 0x20000)  # CLONE_NEWNS
        except OSError as error:
            raise unittest.SkipTest(f"no mounts of its own: {error}")
        run(["mount", "--make-rprivate", "/"], check=True)
        with suppress(OSError):  # the numbers of devices are everybody's, so that one run at a time makes them
            turn = cls.enterClassContext(open("/dev/loop-control"))
            fcntl.flock(turn, fcntl.LOCK_EX)

    def tool(self, command):
        if not shutil.which(command.split()[0]):
            self.skipTest("not installed: " + command.split()[0])
        return run(command.split(), check=True, stdout=PIPE, stderr=PIPE, text=True).stdout.strip()

    def attach(self, file, *options):
        """A loop device. It stays for as long as it is used: what holds it lets go when the row ends, at the latest."""
        made = run(["losetup", "--find", "--show", *options, file], capture_output=True, text=True)
        if made.returncode:
            self.skipTest("no loop device: " + made.stderr.strip())
        device = made.stdout.strip()
        held = self.stack.enter_context(ExitStack())
        held.callback(os.close, os.open(device, os.O_RDONLY))
        run(["losetup", "--detach", device], check=True)  # which is done once nobody has it open
        return device, held

    def mount(self, source, where, *options):
        if not os.path.exists(where):
            os.mkdir(where)
        made = run(["mount", *options, source, where], capture_output=True, text=True)
        if made.returncode:
            self.skipTest(f"cannot mount {source}: {made.stderr.strip()}")
        self.stack.callback(run, ["umount", "--lazy", where], stderr=DEVNULL)

    def file_system(self, kind, where="m", make="", options=()):
        """The loop device of a new one, mounted."""
        disk = where + ".disk"
        if not os.path.exists(disk):
            with open(disk, "wb") as file:
                file.truncate(SIZE[kind])
        self.tool(f"{MAKE[kind]} {make} {disk}")
        device, _ = self.attach(disk)
        self.mount(device, where, *options)
        return device

    def remount(self, device, where="m"):
        run(["umount", where], check=True)
        run(["mount", device, where], check=True)
