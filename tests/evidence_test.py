"""Is what the program believes proven? Others write unseen, disks fail, names are swapped: evidence_test.py PROGRAM SHIM

Every table has a row for a way in which an image, a hash file or a name can change without the stamps and counters that
tell of it. Whatever ends with 0 must be true of what the disks hold, then and later on; and where nothing was done the
hashes must be believed."""
import os, time
from contextlib import closing
from pathlib import Path
from random import randbytes

from disks import Disks, Held, Mapped, SlowSource, Throttle
from program import BLOCK, main

BLOCKS = 50
OTHER = b"written by somebody else".ljust(2 * BLOCK, b"!")
PLACE = 20 * BLOCK
READING = ("build m/a", "verify m/a", "hash m/a", "diff m/a m/c", "sync m/a m/b")


class Evidence(Disks):
    def put(self, name, content):
        with open(name, "wb") as file:
            file.write(content)
            file.flush()
            os.fsync(file.fileno())

    def images(self):
        """An image, an equal one, and one that is to become equal; all that is known of them is believed."""
        for path in Path("m").iterdir():
            path.is_file() and path.unlink()
        content = randbytes(BLOCKS * BLOCK + 100)
        for name, data in ("m/a", content), ("m/c", content), ("m/b", randbytes(BLOCKS * BLOCK)):
            self.put(name, data)
            self.ask(f"build {name}")
        self.believed("build m/a")

    def later(self, *commands):
        for command in commands or ("hash m/a", "diff m/a m/c", "diff m/a m/b"):
            self.ask(command)

    def test_writes_that_began_before_and_end_later(self):
        """Their stamps are those of their beginning; their bytes come when the command has ended."""
        for kind, how, when in (("ext4", "direct", "before"), ("ext4", "closed", "meanwhile"),
                                ("xfs", "closed", "before"), ("xfs", "direct", "meanwhile"),
                                ("xfs", "slow", "meanwhile")):
            with self.row(kind, how, when):
                device = self.file_system(kind)
                for command in *READING, "sync m/b m/a":
                    self.images()
                    self.write_late(command, device, how, when)

    def write_late(self, command, device, how, when):
        writes = []

        def begin():
            if how == "slow":
                writes.append(SlowSource("m/a", PLACE, OTHER))
            else:
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
        self.later()
        if was_pending:
            self.assertEqual(code, 1, (command, answer))
            if (how, when) == ("direct", "before"):
                self.assertIn(writes[0].process, self.writers(answer))

    def test_pages_that_are_dirty_already(self):
        """Only the first store into a page of a mapping leaves a stamp, until the page is written to the disk."""
        for kind in "ext4", "xfs", "btrfs":
            with self.row(kind):
                self.file_system(kind)
                for command in READING:
                    self.images()
                    with closing(Mapped("m/a")) as writer:
                        def store():
                            writer.write(PLACE, randbytes(BLOCK))
                            time.sleep(0.02)  # its stamp is an old one when the program looks

                        with self.asked(lambda: None, store, store) as words:
                            code, answer = self.ask(command, {"SHIM_AT": "fsynced a,fsync a", "SHIM_DO": words}, [])
                        self.later()
                        self.assertEqual((code, self.writers(answer)), (1, [os.getpid()]), (command, answer))


main()
