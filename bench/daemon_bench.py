#!/usr/bin/python3
"""What the daemon costs: its size, its memory, and its work at rest and for relayed requests.

    CRC_BIN=build/release/bin bench/daemon_bench.py [--json FILE] [--calls] [--against PROGRAM]

Prints a table and one line of JSON. Exit status 1 when a target is missed. Run it on a quiet
machine: the relay and the web server, played by this script, share it with the daemon.

Memory is that of an idle session. Resident memory counts every page that is mapped, proportional
memory shares a page among the processes that map it, and private dirty memory is what only this
process holds and the kernel cannot drop. System calls are those of the worker thread, by strace,
from a request's arrival to the wait for the next one; --calls lists them by name. --against
measures another build of the daemon too, in turns with this one (see against.py).
"""

import argparse
import json
import re
import shutil
import subprocess
import sys
import tempfile
import time
from collections import Counter
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "tests" / "support"))

from certificates import Authority  # noqa: E402
from daemon import DAEMON, Daemon, build  # noqa: E402
from processes import program  # noqa: E402
from relay_peer import RELAY_REQUEST, Relay  # noqa: E402
from router import Router, prepare  # noqa: E402
from web_peer import WebServer  # noqa: E402

import against  # noqa: E402
from figures import Figure, any_missed, by_name, print_figures  # noqa: E402
from system_calls import Trace  # noqa: E402

REST_S = 20
REQUESTS = 1000
TRACED_REQUESTS = 20
BODY = bytes(range(256)) * 4  # 1 KiB, there and back


def stripped_size():
    with tempfile.TemporaryDirectory() as folder:
        copy = Path(folder) / DAEMON
        shutil.copy(program(DAEMON), copy)
        subprocess.run(["strip", copy], check=True)
        return [Figure("stripped size", copy.stat().st_size / 1000, "KB", 150)]


def memory_at_rest(daemon):
    rollup = Path(f"/proc/{daemon.pid}/smaps_rollup").read_text()
    parts = {name: int(kib) * 1024 for name, kib in
             re.findall(r"^(\w+): +(\d+) kB$", rollup, re.MULTILINE)}
    return [Figure("resident memory, idle session", daemon.resident_kib() * 1024 / 1e6, "MB"),
            Figure("proportional memory, idle session", parts["Pss"] / 1e6, "MB", 2),
            Figure("private dirty memory, idle session", parts["Private_Dirty"] / 1e3, "KB", 600)]


def work_at_rest(daemon):
    wakeups, cpu, started = daemon.wakeups(), daemon.cpu_seconds(), time.monotonic()
    time.sleep(REST_S)
    seconds = time.monotonic() - started
    return [Figure("wake-ups at rest", (daemon.wakeups() - wakeups) / seconds, "/s", 6),
            Figure("processor time at rest", (daemon.cpu_seconds() - cpu) * 1000 / seconds,
                   "ms/s", 1)]


def carry(session, count):
    """That many requests, one at a time."""
    for number in range(count):
        session.send_packet(RELAY_REQUEST, number, BODY)
        answer = session.read_packet()
        assert (answer.id, answer.body) == (number, BODY)


def work_for_requests(daemon, session):
    carry(session, 50)  # the first ones also touch memory for the first time
    cpu, started = daemon.cpu_seconds(), time.monotonic()
    carry(session, REQUESTS)
    seconds = time.monotonic() - started
    used = (daemon.cpu_seconds() - cpu) * 1000 / REQUESTS
    return [Figure("processor time for 1000 requests", used, "s", 0.10),
            Figure("requests a second, one at a time", REQUESTS / seconds, "/s")]


def worker_thread(daemon):
    return next(task.name for task in Path(f"/proc/{daemon.pid}/task").iterdir()
                if (task / "comm").read_text().startswith("cycleHnd_"))


def calls_of_a_request(daemon, session, file):
    """How often a relayed request makes each system call, by the call's name. Of several requests
    the median: an answer and its end may come at once or one after the other."""
    with Trace(worker_thread(daemon), file) as trace:
        requests = [trace.calls_for(lambda: carry(session, 1)) for _ in range(TRACED_REQUESTS)]
    return Counter(call.name for call in sorted(requests, key=len)[TRACED_REQUESTS // 2])


def measure(scratch):
    """The figures, and the system calls by name."""
    authority = Authority(scratch / "authority")
    figures = stripped_size()
    with Router(authority) as router, WebServer() as web, \
            Relay(authority.certificate()) as relay:
        router.set_web_port(web.port)
        web.serve(lambda exchange: exchange.answer(exchange.read_exactly(len(BODY))))
        daemon = Daemon().start().wait_for_object()
        daemon.dbg()
        daemon.dbg()  # the log now goes to the null device
        session = daemon.open_session(relay)
        time.sleep(1)
        figures += memory_at_rest(daemon)
        figures += work_at_rest(daemon)
        figures += work_for_requests(daemon, session)
        peak = daemon.peak_resident_kib() * 1024 / 1e6
        calls = calls_of_a_request(daemon, session, scratch / "calls")
        daemon.finish()
    return [*figures, Figure("peak resident memory", peak, "MB"),
            Figure("system calls of a relayed request", sum(calls.values()), "", 28)], calls


def print_calls(calls):
    print("\nsystem calls of a relayed request, by name:")
    for name, count in calls.most_common():
        print(f"{name:40} {count:6d}")


def read_arguments():
    arguments = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    arguments.add_argument("--json", help="also write the figures to this file")
    arguments.add_argument("--calls", action="store_true", help="list system calls by name")
    arguments.add_argument("--against", metavar="PROGRAM", type=lambda path: Path(path).resolve(),
                           help="another cloud_relay_client to measure in turns with this one")
    options = arguments.parse_args()
    if options.against and not options.against.is_file():
        arguments.error(f"--against: {options.against} is not a file")
    if build() != "plain":
        sys.exit(f"{program(DAEMON)} is built or run for checking; its cost says nothing")
    return options


def main():
    options = read_arguments()
    scratch = prepare().scratch
    figures, calls = measure(scratch)
    print_figures(figures)
    if options.calls:
        print_calls(calls)
    result = by_name(figures)
    if options.against:
        pairs = against.compare(scratch, options.against)
        against.print_pairs(pairs, options.against)
        ratios = against.figures_of(pairs)
        print_figures(ratios)
        figures += ratios
        result["against"] = by_name(ratios)
    line = json.dumps(result)
    print(line)
    if options.json:
        Path(options.json).write_text(line + "\n")
    sys.exit(1 if any_missed(figures) else 0)


if __name__ == "__main__":
    main()
