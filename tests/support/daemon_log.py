"""The daemon's log as it arrives: every line with its parts and the time at which it came."""

import bisect
import os
import re
import select
import threading
import time
from dataclasses import dataclass

from processes import PATIENCE_S

MODULE = "cloud_relay_client"

_LOG_LINE = re.compile(
    rb"\x1b\[(?P<colour>31|33);49m"
    rb"\[<cloud_relay_client/(?P<thread>[^>]*)>"
    rb":<cloud_relay_client/(?P<function>\w+)\(\)/(?P<line>\d+)>\] "
    rb"(?P<text>(?:(?!\x1b\[3[13];49m).)*?)"
    rb"\x1b\[0m\r\n", re.DOTALL)

_LEVELS = {b"31": "error", b"33": "info"}


@dataclass
class Entry:
    """One line of the log. Lines that the daemon prints plainly have only `text` and `raw`."""
    text: str             # the message, without line ends and blanks at its end
    raw: bytes            # all bytes of the line
    at: float             # time.monotonic() of its arrival
    level: str | None = None
    thread: str | None = None
    function: str | None = None


def _matches(entry, wanted):
    if isinstance(wanted, re.Pattern):
        return wanted.search(entry.text)
    return entry.text == wanted


class Log:
    """Collects what comes out of `descriptor` on a thread of its own, until it ends.

    expect() reads on from the line that it found last, so that a row of calls states an order;
    find() and count() look at everything that came since mark().
    """

    def __init__(self, descriptor):
        self._descriptor = descriptor
        self._changed = threading.Condition()
        self._bytes = bytearray()
        self._arrivals = []      # (number of bytes there were, when)
        self._entries = []
        self._parsed = 0         # bytes that are in _entries
        self._next_expected = 0
        self._ended = False
        self._closing = os.eventfd(0)
        self._may_read = threading.Event()
        self._may_read.set()
        self.writes = []         # bytes of each read; each write, when the descriptor keeps them
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    def _read(self):
        try:
            while self._take_in(self._next_bytes()):
                pass
        finally:
            os.close(self._descriptor)
            os.close(self._closing)

    def _next_bytes(self):
        """Waits for more; nothing when the writers are gone or the log is being closed."""
        self._may_read.wait()
        ready, _, _ = select.select([self._descriptor, self._closing], [], [])
        if self._closing in ready:
            return b""
        try:
            return os.read(self._descriptor, 65536)
        except OSError:  # how a terminal says that its last user is gone
            return b""

    def _take_in(self, data):
        with self._changed:
            self._bytes += data
            self.writes.append(data)
            self._arrivals.append((len(self._bytes), time.monotonic()))
            self._ended = not data
            self._parse()
            self._changed.notify_all()
        return data

    def _parse(self):
        while (entry := self._next_entry()) is not None:
            self._entries.append(entry)
            self._parsed += len(entry.raw)

    def _next_entry(self):
        rest = bytes(self._bytes[self._parsed:])
        match = _LOG_LINE.match(rest)
        if match:
            return Entry(match["text"].decode(errors="backslashreplace").rstrip(),
                         match[0], self._arrival_of(self._parsed + match.end()),
                         _LEVELS[match["colour"]], match["thread"].decode(),
                         match["function"].decode())
        if rest.startswith(b"\x1b[3") and b"\x1b[0m\r\n" not in rest:
            return None  # a line whose end is still to come
        end = rest.find(b"\n") + 1
        if end == 0:
            return None
        raw = rest[:end]
        return Entry(raw.decode(errors="backslashreplace").rstrip("\r\n"), raw,
                     self._arrival_of(self._parsed + end))

    def _arrival_of(self, offset):
        """When the byte before `offset` came."""
        return self._arrivals[bisect.bisect_left(self._arrivals, (offset,))][1]

    @property
    def raw(self):
        """Every byte so far."""
        with self._changed:
            return bytes(self._bytes)

    @property
    def entries(self):
        with self._changed:
            return list(self._entries)

    def expect(self, wanted, within=PATIENCE_S):
        """Waits for the next line that is `wanted`, a text or a compiled expression."""
        deadline = time.monotonic() + within
        with self._changed:
            start = position = self._next_expected
            while True:
                while position < len(self._entries):
                    entry = self._entries[position]
                    position += 1
                    if _matches(entry, wanted):
                        self._next_expected = position
                        return entry
                left = deadline - time.monotonic()
                if self._ended or left <= 0:
                    raise AssertionError(
                        f"no log line {wanted!r} " +
                        ("before the log ended" if self._ended else f"within {within} s") +
                        "; there was:\n" + _shown(self._entries[start:]))
                self._changed.wait(left)

    def expect_all(self, *wanted, within=PATIENCE_S):
        """Waits for each of the lines, in this order; other lines may stand between them."""
        return [self.expect(text, within) for text in wanted]

    def expect_nothing_for(self, seconds):
        """No line at all comes for that long."""
        deadline = time.monotonic() + seconds
        with self._changed:
            start = len(self._entries)
            while (left := deadline - time.monotonic()) > 0:
                self._changed.wait(left)
                assert len(self._entries) == start, "there came:\n" + _shown(self._entries[start:])

    def mark(self):
        """A place in the log, for find() and count(); expect() goes on from here as well."""
        with self._changed:
            self._next_expected = len(self._entries)
            return len(self._entries)

    def find(self, wanted, since=0):
        """All lines since a mark that are `wanted`."""
        with self._changed:
            return [entry for entry in self._entries[since:] if _matches(entry, wanted)]

    def count(self, wanted, since=0):
        return len(self.find(wanted, since))

    def errors(self, since=0):
        """The texts of all error lines since a mark."""
        with self._changed:
            return [entry.text for entry in self._entries[since:] if entry.level == "error"]

    def close(self):
        """Stops reading, as when the reader of a pipe goes away."""
        with self._changed:
            if not self._ended:  # then the reader still holds its descriptors
                os.eventfd_write(self._closing, 1)
        self._reader.join(PATIENCE_S)

    def stop_reading(self):
        """Leaves what comes from now on unread, after one read more."""
        self._may_read.clear()

    def go_on_reading(self):
        self._may_read.set()

    def wait_for_end(self, within=PATIENCE_S):
        """Waits until all writers are gone and everything has been read."""
        self._reader.join(within)

    def shown(self):
        """The log for a failure report."""
        return _shown(self.entries)


def _shown(entries):
    if not entries:
        return "(nothing)"
    first = entries[0].at
    return "\n".join(
        f"{entry.at - first:8.3f} {(entry.level or '')[:1]:1} {entry.thread or '':11} "
        f"{entry.function or ''}: {entry.text}" for entry in entries)
