"""Programs under test: start them, read what they write, wait for a condition, stop them by pid.

Every wait has a deadline and says what it waited for when that passes. The programs stand in the
folder that the environment variable CRC_BIN names, by default build/release/bin.
"""

import contextlib
import os
import pty
import re
import signal
import subprocess
import sys
import termios
import threading
import time
from dataclasses import dataclass
from pathlib import Path

# Long enough for a sanitizer build on a loaded machine; no passing test waits for it to end.
PATIENCE_S = 20.0

_TREE = Path(__file__).resolve().parents[2]

_SANITIZER_REPORT = re.compile(
    r"ERROR: \w+Sanitizer|WARNING: ThreadSanitizer|SUMMARY: \w+Sanitizer|: runtime error: ")

_SIGNAL_TO_END = 63  # tests/coverage/at_end.c

# A small quarantine keeps the resident size of an address-sanitized program comparable over time.
_SANITIZER_ENVIRONMENT = {
    "ASAN_OPTIONS": "detect_leaks=1:quarantine_size_mb=4",
    "UBSAN_OPTIONS": "print_stacktrace=1",
}

# What every program is started with besides: tests/torture preloads a library with it.
ADDED_ENVIRONMENT = {}


def program(name):
    """Path of the built program `name`; fails when it has not been built."""
    folder = os.environ.get("CRC_BIN", _TREE / "build" / "release" / "bin")
    path = Path(folder).resolve() / name
    assert path.is_file(), f"{path} is missing: build first, or set CRC_BIN to the programs' folder"
    return str(path)


def wait_until(condition, what, timeout_s=PATIENCE_S):
    """Calls `condition` until it returns something true, and returns that."""
    deadline = time.monotonic() + timeout_s
    while True:
        result = condition()
        if result:
            return result
        assert time.monotonic() < deadline, f"not within {timeout_s} s: {what}"
        time.sleep(0.01)


def environment_of(extra=None):
    """The environment programs are started with: ours, sanitizer options, then `extra`."""
    return {**_SANITIZER_ENVIRONMENT, **os.environ, **ADDED_ENVIRONMENT, **(extra or {})}


def end_at_once(process, pid=None):
    """Ends a subprocess.Popen as a crash would, and waits for it.

    `pid`: the program itself, where `process` is a wrapper that ends with it. Programs of the build
    `coverage` answer _SIGNAL_TO_END: they write what ran, then kill themselves.
    """
    if os.environ.get("CRC_COVERAGE") and process.poll() is None:
        with contextlib.suppress(ProcessLookupError, subprocess.TimeoutExpired):
            os.kill(pid or process.pid, _SIGNAL_TO_END)
            process.wait(5)
    process.kill()
    process.wait()


def assert_no_sanitizer_report(text):
    assert not _SANITIZER_REPORT.search(text), f"a sanitizer reported:\n{text}"


class Output:
    """What a program writes to one stream, collected by a thread of its own until the stream ends.

    Safe to read from any thread. Bytes that are no UTF-8 show as backslash escapes.
    """

    def __init__(self, stream):
        self._stream = stream
        self._bytes = bytearray()
        self._ended = False
        self._changed = threading.Condition()
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    def _read(self):
        while True:
            chunk = os.read(self._stream.fileno(), 65536)
            with self._changed:
                self._bytes += chunk
                self._ended = not chunk
                self._changed.notify_all()
            if not chunk:
                return

    @property
    def text(self):
        with self._changed:
            return self._bytes.decode(errors="backslashreplace")

    @property
    def lines(self):
        """All text so far by line, without line ends; an unfinished last line is included."""
        return self.text.split("\n") if not self.text.endswith("\n") else self.text.split("\n")[:-1]

    def wait_for(self, pattern, timeout_s=PATIENCE_S, start=0):
        """Waits until the text from offset `start` on matches the regular expression `pattern`.

        Returns the match; its end() is the `start` for what must come later. Fails at once when the
        stream has ended without it.
        """
        expression = re.compile(pattern, re.MULTILINE)
        deadline = time.monotonic() + timeout_s
        with self._changed:
            while True:
                match = expression.search(self._bytes.decode(errors="backslashreplace"), start)
                if match:
                    return match
                left = deadline - time.monotonic()
                assert not self._ended and left > 0, (
                    f"no output like {pattern!r} " +
                    ("before the stream ended" if self._ended else f"within {timeout_s} s") +
                    f"; there was:\n{self._bytes.decode(errors='backslashreplace')}")
                self._changed.wait(left)

    def close(self):
        self._reader.join(PATIENCE_S)
        self._stream.close()


