#!/usr/bin/env python3
"""Stands for ssh: relay.py HOST PROGRAM serve. Frames go through it one by one; by the environment:
RELAY_LOG: the file for a line per frame, with direction, type and size; RELAY_AT: the number of the frame to which
RELAY_DO is done: cut (both ways), truncate (and then cut), flip (a bit), silence (nothing more gets through);
RELAY_HOLD: a type and a count: no frame of that type goes back before so many came from the client;
RELAY_SERVE: further arguments of serve."""
import os, struct, subprocess, sys, threading

ALIVE = 20
AT, DO, LOG = int(os.environ.get("RELAY_AT", "0")), os.environ.get("RELAY_DO"), os.environ.get("RELAY_LOG")
HOLD_TYPE, HOLD_COUNT = map(int, os.environ.get("RELAY_HOLD", "0 0").split())
count, came, lock, released = 0, 0, threading.Lock(), threading.Event()


def pass_on(direction, source, target, server):
    global count, came
    while len(header := source.read(13)) == 13:
        size = struct.unpack("<I", header[:4])[0]
        if len(payload := source.read(size)) < size:
            break
        frame = bytearray(header + payload)
        if direction == "<" and header[4] == HOLD_TYPE:
            released.wait()
        with lock:
            if direction == ">" and header[4] != ALIVE:
                came += 1
                if came >= HOLD_COUNT:
                    released.set()
            if header[4] != ALIVE:
                count += 1
                if LOG:
                    with open(LOG, "a") as log:
                        log.write(f"{direction} {header[4]} {len(frame)}\n")
            if DO == "silence" and count >= AT:
                continue
            if DO and count >= AT and header[4] != ALIVE:
                if count == AT and DO == "flip":
                    frame[AT * 7919 % len(frame)] ^= 1 << AT % 8
                if DO in ("cut", "truncate"):
                    if DO == "truncate":
                        target.write(frame[:len(frame) // 2])
                        target.flush()
                    server.stdin.close()
                    os._exit(1)
        try:
            target.write(frame)
            target.flush()
        except OSError:
            break
    try:
        target.close()
    except OSError:
        pass


server = subprocess.Popen([*sys.argv[2:], *os.environ.get("RELAY_SERVE", "").split()], stdin=subprocess.PIPE,
                          stdout=subprocess.PIPE)
there = threading.Thread(target=pass_on, args=(">", sys.stdin.buffer, server.stdin, server), daemon=True)
there.start()
pass_on("<", server.stdout, sys.stdout.buffer, server)
os._exit(0)
