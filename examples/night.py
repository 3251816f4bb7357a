#!/usr/bin/env python3
"""The nightly copy of a disk that runs: night.py QMP_SOCKET NODE NBD_SOCKET HASH_FILE DEST [OPTION...]

QEMU, or its storage daemon, listens on both sockets; NODE is the disk, DEST what `kelvane-hash sync` takes. Of the moment
of the copy the disk has a name and a bitmap that notes what changes from then on. What changed since the last one is
read, and what differs is sent. A failure leaves a state from which the next night is right: the record beside HASH_FILE
says of which moment its hashes are, and the bitmap of that moment is kept.
"""
import fcntl
import json
import os
import socket
import subprocess
import sys
import time
from datetime import datetime, timezone

MOMENT = "moment"  # the disk as it was: its node, job and export
CHANGES = "changes"  # what has changed up to the moment: a bitmap that stands still
POINT = "point-"  # what the names of moments begin with


class Monitor:
    def __init__(self, path):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.connect(path)
        self.lines = self.socket.makefile("rw")
        self.tell("qmp_capabilities")

    def tell(self, command, **arguments):
        self.lines.write(json.dumps({"execute": command, "arguments": arguments}) + "\n")
        self.lines.flush()
        for line in self.lines:
            answer = json.loads(line)
            if "error" in answer:
                raise RuntimeError(f"{command}: {answer['error']['desc']}")
            if "return" in answer:
                return answer["return"]
        raise RuntimeError(f"{command}: the connection was closed")

    def bitmaps(self, node):
        """By their names whether they are whole."""
        nodes = {each["node-name"]: each for each in self.tell("query-named-block-nodes", flat=True)}
        return {bitmap["name"]: not bitmap.get("inconsistent") for bitmap in nodes[node].get("dirty-bitmaps", ())}

    def clear(self, node):
        """What a copy needs while it runs, of this one or of one that was cut short."""
        if any(each["id"] == MOMENT for each in self.tell("query-block-exports")):
            self.tell("block-export-del", id=MOMENT, mode="hard")
        if any(each["id"] == MOMENT for each in self.tell("query-jobs")):
            self.tell("block-job-cancel", device=MOMENT, force=True)
        while any(each["id"] == MOMENT for each in self.tell("query-block-exports") + self.tell("query-jobs")):
            time.sleep(0.05)
        if any(each["node-name"] == MOMENT for each in self.tell("query-named-block-nodes", flat=True)):
            self.tell("blockdev-del", **{"node-name": MOMENT})
        if CHANGES in self.bitmaps(node):
            self.tell("block-dirty-bitmap-remove", node=node, name=CHANGES)

    def begin(self, node, point, since, scratch):
        """From now on the disk as it is now can be read, whatever is written to it."""
        self.tell("blockdev-add", driver="qcow2", backing=node, file={"driver": "file", "filename": scratch},
                  **{"node-name": MOMENT})
        actions = [("block-dirty-bitmap-add", {"node": node, "name": point, "persistent": True})]
        if since:
            actions += [("block-dirty-bitmap-add", {"node": node, "name": CHANGES, "disabled": True}),
                        ("block-dirty-bitmap-merge", {"node": node, "target": CHANGES, "bitmaps": [since]})]
        actions.append(("blockdev-backup", {"device": node, "target": MOMENT, "sync": "none", "job-id": MOMENT}))
        self.tell("transaction", actions=[{"type": kind, "data": data} for kind, data in actions])
        self.tell("block-export-add", type="nbd", id=MOMENT, name=MOMENT, **{"node-name": MOMENT},
                  bitmaps=[{"node": node, "name": CHANGES}] if since else [])


def recorded_point(hash_file):
    """The moment of which the hashes are; nothing where that is not known."""
    done = subprocess.run(["kelvane-hash", "info", hash_file, "--json"], capture_output=True, text=True)
    record = json.loads(done.stdout)["record"] if done.returncode == 0 else None
    return record and record.get("point")


def copy(monitor, node, nbd, hash_file, to):
    since = recorded_point(hash_file)
    since = since if since and monitor.bitmaps(node).get(since) else None
    point = POINT + datetime.now(timezone.utc).isoformat()
    scratch = os.path.abspath(hash_file + ".scratch")
    size = next(each["image"]["virtual-size"] for each in monitor.tell("query-named-block-nodes", flat=True)
                if each["node-name"] == node)
    subprocess.run(["qemu-img", "create", "-q", "-f", "qcow2", scratch, str(size)], check=True)
    try:
        monitor.begin(node, point, since, scratch)
        known = ["--since", since, "--bitmap", CHANGES] if since else []
        return subprocess.run(["kelvane-hash", "sync", f"nbd+unix:///{MOMENT}?socket={os.path.abspath(nbd)}", *to,
                               "--source-hash-file", hash_file, "--point", point, *known]).returncode
    finally:
        monitor.clear(node)
        os.unlink(scratch)


def main():
    qmp, node, nbd, hash_file, *to = sys.argv[1:]
    with open(hash_file + ".lock", "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)  # one copy at a time
        monitor = Monitor(qmp)
        monitor.clear(node)
        try:
            return copy(monitor, node, nbd, hash_file, to)
        finally:
            kept = recorded_point(hash_file)
            for name in monitor.bitmaps(node):
                if name.startswith(POINT) and name != kept:
                    monitor.tell("block-dirty-bitmap-remove", node=node, name=name)


if __name__ == "__main__":
    try:
        sys.exit(main())
    except (OSError, RuntimeError, ValueError, subprocess.SubprocessError) as failure:
        print(f"night.py: {failure}", file=sys.stderr)
        sys.exit(2)
