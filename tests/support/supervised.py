"""The supervisor under test: its configuration, its process, its log and what it says of itself."""

import glob
import json
import os
import re
import shutil
import subprocess
import tempfile
import time
from pathlib import Path

from daemon import slowness
from daemon_log import Log
from processes import (ADDED_ENVIRONMENT, PATIENCE_S, assert_no_sanitizer_report, end_at_once,
                       program, run, wait_until)
from router import BUS_SOCKET

# Short, so that tests are: what is not under test must not be waited for.
QUICK = {"boot_delay": "0", "pause_min": "0.05", "pause_max": "0.2", "connect_interval": "0"}


def configuration(servers, **options):
    """The text of /etc/config/cloud_relay: `servers` are texts or relays; QUICK unless told."""
    texts = [server if isinstance(server, str) else f"{server.address}:{server.port}"
             for server in servers]
    lines = [f"\tlist server '{text}'" for text in texts]
    lines += [f"\toption {name} '{value}'" for name, value in {**QUICK, **options}.items()]
    return "\n".join(["config supervisor 'supervisor'", *lines, ""])


class Pauses:
    """Foretells what a supervisor with that seed draws."""

    _MASK = (1 << 64) - 1

    def __init__(self, seed):
        self._state = seed

    def draw(self, most_ms):
        self._state = (self._state + 0x9E3779B97F4A7C15) & self._MASK
        number = self._state
        number = (number ^ (number >> 30)) * 0xBF58476D1CE4E5B9 & self._MASK
        number = (number ^ (number >> 27)) * 0x94D049BB133111EB & self._MASK
        return (number ^ (number >> 31)) % (most_ms + 1)

    def backoff(self, min_ms, max_ms, count):
        """The first `count` pauses after the delay at boot was drawn."""
        ceilings = [min(min_ms << number, max_ms) for number in range(count)]
        return [self.draw(ceiling) for ceiling in ceilings]


class Supervisor:
    """The supervisor of one router. configure() and start() it, and finish() it in the end."""

    def __init__(self, router):
        self._router = router
        self._folder = tempfile.mkdtemp(prefix="supervisor.", dir="/tmp")
        self._process = None
        self.log = None

    # --- life ---

    def configure(self, *servers, **options):
        self._router.configure("cloud_relay", configuration(servers, **options))
        return self

    def start(self, seed=None):
        ours, theirs = os.pipe()
        report = f"log_path={self._folder}/sanitizer"
        environment = {"PATH": "/usr/bin:/bin", "ASAN_OPTIONS": report, "TSAN_OPTIONS": report,
                       "UBSAN_OPTIONS": f"{report}:print_stacktrace=1", **ADDED_ENVIRONMENT}
        if seed is not None:
            environment["CLOUD_RELAY_SUPERVISOR_SEED"] = str(seed)
        self._process = subprocess.Popen(
            [shutil.which("setpriv"), "--pdeathsig", "KILL", program("cloud_relay_supervisor")],
            stdin=subprocess.DEVNULL, stdout=theirs, stderr=theirs, cwd="/", env=environment,
            process_group=0)  # a terminal's Ctrl-C is ours alone
        os.close(theirs)
        self.log = Log(ours)
        self.pid = self._process.pid
        return self

    def stop(self):
        """Asks it to end, as procd does."""
        self._process.terminate()
        assert self._process.wait(PATIENCE_S) == 0
        self.log.wait_for_end()
        self._process = None

    def finish(self):
        try:
            if self._process is not None:
                assert self._process.poll() is None, "the supervisor has ended"
                self.stop()
        finally:
            if self._process is not None:
                end_at_once(self._process)
            for report in glob.glob(f"{self._folder}/sanitizer*"):
                assert_no_sanitizer_report(Path(report).read_text(errors="backslashreplace"))
            shutil.rmtree(self._folder)

    # --- on the bus ---

    def call(self, method, message=None):
        """Calls a method of it and returns how the tool ended."""
        arguments = [] if message is None else [json.dumps(message)]
        return run(program("ubus"), "-s", BUS_SOCKET, "call", "cloud_relay", method, *arguments)

    def must(self, method, message=None):
        finished = self.call(method, message)
        assert finished.status == 0, finished.errors
        return finished

    def status(self):
        return json.loads(self.must("status").output)

    def is_on_bus(self):
        return run(program("ubus"), "-s", BUS_SOCKET, "list", "cloud_relay").status == 0

    def wait_for_object(self):
        wait_until(self.is_on_bus, "the supervisor is on the bus", PATIENCE_S * slowness())
        return self

    def wait_for(self, state, within=PATIENCE_S):
        """Waits until it is in that state; returns its status then."""
        seen = []

        def reached():
            seen[:] = [self.status()]
            return seen[0]["state"] == state

        try:
            wait_until(reached, f"the supervisor is {state}", within * slowness())
        except AssertionError:
            raise AssertionError(f"not {state}, but {seen}; its log:\n{self.log.shown()}") from None
        return seen[0]

    # --- what the kernel knows about it ---

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.pid}/fd"))

    def _private_kib(self, kinds):
        text = Path(f"/proc/{self.pid}/smaps_rollup").read_text()
        return sum(int(size) for size in re.findall(rf"^Private_(?:{kinds}):\s+(\d+) kB", text,
                                                    re.MULTILINE))

    def private_kib(self):
        """What the machine would have more without it, its code included if it is the only one."""
        return self._private_kib("Clean|Dirty")

    def written_kib(self):
        """Memory that it has written to."""
        return self._private_kib("Dirty")

    def cpu_seconds(self):
        return int(Path(f"/proc/{self.pid}/schedstat").read_text().split()[0]) / 1e9


def reloads(daemon, since=0):
    """How often the daemon was told to begin a session."""
    return daemon.log.count("[CRC:] Start cloudRelayClient task.", since)


def stays(condition, what, seconds):
    """The condition holds for that long."""
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        assert condition(), f"no longer: {what}"
        time.sleep(0.05)
