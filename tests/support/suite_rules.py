"""What holds for every suite: tests run in a random order, and nothing is missing in CI.

The order's seed is printed in the end; with CRC_SEED set to it, the next run has the same order.
A skip in CI, where the variable CI is set, is a failure, unless its reason is of_this_build().

PYTEST_DONT_REWRITE: a conftest imports it before pytest takes it for a plugin.
"""

import os
import random
import signal

import pytest

_OF_THIS_BUILD = "this build: "


def of_this_build(reason):
    """The reason of a skip for what has no meaning with the programs as they are built or run."""
    return _OF_THIS_BUILD + reason


def shuffle(items):
    """Puts all tests in the seed's order."""
    _dice().shuffle(items)


def shuffle_by_file(items):
    """The same, each file's tests together: for files whose tests share what they build."""
    files = {}
    for item in items:
        files.setdefault(item.path, []).append(item)
    dice = _dice()
    groups = list(files.values())
    dice.shuffle(groups)
    for group in groups:
        dice.shuffle(group)
    items[:] = [item for group in groups for item in group]


def _dice():
    return random.Random(int(os.environ["CRC_SEED"]))


def pytest_configure():
    # A shell has what it runs in the background ignore SIGINT, and every program would inherit it.
    if signal.getsignal(signal.SIGINT) is signal.SIG_IGN:
        signal.signal(signal.SIGINT, signal.default_int_handler)
    # The workers of xdist inherit it: all must find the same order.
    os.environ.setdefault("CRC_SEED", str(random.randrange(1 << 32)))


def pytest_terminal_summary(terminalreporter):
    terminalreporter.write_line(f"the order's seed: CRC_SEED={os.environ['CRC_SEED']}")


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport():
    outcome = yield
    report = outcome.get_result()
    if not os.environ.get("CI") or not report.skipped or hasattr(report, "wasxfail"):
        return
    reason = report.longrepr[2].removeprefix("Skipped: ")
    if not reason.startswith(_OF_THIS_BUILD):
        report.outcome = "failed"
        report.longrepr = f"skipped, and in CI nothing may be missing: {reason}"
