#!/usr/bin/env python3
"""Stands for ssh: line.py HOST COMMAND... runs the command in the directory HOST. All that it says and hears is
delayed by LINE_DELAY seconds each way, and counted in the file LINE_COUNT: bytes to the host, bytes from it."""
import os
import queue
import subprocess
import sys
import threading
import time

DELAY = float(os.environ.get("LINE_DELAY", "0"))
counts = {}


def carry(direction, source, target):
    """Keeps at most 64 MiB on the way."""
    on_the_way = queue.Queue(256)

    def arrive():
        for due, data in iter(on_the_way.get, None):
            time.sleep(max(0, due - time.monotonic()))
            while data:
                data = data[os.write(target, data):]
        os.close(target)

    arriving = threading.Thread(target=arrive)
    arriving.start()
    counts[direction] = 0
    while data := os.read(source, 1 << 18):
        counts[direction] += len(data)
        on_the_way.put((time.monotonic() + DELAY, data))
    on_the_way.put(None)
    arriving.join()


far = subprocess.Popen(sys.argv[2:], cwd=sys.argv[1], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
threading.Thread(target=carry, args=("to", 0, os.dup(far.stdin.fileno())), daemon=True).start()
far.stdin.close()
carry("from", far.stdout.fileno(), 1)
code = far.wait()
if "LINE_COUNT" in os.environ:
    with open(os.environ["LINE_COUNT"], "w", encoding="utf-8") as file:
        file.write(f"{counts['to']} {counts['from']}")
sys.stdout = None
os._exit(code)
