#!/usr/bin/env python3
"""Stands for ssh: line.py HOST COMMAND... runs the command in the directory HOST. All that it says and hears is
delayed by LINE_DELAY seconds each way, no faster than LINE_RATE bytes per second where that is set, and counted in the
file LINE_COUNT: bytes to the host, bytes from it.
What it imports it takes from the times that are measured, so it imports little."""
import collections
import os
import select
import sys
import time

DELAY = float(os.environ.get("LINE_DELAY", "0"))
RATE = float(os.environ.get("LINE_RATE", "inf"))
MOST = 64 << 20  # bytes on the way


class Direction:
    """Bytes from one descriptor to another, each some time later."""

    def __init__(self, source, target):
        self.source, self.target = source, target
        self.on_the_way, self.length, self.count, self.has_ended = collections.deque(), 0, 0, False
        self.sent = 0  # when the last byte of these has been sent
        os.set_blocking(target, False)

    def is_open(self):
        return not self.has_ended or self.on_the_way

    def reads(self):
        return [self.source] if not self.has_ended and self.length < MOST else []

    def writes(self, now):
        return [self.target] if self.on_the_way and self.on_the_way[0][0] <= now else []

    def take(self):
        data = os.read(self.source, 1 << 18)
        self.has_ended = not data
        self.count += len(data)
        self.length += len(data)
        if data:
            self.sent = max(self.sent, time.monotonic()) + len(data) / RATE
            self.on_the_way.append((self.sent + DELAY, data))

    def give(self):
        due, data = self.on_the_way.popleft()
        done = os.write(self.target, data)
        self.length -= done
        if done < len(data):
            self.on_the_way.appendleft((due, data[done:]))


def carry(there, back):
    """Until the far side has nothing more to say, and that has arrived."""
    open_ones = [there, back]
    while back.is_open():
        now = time.monotonic()
        reads = sum((direction.reads() for direction in open_ones), [])
        writes = sum((direction.writes(now) for direction in open_ones), [])
        waits = [direction.on_the_way[0][0] - now for direction in open_ones if direction.on_the_way]
        readable, writable, _ = select.select(reads, writes, [], min((w for w in waits if w > 0), default=None))
        for direction in open_ones:
            if direction.source in readable:
                direction.take()
            if direction.target in writable:
                direction.give()
        if there in open_ones and not there.is_open():
            os.close(there.target)
            open_ones.remove(there)


def main():
    far_input, to_far = os.pipe()
    from_far, far_output = os.pipe()
    far = os.fork()
    if far == 0:
        os.dup2(far_input, 0)
        os.dup2(far_output, 1)
        os.chdir(sys.argv[1])
        os.execvp(sys.argv[2], sys.argv[2:])
    os.close(far_input)
    os.close(far_output)
    there, back = Direction(0, to_far), Direction(from_far, 1)
    try:
        carry(there, back)
    except BrokenPipeError:
        pass
    os.closerange(3, 256)  # when one side has gone, the other learns it
    if "LINE_COUNT" in os.environ:
        with open(os.environ["LINE_COUNT"], "w", encoding="utf-8") as file:
            file.write(f"{there.count} {back.count}")
    os._exit(os.waitstatus_to_exitcode(os.waitpid(far, 0)[1]) & 0xFF)


main()
