"""Defects to order: with `--sabotage NAME` the runs of tests/faults and tests/soak must fail, or
their checks see nothing.

Each stands for what a program could do wrong; none touches the programs themselves.
"""

import subprocess
import sys

from census import census
from identified import UNTIL_CLOSE, Ledger

# Holds more with each line that it reads: a descriptor, a thread, 256 KiB.
_LEAKER = """
import os, sys, threading
held = []
for line in sys.stdin:
    kind = line.strip()
    if kind == "descriptors":
        held.append(os.dup(0))
    if kind == "threads":
        threading.Thread(target=threading.Event().wait, daemon=True).start()
    if kind == "memory":
        held.append(os.urandom(1 << 18))
"""
LEAKS = ("descriptors", "threads", "memory")


class _Forgetful(Ledger):
    def execute(self, name):
        pass


class _Zealous(Ledger):
    def execute(self, name):
        super().execute(name)
        super().execute(name)


def _swap(answer, former):
    """One request's answer goes to the next."""
    answer.name, answer.body = former.name, former.body


def _cross(answer, former):
    """The same, but for the header."""
    answer.body = former.body


def _halve(answer, _):
    """An answer breaks off, and its length is what there is."""
    answer.body, answer.framing = answer.body[:len(answer.body) // 2], UNTIL_CLOSE


def _flip(answer, _):
    """One bit in the middle."""
    middle = len(answer.body) // 2
    answer.body = (answer.body[:middle] + bytes([answer.body[middle] ^ 1]) +
                   answer.body[middle + 1:]) if answer.body else answer.body


def _mistake(answer, _):
    """The web server took another upload."""
    answer.taken = answer.taken[::-1]


_SPOILERS = {"swap": _swap, "cross": _cross, "halve": _halve, "flip": _flip, "mistake": _mistake}
_LEDGERS = {"forget": _Forgetful, "twice": _Zealous}
NAMES = ("", *_SPOILERS, *_LEDGERS, *LEAKS, "stay-away")


class Sabotage:
    """What is wrong in this run; nothing when it has no name."""

    def __init__(self, name):
        assert name in NAMES, f"no sabotage {name!r}; there are {NAMES}"
        self._name = name
        self._former = None
        self._leaker = None
        if name in LEAKS:
            self._leaker = subprocess.Popen([sys.executable, "-c", _LEAKER], text=True, bufsize=1,
                                            stdin=subprocess.PIPE)

    def ledger(self):
        return _LEDGERS.get(self._name, Ledger)()

    def spoil(self, answer):
        """Spoils an answer, unless it belongs to the warm-up: a lane must come up."""
        former, self._former = self._former, answer
        if self._name in _SPOILERS and former and not answer.name.startswith("warm-"):
            _SPOILERS[self._name](answer, former)

    def census(self):
        return census({"leaker": self._leaker.pid}) if self._leaker else {}

    def after_round(self, chain):
        """What goes wrong once for each round or lap."""
        if self._leaker:
            self._leaker.stdin.write(self._name + "\n")
        if self._name == "stay-away":
            chain.supervisor.stop()
            self._name = ""
