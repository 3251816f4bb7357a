"""The digests that Digests.cpp prints against those of Python's hashlib: digests_test.py COMMAND..., which runs it"""
import subprocess, sys
from oracle import DIGEST, blake2sp

LONGEST, MOST, STEP, LENGTHS = 2100, 130, 37, (0, 1, 64, 512, 513, 1500, 4096)  # as there


def main():
    content = bytes((i * 2654435761 & 0xFFFFFFFF) >> 24 for i in range(MOST * STEP + 4096))
    done = subprocess.run(sys.argv[1:], stdout=subprocess.PIPE, check=True)
    name, _, printed = done.stdout.partition(b"\n")
    expected = [blake2sp(content[:length]) for length in range(LONGEST + 1)]
    for length in LENGTHS:
        digests = [blake2sp(content[i * STEP:i * STEP + length]) for i in range(MOST)]
        expected += [digest for count in range(1, MOST + 1) for digest in digests[:count]]
    found = [printed[i:i + DIGEST] for i in range(0, len(printed), DIGEST)]
    wrong = [i for i, pair in enumerate(zip(found, expected)) if pair[0] != pair[1]]
    print(f"digests on {name.decode()}: {len(found)}, as hashlib has them but for {len(wrong)} of them {wrong[:5]}")
    return 1 if wrong or len(found) != len(expected) else 0


sys.exit(main())
