#!/usr/bin/env python3
"""Times kelvane-hash side by side with programs that do the same to a whole image, as whole processes, on files of
random bytes in the page cache: compare_tools.py PROGRAM

Every repetition runs all of them one after the other; a ratio is that of their fastest runs, for whatever else the
machine does can only add to a run. Beside it stands what the repetitions gave one by one."""
import argparse
import os
import pathlib
import random
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

from report import put_into

ARGUMENTS = argparse.ArgumentParser(description=__doc__)
ARGUMENTS.add_argument("program", type=os.path.abspath)
ARGUMENTS.add_argument("--repetitions", type=int, default=7)
ARGUMENTS.add_argument("--markdown", type=pathlib.Path, help="replaces the table in this file")
ARGUMENTS.add_argument("--strict", action="store_true", help="fails when a row falls short")
ARGUMENTS.add_argument("--only", choices=("whole images", "two machines", "first copies", "exports"))
OPTIONS = ARGUMENTS.parse_args()
SIZE, PIECE, BLOCK = 1 << 30, 8 << 20, 4096
LINE = f"{sys.executable} -IS {os.path.join(os.path.dirname(os.path.abspath(__file__)), 'line.py')}"  # which starts quickly
# Seconds each way, and bytes per second.
LINES = {"": ("0", "inf"), ", 20 ms": ("0.02", "inf")}
COPY_LINES = {"": ("0", "inf"), ", 50 ms": ("0.05", "inf"), ", 100 MB/s, 50 ms": ("0.05", "1e8")}


def program(command, *arguments):
    return [OPTIONS.program, command, *arguments, "--progress", "none"]


def build(image, jobs):
    return program("build", image, "--block-size", str(BLOCK), "--jobs", str(jobs))


def sync(source, destination):
    return program("sync", source, destination, "--jobs", "2")


def rsync(source, destination, *options):
    return ["rsync", "--inplace", "--no-whole-file", "--ignore-times", *options, source, destination]


SYNC_FAR = [*sync("first.img", "far:copy.img"), "--rsh", LINE, "--remote-program", OPTIONS.program]
RSYNC_FAR = rsync("first.img", "far:copy.img", "-e", LINE)
TOLD_FAR = [*SYNC_FAR, "--changes", "changes"]


def quietly(command):
    subprocess.run(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=True)


def forget(*names):
    for name in names:
        if os.path.exists(name):
            os.unlink(name)


def nothing_known():
    forget("out", "dense.img.hashes", "sparse.img.hashes")


