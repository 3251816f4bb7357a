#!/usr/bin/env python3
"""Checks a hash file against the image that it describes, with nothing but Python's own BLAKE2s.

    oracle.py HASHFILE IMAGE [OFFSET LENGTH]...

IMAGE holds the target's bytes, from the partition offset on. For every range, whose OFFSET counts from
the start of the device as the store's callers give it, prints the aggregate hash in hexadecimal,
computed from the image alone. Exits with 1 and one line when the two files do not agree.
"""
import hashlib
import struct
import sys

PAGE, DIGEST = 4096, 32


def node(offset, depth, last):
    return hashlib.blake2s(digest_size=DIGEST, fanout=8, depth=2, inner_size=DIGEST,
                           node_offset=offset, node_depth=depth, last_node=last)


def blake2sp(data):
    root = node(0, 1, True)
    for lane in range(8):
        leaf = node(lane, 0, lane == 7)
        for start in range(64 * lane, len(data), 512):
            leaf.update(data[start:start + 64])
        root.update(leaf.digest())
    return root.digest()


def expect(condition, text):
    if not condition:
        print(text)
        sys.exit(1)


def read_entries(hash_file, image):
    """Checks the file's form; returns block size, partition offset and the entries of all blocks."""
    expect(len(hash_file) >= PAGE, "the file has no complete header")
    magic, version, data, block, gap, target, partition, hash_id, tail = struct.unpack("<QQQIIQQII", hash_file[:56])
    expect(magic == 0x20001312 and version == 0, "this is no hash file of version 0")
    expect(data == PAGE and hash_id == 1 and block > 0, "the header has invalid values")
    expect(gap == tail == 0 and not any(hash_file[56:PAGE]), "the header's gaps are not zero")
    expect(target - partition == len(image), "the image has another size than the target")
    used = -(-target // block) * (DIGEST + 1)
    expect(len(hash_file) == PAGE + -(-used // PAGE) * PAGE, "the file has the wrong size")
    return block, partition, [hash_file[i:i + DIGEST + 1] for i in range(PAGE, PAGE + used, DIGEST + 1)]


def known_are_true(hash_file, image):
    """Whether every known hash of a whole block is that of the image's bytes."""
    block, _, entries = read_entries(hash_file, image)
    return all(entry[0] & 1 == 0 or entry[1:] == blake2sp(image[i * block:(i + 1) * block])
               for i, entry in enumerate(entries[:len(image) // block]))


def aggregate(image, block, start, end):
    digests = b""
    for first in range(start - start % block, end, block) if start < end else ():
        inside = image[max(first, start):min(first + block, end)]
        digests += blake2sp((bytes(max(0, start - first)) + inside).ljust(block, b"\0"))
    return blake2sp(digests)


def main(hash_path, image_path, *ranges):
    with open(hash_path, "rb") as hash_file, open(image_path, "rb") as image_file:
        hash_file, image = hash_file.read(), image_file.read()
    block, partition, entries = read_entries(hash_file, image)
    for i, entry in enumerate(entries):
        expect(entry[0] in (0, 1), f"block {i} has invalid flags")
        if entry[0] == 1 and (i + 1) * block <= len(image):  # a block that is now cut may have an old digest
            expect(entry[1:] == blake2sp(image[i * block:(i + 1) * block]), f"block {i} has another digest")
    for offset, length in zip(ranges[::2], ranges[1::2]):
        start, end = int(offset) - partition, int(offset) - partition + int(length)
        expect(0 <= start <= end <= len(image), f"range {offset} {length} is not in the target")
        print(aggregate(image, block, start, end).hex())


if __name__ == "__main__":
    main(*sys.argv[1:])
