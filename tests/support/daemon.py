"""The program under test: starting it, calling it, reading its log, and looking at its process."""

import functools
import json
import os
import re
import resource
import shutil
import signal
import socket
import struct
import subprocess
import tempfile
import time
from dataclasses import dataclass
from pathlib import Path

import pytest

from daemon_log import Log
from processes import (ADDED_ENVIRONMENT, PATIENCE_S, assert_no_sanitizer_report, end_at_once,
                       program, run, wait_until)
from router import BUS_SOCKET
from suite_rules import of_this_build

DAEMON = "cloud_relay_client"
OBJECT = "cloud_relayc"

SYSTEM_PATH = "/usr/sbin:/usr/bin:/sbin:/bin"


@functools.cache
def build():
    """"plain", "address" or "thread" (sanitizers), "coverage", or "valgrind"."""
    if os.environ.get("CRC_VALGRIND"):
        return "valgrind"
    code = Path(program(DAEMON)).read_bytes()
    for marker, kind in ((b"__asan_init", "address"), (b"__tsan_init", "thread"),
                         (b"coverage_write_and_die", "coverage")):
        if marker in code:
            return kind
    return "plain"


def slowness():
    """By how much upper limits of time are stretched: for what this build costs, and while this
    machine has more to run than processors to run it on."""
    crowd = os.getloadavg()[0] / os.cpu_count()
    return build_cost() * max(1, crowd)


def build_cost():
    """By how much limits of processor time are stretched for what this build costs."""
    return {"plain": 1, "address": 2, "coverage": 2, "thread": 3, "valgrind": 8}[build()]


# --- calling it ------------------------------------------------------------------------------

_STATUS_TEXTS = {
    "Invalid command": 1, "Invalid argument": 2, "Method not found": 3, "Not found": 4,
    "No response": 5, "Permission denied": 6, "Request timed out": 7,
    "Operation not supported": 8, "Unknown error": 9, "Connection failed": 10,
    "Out of memory": 11, "Parsing message data failed": 12, "System error": 13,
}


@dataclass
class Answer:
    """What a method call brought: the status as the tool names it, and how long it took."""
    status: int
    seconds: float
    output: str


def _status_of(finished):
    if finished.status == 0:
        return 0
    match = re.match(r"Command failed: .*?\(?(?:Unknown error: (-?\d+)|([A-Z][a-z ]+))\)?$",
                     finished.errors, re.MULTILINE)
    assert match, f"the tool said:\n{finished.errors}"
    return int(match[1]) if match[1] else _STATUS_TEXTS[match[2]]


def children_of(process_id):
    """Process ids of the children of all its threads, zombies included."""
    tasks = Path(f"/proc/{process_id}/task").iterdir()
    return [int(child) for task in tasks for child in (task / "children").read_text().split()]