def change(image):
    """50 blocks; what is on the disk already is not written again in the time of a command."""
    with open(image, "r+b") as file, open("changes", "w", encoding="utf-8") as changes:
        for _ in range(50):
            offset = random.randrange(2 * SIZE // BLOCK) * BLOCK
            file.seek(offset)
            file.write(os.urandom(BLOCK))
            changes.write(f"{offset} {BLOCK}\n")
        os.fsync(file.fileno())


def changed_and_unknown(changed, *images):
    forget(*(image + ".hashes" for image in images))
    change(changed)


def changed_far():
    quietly(SYNC_FAR)  # what rsync wrote is not known
    change("first.img")


def new_destination():
    forget("holes.img.hashes", "copy.img", "copy.img.hashes")


def new_copy(is_cold=False):
    """Twice, for what was just freed is taken up again faster than other memory."""
    forget("first.img.hashes", "new.img", "new.img.hashes", "far/new.img", "far/new.img.hashes")
    quietly(["cp", "first.img", "new.img"])
    forget("new.img")
    os.sync()
    if is_cold:
        drop("first.img", "dense.img")


def drop(*images):
    for image in images:
        with open(image, "rb") as file:
            os.posix_fadvise(file.fileno(), 0, 0, os.POSIX_FADV_DONTNEED)


# What is prepared, untimed, and what is timed: one command after the other.
COMMANDS = {
    "one job": (nothing_known, build("dense.img", 1)),
    "two jobs": (nothing_known, build("dense.img", 2)),
    "90% holes": (nothing_known, build("sparse.img", 1)),
    "verify": (lambda: quietly(build("dense.img", 2)), program("verify", "dense.img", "--jobs", "1")),
    "rdiff -b 4096 signature": (nothing_known, ["rdiff", "-b", str(BLOCK), "signature", "dense.img", "out"]),
    "veritysetup format": (nothing_known, ["veritysetup", "format", "dense.img", "out"]),
    "bmaptool create": (nothing_known, ["bmaptool", "create", "-o", "out", "dense.img"]),
    "b3sum --num-threads 1": (nothing_known, ["b3sum", "--num-threads", "1", "dense.img"]),
    "sync, nothing known": (lambda: changed_and_unknown("second.img", "first.img", "second.img"),
                            sync("first.img", "second.img")),
    "sync, repeated": (lambda: change("first.img"), sync("first.img", "second.img")),
    "rsync of the same": (lambda: change("first.img"), rsync("first.img", "second.img")),
    "sync of holes": (new_destination, sync("holes.img", "copy.img")),
    "rsync of holes": (new_destination, rsync("holes.img", "copy.img", "--sparse")),
}
FAR_COMMANDS = {
    "far, nothing known": (lambda: changed_and_unknown("first.img", "first.img", "far/copy.img"), SYNC_FAR),
    "far, repeated": (changed_far, SYNC_FAR),
    "far, changes told": (changed_far, TOLD_FAR),
    "far, nothing changed": (lambda: quietly(SYNC_FAR), SYNC_FAR),
    "rsync of the same, far": (lambda: change("first.img"), RSYNC_FAR),
}
# The first copy of 2 GiB, in the page cache or not. Warm again when the next one is to be: `cp` reads it.
COPY_COMMANDS = {
    "sync, new DEST": (new_copy, sync("first.img", "new.img")),
    "cp and sync": (new_copy, ["sh", "-c", "cp --reflink=never --sparse=never first.img new.img && sync new.img"]),
    "sync, new DEST, cold": (lambda: new_copy(is_cold=True), sync("first.img", "new.img")),
    "dd of it, cold": (lambda: new_copy(is_cold=True), ["dd", "if=first.img", "of=/dev/null", "iflag=direct", "bs=4M"]),
    "writing of it, and sync": (new_copy, ["dd", "if=first.img", "of=new.img", "bs=4M", "conv=fsync"]),
    "one job, cold": (lambda: (nothing_known(), new_copy(is_cold=True)), build("dense.img", 1)),
    "dd of the same, cold": (lambda: new_copy(is_cold=True), ["dd", "if=dense.img", "of=/dev/null", "iflag=direct", "bs=4M"]),
}
FAR_COPY_COMMANDS = {
    "far, new DEST": (new_copy, [*sync("first.img", "far:new.img"), "--rsh", LINE, "--remote-program", OPTIONS.program]),
    "rsync -W of it, far": (new_copy, ["rsync", "-W", "--inplace", "--fsync", "-e", LINE, "first.img", "far:new.img"]),
}


def served(image, client, *options, apart=False):
    """By nbdkit; `apart`: it has a core, and the other program another one."""
    server, own = (["taskset", "-c", "1"], "taskset -c 0 ") if apart else ([], "")
    return [*server, "nbdkit", "-U", "-", *options, f"file={image}", "--run", own + client.replace("URI", '"$uri"')]


def new_export():
    forget("out", "first.img.hashes", "new.img")
    quietly(["truncate", "-s", str(2 * SIZE), "new.img"])
    os.sync()


BUILD_EXPORT = " ".join(program("build", "URI", "--hash-file", "out", "--jobs", "{}"))
SYNC_EXPORT = " ".join(program("sync", "first.img", "URI", "--dest-hash-file", "out"))
FILE, SLOW = ["file"], ["--filter=rate", "file", "connection-rate=3G"]
EXPORT_COMMANDS = {
    "export, one job": (nothing_known, served("first.img", BUILD_EXPORT.format(1), *FILE, apart=True)),
    "nbdcopy of it to null:": (nothing_known, served("first.img", "nbdcopy --connections=1 --no-extents URI null:", *FILE, apart=True)),
    "the same, 3 Gbit/s, one job": (nothing_known, served("first.img", BUILD_EXPORT.format(1), *SLOW)),
    "the same, 3 Gbit/s, two jobs": (nothing_known, served("first.img", BUILD_EXPORT.format(2), *SLOW)),
    "sync to an export": (new_export, served("new.img", SYNC_EXPORT, *FILE)),
    "nbdcopy --flush of it": (new_export, served("new.img", "nbdcopy --flush first.img URI", *FILE)),
}
GROUPS = [("whole images", COMMANDS, {"": LINES[""]}), ("two machines", FAR_COMMANDS, LINES),
          ("first copies", COPY_COMMANDS, {"": LINES[""]}), ("first copies", FAR_COPY_COMMANDS, COPY_LINES),
          ("exports", EXPORT_COMMANDS, {"": LINES[""]})]
GROUPS = [(commands, lines) for name, commands, lines in GROUPS if OPTIONS.only in (None, name)]
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
ROWS += [
    ("sync, new DEST / cp and sync", "sync, new DEST", "cp and sync", 1.2, False),
    ("the same, cold / reading or writing", "sync, new DEST, cold", "the longer", 1.25, False),
    ("one job, cold / dd of the same", "one job, cold", "dd of the same, cold", 1.15, False),
]
ROWS += [
    ("export, one job / nbdcopy", "export, one job", "nbdcopy of it to null:", 1.25, False),
    ("export, one job / two jobs", "the same, 3 Gbit/s, one job", "the same, 3 Gbit/s, two jobs", 1.6, True),
    ("sync to an export / nbdcopy", "sync to an export", "nbdcopy --flush of it", 1.2, False),
]
for line, limit in ("", 1.15), (", 50 ms", 1.15), (", 100 MB/s, 50 ms", 1.05):
    ROWS.append((f"far, new DEST{line} / rsync -W", f"far, new DEST{line}", f"rsync -W of it, far{line}", limit, False))
for delayed in LINES:
    for name, limit in ("nothing known", 1), ("repeated", 2), ("changes told", 10):
        ROWS.append((f"rsync / far, {name}{delayed}", f"rsync of the same, far{delayed}", f"far, {name}{delayed}",
                     limit, True))
    ROWS.append((f"far, nothing changed{delayed} / 0.5 s", f"far, nothing changed{delayed}", "half a second", 1, False))


def make_images():
    """1 GiB, dense and with holes; three times 2 GiB that are equal; 8 GiB of which 16 MiB are no hole."""
    os.mkdir("far")
    twice = "first.img", "second.img", "far/copy.img"
    with open("dense.img", "wb") as dense, open("sparse.img", "wb") as sparse, open("holes.img", "wb") as holes:
        sparse.truncate(SIZE)
        holes.truncate(8 * SIZE)
        for number in range(SIZE // PIECE):
            data = os.urandom(PIECE)
            dense.write(data)
            for name in twice:
                with open(name, "ab") as file:
                    file.write(data)
                    file.write(data[::-1])
            for file in (sparse,) * (number % 10 == 0) + (holes,) * (number % 64 == 0):
                file.seek(number * PIECE)
                file.write(data)
    os.sync()
    for image in "dense.img", "sparse.img", *twice:
        quietly(["cat", image])


def seconds(prepare, *commands, line=("0", "inf")):
    prepare()
    os.environ["LINE_DELAY"], os.environ["LINE_RATE"] = line
    start = time.monotonic()
    for command in commands:
        quietly(command)
    taken = time.monotonic() - start
    os.environ["LINE_DELAY"], os.environ["LINE_RATE"] = LINES[""]
    return taken


def bytes_on_the_line(name):
    """What went over the line in the last run, and what is read from the disk when nothing of the images is in memory."""
    prepare, *commands = FAR_COMMANDS[name]
    prepare()
    for image in "first.img", "far/copy.img":
        with open(image, "rb") as file:
            os.fsync(file.fileno())
        drop(image)

    def paged_in():
        with open("/proc/vmstat", encoding="utf-8") as file:
            return next(int(line.split()[1]) for line in file if line.startswith("pgpgin")) * 1024

    before = paged_in()
    for command in commands:
        quietly(command)
    read = paged_in() - before
    with open("count", encoding="utf-8") as file:
        there, back = map(int, file.read().split())
    return f"{name:32}{there / 1000:10.0f} kB{back / 1000:10.0f} kB{read / 1e6:10.0f} MB"


def measure():
    times = {}
    for _ in range(OPTIONS.repetitions):
        for commands, lines in GROUPS:
            for suffix, line in lines.items():
                for name, command in commands.items():
                    times.setdefault(name + suffix, []).append(seconds(*command, line=line))
    return times


def main():
    os.environ["PATH"] += ":/usr/sbin:/sbin"
    used = {command[0] for commands, _ in GROUPS for _, *all_of_them in commands.values() for command in all_of_them}
    missing = [name for name in sorted(used) if not shutil.which(name)]
    if missing:
        sys.exit("missing: " + ", ".join(missing))
    home = os.getcwd()
    with tempfile.TemporaryDirectory() as directory:
        os.chdir(directory)
        os.environ["LINE_COUNT"] = os.path.abspath("count")
        make_images()
        times = measure()
        traffic = [bytes_on_the_line(name) for name in FAR_COMMANDS] if (FAR_COMMANDS, LINES) in GROUPS else []
        os.chdir(home)
    width = "AVX-512" if IS_WIDE else "no AVX-512"
    lines = [f"{os.cpu_count()} cores, {width}, load {os.getloadavg()[0]:.1f}, {OPTIONS.repetitions} repetitions", ""]
    for name, values in times.items():
        lines.append(f"{name:32}{min(values):6.2f} s  (median {statistics.median(values):.2f})")
    if traffic:
        lines += ["", f"{'':32}{'there':>13}{'back':>13}{'read, cold':>13}", *traffic]
    lines += ["", f"{'ratio of times':34}{'fastest':>8}{'one by one':>23}   must be"]
    times["half a second"] = [0.5] * OPTIONS.repetitions
    if "dd of it, cold" in times:
        times["the longer"] = [*map(max, zip(times["dd of it, cold"], times["writing of it, and sync"]))]
    for row, above, below, limit, at_least in ROWS:
        if not {above, below} <= times.keys():
            continue
        ratios = sorted(a / b for a, b in zip(times[above], times[below]))
        one_by_one = f"{statistics.median(ratios):.2f} ({ratios[0]:.2f} to {ratios[-1]:.2f})"
        ratio = min(times[above]) / min(times[below])
        verdict = "ok" if (ratio >= limit if at_least else ratio <= limit) else "short"
        lines.append(f"{row:34}{ratio:8.2f}{one_by_one:>23}   {'≥' if at_least else '≤'} {limit:<5}{verdict}")
    print("\n".join(lines))
    if OPTIONS.markdown:
        put_into(OPTIONS.markdown, "make bench-tools", "\n".join(["```text", *lines, "```"]))
    return 1 if OPTIONS.strict and any(line.endswith("short") for line in lines) else 0


if __name__ == "__main__":
    sys.exit(main())
