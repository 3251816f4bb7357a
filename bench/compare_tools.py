#!/usr/bin/env python3
"""Times kelvane-hash side by side with programs that do the same to a whole image, as whole processes, on files of
random bytes in the page cache: compare_tools.py PROGRAM [REPETITIONS]

Every repetition runs all of them one after the other; a ratio is that of their fastest runs, for whatever else the
machine does can only add to a run. Beside it stands what the repetitions gave one by one."""
import os
import random
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

SIZE, PIECE = 1 << 30, 8 << 20
PROGRAM = os.path.abspath(sys.argv[1])
REPETITIONS = int(sys.argv[2]) if len(sys.argv) > 2 else 7


def build(image, jobs):
    return [PROGRAM, "build", image, "--block-size", "4096", "--jobs", str(jobs), "--progress", "none"]


def sync(source, destination):
    return [PROGRAM, "sync", source, destination, "--jobs", "2", "--progress", "none"]


def rsync(source, destination, *options):
    return ["rsync", "--inplace", "--no-whole-file", "--ignore-times", *options, source, destination]


def forget(*names):
    for name in names:
        if os.path.exists(name):
            os.unlink(name)


def nothing_known():
    forget("out", "dense.img.hashes", "sparse.img.hashes")


def change(image):
    """50 blocks; what is on the disk already is not written again in the time of a command."""
    with open(image, "r+b") as file:
        for _ in range(50):
            file.seek(random.randrange(2 * SIZE // 4096) * 4096)
            file.write(os.urandom(4096))
        os.fsync(file.fileno())


def changed_and_unknown():
    forget("first.img.hashes", "second.img.hashes")
    change("second.img")


def changed():
    change("first.img")


def new_destination():
    forget("holes.img.hashes", "copy.img", "copy.img.hashes")


COMMANDS = {  # what is prepared, untimed, and what is timed
    "one job": (nothing_known, build("dense.img", 1)),
    "two jobs": (nothing_known, build("dense.img", 2)),
    "90% holes": (nothing_known, build("sparse.img", 1)),
    "verify": (lambda: subprocess.run(build("dense.img", 2), stdout=subprocess.DEVNULL, check=True),
               [PROGRAM, "verify", "dense.img", "--jobs", "1", "--progress", "none"]),
    "rdiff -b 4096 signature": (nothing_known, ["rdiff", "-b", "4096", "signature", "dense.img", "out"]),
    "veritysetup format": (nothing_known, ["veritysetup", "format", "dense.img", "out"]),
    "bmaptool create": (nothing_known, ["bmaptool", "create", "-o", "out", "dense.img"]),
    "b3sum --num-threads 1": (nothing_known, ["b3sum", "--num-threads", "1", "dense.img"]),
    "sync, nothing known": (changed_and_unknown, sync("first.img", "second.img")),
    "sync, repeated": (changed, sync("first.img", "second.img")),
    "rsync of the same": (changed, rsync("first.img", "second.img")),
    "sync of holes": (new_destination, sync("holes.img", "copy.img")),
    "rsync of holes": (new_destination, rsync("holes.img", "copy.img", "--sparse")),
}
with open("/proc/cpuinfo", encoding="utf-8") as cpuinfo:
    IS_WIDE = "avx512dq" in cpuinfo.read()
# row: numerator and denominator of the ratio of times, what it must be, "at least" or "at most" that
ROWS = [
    ("rdiff / one job", "rdiff -b 4096 signature", "one job", 6 if IS_WIDE else 4.5, True),
    ("veritysetup / one job", "veritysetup format", "one job", 3 if IS_WIDE else 2.3, True),
    ("bmaptool / one job", "bmaptool create", "one job", 2 if IS_WIDE else 1.7, True),
    ("one job / b3sum", "one job", "b3sum --num-threads 1", 1.05, False),
    ("one job / two jobs", "one job", "two jobs", 1.75, True),
    ("one job / the same, 90% holes", "one job", "90% holes", 4, True),
    ("verify / one job", "verify", "one job", 1.1, False),
    ("rsync / sync, nothing known", "rsync of the same", "sync, nothing known", 1, True),
    ("rsync / sync, repeated", "rsync of the same", "sync, repeated", 1, True),
    ("rsync / sync, holes", "rsync of holes", "sync of holes", 10, True),
]


def make_images():
    """1 GiB, dense and with holes; twice 2 GiB that are equal; 8 GiB of which 16 MiB are no hole."""
    with open("dense.img", "wb") as dense, open("sparse.img", "wb") as sparse, open("holes.img", "wb") as holes, \
            open("first.img", "wb") as first, open("second.img", "wb") as second:
        sparse.truncate(SIZE)
        holes.truncate(8 * SIZE)
        for number in range(SIZE // PIECE):
            data = os.urandom(PIECE)
            for file in dense, first, second:
                file.write(data)
            for file in first, second:
                file.write(data[::-1])
            for file in (sparse,) * (number % 10 == 0) + (holes,) * (number % 64 == 0):
                file.seek(number * PIECE)
                file.write(data)
    os.sync()
    for image in "dense.img", "sparse.img", "first.img", "second.img":
        subprocess.run(["cat", image], stdout=subprocess.DEVNULL, check=True)


def seconds(prepare, command):
    prepare()
    start = time.monotonic()
    subprocess.run(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=True)
    return time.monotonic() - start


def main():
    os.environ["PATH"] += ":/usr/sbin:/sbin"
    missing = [command[0] for _, command in COMMANDS.values() if not shutil.which(command[0])]
    if missing:
        sys.exit("missing: " + ", ".join(missing))
    with tempfile.TemporaryDirectory() as directory:
        os.chdir(directory)
        make_images()
        times = {name: [] for name in COMMANDS}
        for _ in range(REPETITIONS):
            for name, command in COMMANDS.items():
                times[name].append(seconds(*command))
        os.chdir("/")
    width = "AVX-512" if IS_WIDE else "no AVX-512"
    print(f"{os.cpu_count()} cores, {width}, load {os.getloadavg()[0]:.1f}, {REPETITIONS} repetitions\n")
    for name, values in times.items():
        print(f"{name:32}{min(values):6.2f} s  (median {statistics.median(values):.2f})")
    print(f"\n{'ratio of times':32}{'fastest':>8}{'one by one':>23}   must be")
    for row, above, below, limit, at_least in ROWS:
        ratios = sorted(a / b for a, b in zip(times[above], times[below]))
        one_by_one = f"{statistics.median(ratios):.2f} ({ratios[0]:.2f} to {ratios[-1]:.2f})"
        ratio = min(times[above]) / min(times[below])
        verdict = "ok" if (ratio >= limit if at_least else ratio <= limit) else "short"
        print(f"{row:32}{ratio:8.2f}{one_by_one:>23}   {'≥' if at_least else '≤'} {limit:<5}{verdict}")


if __name__ == "__main__":
    main()
