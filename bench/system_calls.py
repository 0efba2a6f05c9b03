"""The system calls of one thread that works in turns: it waits for an event, then handles it.

    with Trace(thread_id, file) as trace:
        calls = trace.calls_for(action)

strace shows every call. Idle turns, whose wait ends without an event, are left out.
"""

import re
from dataclasses import dataclass
from pathlib import Path

from processes import Process, wait_until

_CALL = re.compile(r"^(\w+)\(.*\) += (-?\w+).* <(\d+\.\d+)>$", re.MULTILINE)
_WAITS = {"select", "pselect6", "poll", "ppoll", "epoll_wait", "epoll_pwait", "epoll_pwait2",
          "restart_syscall"}
_IDLE_S = 0.1  # an idle turn waits 0.2 s; a look at what is there already does not wait


@dataclass(frozen=True)
class Call:
    name: str
    result: str
    seconds: float

    @property
    def waits(self):
        return self.name in _WAITS

    @property
    def is_idle_wait(self):
        return self.waits and self.result == "0" and self.seconds > _IDLE_S


def parse(text):
    """The finished calls in strace's output for one thread, written with -T."""
    return [Call(name, result, float(seconds)) for name, result, seconds in _CALL.findall(text)]


def without_idle_turns(calls):
    """An idle turn lasts from a wait that brought nothing to the next wait."""
    kept, idle = [], False
    for call in calls:
        if call.waits:
            idle = call.is_idle_wait
        if not idle:
            kept.append(call)
    return kept


class Trace:
    """strace on one thread. Use it as a context manager."""

    def __init__(self, thread_id, file):
        self._file = Path(file)
        self._strace = Process("strace", "-T", "-s", "0", "-o", self._file, "-p", thread_id)

    def calls_for(self, action):
        """The calls that `action` causes: those until the thread is idle again."""
        self._wait_for_idle_turn()
        before = len(self._all_calls())
        action()
        self._wait_for_idle_turn()
        return without_idle_turns(self._all_calls()[before:])

    def _all_calls(self):
        return parse(self._file.read_text())

    def _wait_for_idle_turn(self):
        def idle_turns():
            return sum(call.is_idle_wait for call in self._all_calls())

        before = idle_turns()
        wait_until(lambda: idle_turns() > before, "the thread has an idle turn")

    def __enter__(self):
        self._strace.errors.wait_for("attached")
        return self

    def __exit__(self, *_):
        self._strace.stop()
