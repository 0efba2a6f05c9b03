#!/usr/bin/python3
"""A long load on the whole chain, with faults among it: what it answers, and what it comes to hold.

    CRC_BIN=build/release/bin tests/soak/run.py [--requests N] [--seconds N] [--seed SEED]
                                                [--users N] [--sabotage NAME]

Users ask for pages and upload, in mixed sizes, on connections that stay and that do not. In laps of
some seconds one thing happens: a reset, an outage, loss, a reload, a restart of the supervisor, a
SIGHUP. After each lap the users pause and the programs are looked at. Every body is checked; a
request may fail only while a fault lasts. Exit status 1 when anything was wrong.
"""

import argparse
import contextlib
import json
import math
import os
import random
import socket
import subprocess
import sys
import time
from collections import Counter
from pathlib import Path

HERE = Path(__file__).resolve().parent
TREE = HERE.parent.parent
sys.path.insert(0, str(HERE.parent / "support"))

from chain import Chain  # noqa: E402
from identified import RIGHT, WRONG, Request, User  # noqa: E402
from processes import is_sanitized, program, wait_until  # noqa: E402
from sabotage import NAMES, Sabotage  # noqa: E402

from events import Events  # noqa: E402
from samples import COUNTS, Samples  # noqa: E402
from users import Board  # noqa: E402

FOLDER = TREE / "build" / "soak"
WEB_PROCESSES = 4
LAP_S = 12         # with one event in it
SHORT_LAP_S = 5
SHORT_RUN_S = 120
EVENT_AFTER_S = 0.5
REST_S = 0.7       # before the programs are looked at
HOLD_S = 90
PATIENCE_S = 60


class Helpers:
    """The processes that ask and those that answer on the router."""

    def __init__(self, users, seed, sabotage):
        self._users, self._seed, self._sabotage = users, seed, sabotage
        self._processes = []
        self._files = contextlib.ExitStack()

    def _start(self, script, *arguments, **options):
        output = FOLDER / f"{script}-{len(self._processes)}.out"
        self._processes.append((output, subprocess.Popen(
            [sys.executable, str(HERE / f"{script}.py"), *map(str, arguments)],
            stdin=subprocess.PIPE, stdout=self._files.enter_context(open(output, "w")), **options)))

    def start_web(self):
        """The port that they answer on."""
        with socket.create_server(("127.0.0.1", 0), backlog=256) as listener:
            for _ in range(WEB_PROCESSES):
                self._start("web", listener.fileno(), self._sabotage,
                            pass_fds=[listener.fileno()])
            return listener.getsockname()[1]

    def start_users(self, chain, path):
        for slot in range(self._users):
            self._start("users", path, slot, chain.relay.front_port, chain.host, self._seed)

    def check(self):
        for output, process in self._processes:
            assert process.poll() in (None, 0), f"{output.stem} ended with {process.returncode}"

    def stop(self):
        """What users and web servers had to say: failures, and remarks."""
        for _, process in reversed(self._processes):  # users first: their last requests count
            process.stdin.close()
            process.wait(PATIENCE_S)
        self._files.close()
        said = {name: [line for output, _ in self._processes if output.stem.startswith(name)
                       for line in output.read_text().splitlines()] for name in ("users", "web")}
        return [json.loads(line) for line in said["users"]], said["web"]


class Soak:
    """The run. `spans` is when a request may fail."""

    def __init__(self, options, chain, board, helpers, sabotage):
        self._options, self._chain, self._board = options, chain, board
        self._helpers, self._sabotage = helpers, sabotage
        self._dice = random.Random(options.seed)
        is_short = (options.seconds or math.inf) <= SHORT_RUN_S
        self._lap_s = SHORT_LAP_S if is_short else LAP_S
        self._started = time.monotonic()
        self.events = Events(chain)
        self.samples, self.happened, self.spans = Samples(), Counter(), []

    def is_over(self):
        """Not before everything has happened once."""
        if len(self.happened) < len(self.events.all):
            return False
        return (self._board.totals()[0] >= self._options.requests or
                self.seconds() >= (self._options.seconds or math.inf))

    def seconds(self):
        return time.monotonic() - self._started

    def run(self):
        wait_until(self._board.all_began, "every user has begun", HOLD_S)
        deck = []
        while not self.is_over():
            if not deck:
                deck = list(self.events.all)
                self._dice.shuffle(deck)
            self._lap(deck.pop())

    def _lap(self, event):
        began = time.monotonic()
        time.sleep(EVENT_AFTER_S)
        self._happen(event)
        time.sleep(max(0.0, began + self._lap_s - time.monotonic()))
        self._look()
        self._helpers.check()
        right, size = self._board.totals()
        print(f"{self.seconds():6.0f} s  {right:8} right, {size / 1e9:5.1f} GB; {event.name}",
              flush=True)

    def _happen(self, event):
        began = time.monotonic()
        event.happen()
        self._sabotage.after_round(self._chain)
        wait_until(self._is_served, f"the router is back after: {event.name}", PATIENCE_S)
        if not event.is_harmless:
            self.spans.append((began, time.monotonic() + event.echo_s))
        self.happened[event.name] += 1

    def _is_served(self):
        probe = Request(f"probe-{time.monotonic()}", answer=10)
        with User(self._chain.front, self._chain.host, PATIENCE_S) as user:
            return user.ask(probe).kind in (RIGHT, WRONG)

    def _look(self):
        """Has the users pause and looks at the programs."""
        self._board.order(Board.HOLD)
        wait_until(self._board.all_held, "the users pause", HOLD_S)
        time.sleep(REST_S)
        self.samples.add(self._chain.census() | self._sabotage.census())
        self._board.order(Board.GO)


