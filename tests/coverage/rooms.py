#!/usr/bin/python3
"""Which lines and branches of each room ran, of what the build `coverage` has counted.

    tests/coverage/rooms.py BUILD [--lines]

Branches that only an exception takes are left out: the compiler puts one behind every call. Writes
BUILD/coverage.json, with every line. Exits with 1 when a program stays below its target. --lines
lists the lines and branches that nothing ran.
"""

import argparse
import json
import subprocess
import sys
from pathlib import Path

TREE = Path(__file__).resolve().parents[2]

# Program: percent of lines and of branches.
TARGETS = {"src": (95, 90), "bus": (90, 80), "supervisor": (90, 80), "relay": (90, 80)}


class Count:
    """Lines and branches, and which of them ran."""

    def __init__(self):
        self.lines = self.lines_run = self.branches = self.branches_run = 0

    def add(self, line):
        self.lines += 1
        self.lines_run += line["count"] > 0
        for branch in line["branches"]:
            self.branches += 1
            self.branches_run += branch["count"] > 0

    @property
    def percents(self):
        return tuple(100 * run / all_ if all_ else 100.0 for run, all_ in (
            (self.lines_run, self.lines), (self.branches_run, self.branches)))


def collect(build):
    """Every file with code: its lines as gcovr has them."""
    report = build / "coverage.json"
    subprocess.run(
        ["gcovr", "--root", str(TREE), "--json", str(report), "--exclude-throw-branches",
         "--exclude-unreachable-branches", *[word for folder in TARGETS
                                             for word in ("--filter", f"{TREE}/{folder}/")],
         str(build)], check=True, cwd=build)
    return {file["file"]: [line for line in file["lines"] if not line.get("gcovr/noncode")]
            for file in json.loads(report.read_text())["files"]}


def room_of(path):
    """src/queue/web_server.cpp: src/queue."""
    parts = Path(path).parts
    return "/".join(parts[:2]) if len(parts) > 2 else parts[0]


def count_rooms(files):
    counts = {}
    for path, lines in sorted(files.items()):
        for name in {room_of(path), f"{Path(path).parts[0]}, all"}:
            count = counts.setdefault(name, Count())
            for line in lines:
                count.add(line)
    return counts


def print_table(counts):
    """Returns the programs that stay below their target."""
    below = []
    print(f"{'room':24} {'lines':>7} {'run':>7} {'branches':>9} {'run':>7}")
    for name, count in sorted(counts.items()):
        lines, branches = count.percents
        verdict = ""
        if name.endswith(", all"):
            program = name.split(",")[0]
            wanted = TARGETS[program]
            is_met = lines >= wanted[0] and branches >= wanted[1]
            verdict = f"  at least {wanted[0]} and {wanted[1]} %: {'ok' if is_met else 'MISSED'}"
            below += [] if is_met else [program]
        print(f"{name:24} {count.lines:7} {lines:6.1f}% {count.branches:9} {branches:6.1f}%"
              f"{verdict}")
    return below


def print_lines(files):
    for path, lines in sorted(files.items()):
        text = (TREE / path).read_text().splitlines()
        for line in lines:
            number = line["line_number"]
            missed = sum(branch["count"] == 0 for branch in line["branches"])
            what = "" if line["count"] else "not run"
            if line["count"] and missed:
                what = f"{missed} of {len(line['branches'])} branches not taken"
            if what:
                print(f"{path}:{number}: {what}: {text[number - 1].strip()}")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("build", type=Path)
    parser.add_argument("--lines", action="store_true")
    options = parser.parse_args()
    files = collect(options.build.resolve())
    if options.lines:
        print_lines(files)
    below = print_table(count_rooms(files))
    if below:
        sys.exit(f"below the target: {', '.join(below)}")


if __name__ == "__main__":
    main()
