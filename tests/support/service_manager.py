"""The service manager that starts a program, played by a test: the socket that takes its reports.

    with ServiceManager(folder / "notify") as manager:
        ... start a program with manager.environment() ...
        report = manager.expect("READY", "1")
"""

import contextlib
import socket
import time
from dataclasses import dataclass

from processes import PATIENCE_S


@dataclass
class Report:
    """One datagram: its assignments, and when it was read."""
    values: dict
    time: float


class ServiceManager:
    def __init__(self, path):
        self.path = str(path)
        self.reports = []  # all so far, in their order
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.bind(self.path)

    def environment(self, watchdog_s=None):
        """What a program is started with; `watchdog_s`: the longest time between two beats."""
        values = {"NOTIFY_SOCKET": self.path}
        if watchdog_s:
            values["WATCHDOG_USEC"] = str(int(watchdog_s * 1e6))
        return values

    def next(self, within=PATIENCE_S):
        self._socket.settimeout(max(within, 0.001))
        try:
            text = self._socket.recv(65536).decode()
        except TimeoutError:
            raise AssertionError(f"no report within {within:.1f} s; {self.reports=}") from None
        report = Report(dict(line.split("=", 1) for line in text.splitlines()), time.monotonic())
        self.reports.append(report)
        return report

    def expect(self, name, value=None, within=PATIENCE_S):
        """The next report that has `name`, with that value where one is given."""
        deadline = time.monotonic() + within
        while True:
            report = self.next(deadline - time.monotonic())
            if name in report.values and value in (None, report.values[name]):
                return report

    def fill(self):
        """Leaves no room for another report until one is read."""
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as stranger:
            stranger.setblocking(False)
            with contextlib.suppress(BlockingIOError):
                while True:
                    stranger.sendto(b"FILLER=1", self.path)

    def read_all(self):
        """Takes what has been sent until now."""
        try:
            while True:
                self.next(0.001)
        except AssertionError:
            return self.reports

    def names(self):
        """The names in all reports so far, in their order."""
        return [name for report in self.reports for name in report.values]

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._socket.close()
