"""Is what the program says true, whatever happens to the images? truth_test.py PROGRAM SHIM [ROUNDS [SEED]]

Random rounds: images are changed behind the program's back, or in the middle of its calls: in place, by their
replacement, by writers of every kind that have them open, from one command to the next, too; commands are killed, the
machine is started again, hash files and records come from backups, in the middle of a run, too. After every command
that ended with 0, the answer is held against the images by Python's own BLAKE2s. What happened to an image counts once
a later command on it ended well; every kind of it must have counted often enough."""
import contextlib, glob, json, os, random, shutil, signal, subprocess, sys, tempfile, time
from collections import Counter
from pathlib import Path

from disks import WRITERS, Mapped, Pwrite, write
from file_systems import images_are_believed
from oracle import aggregate, known_are_true
from program import PROGRAM, shimmed

ROUNDS, SEED = (list(map(int, sys.argv[3:])) + [300, 1][len(sys.argv) - 3:])[:2]
BLOCK, NAMES = 1024, ("a", "b")
CALLS = {}  # how many a command made when nothing happened to it, of the last few times
HOLDERS = {}  # of an image: who has it open for writing
HAPPENED = {name: set() for name in NAMES}  # to an image, since a command on it ended well
COUNTED = Counter()  # what happened before commands that ended well
CHOICE = random.Random(SEED)
BYTES = random.Random(SEED + 1)


def content(name):
    return Path(name).read_bytes()


