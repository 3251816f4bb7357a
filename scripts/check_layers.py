#!/usr/bin/env python3
"""Holds every #include of the repository's own files against the table of rooms in docs/design.md. None leads back to where
it came from; a header and its source count as one file, and the parts of a source that are headers, -inl.h, as its own."""
import os, re, sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
BASES = "", "include", "src", "tools"  # what an #include can be relative to, besides its own file
INCLUDE = re.compile(r'^\s*#\s*include\s*(["<])([^">]*)[">]', re.MULTILINE)


def stem(path):
    return path.rsplit(".", 1)[0]


def circles(needed):
    """Files that need each other."""
    def reached(file, seen):
        for other in needed.get(file, set()) - seen - {file}:
            seen.add(other)
            reached(other, seen)
        return seen

    ways = {file: reached(file, set()) for file in needed}
    return [f"{file} and {other} need each other" for file in sorted(ways) for other in sorted(ways[file])
            if file < other and file in ways.get(other, ())]


def main():
    table = open(os.path.join(ROOT, "docs", "design.md"), encoding="utf-8").read()
    rows = re.findall(r"^\| `([\w/]+)` \|.*\| ([`\w/ ]*) ?\|$", table, re.MULTILINE)
    rooms = {room: {room, *re.findall(r"`([\w/]+)`", allowed)} for room, allowed in rows}
    faults, seen, needed = [], 0, {}
    for directory, _, names in (entry for top in sorted({room.split("/")[0] for room in rooms})
                                for entry in os.walk(os.path.join(ROOT, top))):
        room = os.path.relpath(directory, ROOT)
        for name in (name for name in names if name.endswith((".h", ".cpp"))):
            for bracket, include in INCLUDE.findall(open(os.path.join(directory, name)).read()):
                places = [os.path.normpath(os.path.join(base, include)) for base in (room, f"{room}/own", *BASES)]
                file = next((place for place in places if os.path.exists(f"{ROOT}/{place}")), None)
                target = file and os.path.dirname(file)
                if bracket == "<" and target is None:  # the system's, or the library's as its users see it
                    continue
                seen += 1
                if not name.endswith("-inl.h"):
                    needed.setdefault(stem(f"{room}/{name}"), set()).add(stem(file))
                if room not in rooms or target not in rooms[room]:
                    faults.append(f"{room}/{name} must not include {include}")
    faults += circles(needed)
    print("\n".join(faults) or f"{seen} inclusions between {len(rooms)} rooms, all as the table allows")
    return 1 if faults or seen == 0 else 0


sys.exit(main())
