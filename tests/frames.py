"""What two sides say to each other, byte by byte, as docs/protocol.md has it."""
import os, struct
from pathlib import Path
from subprocess import DEVNULL, run

from oracle import blake2sp
from program import BLOCK, PROGRAM, Case, shimmed

HELLO, OPEN, OPENED, START, STARTED, PROGRESS, ASK_NODES, ASK_BYTES, DIGESTS, READ, DATA, END, START_WRITING = \
    1, 2, 3, 4, 5, 6, 7, 8, 9, 11, 12, 13, 14
DROP_CACHE, DISTRUST, CONCLUDE = 10, 16, 17
ERROR, ALIVE, NOTE, ANNOUNCE = 19, 20, 21, 22


def string(text):
    return struct.pack("<I", len(text)) + text.encode()


def frame(kind, payload=b""):
    return [(kind, payload)]


CRCS = []
for byte in range(256):
    for _ in range(8):
        byte = byte >> 1 ^ (0x82F63B78 if byte & 1 else 0)
    CRCS.append(byte)


def check_of(data, number):
    """Of the first frame part of a hash, of all others CRC-32C."""
    if number == 0:
        return blake2sp(data)[:4]
    crc = 0xFFFFFFFF
    for byte in data:
        crc = crc >> 8 ^ CRCS[(crc ^ byte) & 255]
    return struct.pack("<I", crc ^ 0xFFFFFFFF)


def encoded(frames):
    """The bytes of frames, which are pairs of type and payload, or bytes as they are."""
    stream = []
    for number, each in enumerate(frames):
        if not isinstance(each, bytes):
            header = struct.pack("<IB", len(each[1]), each[0]) + check_of(each[1], number)
            each = header + check_of(header + struct.pack("<q", number), number) + each[1]
        stream.append(each)
    return b"".join(stream)


def hello(version=3, capabilities=1, timeout=60):
    return frame(HELLO, struct.pack("<IIII", 0x484B564B, version, capabilities, timeout))


def opening(path, destination=False, hash_file="", trust=0, jobs=1, level=0, rate=0):
    return frame(OPEN,
                 string(path) + string(hash_file) + bytes([destination, 0, trust, 0])
                 + struct.pack("<IBqIq", jobs, 0, 0, level, rate))


def start(target, compared, block=BLOCK, permissions=0o600):
    return frame(START, struct.pack("<IqIqB", block, target, permissions, compared, 0))


def data(offset, content, of_blocks=False):
    blocks = (content[i:i + BLOCK] for i in range(0, len(content), BLOCK))
    digest = blake2sp(b"".join(map(blake2sp, blocks)) if of_blocks else content)
    return frame(DATA, struct.pack("<qqBB", offset, len(content), 1, of_blocks) + digest + content)


def opened(size, missing=0, device=0):
    return frame(OPENED, struct.pack("<qIBB", size, 0o600, missing, device) + string("h") + struct.pack("<I", BLOCK))


class OneSided(Case):
    """Tests that play the other side."""

    def against(self, command, script, *options, expect=2, **environment):
        """What the program says when this script is what leads to the other machine."""
        Path("peer").write_text(f"#!/bin/sh\n{script}\n")
        os.chmod("peer", 0o755)
        done = run([PROGRAM, *command.split(), "--rsh", "./peer", *options], capture_output=True, text=True, timeout=60,
                   stdin=DEVNULL, env=shimmed(**environment) if environment else None)
        self.assertEqual(done.returncode, expect, done)
        return done.stderr

    def serve(self, frames, *arguments, **environment):
        """What a server answers last, as a type and its bytes."""
        done = run([PROGRAM, "serve", *arguments], input=encoded(frames), capture_output=True, timeout=60,
                   env=shimmed(**environment) if environment else None)
        answer, rest = (0, b""), done.stdout
        while rest:
            length, kind = struct.unpack("<IB", rest[:5])
            answer, rest = (kind, rest[13:13 + length]), rest[13 + length:]
        self.assertEqual(done.returncode, 2 if answer[0] == ERROR else 0)
        return answer


# Pieces that begin inside a block and reach beyond its end: what they add up to has no limit.
ASKEW = [data(0, b"1") + data(1, bytes(BLOCK), of_blocks) + data(BLOCK + 1, bytes(BLOCK - 1)) for of_blocks in (0, 1)]