def change(name):
    """What users, and other programs, do to an image, or to what is kept beside it."""
    size = os.path.getsize(name)
    offset, data = CHOICE.randrange(size), BYTES.randbytes(CHOICE.choice((1, 100, 3 * BLOCK)))
    data = data[:size - offset]
    kind = CHOICE.randrange(12)
    if kind < 6:
        before = os.stat(name)
        write(name, offset, data, Mapped if kind % 3 == 1 else Pwrite)
        if kind % 3 == 2:
            os.utime(name, ns=(before.st_atime_ns, before.st_mtime_ns))
    elif kind == 6:
        os.truncate(name, CHOICE.randrange(size // 2, size) + 1)
    elif kind == 7:
        write(name, size, BYTES.randbytes(CHOICE.randrange(1, 5 * BLOCK)))
    elif kind in (8, 9):  # another image takes its place; the old one may come back later
        shutil.copy2(name, "next")
        write("next", offset, data)
        os.replace("next", name) if kind == 8 else shutil.copyfile("next", name)
    else:
        for file in (name + ".hashes", name + ".hashes.state"):
            old, new = (file, file + ".backup") if kind == 10 else (file + ".backup", file)
            if os.path.exists(old):
                shutil.copy2(old, new)


def known_hashes_are_true(name, images):
    """For the image as it is, or as it was when the command began."""
    hash_file = content(name + ".hashes")
    for image in images:
        with contextlib.suppress(SystemExit), contextlib.redirect_stdout(None):  # another size
            if known_are_true(hash_file, image):
                return True
    return False


def answer_is_true(command, output, before, replaces_hash_file):
    """The answer may be about the images as they were at the start, before they were changed meanwhile, or are now."""
    names = [name for name in command[1:3] if name in NAMES]
    states = {name: {before[name], *map(content, glob.glob(name) + glob.glob(name + ".between*"))} for name in NAMES}
    if command[0] == "sync":  # what the destination was before is no answer
        result = set(map(content, [names[1], *glob.glob(names[1] + ".between*")]))
        if not states[names[0]] & result:
            return False
    elif command[0] == "diff":
        if not states["a"] & states["b"]:
            return False
    elif command[0] == "hash":
        offset, length = map(int, command[3].split(":"))
        return output["hash"] in {aggregate(image, BLOCK, offset, offset + length).hex() for image in states[names[0]]}
    # A hash file that came at the very end is none that the record vouches for.
    return replaces_hash_file or all(known_hashes_are_true(name, states[name]) for name in names)


def differences_are_true(output):
    """Of images that nobody changed meanwhile."""
    first, second = map(content, NAMES)
    length = min(len(first), len(second))
    differing = [{"offset": i, "length": min(BLOCK, length - i)} for i in range(0, length, BLOCK)
                 if first[i:min(i + BLOCK, length)] != second[i:min(i + BLOCK, length)]]
    listed = [{"offset": i, "length": min(BLOCK, end - i)} for each in output["differing"]
              for end in (min(each["offset"] + each["length"], length),) for i in range(each["offset"], end, BLOCK)]
    return differing == listed


class Holder:
    def __init__(self, name, kind):
        self.name, self.kind, self.offset = name, kind, 0
        self.writer = WRITERS[kind](name)
        self.commands = CHOICE.randrange(3)  # for which it stays

    def write(self, again=False):
        """Where it wrote before or anywhere, within the image as it is."""
        pages = os.path.getsize(self.name) // 4096
        self.offset = min(self.offset, 4096 * (pages - 1)) if again else 4096 * CHOICE.randrange(pages)
        with contextlib.suppress(OSError, IndexError):  # of a file system that cannot, or behind the end of a mapping
            self.writer.write(self.offset, BYTES.randbytes(4096))
            HAPPENED[self.name].add(self.kind)


def rarest(kinds):
    """What counted least so far."""
    return min(sorted(kinds), key=lambda kind: (COUNTED[kind], CHOICE.random()))


def hold_and_let_go():
    for name, holder in list(HOLDERS.items()):
        holder.commands -= 1
        if holder.commands < 0:
            HOLDERS.pop(name).writer.close()
    name = CHOICE.choice(NAMES)
    if name not in HOLDERS and CHOICE.random() < 0.3:
        kind = rarest(WRITERS)
        try:
            HOLDERS[name] = Holder(name, kind)
        except OSError:  # a file system that has nothing to go past
            COUNTED[kind] += ROUNDS
    for holder in HOLDERS.values():
        holder.write()


def disturbance(victim):
    """A shell command that does to an image, or its hash file, in the middle of a run what others do."""
    size = os.path.getsize(victim)
    offset = CHOICE.randrange(size - 200)
    Path("bytes").write_bytes(BYTES.randbytes(200))
    keep = f"cp {victim} {victim}.between; "
    patch = f"dd if=bytes bs=1 seek={offset} conv=notrunc status=none of="
    waits = "for i in $(seq 500); do [ -e written ] && break; sleep 0.002; done"
    asks = f"rm -f written; kill -USR1 {os.getpid()}; {waits}"
    kinds = {
        "written": keep + patch + victim,
        "grown": keep + f"cat bytes >>{victim}",
        "replaced": keep + f"cp {victim} next; {patch}next; mv next {victim}",
        "opened": asks,
    }
    if victim in HOLDERS:
        kinds["held"] = "each " + asks
    if os.path.exists(victim + ".hashes.backup"):
        kinds["old hashes"] = f"cat {victim}.hashes.backup >{victim}.hashes"
        kinds["other hash file"] = f"cp {victim}.hashes.backup next; mv next {victim}.hashes"
    kind = "held" if "held" in kinds and CHOICE.random() < 0.3 else rarest(kinds)
    if asks in kinds[kind]:
        image = os.open(victim, os.O_RDWR) if kind == "opened" else None

        def write_through(*_):
            earlier = glob.glob(victim + ".between*")
            shutil.copyfile(victim, f"{victim}.between{len(earlier)}")
            if image is None:
                HOLDERS[victim].write(again=earlier != [])
                HOLDERS[victim].commands = 0
                time.sleep(0.01)  # its stamp is an old one when the program looks
            else:
                os.pwrite(image, b"written by somebody who has it open", offset)
                os.close(image)
            Path("written").touch()

        signal.signal(signal.SIGUSR1, write_through)
    return kind, kinds[kind]


def run_command(figures):
    kind = CHOICE.choice(("build", "build", "hash", "diff", "sync", "verify"))
    names = CHOICE.sample(NAMES, 2)
    if kind in ("diff", "sync"):
        command = [kind, *names]
    else:
        command = [kind, names[0]]
        if kind == "hash":
            size = os.path.getsize(names[0])
            offset = CHOICE.randrange(size - 100)
            command += ["--range", f"{offset}:{min(CHOICE.choice((0, 100, BLOCK, 10 * BLOCK)), size - offset)}"]
    options = [f"--jobs={CHOICE.choice('12')}", "--json"]
    if kind != "verify":
        adopts, trust = CHOICE.random() < 0.7, CHOICE.random()
        options += ["--adopt"] if adopts and trust <= 0.95 else []
        options += ["--check"] if trust < 0.05 else ["--assume-unchanged"] if trust > 0.95 else []
        options += [f"--block-size={BLOCK}"]
    environment = shimmed(SHIM_BOOT="boot", SHIM_LOG="calls")
    action = CHOICE.choice(("none", "kill", "change", "change", "change", "change"))
    what = action
    if action != "none":
        environment["SHIM_AT"] = str(CHOICE.randrange(1, CHOICE.choice(CALLS.get(kind, [40])) + 1))
        what, environment["SHIM_DO"] = (action, "9")
    if action == "change":
        victim = CHOICE.choice([*names, *(name for name in names if name in HOLDERS)])
        what, environment["SHIM_DO"] = disturbance(victim)
        if what == "old hashes":  # while the program writes to its hash file, which it has locked, it cannot tell
            environment["SHIM_AT"] = "fsync " + victim
        elif what == "held" and CHOICE.random() < 0.8:  # into a page that was flushed, and into the same again
            environment["SHIM_AT"] = f"fsynced {victim}#1,fsync {victim}#2"
    before = {name: content(name) for name in NAMES}
    for leftover in [*glob.glob("?.between*"), *glob.glob("calls"), *glob.glob("written")]:
        os.remove(leftover)
    done = subprocess.run([PROGRAM, *command, *options], capture_output=True, text=True, env=environment, timeout=120)
    figures[f"exit {done.returncode}"] = figures.get(f"exit {done.returncode}", 0) + 1
    assert done.returncode in (0, 1, 2, -signal.SIGKILL), done
    done.what = f"{what} before {environment.get('SHIM_AT')}: {environment.get('SHIM_DO')}"
    calls = content("calls").decode().split("\n")
    if action == "none":
        CALLS[kind] = [*CALLS.get(kind, []), len(calls)][-5:]
    elif action == "change" and (len(calls) > int(environment["SHIM_AT"]) if environment["SHIM_AT"].isdigit()
                                 else f"fsync {victim}" in calls):
        HAPPENED[victim].add(what)
    if done.returncode == 1 and kind == "diff" and action == "none" and "--assume-unchanged" not in options:
        return differences_are_true(json.loads(done.stdout)), command, done
    if done.returncode != 0:
        return True, command, done
    if "--assume-unchanged" in options:  # then the answer is the user's, but it must not outlive the command
        return order_is_safe(calls), command, done
    output = json.loads(done.stdout)
    fresh = output.get("freshness", [])
    figures["believed"] += sum(side["believed"] for side in (fresh if isinstance(fresh, list) else [fresh]))
    for name in names if kind in ("diff", "sync") else names[:1]:
        COUNTED.update(HAPPENED[name])
        HAPPENED[name].clear()
    return answer_is_true(command, output, before, what == "other hash file") and order_is_safe(calls), command, done


def order_is_safe(calls):
    """A record says "not clean" before the hash file is changed, and more only once the changes are flushed."""
    for name in NAMES:
        records = [i for i, call in enumerate(calls)
                   if call in (f"{kind} {name}.hashes.state" for kind in ("link", "pwrite"))]
        changes = [i for i, call in enumerate(calls) if call == f"pwrite {name}.hashes"]
        flushes = [i for i, call in enumerate(calls) if call == f"fsync {name}.hashes"]
        if changes and not (records and records[0] < changes[0] and flushes and changes[-1] < flushes[-1]
                            and not any(changes[0] < record < flushes[-1] for record in records)):
            return False
    return True


def main():
    figures, disagreements = {"believed": 0}, 0
    for name in NAMES:
        Path(name).write_bytes(BYTES.randbytes(60 * BLOCK + 77))
    Path("boot").write_text("first\n")
    for number in range(ROUNDS):
        for _ in range(CHOICE.choice((0, 0, 1, 2))):
            change(CHOICE.choice(NAMES))
        hold_and_let_go()
        if CHOICE.random() < 0.05:
            Path("boot").write_text(f"{number}\n")
        good, command, done = run_command(figures)
        if not good:
            disagreements += 1
            print(f"round {number}, seed {SEED}: {' '.join(command)}: {done.what}: {done.stdout}{done.stderr}"
                  + content("calls").decode())
        for name in NAMES:  # sizes stay what can be worked on in no time
            if not 20 * BLOCK < os.path.getsize(name) < 200 * BLOCK:
                write(name, 0, BYTES.randbytes(60 * BLOCK))
                os.truncate(name, 60 * BLOCK + 77)
    for holder in HOLDERS.values():
        holder.writer.close()
    kinds = ("written", "grown", "replaced", "opened", "held", "old hashes", "other hash file", *WRITERS)
    listed = ", ".join(f"{value} {name}" for name, value in sorted(figures.items()))
    counted = ", ".join(f"{COUNTED[kind]} {kind}" for kind in kinds)
    print(f"truth: {ROUNDS} rounds, {listed}; noticed afterwards: {counted}; {disagreements} disagreements")
    vacuous = figures["believed"] == 0 and images_are_believed()
    seldom = min(COUNTED[kind] for kind in kinds) < ROUNDS // 30
    return 1 if disagreements or vacuous or seldom or figures.get("exit 0", 0) < ROUNDS // 5 else 0


if __name__ == "__main__":
    with tempfile.TemporaryDirectory(dir=os.getcwd()) as directory:  # /tmp may be in memory, whose times say little
        os.chdir(directory)
        sys.exit(main())
