#!/usr/bin/python3
"""Breaks the line between router and relay in every way, at every stage, many times.

    CRC_BIN=build/release/bin tests/faults/run.py [--times N] [--seed SEED] [--lanes N]
                                                  [--only KIND] [--number N] [--sabotage NAME]

Each kind of fault is played N times, at a random byte of handshake, hello, request and answer in
turn; what is random follows from the seed, the kind and the round's number. Rounds are played side
by side, on lanes with a whole chain each. Prints a line for each kind, then what the programs hold
after all of it. Exit status 1 when anything was wrong; logs stay in build/faults.
"""

import argparse
import json
import os
import random
import statistics
import subprocess
import sys
import threading
import time
from collections import Counter
from pathlib import Path

HERE = Path(__file__).resolve().parent
TREE = HERE.parent.parent
sys.path.insert(0, str(HERE.parent / "support"))

from identified import CUT, REFUSED, RIGHT  # noqa: E402
from kinds import KINDS, STAGES, Job  # noqa: E402
from processes import is_sanitized, program  # noqa: E402
from sabotage import NAMES  # noqa: E402

FOLDER = TREE / "build" / "faults"
MOST_LANES = 36
# KiB of private memory that a program may hold more at the end of a lane, beyond what the rounds
# up to then were warmed up with; and on the average of all lanes. The relay may hold a body of
# 600 KB longer than its user waited, until it has been sent.
MOST_GROWTH = {"daemon": (160, 48), "supervisor": (32, 8), "bus": (32, 8), "relay": (1024, 256)}
OTHER_GROWTH = (160, 48)


