#!/usr/bin/env python3
"""Prints the results of the benchmarks as one table, and draws the throughput over the block size."""
import argparse
import json
import pathlib
import statistics
import subprocess
import sys

# Lanes of a vector, and operations of the two rotations by bytes and of the other two, by instruction set.
VECTORS = {"AVX2": (8, 1, 3), "AVX3": (16, 1, 1)}
# What the benchmark library writes of every run; the rest are the curves.
STANDARD_FIELDS = {"name", "family_index", "per_family_instance_index", "run_name", "run_type", "repetitions",
                   "repetition_index", "threads", "iterations", "real_time", "cpu_time", "time_unit"}

COLORS = ("#b2182b", "#ef6c00", "#1b6ca8", "#2e7d32", "#555555")


def merged(results):
    """One run for the repetitions of each benchmark, with the medians of their figures."""
    groups = {}
    for run in results:
        if run["run_type"] == "iteration":
            groups.setdefault((run["family_index"], run["per_family_instance_index"]), []).append(run)
    return [{**{key: statistics.median(run[key] for run in group) if isinstance(value, float) else value
                for key, value in group[0].items()}, "name": group[0]["name"].split("/iterations:")[0]}
            for _, group in sorted(groups.items())]


def rate(value, unit):
    for prefix in ("", "k", "M", "G"):
        if value < 1000 or prefix == "G":
            return f"{value:.3g} {prefix}{unit}"
        value /= 1000


def row(run):
    if "error_message" in run:
        return [run["name"], run["label"], run["error_message"], "", "", "", "", "failed"]
    unit = "B/s" if run["bytes"] else "calls/s"
    must, verdict = "", ""
    if run["must"]:
        must, verdict = f"≥ {run['must']:g}", "ok" if run["ratio"] >= run["must"] else "short"
    if run["must_not_exceed"]:
        must, verdict = f"≤ {run['must_not_exceed']:g}", "ok" if run["ratio"] <= run["must_not_exceed"] else "short"
    return [run["name"], run["label"], rate(run["ours"], unit), rate(run["theirs"], unit), f"{run['ratio']:.2f}",
            f"{run['rounds_middle']:.2f} ({run['rounds_low']:.2f} to {run['rounds_high']:.2f})", must, verdict]


def aligned(rows):
    widths = [max(map(len, column)) for column in zip(*rows)]
    rows = rows[:1] + [["-" * width for width in widths]] + rows[1:]
    return ["| " + " | ".join(cell.ljust(width) for cell, width in zip(cells, widths)) + " |" for cells in rows]


def limit(rows, clock, instruction_set):
    """How many vector operations per cycle the batches come to, those of loads and transpositions left out."""
    lines = [f"Clock: {clock / 1e9:.2f} GHz, by the fastest of many rounds of additions that wait for each other."]
    lanes, by_bytes, by_bits = VECTORS.get(instruction_set[:4], (0, 0, 0))
    for size in (4, 64) if lanes else ():
        run = next(run for run in rows if run["name"] == f"many {size} KiB blocks per call")
        mixing = 6 + 4 + 2 * by_bytes + 2 * by_bits
        operations = 10 * 8 * mixing * (1 + 4 * 64 / (size * 1024)) / (64 * lanes)
        lines.append(f"{size} KiB blocks: {operations:.2f} vector operations per byte, at {rate(run['ours'], 'B/s')} "
                     f"{operations * run['ours'] / clock:.2f} per cycle.")
    return lines


def put_into(document, command, text):
    """Replaces what the command printed there the last time."""
    before, rest = document.read_text(encoding="utf-8").split(start := f"<!-- printed by {command} -->")
    after = rest.split(end := "<!-- end -->", 1)[1]
    document.write_text(f"{before}{start}\n{text}\n{end}{after}", encoding="utf-8")


def draw(curve, processor, instruction_set, output):
    names = [name for name in curve[0] if name not in STANDARD_FIELDS]
    names.sort(key=lambda name: -curve[-1][name])
    blocks = [(run["name"].split("/")[1], run) for run in curve]
    tics = ", ".join(f'"{int(size) if int(size) < 1024 else int(size) // 1024}'
                     f'{" B" if int(size) < 1024 else " KiB"}" {size}' for size, _ in blocks[::2])
    script = [f'set terminal svg size 960,600 font "sans-serif,16" background "white"; set output "{output}"',
              f'set title "Throughput over the block size: {processor}, {instruction_set}"',
              f'set logscale x 2; set xrange [{blocks[0][0]}:{blocks[-1][0]}]; set xtics ({tics})',
              'set xlabel "block size"; set ylabel "GB/s"; set yrange [0:]; set grid lt 1 lc rgb "#cccccc"',
              'set key below vertical maxrows 3 Left reverse samplen 2',
              "plot " + ", ".join(f'"-" with linespoints lw 2.5 pt 7 ps 0.6 lc rgb "{color}" title "{name}"'
                                  for color, name in zip(COLORS, names))]
    for name in names:
        script += [f"{size} {run[name] / 1e9}" for size, run in blocks] + ["e"]
    subprocess.run(["gnuplot"], input="\n".join(script), text=True, check=True)


def main():
    arguments = argparse.ArgumentParser(description=__doc__)
    arguments.add_argument("results", help="what the benchmarks wrote with --benchmark_out")
    arguments.add_argument("--svg", help="draws the curves into this file")
    arguments.add_argument("--markdown", type=pathlib.Path, help="replaces the table in this file")
    arguments.add_argument("--strict", action="store_true", help="fails when a row falls short")
    options = arguments.parse_args()
    with open(options.results, encoding="utf-8") as file:
        results = json.load(file)
    processor, instruction_set = (results["context"][key] for key in ("processor", "instruction set"))
    runs = merged(results["benchmarks"])
    rows = [run for run in runs if "label" in run]
    clock = next(run["hertz"] for run in runs if "hertz" in run)
    cells = [["row", "against", "ours", "theirs", "ratio", "round by round", "must", ""], *map(row, rows)]
    text = "\n".join([f"Processor: {processor}. Instruction set: {instruction_set}.", "", *aligned(cells), "",
                      *limit(rows, clock, instruction_set)])
    print(text)
    if options.svg:
        draw([run for run in runs if run["name"].startswith("throughput/")], processor, instruction_set, options.svg)
    if options.markdown:
        put_into(options.markdown, "make bench", text)
    failed = [line for line in cells if line[-1] == "failed" or line[-1] == "short" and options.strict]
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
