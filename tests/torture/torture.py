#!/usr/bin/python3
"""Fails every fallible call of the programs once, and looks at what becomes of them.

    torture.py                              every call of every scenario
    torture.py --short                      every call of short scenarios, of others some
    torture.py --scenario S --n 231         that call alone, with its stack and the log
    torture.py --scenario S --site HEX      the first call of that site, the same way
"""

import argparse
import collections
import multiprocessing
import multiprocessing.connection
import os
import sys
import time
from pathlib import Path

_HERE = Path(__file__).resolve().parent
sys.path.insert(0, str(_HERE.parent / "support"))

import control  # noqa: E402
from control import FROM, ONCE, SITE, Order  # noqa: E402
from processes import program  # noqa: E402
from router import prepare  # noqa: E402
from scenario import LIBRARY  # noqa: E402
from certificates import Authority  # noqa: E402
from trial import Worker, become_worker  # noqa: E402
import bus_scenarios  # noqa: E402
import daemon_scenarios  # noqa: E402
import relay_scenarios  # noqa: E402
import supervisor_scenarios  # noqa: E402
import namespaces  # noqa: E402

SCENARIOS = {**daemon_scenarios.SCENARIOS, **supervisor_scenarios.SCENARIOS,
             **bus_scenarios.SCENARIOS, **relay_scenarios.SCENARIOS}

_CLEAN_ROUNDS = 4  # that are compared to see which sites every round has
_TIMES_FOR_MISSED_SITES = 3

_MODES = {ONCE: "alone", FROM: "and all later", SITE: "of its site"}


# --- the processes that try -------------------------------------------------------------------


def _run_worker(pipe):
    become_worker()
    places = prepare()
    authority = Authority(places.scratch / "authority")
    library = str(Path(program("ubusd")).parent / LIBRARY)
    assert Path(library).is_file(), f"{library} is missing: build first"

    def make(scenario):
        return scenario(places, authority, places.scratch, library)

    Worker(SCENARIOS, make, pipe).serve()


class Crew:
    """Worker processes, and tasks for whichever is free."""

    def __init__(self, count):
        self._pipes, self._processes = [], []
        for _ in range(count):
            ours, theirs = multiprocessing.Pipe()
            process = multiprocessing.Process(target=_run_worker, args=(theirs,))
            process.start()
            theirs.close()
            self._pipes.append(ours)
            self._processes.append(process)

    def do(self, task):
        """One task by the first worker, alone."""
        self._pipes[0].send(task)
        return self._pipes[0].recv()

    def do_all(self, tasks):
        """The answers, as they come."""
        waiting = list(reversed(tasks))
        busy = []
        for pipe in self._pipes:
            if waiting:
                pipe.send(waiting.pop())
                busy.append(pipe)
        while busy:
            for pipe in multiprocessing.connection.wait(busy):
                yield pipe.recv()
                if waiting:
                    pipe.send(waiting.pop())
                else:
                    busy.remove(pipe)

    def dismiss(self):
        for pipe in self._pipes:
            pipe.send(None)
        for process in self._processes:
            process.join(30)
        return all(process.exitcode == 0 for process in self._processes)


# --- a scenario -------------------------------------------------------------------------------


def _first_of_each_site(places):
    first = {}
    for number, place in enumerate(places, 1):
        first.setdefault(place.site, number)
    return first