def may_fail(failure, spans):
    """Whether some part of the request's time lay within a fault's."""
    return any(failure["at"] <= end and failure["until"] >= begin for begin, end in spans)


def judge_answers(failures, remarks, spans):
    """Prints how requests failed; what is wrong about it."""
    counts = Counter(f"{failure['kind']} {failure['status'] or ''}".strip() for failure in failures)
    print("\nfailed: " +
          (", ".join(f"{name}: {count}" for name, count in sorted(counts.items())) or "none"))
    problems = [f"{failure['request']}: {failure['kind']} {failure['status']} {failure['why']}"
                for failure in failures
                if failure["kind"] == WRONG or not may_fail(failure, spans)]
    return problems + remarks


def judge_holdings(samples):
    """Prints how what the programs hold went; what is wrong about it."""
    print(f"\n{len(samples)} looks; the second half:\n{'program':12} {'measure':13} {'mean':>9} "
          f"{'rise':>8} {'percent':>8}")
    is_checked = is_sanitized(program("relay_server"))  # its memory is the sanitizer's
    problems = []
    for verdict in samples.verdicts():
        if is_checked and verdict.measure not in COUNTS:
            continue
        print(f"{verdict.program:12} {verdict.measure:13} {verdict.mean:9.1f} {verdict.rise:+8.1f} "
              f"{verdict.percent:+8.2f}  {'pass' if verdict.is_flat else 'FAIL'}")
        if not verdict.is_flat:
            problems.append(f"the {verdict.measure} of {verdict.program} rise by "
                            f"{verdict.percent:.2f} %")
    return problems


def parse():
    arguments = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    arguments.add_argument("--requests", type=int, default=1_000_000)
    arguments.add_argument("--seconds", type=int, help="so long at most")
    arguments.add_argument("--seed", default="")
    arguments.add_argument("--users", type=int, default=6)
    arguments.add_argument("--sabotage", choices=NAMES, default="",
                           help="what is to go wrong: the run must fail")
    options = arguments.parse_args()
    options.seed = options.seed or str(random.randrange(1_000_000))
    return options


def play(options):
    """All that is wrong."""
    chain = Chain(apart=False)
    board = Board(chain.places.scratch / "board", options.users)
    helpers = Helpers(options.users, options.seed, options.sabotage)
    with chain:
        try:
            chain.start(helpers.start_web())
            chain.connect()
            chain.daemon.dbg()
            chain.daemon.dbg()  # the log now goes to the null device
            helpers.start_users(chain, chain.places.scratch / "board")
            soak = Soak(options, chain, board, helpers, Sabotage(options.sabotage))
            soak.run()
            right, size = board.totals()
            seconds = soak.seconds()
            print(f"\n{right} right answers, {size / 1e9:.2f} GB of bodies, {seconds:.0f} s, "
                  f"{right / seconds:.0f}/s")
            print(", ".join(f"{name}: {count}" for name, count in soak.happened.items()))
        finally:
            board.order(Board.STOP)
            failures, remarks = helpers.stop()
            chain.save_logs(FOLDER)
    (FOLDER / "samples.json").write_text(json.dumps(soak.samples.rows()))
    return judge_answers(failures, remarks, soak.spans) + judge_holdings(soak.samples)


def main():
    options = parse()
    FOLDER.mkdir(parents=True, exist_ok=True)
    print(f"soak: SEED={options.seed}", flush=True)
    try:
        problems = play(options)
    except AssertionError as failure:
        problems = [str(failure)]
    for problem in problems[:50]:
        print(f"FAIL {problem}")
    verdict = f"FAIL, {len(problems)} problems" if problems else "pass"
    print(f"soak: {verdict}, SEED={options.seed}; logs are in {FOLDER.relative_to(TREE)}")
    sys.exit(1 if problems else 0)


if __name__ == "__main__":
    os.environ.setdefault("PYTHONDONTWRITEBYTECODE", "1")
    main()
