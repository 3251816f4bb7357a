#!/usr/bin/env python3
"""Times kelvane-hash build side by side with programs that also read and hash a whole image, as whole processes, on
1 GiB of random bytes in the page cache: compare_tools.py PROGRAM [REPETITIONS]

Every repetition runs all of them one after the other; a ratio is that of their fastest runs, for whatever else the
machine does can only add to a run. Beside it stands what the repetitions gave one by one."""
import os
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


COMMANDS = {
    "one job": build("dense.img", 1),
    "two jobs": build("dense.img", 2),
    "90% holes": build("sparse.img", 1),
    "rdiff -b 4096 signature": ["rdiff", "-b", "4096", "signature", "dense.img", "out"],
    "veritysetup format": ["veritysetup", "format", "dense.img", "out"],
    "bmaptool create": ["bmaptool", "create", "-o", "out", "dense.img"],
    "b3sum --num-threads 1": ["b3sum", "--num-threads", "1", "dense.img"],
}
# row: numerator and denominator of the ratio of times, what it must be, "at least" or "at most" that
ROWS = [
    ("rdiff / one job", "rdiff -b 4096 signature", "one job", 6, True),
    ("veritysetup / one job", "veritysetup format", "one job", 8, True),
    ("bmaptool / one job", "bmaptool create", "one job", 2, True),
    ("one job / b3sum", "one job", "b3sum --num-threads 1", 1.6, False),
    ("one job / two jobs", "one job", "two jobs", 1.7, True),
    ("one job / the same, 90% holes", "one job", "90% holes", 4, True),
]


def make_images():
    with open("dense.img", "wb") as dense, open("sparse.img", "wb") as sparse:
        sparse.truncate(SIZE)
        for number in range(SIZE // PIECE):
            data = os.urandom(PIECE)
            dense.write(data)
            if number % 10 == 0:
                sparse.seek(number * PIECE)
                sparse.write(data)
    os.sync()
    for image in "dense.img", "sparse.img":
        subprocess.run(["cat", image], stdout=subprocess.DEVNULL, check=True)


def seconds(command):
    for name in "out", "dense.img.hashes", "sparse.img.hashes":
        if os.path.exists(name):
            os.unlink(name)
    start = time.monotonic()
    subprocess.run(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=True)
    return time.monotonic() - start


def main():
    os.environ["PATH"] += ":/usr/sbin:/sbin"
    missing = [command[0] for command in COMMANDS.values() if not shutil.which(command[0])]
    if missing:
        sys.exit("missing: " + ", ".join(missing))
    with tempfile.TemporaryDirectory() as directory:
        os.chdir(directory)
        make_images()
        times = {name: [] for name in COMMANDS}
        for _ in range(REPETITIONS):
            for name, command in COMMANDS.items():
                times[name].append(seconds(command))
        os.chdir("/")
    print(f"{os.cpu_count()} cores, load {os.getloadavg()[0]:.1f}, {REPETITIONS} repetitions\n")
    for name, values in times.items():
        print(f"{name:32}{min(values):6.2f} s  (median {statistics.median(values):.2f})")
    print(f"\n{'ratio of times':32}{'fastest':>8}{'one by one':>22}   must be")
    for row, above, below, limit, at_least in ROWS:
        ratios = sorted(a / b for a, b in zip(times[above], times[below]))
        one_by_one = f"{statistics.median(ratios):.2f} ({ratios[0]:.2f} to {ratios[-1]:.2f})"
        ratio = min(times[above]) / min(times[below])
        verdict = "ok" if (ratio >= limit if at_least else ratio <= limit) else "short"
        print(f"{row:32}{ratio:8.2f}{one_by_one:>22}   {'≥' if at_least else '≤'} {limit:<5}{verdict}")


if __name__ == "__main__":
    main()
