#!/usr/bin/python3
"""Changes the daemon's sources one line at a time and counts which changes the unit tests see.

    tests/mutants/mutants.py BUILD [--count N] [--seed N] [--room ROOM ...]
                             [--again | --resume]

BUILD is the build of the preset `mutants`, with the rooms' test programs. A mutant that does not
compile, or whose object as shipped is the same as the unchanged one's or another mutant's, is not
counted. A counted one is killed when a test of its room fails, crashes, leaks or takes too long,
and the unchanged program then passes the same test.
--again tries the survivors of an earlier run once more and writes BUILD/again.json. --resume takes
over what an interrupted run of the same seed has found.

Prints a table and every survivor, writes BUILD/mutants.json, and exits with 1 when less than 90 %
of those that are not equivalent are killed. equivalent.toml lists equivalents with their reasons.
"""

import argparse
import json
import shutil
import sys
import threading
import time
import tomllib
from concurrent.futures import ThreadPoolExecutor
from dataclasses import asdict
from pathlib import Path

TREE = Path(__file__).resolve().parents[2]

from candidates import Candidate, sample  # noqa: E402
from compiler import Compiler, DoesNotCompile, suites_of  # noqa: E402
from rooms import Room  # noqa: E402

TARGET_PERCENT = 90
SIDE_BY_SIDE = 4  # mutants; their tests mostly wait
JOBS = 4          # batches of tests of one mutant

MOST_LEFT_OUT = 5  # tests that fail on the unchanged programs

KILLED, SURVIVED, EQUIVALENT = "killed", "survived", "equivalent"
NOT_COUNTED = DOES_NOT_COMPILE, SAME_OBJECT, SAME_AS_ANOTHER = (
    "does not compile", "same object", "same as another")


def known_equivalents():
    """(path, was, becomes) without indentation: reason."""
    text = (Path(__file__).parent / "equivalent.toml").read_text()
    return {(entry["file"], entry["was"], entry["becomes"]): entry["why"]
            for entry in tomllib.loads(text).get("mutant", [])}


def key_of(candidate):
    becomes = " ".join(line.strip() for line in candidate.becomes.splitlines())
    return candidate.path, candidate.was.strip(), becomes


class Run:
    """The work of all threads. `_lock` guards every field that changes."""

    def __init__(self, build, count, names, into, earlier):
        self._build = build
        self._count = count
        self._into = into      # the JSON
        self._compiler = Compiler(TREE, build)
        self._equivalents = known_equivalents()
        self._lock = threading.Lock()
        self._earlier = earlier  # Candidate: its record
        self._seen = set()     # the objects of mutants that were tried
        self._counted = 0
        self._results = {}     # index: record
        self._left_out = []    # records
        self.rooms = {name: Room(name, self._compiler.clean_program(name), build / "run" / name)
                      for name in names}

    def check_clean(self):
        """The unchanged programs pass, side by side as the mutants will run."""
        rooms = self.rooms.values()
        with ThreadPoolExecutor(len(rooms)) as pool:
            failed = sum(pool.map(Room.plan, rooms), [])
        with ThreadPoolExecutor(SIDE_BY_SIDE) as pool:
            failed += sum(pool.map(lambda room: room.check_batches(JOBS), rooms), [])
        if failed:
            print(f"left out, as they fail without a mutant: {', '.join(failed)}", flush=True)
        if len(failed) > MOST_LEFT_OUT:
            sys.exit("the unchanged programs fail")
        print("the unchanged programs pass", flush=True)

    def work(self, candidates):
        numbered = iter(enumerate(candidates))
        with ThreadPoolExecutor(SIDE_BY_SIDE) as pool:
            tasks = [pool.submit(self._worker, number, numbered) for number in range(SIDE_BY_SIDE)]
        for task in tasks:
            task.result()
        return [self._results[index] for index in sorted(self._results)][:self._count]

    def _next(self, numbered):
        with self._lock:
            if self._counted >= self._count:
                return None, None
            return next(numbered, (None, None))

    def _worker(self, number, numbered):
        into = self._build / "run" / str(number)
        while True:
            index, candidate = self._next(numbered)
            if candidate is None:
                return
            if candidate.room not in self.rooms:
                continue
            if candidate in self._earlier:
                self._take_over(index, candidate)
                continue
            shutil.rmtree(into, ignore_errors=True)
            into.mkdir(parents=True)
            try:
                self._try(index, candidate, into)
            except DoesNotCompile:
                self._leave_out(candidate, DOES_NOT_COMPILE)

    def _try(self, index, candidate, into):
        objects = self._compiler.changes_objects(candidate, into)
        if objects is None:
            self._leave_out(candidate, SAME_OBJECT)
            return
        key = (candidate.path, tuple(map(hash, objects.values())))
        with self._lock:
            is_new = key not in self._seen
            self._seen.add(key)
            self._counted += is_new
        if not is_new:
            self._leave_out(candidate, SAME_AS_ANOTHER)
            return
        judged = self._judge(candidate, into)
        if judged["verdict"] == SURVIVED and self._compiler.changes_objects(
                candidate, into, shipped=True) is None:
            self._leave_out(candidate, SAME_OBJECT)
            with self._lock:
                self._counted -= 1
            return
        self._keep(index, candidate, judged)

    def _take_over(self, index, candidate):
        record = self._earlier[candidate]
        with self._lock:
            if record["verdict"] in NOT_COUNTED:
                self._left_out.append(record)
            else:
                self._results[index] = record
                self._counted += 1

    def _leave_out(self, candidate, verdict):
        with self._lock:
            self._left_out.append({**asdict(candidate), "verdict": verdict})
            self._write()

    def uncounted(self):
        verdicts = [record["verdict"] for record in self._left_out]
        return ", ".join(f"{verdicts.count(reason)} {reason}" for reason in NOT_COUNTED)

    def _judge(self, candidate, into):
        why = self._equivalents.get(key_of(candidate))
        if why is not None:
            return {"verdict": EQUIVALENT, "by": why}
        start = time.monotonic()
        program = self._compiler.link(candidate, into)
        test, how = self.rooms[candidate.room].killer(
            program, suites_of(TREE, candidate.path), into, JOBS)
        return {"verdict": KILLED if test else SURVIVED, "by": test, "how": how,
                "seconds": round(time.monotonic() - start, 1)}

    def _keep(self, index, candidate, judged):
        record = {**asdict(candidate), "room": candidate.room, **judged}
        with self._lock:
            self._results[index] = record
            if judged["verdict"] == SURVIVED:
                print(f"\nsurvived: {candidate.shown()}", flush=True)
            if len(self._results) % 25 == 0:
                print(f"{len(self._results)} mutants", flush=True)
            self._write()

    def _write(self):
        results = [self._results[index] for index in sorted(self._results)]
        self._into.write_text(json.dumps(
            {"mutants": results, "not counted": self._left_out}, indent=1))