class Lanes:
    """Plays jobs on lanes side by side, the long ones first."""

    def __init__(self, jobs, options):
        self._jobs = sorted(jobs, key=Job.is_long, reverse=True)
        self._options = options
        self._lock = threading.Lock()
        self.reports, self.ends, self.failures = [], [], []

    def play(self, count):
        threads = [threading.Thread(target=self._play_lane, args=(number,))
                   for number in range(count)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()

    def _next(self):
        with self._lock:
            return self._jobs.pop(0) if self._jobs else None

    def _play_lane(self, number):
        errors = FOLDER / f"lane-{number}.errors"
        command = [sys.executable, str(HERE / "lane.py"), str(number), self._options.seed,
                   str(FOLDER), self._options.sabotage]
        with open(errors, "w") as sink, subprocess.Popen(
                command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=sink, text=True,
                bufsize=1) as lane:
            self._feed(lane, number)
            end = self._read(lane)
        if lane.returncode != 0 or end is None:
            self.failures.append(f"lane {number} ended with {lane.returncode}: "
                                 f"{errors.read_text()[-2000:]}")
        else:
            self.ends.append(end)

    def _feed(self, lane, number):
        while (job := self._next()) is not None:
            try:
                lane.stdin.write(json.dumps({"kind": job.kind, "number": job.number}) + "\n")
            except BrokenPipeError:
                return
            report = self._read(lane)
            if report is None:
                return
            self._note(report | {"lane": number})
            if report.get("ended"):
                return
        lane.stdin.close()

    def _read(self, lane):
        line = lane.stdout.readline()
        return json.loads(line) if line else None

    def _note(self, report):
        with self._lock:
            self.reports.append(report)
            with open(FOLDER / "rounds.jsonl", "a") as log:
                log.write(json.dumps(report) + "\n")
        if report["problems"]:
            print(f"FAIL {report['kind']} {report['number']} at {report['stage']}, lane "
                  f"{report['lane']}, {report.get('what', 'not ended')}:", flush=True)
            for problem in report["problems"]:
                print(f"     {problem}", flush=True)


def show_kinds(reports):
    print(f"\n{'kind':13} {'rounds':>6}  {' '.join(f'{stage:>9}' for stage in STAGES)}  "
          f"{'right':>6} {'refused':>7} {'cut':>5}  {'back, s: median':>15} {'most':>6}")
    for kind in KINDS:
        mine = [report for report in reports if report["kind"] == kind]
        if not mine:
            continue
        stages = Counter(report["stage"] for report in mine)
        outcomes = sum((Counter(report.get("outcomes", {})) for report in mine), Counter())
        back = [report["back_s"] for report in mine if "back_s" in report] or [0]
        verdict = "FAIL" if any(report["problems"] for report in mine) else "pass"
        print(f"{kind:13} {len(mine):6}  {' '.join(f'{stages[stage]:9}' for stage in STAGES)}  "
              f"{outcomes[RIGHT]:6} {outcomes[REFUSED]:7} {outcomes[CUT]:5}  "
              f"{statistics.median(back):15.1f} {max(back):6.1f}  {verdict}")


def check_holdings(ends):
    """Prints what each program holds more after all rounds; what is wrong about it."""
    problems = [f"executed more than once: {end['repeated']}" for end in ends if end["repeated"]]
    is_checked = is_sanitized(program("relay_server"))  # its memory is the sanitizer's
    print(f"\n{'program':13} {'descriptors':>11} {'threads':>8}  private memory, KiB: "
          f"{'before':>7} {'more, mean':>10} {'most':>6}")
    for name in sorted({name for end in ends for name in end["holdings"]}):
        pairs = [end["holdings"][name] for end in ends]
        more = {field: [after[field] - before[field] for before, after in pairs]
                for field in pairs[0][0]}
        most, most_mean = MOST_GROWTH.get(name, OTHER_GROWTH)
        growth = more["private_kib"]
        is_flat = not any(more["descriptors"] + more["threads"]) and (
            is_checked or (max(growth) <= most and statistics.mean(growth) <= most_mean))
        print(f"{name:13} {sum(more['descriptors']):+11} {sum(more['threads']):+8}  "
              f"{statistics.mean(before['private_kib'] for before, _ in pairs):28.0f} "
              f"{statistics.mean(growth):+10.0f} {max(growth):+6}  {'pass' if is_flat else 'FAIL'}")
        if not is_flat:
            problems.append(f"{name} is not flat: {more}")
    return problems


def jobs_of(options):
    numbers = range(options.times) if options.number is None else [options.number]
    return [Job(kind, number) for number in numbers for kind in KINDS
            if options.only in (None, kind)]


def parse():
    arguments = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    arguments.add_argument("--times", type=int, default=100, help="rounds of each kind")
    arguments.add_argument("--seed", default="")
    arguments.add_argument("--lanes", type=int, help="chains side by side")
    arguments.add_argument("--only", choices=KINDS, help="this kind only")
    arguments.add_argument("--number", type=int, help="this round only")
    arguments.add_argument("--sabotage", choices=NAMES, default="",
                           help="what is to go wrong: the run must fail")
    options = arguments.parse_args()
    options.seed = options.seed or str(random.randrange(1_000_000))
    return options


def main():
    options = parse()
    jobs = jobs_of(options)
    count = options.lanes or max(1, min(MOST_LANES, len(jobs) // 4))
    FOLDER.mkdir(parents=True, exist_ok=True)
    (FOLDER / "rounds.jsonl").write_text("")
    print(f"faults: {len(jobs)} rounds on {count} lanes, SEED={options.seed}", flush=True)
    started = time.monotonic()
    lanes = Lanes(jobs, options)
    lanes.play(count)
    show_kinds(lanes.reports)
    problems = lanes.failures + (check_holdings(lanes.ends) if lanes.ends else [])
    late = sum(report.get("late", False) for report in lanes.reports)
    if late:
        print(f"\n{late} rounds broke at the last byte before theirs, as requests ran out of time")
    if len(lanes.reports) < len(jobs):
        problems.append(f"only {len(lanes.reports)} of {len(jobs)} rounds were played")
    for problem in problems:
        print(f"FAIL {problem}")
    failed = bool(problems) or any(report["problems"] for report in lanes.reports)
    print(f"\nfaults: {'FAIL' if failed else 'pass'} after {time.monotonic() - started:.0f} s, "
          f"SEED={options.seed}; logs are in {FOLDER.relative_to(TREE)}")
    sys.exit(1 if failed else 0)


if __name__ == "__main__":
    os.environ.setdefault("PYTHONDONTWRITEBYTECODE", "1")
    main()