def _few(places):
    """Of the sites that one place in our code leads to, the first, the middle and the last."""
    groups = {}
    for site, number in _first_of_each_site(places).items():
        groups.setdefault(places[number - 1].place_in_program(), []).append((site, number))
    return [pair for group in groups.values()
            for pair in sorted({group[0], group[len(group) // 2], group[-1]}, key=lambda p: p[1])]


def _orders(scenario, count, short):
    """Every call, or some of each place: alone, then with all later ones."""
    every = range(1, len(count.places) + 1)
    few = _few(count.places)
    if not short and scenario.by_sites:
        return ([Order(SITE, site) for site in _first_of_each_site(count.places)] +
                [Order(FROM, number) for _, number in few])
    if not short:
        return [Order(mode, number) for mode in (ONCE, FROM) for number in every]
    alone = ([Order(ONCE, number) for number in every] if scenario.short else
             [Order(SITE, site) for site, _ in few])
    return alone + [Order(FROM, number) for _, number in few]


def _sites_to_fail(scenario, counts, short):
    """The sites at which a call must fail: those of every clean round. Others come and go with what
    a read happens to bring; they are tried, too, but no round can be made to pass them."""
    steady = set.intersection(*({place.site for place in count.places} for count in counts))
    if short and not scenario.short:
        return steady & {site for site, _ in _few(counts[0].places)}
    return steady


def _order_text(order):
    what = f"site {order.wanted:x}" if order.mode == SITE else f"n={order.wanted}"
    return f"{what} {_MODES[order.mode]}"


class Report:
    """What came of a scenario's trials."""

    def __init__(self, name, count, sites):
        self.name, self.count, self._sites = name, count, sites
        self.trials = []
        self.problems = []
        self._started = time.monotonic()

    def take(self, answer):
        if isinstance(answer, str):  # a worker's own trouble
            self.problems.append(answer)
            print(answer, flush=True)
            return
        self.trials.append(answer)
        if len(self.trials) % 200 == 0:
            print(f"{self.name}: {len(self.trials)} trials, "
                  f"{time.monotonic() - self._started:.0f} s", flush=True)
        if answer.problems:
            self.problems.append(answer)
            self._show(answer)

    def _show(self, trial):
        print(f"{self.name} {_order_text(trial.order)}: {trial.hit}")
        for problem in trial.problems:
            print("    " + problem.replace("\n", "\n    ")[:6000])
        sys.stdout.flush()

    def sites_left(self):
        """Sites at which a call must have failed alone and has not: the calls moved."""
        return self._sites - {trial.site for trial in self.trials
                              if trial.order.mode in (ONCE, SITE)}

    def summary(self):
        failed = [trial for trial in self.trials if trial.hit]
        once = sum(trial.order.mode != FROM for trial in failed)
        sites = len({place.site for place in self.count.places})
        changed = sum(trial.changed for trial in failed)
        known = collections.Counter(trial.known for trial in self.trials if trial.known)
        slowest = max(self.trials, key=lambda trial: trial.seconds)
        return (f"{self.name}: {len(self.count.places)} calls at {sites} sites; failed {once} "
                f"alone, {len(failed) - once} with all later ones; {changed} changed the outcome; "
                f"{len(self.trials) - len(failed)} not reached; {len(self.sites_left())} sites "
                f"missed; {len(self.problems)} problems, {known.total()} known; "
                f"slowest {slowest.seconds:.1f} s ({_order_text(slowest.order)}); "
                f"{time.monotonic() - self._started:.0f} s" +
                "".join(f"\n    {count} known: {reason}" for reason, count in known.items()))


def _torture(crew, name, short):
    counts = list(crew.do_all([(name, None, False)] * _CLEAN_ROUNDS))
    for count in counts:
        if isinstance(count, str):
            print(count)
            return False
    count = counts[0]
    orders = _orders(SCENARIOS[name], count, short)
    print(f"{name}: {len(count.places)} calls in {count.seconds:.2f} s, {len(orders)} trials; the "
          f"outcome is {count.outcome}", flush=True)
    report = Report(name, count, _sites_to_fail(SCENARIOS[name], counts, short))
    for answer in crew.do_all([(name, order, False) for order in orders]):
        report.take(answer)
    for _ in range(_TIMES_FOR_MISSED_SITES):
        left = [(name, Order(SITE, site), False) for site in report.sites_left()]
        for answer in crew.do_all(left):
            report.take(answer)
    print(report.summary(), flush=True)
    for place in count.places:
        if place.site in report.sites_left():
            print(f"    missed: site {place.site:x}: {place}", flush=True)
    return not report.problems and not report.sites_left()


def _show_one(crew, name, order):
    trial = crew.do((name, order, True))
    if isinstance(trial, str):
        print(trial)
        return False
    print(f"{name} {_order_text(order)}: {trial.hit or 'not reached'}\n{trial.stack}\n"
          f"outcome: {trial.outcome}\nlog:\n{trial.log}")
    for problem in trial.problems:
        print("problem: " + problem)
    if trial.known:
        print("known: " + trial.known)
    return not trial.problems


def _list_calls(crew, name):
    count = crew.do((name, None, False))
    if isinstance(count, str):
        print(count)
        return False
    control.name_all(count.places)
    for number, place in enumerate(count.places, 1):
        print(f"{number:5} {place.site:016x} {place}")
    return True


def _arguments():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--scenario", help="only these, by name, separated by blanks", default="")
    parser.add_argument("--short", action="store_true")
    parser.add_argument("--n", type=int, help="the call of that number alone, with details")
    parser.add_argument("--site", type=lambda text: int(text, 16))
    parser.add_argument("--later", action="store_true", help="with --n: all later ones, too")
    parser.add_argument("--list", action="store_true", help="show the calls of a clean round")
    parser.add_argument("--jobs", type=int, default=3 * (os.cpu_count() or 2))
    return parser.parse_args()


def main():
    arguments = _arguments()
    names = arguments.scenario.split() or list(SCENARIOS)
    single = arguments.n or arguments.site or arguments.list
    namespaces.become_root()
    crew = Crew(1 if single else arguments.jobs)
    started = time.monotonic()
    if arguments.list:
        good = _list_calls(crew, names[0])
    elif single:
        order = Order(SITE, arguments.site) if arguments.site else Order(
            FROM if arguments.later else ONCE, arguments.n)
        good = _show_one(crew, names[0], order)
    else:
        good = all([_torture(crew, name, arguments.short) for name in names])
    good = crew.dismiss() and good
    print(f"torture: {'passed' if good else 'FAILED'}, {time.monotonic() - started:.0f} s")
    return 0 if good else 1


if __name__ == "__main__":
    sys.exit(main())