class Daemon:
    """The program under test. start() it, and finish() it in the end."""

    def __init__(self):
        self._folder = Path(tempfile.mkdtemp(prefix="daemon.", dir="/tmp"))
        self._process = None
        self._counts_own_blocks = False
        self.log = None

    # --- life ---

    def start(self, path=None, keeps_writes=False, uptime_s=None, clock_moves=False):
        """Starts the daemon with a pipe as standard output and does not wait for anything.

        `path`: the PATH it runs with, after the folder of the built programs.
        `keeps_writes`: has log.writes hold exactly what each write wrote.
        `uptime_s`: what the monotonic clock shows it at first, instead of the machine's own.
        `clock_moves`: lets move_clock() put its monotonic clock ahead.
        """
        if keeps_writes:
            ours, theirs = (end.detach() for end in
                            socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET))
        else:
            ours, theirs = os.pipe()
        folder = Path(program(DAEMON)).parent
        self._counts_own_blocks = bool(ADDED_ENVIRONMENT)
        with open(self._folder / "stderr", "ab") as errors:
            self._process = subprocess.Popen(
                [*self._wrappers(uptime_s), *self._command()], stdin=subprocess.DEVNULL,
                stdout=theirs, stderr=errors, cwd="/", env={
                    "PATH": f"{folder}:{path or SYSTEM_PATH}", "TMPDIR": str(self._folder),
                    **self._sanitizer_options(), **ADDED_ENVIRONMENT,
                    **(self._moved_clock() if clock_moves else {})})
        os.close(theirs)
        self.log = Log(ours)
        self.pid = self._process.pid
        if uptime_s is not None:
            self.pid = wait_until(lambda: children_of(self.pid), "the wrapper has a child")[0]
        return self

    def _wrappers(self, uptime_s):
        # It dies with the tests, however those end. This wrapper becomes the daemon...
        wrappers = [shutil.which("setpriv"), "--pdeathsig", "KILL"]
        if uptime_s is not None:  # ... and this one stays its parent.
            wrappers += [shutil.which("unshare"), "--time", "--fork", "--kill-child",
                         "--monotonic", str(int(uptime_s - time.monotonic()))]
        return wrappers

    def _command(self):
        if build() != "valgrind":
            return [program(DAEMON)]
        return [shutil.which("valgrind"), "--vgdb=yes", f"--vgdb-prefix={self._folder}/vgdb",
                f"--log-file={self._folder}/valgrind", "--num-callers=30", "--track-fds=no",
                program(DAEMON)]

    def _sanitizer_options(self):
        report = f"log_path={self._folder}/sanitizer"
        # The library of the moved clock may come before the sanitizer's own.
        memory = f"{report}:quarantine_size_mb=4:verify_asan_link_order=0"
        return {"ASAN_OPTIONS": memory, "TSAN_OPTIONS": report,
                "UBSAN_OPTIONS": f"{report}:print_stacktrace=1"}

    def _moved_clock(self):
        self._clock = self._folder / "clock"
        self._clock.write_bytes(bytes(8))
        return {"LD_PRELOAD": program("moved_clock.so"), "MOVED_CLOCK": str(self._clock)}

    def move_clock(self, seconds):
        """Puts the daemon's monotonic clock that much ahead of the machine's."""
        with open(self._clock, "r+b") as clock:  # in place: the daemon has it mapped
            clock.write(struct.pack("=q", seconds))

    def wait_for_object(self):
        """Waits until the daemon can be called on the bus."""
        wait_until(self._object_listed, "the daemon is on the bus", PATIENCE_S * slowness())
        return self

    def _object_listed(self):
        assert self.alive, f"the daemon has ended:\n{self.errors}"
        assert not self.log.find(re.compile("call ubus_init.. failed")), self.log.shown()
        return run(program("ubus"), "-s", BUS_SOCKET, "list", OBJECT).status == 0

    @property
    def alive(self):
        return self._process.poll() is None

    def signal(self, number):
        self._process.send_signal(number)

    def finish(self):
        """Ends the daemon; it must still be there, with nothing wrong found by its checkers."""
        if self._process is None:
            shutil.rmtree(self._folder)
            return
        try:
            assert self.alive, f"the daemon has ended with {self._process.returncode}"
            if build() == "valgrind":
                self._check_with_valgrind()
            # A library that is preloaded to fail calls counts blocks by itself.
            if build() == "address" and not self._counts_own_blocks:
                self._look_for_leaks()
        finally:
            self._end()
            self._assert_clean()
            shutil.rmtree(self._folder)

    def kill(self):
        """Ends the daemon as a crash would; start() starts another. It must still run."""
        assert self.alive, f"the daemon has ended with {self._process.returncode}:\n{self.errors}"
        self._end()

    def _end(self):
        end_at_once(self._process, self.pid)
        if self.log is not None:  # an interrupted start() has none yet
            self.log.wait_for_end()

    # The daemon never ends by itself, so its checkers are asked while it runs.

    def _look_for_leaks(self):
        wait_until(self._leak_looks, "it can look for leaks")
        looks = self._leak_looks()
        os.kill(self.pid, signal.SIGUSR2)
        wait_until(lambda: self._leak_looks() != looks, "it looks for leaks")

    def _leak_looks(self):
        """The name of the thread of tests/support/leaks_on_request.cpp, which counts its looks."""
        return [name for name in self.threads() if name.startswith("leak looks")]

    def _check_with_valgrind(self):
        errors = self._ask_valgrind("v.info", "n_errs_found")
        assert re.search(r"n_errs_found 0\b", errors), self._valgrind_log()
        leaks = self._ask_valgrind("leak_check", "full", "definite", "any")
        assert re.search(r"definitely lost: 0 bytes|All heap blocks were freed", leaks), leaks

    def _ask_valgrind(self, *command):
        return subprocess.run(
            ["vgdb", f"--pid={self.pid}", f"--vgdb-prefix={self._folder}/vgdb", *command],
            check=True, capture_output=True, text=True, timeout=120).stdout

    def _valgrind_log(self):
        return (self._folder / "valgrind").read_text()

    def _assert_clean(self):
        for report in [self._folder / "stderr", *self._folder.glob("sanitizer*")]:
            assert_no_sanitizer_report(report.read_text(errors="backslashreplace"))

    @property
    def errors(self):
        """What the daemon has written to standard error, over all its starts."""
        return (self._folder / "stderr").read_text(errors="backslashreplace")

    # --- verbs on the bus ---

    def call(self, method, message=None):
        arguments = [] if message is None else [json.dumps(message)]
        started = time.monotonic()
        finished = run(program("ubus"), "-s", BUS_SOCKET, "-t", 60, "call", OBJECT, method,
                       *arguments, timeout_s=PATIENCE_S * slowness())
        return Answer(_status_of(finished), time.monotonic() - started,
                      finished.output + finished.errors)

    def reload(self, address, port):
        return self.call("reload", {"address": address, "port": port})

    def open_session(self, relay, name=None):
        """Has the daemon connect to `relay`, by `name` or by address; returns the idle session."""
        assert self.reload(name or relay.address, relay.port).status == 0
        return relay.accept().welcome()

    def stop(self):
        return self.call("stop")

    def dbg(self):
        return self.call("dbg")

    # --- what the kernel knows about it ---

    def _proc(self, name):
        return Path(f"/proc/{self.pid}/{name}")

    def threads(self):
        """Names of its threads, sorted."""
        names = []
        for task in self._proc("task").iterdir():
            try:
                names.append((task / "comm").read_text().strip())
            except (FileNotFoundError, ProcessLookupError):
                pass  # it ended meanwhile
        return sorted(names)

    def descriptors(self):
        """Its open descriptors: number to what it is."""
        found = {}
        for entry in self._proc("fd").iterdir():
            try:
                found[int(entry.name)] = os.readlink(entry)
            except FileNotFoundError:
                pass  # closed meanwhile
        return found

    def children(self):
        """Process ids of its children, zombies included."""
        return children_of(self.pid)

    def _status_kib(self, field):
        status = self._proc("status").read_text()
        return int(re.search(rf"^{field}:\s+(\d+) kB", status, re.MULTILINE)[1])

    def resident_kib(self):
        return self._status_kib("VmRSS")

    def peak_resident_kib(self):
        return self._status_kib("VmHWM")

    def limit_address_space(self, more_kib):
        """Lets it have that much more address space than it has now."""
        limit = (self._status_kib("VmSize") + more_kib) * 1024
        resource.prlimit(self.pid, resource.RLIMIT_AS, (limit, resource.RLIM_INFINITY))

    def lift_address_space_limit(self):
        resource.prlimit(self.pid, resource.RLIMIT_AS,
                         (resource.RLIM_INFINITY, resource.RLIM_INFINITY))

    def limit_descriptors(self, count):
        """Not under valgrind: it keeps descriptors of its own right above the program's limit."""
        if build() == "valgrind":
            pytest.skip(of_this_build("valgrind does not bear a limit changed from outside"))
        _, hard = resource.prlimit(self.pid, resource.RLIMIT_NOFILE)
        resource.prlimit(self.pid, resource.RLIMIT_NOFILE, (count, hard))

    def unsent_bytes(self):
        """Bytes that its TCP connections have not got rid of."""
        return sum(int(queues[0], 16) for queues in self._tcp_queues())

    def unread_bytes(self):
        """Bytes on its TCP connections that it has not read."""
        return sum(int(queues[1], 16) for queues in self._tcp_queues())

    def _tcp_queues(self):
        inodes = {what[len("socket:["):-1] for what in self.descriptors().values()
                  if what.startswith("socket:[")}
        rows = [row.split() for row in self._proc("net/tcp").read_text().splitlines()[1:]]
        return [row[4].split(":") for row in rows if row[9] in inodes]

    def cpu_seconds(self):
        """Processor time of all its threads, from the scheduler's nanoseconds."""
        return sum(int((task / "schedstat").read_text().split()[0])
                   for task in self._proc("task").iterdir()) / 1e9

    def wakeups(self):
        """How often its threads have gone to sleep of their own accord."""
        total = 0
        for task in self._proc("task").iterdir():
            status = (task / "status").read_text()
            total += int(re.search(r"^voluntary_ctxt_switches:\s+(\d+)", status, re.MULTILINE)[1])
        return total
