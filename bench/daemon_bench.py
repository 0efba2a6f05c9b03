#!/usr/bin/python3
"""What the daemon costs: its size, its memory, and its processor time at rest and at work.

    CRC_BIN=build/release/bin bench/daemon_bench.py [--json FILE]

Prints a table and one line of JSON. Exit status 1 when a target is missed. Run it on a quiet
machine: the relay and the web server, played by this script, share it with the daemon.
"""

import argparse
import json
import shutil
import subprocess
import sys
import tempfile
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "tests" / "support"))

from certificates import Authority  # noqa: E402
from daemon import DAEMON, Daemon, build  # noqa: E402
from processes import program  # noqa: E402
from relay_peer import RELAY_REQUEST, Relay  # noqa: E402
from router import Router, prepare  # noqa: E402
from web_peer import WebServer  # noqa: E402

REST_S = 20
REQUESTS = 1000
BODY = bytes(range(256)) * 4  # 1 KiB, there and back

# name: (target, unit)
TARGETS = {
    "stripped size": (150, "KB"),
    "resident memory, idle session": (3, "MB"),
    "wake-ups at rest": (6, "/s"),
    "processor time at rest": (1, "ms/s"),
    "processor time for 1000 requests": (0.10, "s"),
}


def stripped_size_kb():
    with tempfile.TemporaryDirectory() as folder:
        copy = Path(folder) / DAEMON
        shutil.copy(program(DAEMON), copy)
        subprocess.run(["strip", copy], check=True)
        return copy.stat().st_size / 1000


def at_rest(daemon):
    """Wake-ups and milliseconds of processor time a second."""
    wakeups, cpu, started = daemon.wakeups(), daemon.cpu_seconds(), time.monotonic()
    time.sleep(REST_S)
    seconds = time.monotonic() - started
    return ((daemon.wakeups() - wakeups) / seconds,
            (daemon.cpu_seconds() - cpu) * 1000 / seconds)


def at_work(daemon, session, web):
    """Seconds of processor time for 1000 requests, one at a time, and requests a second."""
    web.serve(lambda exchange: exchange.answer(exchange.read_exactly(len(BODY))))

    def carry(count):
        for number in range(count):
            session.send_packet(RELAY_REQUEST, number, BODY)
            answer = session.read_packet()
            assert (answer.id, answer.body) == (number, BODY)

    carry(50)  # the first ones also touch memory for the first time
    cpu, started = daemon.cpu_seconds(), time.monotonic()
    carry(REQUESTS)
    seconds = time.monotonic() - started
    return (daemon.cpu_seconds() - cpu) * 1000 / REQUESTS, REQUESTS / seconds


def measure():
    places = prepare()
    authority = Authority(places.scratch / "authority")
    figures = {"stripped size": stripped_size_kb()}
    with Router(authority) as router, WebServer() as web, \
            Relay(authority.certificate()) as relay:
        router.set_web_port(web.port)
        daemon = Daemon().start().wait_for_object()
        daemon.dbg()
        daemon.dbg()  # the log now goes to the null device
        daemon.reload(relay.address, relay.port)
        session = relay.accept().welcome()
        time.sleep(1)
        figures["resident memory, idle session"] = daemon.resident_kib() * 1024 / 1e6
        figures["wake-ups at rest"], figures["processor time at rest"] = at_rest(daemon)
        cpu, rate = at_work(daemon, session, web)
        figures["processor time for 1000 requests"] = cpu
        figures["peak resident memory"] = daemon.peak_resident_kib() * 1024 / 1e6
        figures["requests a second, one at a time"] = rate
        daemon.finish()
    return figures


def missed(figures):
    return [name for name, (target, _) in TARGETS.items() if figures[name] > target]


def print_table(figures):
    for name, value in figures.items():
        target, unit = TARGETS.get(name, (None, "MB" if "memory" in name else "/s"))
        bound = f"at most {target:g} {unit}" if target is not None else ""
        verdict = "" if target is None else "ok" if value <= target else "MISSED"
        print(f"{name:34} {value:10.3f} {unit:5} {bound:18} {verdict}")


def main():
    arguments = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    arguments.add_argument("--json", help="also write the figures to this file")
    options = arguments.parse_args()
    if build() != "plain":
        sys.exit(f"{program(DAEMON)} is built or run for checking; its cost says nothing")
    figures = measure()
    print_table(figures)
    line = json.dumps({name: round(value, 4) for name, value in figures.items()})
    print(line)
    if options.json:
        Path(options.json).write_text(line + "\n")
    sys.exit(1 if missed(figures) else 0)


if __name__ == "__main__":
    main()
