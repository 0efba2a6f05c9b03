"""Runs a room's test program in batches: some tests of one suite in one process.

A process for each test, as ctest has it, costs a sanitized program four times the processor time.
Each batch runs in a process namespace of its own: a mutant of a call of kill() may name every
process there is. It also takes along whatever a test leaves running.
"""

import json
import os
import re
import signal
import subprocess
import time
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass

_BATCH_TESTS = 30
_BATCH_S = 3.0

# A batch gets five times what it took on the unchanged program, and what a loaded machine may add.
_TIMES_CLEAN = 5.0
_SPARE_S = 10.0
_CLEAN_LIMIT_S = 600.0
# Of processor time: what spins for ever is ended early.
_CPU_TIMES_CLEAN = 2.0
_CPU_SPARE_S = 3
_STATUS_OF_CPU_LIMIT = 128 + signal.SIGXCPU

_CONTAINED = ["unshare", "--pid", "--fork", "--kill-child", "--mount-proc", "--",
              "sh", "-c", '"$@"; exit $?', "sh"]

_ENVIRONMENT = {
    **os.environ,
    # A mutant that allocates without end must not take the machine's memory.
    "ASAN_OPTIONS": "detect_leaks=1:hard_rss_limit_mb=2000:allocator_may_return_null=1",
}

PASSED, FAILED, TIMED_OUT, CALLED_OFF = "passed", "failed", "timed out", "called off"
_LOOK_S = 0.05


def _run(program, tests, into, limits, is_wanted=lambda: True):
    """(result, seconds, the tests that failed). `into`: a file for what the program prints."""
    start = time.monotonic()
    limit_s, cpu_s = limits
    with open(into, "w+b") as output:
        process = subprocess.Popen(
            [*_CONTAINED, "prlimit", f"--cpu={cpu_s}", program,
             f"--gtest_filter={':'.join(tests)}", "--gtest_fail_fast"],
            cwd=into.parent, env=_ENVIRONMENT, stdin=subprocess.DEVNULL, stdout=output,
            stderr=subprocess.DEVNULL, start_new_session=True)
        result = _wait(process, start + limit_s, is_wanted)
        output.seek(0)
        text = output.read().decode(errors="replace")
    into.unlink()
    return result, time.monotonic() - start, _failed(text) or tests


def _wait(process, deadline, is_wanted):
    while True:
        try:
            status = process.wait(_LOOK_S)
            return {0: PASSED, _STATUS_OF_CPU_LIMIT: TIMED_OUT}.get(status, FAILED)
        except subprocess.TimeoutExpired:
            is_late = time.monotonic() > deadline
            if is_late or not is_wanted():
                os.killpg(process.pid, signal.SIGKILL)  # all below unshare goes with it
                process.wait()
                return TIMED_OUT if is_late else CALLED_OFF


def _failed(text):
    """The test that failed, or had begun and not ended; none when there was a leak at the end."""
    ended = set(re.findall(r"^\[ +(?:OK|SKIPPED) \] ([^\s,]+)", text, re.MULTILINE))
    begun = re.findall(r"^\[ RUN      \] (\S+)", text, re.MULTILINE)
    return [test for test in begun if test not in ended][:1]


@dataclass
class _Batch:
    suite: str
    tests: list
    planned_s: float      # in one process with all others
    seconds: float = 0.0  # beside other batches


class Room:
    """A room's tests, and how long they take on the unchanged program."""

    def __init__(self, name, program, folder):
        self.name = name
        self._program = program
        self._folder = folder  # for files, this room's alone
        folder.mkdir(parents=True, exist_ok=True)
        self._batches = []

    def plan(self):
        """Runs every test once and makes batches. Returns what fails; it judges no mutant."""
        report = self._folder / "times.json"
        report.unlink(missing_ok=True)
        subprocess.run([*_CONTAINED, self._program, f"--gtest_output=json:{report}"],
                       cwd=self._folder, env=_ENVIRONMENT, stdin=subprocess.DEVNULL,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=False,
                       timeout=_CLEAN_LIMIT_S)
        failed = []
        for suite in json.loads(report.read_text())["testsuites"]:
            for test in suite["testsuite"]:
                if "failures" in test:
                    failed.append(f"{suite['name']}.{test['name']}")
                else:
                    self._add(suite["name"], test)
        return failed

    def _add(self, suite, test):
        name, seconds = f"{suite}.{test['name']}", float(test["time"].rstrip("s"))
        last = self._batches[-1] if self._batches else None
        if (last is None or last.suite != suite or len(last.tests) == _BATCH_TESTS
                or last.planned_s + seconds > _BATCH_S):
            self._batches.append(_Batch(suite, [name], seconds))
        else:
            last.tests.append(name)
            last.planned_s += seconds

    def check_batches(self, jobs):
        """Runs them side by side, as mutants will. Returns what fails; it judges no mutant."""
        with ThreadPoolExecutor(jobs) as pool:
            results = list(pool.map(self._run_clean, self._batches))
        failed = []
        for batch, (result, seconds, tests) in zip(self._batches, results):
            batch.seconds = seconds
            if result != PASSED:
                failed += tests
                batch.tests = [test for test in batch.tests if test not in tests]
        self._batches = [batch for batch in self._batches if batch.tests]
        return failed

    def _run_clean(self, batch, tests=None):
        into = self._folder / f"clean{id(batch)}.{time.monotonic_ns()}"
        return _run(self._program, tests or batch.tests, into, self._limits(batch))

    def _limits(self, batch):
        """Seconds by the clock and on the processor."""
        return (_TIMES_CLEAN * max(batch.seconds, batch.planned_s) + _SPARE_S,
                int(_CPU_TIMES_CLEAN * batch.planned_s) + _CPU_SPARE_S)

    def killer(self, program, suites, folder, jobs):
        """(test, how) of the first test that sees the mutant; (None, None) when it survives.

        The module's own suites run first, quick ones before slow ones.
        """
        def order(batch):
            return batch.suite.split("/")[-1] not in suites, batch.seconds

        found = []

        def run(batch):
            if not found:
                result, tests = self._verdict(program, batch, folder, lambda: not found)
                if result in (FAILED, TIMED_OUT):
                    found.append((" or ".join(tests) if len(tests) < 3 else batch.suite, result))

        with ThreadPoolExecutor(jobs) as pool:
            list(pool.map(run, sorted(self._batches, key=order)))
        return found[0] if found else (None, None)

    def _verdict(self, program, batch, folder, is_wanted):
        """A failure must come again, and the unchanged program pass, for the mutant to have it."""
        into = folder / f"batch{id(batch)}"
        result, _, tests = _run(program, batch.tests, into, self._limits(batch), is_wanted)
        if result == FAILED:
            result, _, _ = _run(program, tests, into, self._limits(batch), is_wanted)
        if result in (FAILED, TIMED_OUT) and self._run_clean(batch, tests)[0] != PASSED:
            result = PASSED
        return result, tests
