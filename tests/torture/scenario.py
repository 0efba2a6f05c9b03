"""What a scenario is: a program, its round, and what must hold whatever call fails in it."""

import contextlib
import hashlib
import os
import re
import threading
import time
from dataclasses import dataclass
from pathlib import Path

from control import Control, Order
from daemon import slowness
from processes import ADDED_ENVIRONMENT, wait_until

LIBRARY = "torture_interpose.so"

# How long a round may take until the program is at rest again. The longest limit of the daemon's
# own that a round meets is the 10 s of a web server that does not answer.
ROUND_LIMIT_S = 40.0

# How long calls fail while a program gets nowhere, from the first that does. Not stretched on a
# busy machine: a program that gets there later does so without failures, which is right as well.
FAILING_S = 1.5


class Problem(AssertionError):
    """What must not happen, whatever call fails."""


@dataclass
class Program:
    """The program under test and the library that it is started with."""
    name: str
    control: Control
    library: str

    @contextlib.contextmanager
    def preloaded(self):
        """What is started meanwhile is under the interposer, if it is this program."""
        ADDED_ENVIRONMENT.update(LD_PRELOAD=self.library, TORTURE_PROGRAM=self.name,
                                 TORTURE_CONTROL=str(self.control.path))
        try:
            yield
        finally:
            ADDED_ENVIRONMENT.clear()


@dataclass
class State:
    """What a program at rest holds."""
    descriptors: dict
    threads: list
    children: list
    blocks: int
    size: int

    def shows_leak_beside(self, before):
        """What it holds more than `before`; empty when it holds the same."""
        found = []
        if sorted(self.descriptors.values()) != sorted(before.descriptors.values()):
            found.append(f"descriptors: {_difference(self.descriptors, before.descriptors)}")
        if self.threads != before.threads:
            found.append(f"threads: {self.threads}, before {before.threads}")
        if self.children != before.children:
            found.append(f"children: {self.children}, before {before.children}")
        return found

    def shows_more_than(self, other):
        """What it holds that `other` does not; it may hold less."""
        found = []
        left = list(other.descriptors.values())
        more = [what for what in self.descriptors.values()
                if what not in left or left.remove(what)]
        if more:
            found.append(f"descriptors: {more}")
        if len(self.threads) > len(other.threads):
            found.append(f"threads: {self.threads}, else {other.threads}")
        if len(self.children) > len(other.children):
            found.append(f"children: {self.children}, else {other.children}")
        if self.blocks > other.blocks:
            found.append(f"blocks: {self.blocks} of {self.size} bytes, else {other.blocks} of "
                         f"{other.size}")
        return found


def _difference(now, before):
    return {number: what for number, what in now.items() if before.get(number) != what}


def _kind(what):
    """A descriptor's target without the numbers and names that each one has for itself."""
    return re.sub(r":\[\d+\]|/(tmp|run)/.*/", "", what)


def state_of(process_id, control):
    """What the process holds now."""
    folder = Path(f"/proc/{process_id}")
    descriptors = {}
    for entry in (folder / "fd").iterdir():
        with contextlib.suppress(FileNotFoundError):
            descriptors[int(entry.name)] = _kind(os.readlink(entry))
    threads, children = [], []
    for task in (folder / "task").iterdir():
        with contextlib.suppress(FileNotFoundError, ProcessLookupError):
            threads.append((task / "comm").read_text().strip())
            children += (task / "children").read_text().split()
    return State(descriptors, sorted(threads), children, control.blocks, control.bytes)


def fingerprint(*places):
    """What stands in these files, and in the files of these folders."""
    digest = hashlib.sha256()
    for place in map(Path, places):
        for path in [place, *sorted(place.rglob("*"))]:
            digest.update(str(path).encode())
            if path.is_file():
                digest.update(path.read_bytes())
    return digest.hexdigest()


@dataclass
class Round:
    """What one round brought."""
    outcome: list
    mark: int = 0  # where the log stood before
    calls: int = 0
    failures: int = 0
    hit: object = None
    seconds: float = 0.0