def percent(killed, survived):
    return 100 * killed / (killed + survived) if killed + survived else 100.0


def print_table(results):
    rooms = sorted({record["room"] for record in results})
    print(f"\n{'room':12} {'mutants':>8} {'killed':>8} {'equivalent':>11} {'survived':>9} "
          f"{'score':>7}")
    for room in [*rooms, "all"]:
        verdicts = [record["verdict"] for record in results if room in (record["room"], "all")]
        killed, survived, equivalent = map(verdicts.count, (KILLED, SURVIVED, EQUIVALENT))
        print(f"{room:12} {len(verdicts):8} {killed:8} {equivalent:11} {survived:9} "
              f"{percent(killed, survived):6.1f}%")


def earlier_records(path):
    """Candidate: record, of the JSON of a run."""
    report = json.loads(path.read_text())
    fields = Candidate.__dataclass_fields__
    return {Candidate(**{field: record[field] for field in fields}): record
            for record in report["mutants"] + report["not counted"]}


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("build", type=Path)
    parser.add_argument("--count", type=int, default=500)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--again", action="store_true", help="the survivors of the last run")
    parser.add_argument("--resume", action="store_true", help="go on with an interrupted run")
    parser.add_argument("--room", nargs="+", help="these alone", default=[
        "core", "control", "task", "session", "transport", "queue", "handshake"])
    options = parser.parse_args()

    build = options.build.resolve()
    report = build / "mutants.json"
    earlier = earlier_records(report) if options.again or options.resume else {}
    candidates = sample(TREE / "src", options.seed)
    if options.again:
        candidates = [known for known, record in earlier.items() if record["verdict"] == SURVIVED]
        report, earlier = build / "again.json", {}
    run = Run(build, options.count, options.room, report, earlier)
    run.check_clean()
    results = run.work(candidates)
    print_table(results)
    print(f"not counted: {run.uncounted()}")
    verdicts = [record["verdict"] for record in results]
    score = percent(verdicts.count(KILLED), verdicts.count(SURVIVED))
    if score < TARGET_PERCENT:
        sys.exit(f"{score:.1f} % killed; at least {TARGET_PERCENT} % are to be")


if __name__ == "__main__":
    main()