class Process:
    """A running program. Use it as a context manager, or call wait(), stop() or kill() in the end.

    However it ends, its standard error must hold no sanitizer report, and it may die of no signal
    but one that the test sent with send_signal(), stop() or kill(). As a context manager it must end
    with status 0, unless the test has asked for its status with wait() or stop().
    """

    def __init__(self, *arguments, environment=None, directory=None, user=None,
                 stdin=subprocess.DEVNULL):
        """`user`: a uid to run as (its groups are dropped), for tests that run as root."""
        identity = {} if user is None else {"user": user, "group": user, "extra_groups": []}
        self.arguments = [str(argument) for argument in arguments]
        self.is_finished = False  # whether its end has been looked at
        self._signals_sent = set()
        self._popen = subprocess.Popen(
            self.arguments, stdin=stdin, stdout=subprocess.PIPE,
            stderr=subprocess.PIPE, env=environment_of(environment), cwd=directory, **identity)
        self.pid = self._popen.pid
        self.output = Output(self._popen.stdout)
        self.errors = Output(self._popen.stderr)

    @property
    def status(self):
        """Exit status, the negative signal number after a death by signal, None while it runs."""
        return self._popen.poll()

    def send_signal(self, number):
        self._signals_sent.add(number)
        self._popen.send_signal(number)

    def wait(self, timeout_s=PATIENCE_S):
        """Waits for the program to end by itself and returns its exit status."""
        try:
            self._popen.wait(timeout_s)
        except subprocess.TimeoutExpired:
            self.put_away()
            raise AssertionError(f"{self.arguments} did not end within {timeout_s} s") from None
        self._finish()
        return self._popen.returncode

    def stop(self, number=signal.SIGTERM, timeout_s=PATIENCE_S):
        """Asks the program to end, unless it has ended already; returns its exit status."""
        if self._popen.poll() is None:
            self.send_signal(number)
        return self.wait(timeout_s)

    def kill(self):
        """Ends the program at once, as a crash would. It must still run."""
        assert self.status is None, f"{self._ended()} before it was killed"
        self._signals_sent |= {signal.SIGKILL, _SIGNAL_TO_END}
        end_at_once(self._popen)
        self._finish()

    def put_away(self):
        """Ends the program, however far it is; for what has failed, or was killed from outside."""
        end_at_once(self._popen)
        self._read_to_end()

    def finish(self):
        """Stops the program unless its end has been looked at; it must end with status 0."""
        if not self.is_finished:
            status = self.stop()
            assert status == 0, self._ended()

    def _finish(self):
        self._read_to_end()
        status = self._popen.returncode
        assert status >= 0 or -status in self._signals_sent, self._ended()

    def _read_to_end(self):
        self.is_finished = True
        self.output.close()
        self.errors.close()
        assert_no_sanitizer_report(self.errors.text)

    def _ended(self):
        status = self._popen.returncode
        how = f"died of signal {-status}" if status < 0 else f"ended with status {status}"
        return f"{self.arguments} {how}:\n{self.errors.text}"

    def __enter__(self):
        return self

    def __exit__(self, kind, value, trace):
        if kind is None:
            self.finish()
        elif not self.is_finished:
            self.put_away()

    def resident_kib(self):
        status = Path(f"/proc/{self.pid}/status").read_text()
        return int(re.search(r"^VmRSS:\s+(\d+) kB", status, re.MULTILINE).group(1))

    def processor_time_s(self):
        """Time on a processor so far, in user and kernel mode."""
        fields = Path(f"/proc/{self.pid}/stat").read_text().rpartition(")")[2].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def descriptor_count(self):
        return len(os.listdir(f"/proc/{self.pid}/fd"))

    def listener_count(self):
        """On how many TCP ports it listens; 0 once it has ended."""
        listening = "0A"
        folder = Path(f"/proc/{self.pid}")
        try:
            links = {os.readlink(entry) for entry in (folder / "fd").iterdir()}
            rows = [row.split() for row in (folder / "net/tcp").read_text().splitlines()[1:]]
        except (FileNotFoundError, ProcessLookupError):
            return 0
        return sum(row[3] == listening and f"socket:[{row[9]}]" in links for row in rows)


@dataclass
class Finished:
    """What a program that has ended left behind."""
    status: int
    output: str
    errors: str


def run(*arguments, timeout_s=PATIENCE_S, environment=None, directory=None):
    """Runs a program to its end. It must end in time, by itself and without sanitizer report."""
    with Process(*arguments, environment=environment, directory=directory) as process:
        status = process.wait(timeout_s)
    return Finished(status, process.output.text, process.errors.text)


def run_on_terminal(*arguments, timeout_s=PATIENCE_S):
    """Like run(), with a pseudo terminal as all three streams; `output` holds what it shows."""
    master, slave = pty.openpty()
    modes = termios.tcgetattr(slave)
    modes[1] &= ~termios.OPOST  # show the program's own bytes, "\n" not turned into "\r\n"
    termios.tcsetattr(slave, termios.TCSANOW, modes)
    child = subprocess.Popen([str(argument) for argument in arguments], stdin=slave, stdout=slave,
                             stderr=slave, env=environment_of(), start_new_session=True)
    os.close(slave)
    shown = bytearray()
    reader = threading.Thread(target=_read_terminal, args=(master, shown), daemon=True)
    reader.start()
    try:
        status = child.wait(timeout_s)
    except subprocess.TimeoutExpired:
        child.kill()
        child.wait()
        raise AssertionError(f"{child.args} did not end within {timeout_s} s") from None
    finally:
        reader.join(PATIENCE_S)
        os.close(master)
    text = shown.decode(errors="backslashreplace")
    assert_no_sanitizer_report(text)
    assert status >= 0, f"{child.args} died of signal {-status}:\n{text}"
    return Finished(status, text, "")


def _read_terminal(master, shown):
    while True:
        try:
            chunk = os.read(master, 65536)
        except OSError:  # how Linux says that the last user of the terminal has closed it
            return
        if not chunk:
            return
        shown += chunk


def is_sanitized(path):
    """Whether the program at `path` is built with a sanitizer that replaces the allocator."""
    code = Path(path).read_bytes()
    return b"__asan_init" in code or b"__tsan_init" in code


def can_change_user():
    """Whether programs can be run as another user: as root, and not in a namespace without one."""
    mapped = Path("/proc/self/uid_map").read_text().split()
    return os.geteuid() == 0 and int(mapped[2]) > 1


def run_python_as(uid, code, *arguments, pass_fds=()):
    """Runs Python `code` in a child of another user; for tests that run as root."""
    return subprocess.run([sys.executable, "-c", code, *arguments], user=uid, group=uid,
                          extra_groups=[], pass_fds=pass_fds, check=True, timeout=PATIENCE_S)