class Scenario:
    """A program through one round of its life, again and again.

    A round of a lasting scenario leaves the program running and at rest; otherwise a round starts
    the program and ends it. begin() to end() is the time of one program.
    """

    program_name = None
    on_main, on_others = True, False
    lasting = True
    by_sites = False  # one call of each site fails alone, in place of every call
    short = False     # every call fails in the short form, too; otherwise one of each site
    log_functions = {"cloud_print"}
    files = ()        # files and folders that no failure may change
    kept_blocks = 0   # how many a library may keep for later, once for all rounds

    def __init__(self, places, authority, folder, library):
        self.places = places
        self.authority = authority
        self.program = Program(self.program_name, Control(folder / "control"), library)
        self.control = self.program.control

    # --- what a scenario says ---

    def begin(self):
        """Makes the surroundings and, of a lasting scenario, starts the program."""

    def end(self):
        """Ends everything, and checks what can be checked then."""

    def play(self):
        """The round. Returns the outcome, in words; the program is at rest then, whatever it is."""
        raise NotImplementedError

    def process_id(self):
        raise NotImplementedError

    def leave(self):
        """Ends the program, after a round of a scenario that is not lasting."""

    def mark(self):
        """A place in the log."""
        return 0

    def errors_since(self, mark):
        """Lines of the log that tell of a failure."""
        raise NotImplementedError

    def shown_log(self):
        return ""

    def excuse(self, hit, round_):
        """Why no line of the log tells of this failure; None when one must."""
        if hit is not None and set(hit.functions()) & self.log_functions:
            return "the log itself failed"
        return None

    # --- what all have in common ---

    @contextlib.contextmanager
    def failing_for_a_while(self):
        """Ends the failures after a while, and in the end: what peers wait for and how the program
        comes to rest may need calls that succeed."""
        is_over = threading.Event()
        watch = threading.Thread(target=self._end_failures, args=(is_over.is_set,))
        watch.start()
        try:
            yield
        finally:
            is_over.set()
            watch.join()
            self.control.disarm()

    def wait_failing(self, condition, what):
        """Waits for what a program reaches although calls fail, or once they fail no longer."""
        if not self._end_failures(condition):
            wait_until(condition, f"{what}, when calls no longer fail", ROUND_LIMIT_S)

    def _end_failures(self, condition):
        """Waits for the condition, but ends the failures FAILING_S after the first; whether the
        condition held before that."""
        first, limit = None, time.monotonic() + ROUND_LIMIT_S
        while not (holds := condition()) and time.monotonic() < limit:
            if first is None and self.control.failures:
                first = time.monotonic()
                limit = first + FAILING_S
            time.sleep(0.01)
        if not holds:
            self.control.disarm()
        return holds

    def run(self, order=Order(), records=False):
        """One round under that order; the program is at rest again in the end."""
        started = time.monotonic()
        mark = self.mark()
        self.control.arm(order, self.on_main, self.on_others, records)
        outcome = self.play()
        self.control.disarm()
        control = self.control
        return Round(outcome, mark, control.calls, control.failures,
                     control.hit if control.failures else None, time.monotonic() - started)

    def has_logged_error(self, round_):
        """Whether the log tells of a failure in that round; its lines may be on their way."""
        try:
            return wait_until(lambda: self.errors_since(round_.mark), "an error line", 1.0)
        except AssertionError:
            return False

    def state(self):
        return state_of(self.process_id(), self.control)

    def rest(self, before):
        """Waits until the program holds what it held before; a Problem when it does not."""
        def is_same():
            now = self.state()
            return (not now.shows_leak_beside(before) and
                    0 <= now.blocks - before.blocks <= self.kept_blocks)

        try:
            wait_until(is_same, "at rest", 3.0 * slowness())
        except AssertionError:
            now = self.state()
            found = now.shows_leak_beside(before)
            if not 0 <= now.blocks - before.blocks <= self.kept_blocks:
                found.append(f"blocks: {now.blocks} of {now.size} bytes, before {before.blocks} "
                             f"of {before.size}")
            raise Problem("left behind: " + "; ".join(found)) from None
