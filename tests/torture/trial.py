"""One process of the runner: has namespaces of its own, keeps a scenario's surroundings, and tries
the orders that it is sent."""

import os
import time
import traceback
from dataclasses import dataclass, field

import control
from control import Order
from known import reason_for
from processes import wait_until
from scenario import Problem, fingerprint

_REST_S = 2.0  # how long what a round has left may take to go
_SETTLING_ROUNDS = 6  # clean ones, until two leave the same behind


@dataclass
class Count:
    """What a clean round is like."""
    outcome: list
    places: list
    seconds: float


@dataclass
class Trial:
    """What came of one order."""
    order: Order
    outcome: list = field(default_factory=list)
    hit: str = ""          # where the call failed; empty when the round did not come so far
    site: int = 0
    stack: str = ""
    changed: bool = False  # whether the outcome is another one than that of a clean round
    problems: list = field(default_factory=list)
    known: str = ""        # why the problem is none of ours
    log: str = ""
    seconds: float = 0.0
    calls: int = 0


class Surroundings:
    """A scenario that runs, and what it is like when no call fails."""

    def __init__(self, make):
        self.scenario = make()
        self.scenario.begin()
        try:
            self._measure()
        except BaseException:
            self.end()
            raise

    def _measure(self):
        """Clean rounds until the program leaves behind the same as the round before."""
        scenario = self.scenario
        self.files = fingerprint(*scenario.files)
        seen = []
        for _ in range(_SETTLING_ROUNDS):
            self.clean = scenario.run()
            self.state = scenario.state()
            self._leave()
            seen.append((self.clean.outcome, self.state.blocks))
            if seen[-2:-1] == seen[-1:]:
                return
        raise Problem(f"clean rounds differ: {seen}")

    def _leave(self):
        if not self.scenario.lasting:
            self.scenario.leave()

    def count(self):
        """A clean round with the place of every call."""
        round_ = self.scenario.run(records=True)
        places = self.scenario.control.records()
        self.scenario.control.keep_stacks(False)
        self._leave()
        return Count(round_.outcome, places, round_.seconds)

    def try_order(self, trial, keeps_stacks):
        """Fails the ordered call; raises what is wrong then."""
        scenario = self.scenario
        since = scenario.control.allocations
        round_ = scenario.run(trial.order, keeps_stacks)
        trial.outcome, trial.calls = round_.outcome, round_.calls
        trial.changed = round_.outcome != self.clean.outcome
        if trial.changed and round_.failures == 0:
            raise Problem(f"no call failed, and yet {round_.outcome}")
        if (trial.changed and not scenario.has_logged_error(round_) and
                not scenario.excuse(round_.hit, round_)):
            raise Problem(f"{round_.outcome} without an error line")
        if scenario.lasting:
            self._go_on_clean(since)
        else:
            self._start_anew()
        if fingerprint(*scenario.files) != self.files:
            raise Problem("files have changed")

    def _go_on_clean(self, since):
        scenario = self.scenario
        try:
            self._play_clean()
            scenario.rest(self.state)
        except Problem as problem:
            blocks = "".join(f"\n  {size} bytes:\n{place.lines()}"
                             for size, place in scenario.control.live_since(since) if place.name)
            raise Problem(f"{problem}{blocks}") from None

    def _start_anew(self):
        scenario = self.scenario
        try:  # a program that runs may be about to free what it holds
            wait_until(lambda: not scenario.state().shows_more_than(self.state), "at rest", _REST_S)
        except AssertionError:
            found = scenario.state().shows_more_than(self.state)
            raise Problem("left behind: " + "; ".join(found)) from None
        scenario.leave()
        self._play_clean()
        scenario.leave()

    def _play_clean(self):
        again = self.scenario.run()
        if again.outcome != self.clean.outcome:
            raise Problem(f"the next clean round brings {again.outcome}")

    def end(self):
        """What the end shows, such as a sanitizer's report; empty when all is well."""
        try:
            self.scenario.end()
        except Exception as failure:  # whatever it is belongs into the report
            return str(failure)
        return ""


class Worker:
    """Serves a pipe: scenarios by name, orders for them."""

    def __init__(self, scenarios, make_scenario, pipe):
        self._scenarios = scenarios
        self._make_scenario = make_scenario
        self._pipe = pipe
        self._name = None
        self._surroundings = None

    def serve(self):
        while (task := self._pipe.recv()) is not None:
            name, order, details = task
            try:
                answer = self._count(name) if order is None else self._try(name, order, details)
            except Exception:  # the runner's own trouble: shown, and the run fails
                answer = traceback.format_exc()
                self._drop()
            self._pipe.send(answer)
        self._drop()

    def _enter(self, name):
        if self._name != name:
            self._drop()
        if self._surroundings is None:
            self._surroundings = Surroundings(lambda: self._make_scenario(self._scenarios[name]))
            self._name = name
        return self._surroundings

    def _drop(self):
        surroundings, self._surroundings = self._surroundings, None
        return surroundings.end() if surroundings else ""

    def _count(self, name):
        return self._enter(name).count()

    def _try(self, name, order, details):
        surroundings = self._enter(name)
        trial = Trial(order)
        started = time.monotonic()
        try:
            surroundings.try_order(trial, details)
        except Exception as failure:
            trial.problems.append(f"{type(failure).__name__}: {failure}"
                                  if not isinstance(failure, Problem) else str(failure))
            if not isinstance(failure, (Problem, AssertionError)):
                trial.problems.append(traceback.format_exc())
        trial.seconds = time.monotonic() - started
        surroundings.scenario.control.disarm()
        hit = surroundings.scenario.control.last_hit
        if hit is not None:
            trial.hit, trial.site = hit.name, hit.site
        if details or trial.problems:
            trial.log = surroundings.scenario.shown_log()
            trial.stack = hit.lines() if hit else ""
            trial.hit = str(hit) if hit else ""
        if trial.problems:
            trial.problems += filter(None, [self._drop()])
            self._look_whether_known(hit, trial)
        return trial

    def _look_whether_known(self, hit, trial):
        reason = reason_for(hit, "\n".join(trial.problems)) if hit else None
        if reason:
            trial.known, trial.problems = reason, []


def become_worker():
    """Before anything else of the process: what it starts has the same addresses each time."""
    control.without_randomized_addresses()
    os.environ["ASAN_OPTIONS"] = "detect_leaks=0:quarantine_size_mb=4"  # blocks are counted here
