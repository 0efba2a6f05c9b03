#!/usr/bin/python3
"""What many devices cost one relay_server.

    CRC_BIN=build/release/bin bench/relay_bench.py [--devices N] [--seconds N] [--json FILE] [--quick]

Simulated devices (device_swarm) connect to a relay with TLS, rest, and then answer requests of
16 users, each for a device taken at random. Prints a table and one line of JSON. All of it runs on
this machine: relay, devices and users share its processors. --quick is for tests: few devices, a
short load, and status 1 when a figure is out of all reason.
"""

import argparse
import json
import re
import subprocess
import sys
import tempfile
import time
from pathlib import Path

TREE = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(TREE / "tests" / "support"))

from certificates import Authority  # noqa: E402
from processes import PATIENCE_S, is_sanitized, program, wait_until  # noqa: E402
from relay_server import ADDRESS, BASE_DOMAIN, RelayServer  # noqa: E402

import loads  # noqa: E402

CONNECTIONS = 16
SETTLE_S = 2  # from the last hello to rest: heartbeats, and memory that goes back

UNITS = {
    "devices": "", "connect rate": "/s", "memory a device": "KB", "processor time at rest": "ms/s",
    "requests": "/s", "p50": "ms", "p99": "ms", "processor time for 1000 requests": "s",
    "memory a device after the load": "KB",
}

# Far from what is usual, so that only a mistake exceeds them.
BOUNDS = {"memory a device": 200, "processor time at rest": 100, "p99": 2000}


class Swarm:
    """The devices. Use it as a context manager; in the end every one must still be there."""

    def __init__(self, port, count):
        self._count = count
        self._process = subprocess.Popen(
            [program("device_swarm"), str(port), str(count)], stdin=subprocess.PIPE,
            stdout=subprocess.PIPE, text=True)

    def connect_seconds(self):
        """Waits until all are connected; how long that took them."""
        line = self._process.stdout.readline()
        said = re.match(r"connected (\d+) devices in ([\d.]+) s", line)
        assert said and int(said[1]) == self._count, f"the devices said {line!r}"
        return float(said[2])

    def __enter__(self):
        return self

    def __exit__(self, kind, *_):
        try:
            said, _ = self._process.communicate(timeout=PATIENCE_S)  # its input ends
        finally:
            self._process.kill()
        if kind is None:
            assert self._process.returncode == 0, f"the devices said {said!r}"


def resident_bytes(relay):
    return relay.process.resident_kib() * 1024


def processor_seconds(relay):
    return sum(int((task / "schedstat").read_text().split()[0])
               for task in Path(f"/proc/{relay.pid}/task").iterdir()) / 1e9


def at_rest(relay, seconds):
    """Milliseconds of processor time a second."""
    before, started = processor_seconds(relay), time.monotonic()
    time.sleep(seconds)
    return (processor_seconds(relay) - before) * 1000 / (time.monotonic() - started)


def at_work(relay, devices, seconds):
    """Rate, latency, and processor time for 1000 requests."""
    before = processor_seconds(relay)
    load = loads.requests_of_many(
        f"http://{ADDRESS}:{relay.front_port}/",
        f"device-%d.{BASE_DOMAIN}:{relay.front_port}", devices, CONNECTIONS, seconds)
    used = processor_seconds(relay) - before
    wait_until(lambda: relay.metric("relay_exchanges_open") == 0, "all requests are answered")
    _, page = relay.admin("/metrics")
    others = {status: count for status, count in
              re.findall(r'^relay_requests_total{status="(\d+)"} (\d+)', page, re.MULTILINE)
              if status not in ("0", "200")}  # 0: users who left when the load ended
    assert not others, f"requests that failed, by status: {others}"
    return {"requests": load["per_s"], "p50": load["p50_ms"], "p99": load["p99_ms"],
            "processor time for 1000 requests": used * 1000 / load["requests"]}


def measure(folder, devices, rest_s, load_s):
    authority = Authority(folder / "authority")
    with RelayServer(folder / "relay", authority.certificate()) as relay:
        empty = resident_bytes(relay)
        with Swarm(relay.device_port, devices) as swarm:
            figures = {"devices": devices, "connect rate": devices / swarm.connect_seconds()}
            wait_until(lambda: relay.metric("relay_heartbeats_total") == devices, "heartbeats")
            time.sleep(SETTLE_S)
            assert relay.metric("relay_devices_connected") == devices
            figures["memory a device"] = (resident_bytes(relay) - empty) / devices / 1000
            figures["processor time at rest"] = at_rest(relay, rest_s)
            figures |= at_work(relay, devices, load_s)
            figures["memory a device after the load"] = (
                (resident_bytes(relay) - empty) / devices / 1000)
            assert relay.metric("relay_devices_connected") == devices
    return figures


def print_table(figures):
    for name, value in figures.items():
        print(f"{name:34} {value:10.3f} {UNITS[name]}" if UNITS[name] else f"{name:34} {value:6d}")


def main():
    arguments = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    arguments.add_argument("--devices", type=int, default=1000)
    arguments.add_argument("--seconds", type=int, default=10, help="length of rest and of the load")
    arguments.add_argument("--json", help="also write the figures to this file")
    arguments.add_argument("--quick", action="store_true", help="a short form, for tests")
    options = arguments.parse_args()
    if is_sanitized(program("relay_server")):
        sys.exit("bench: relay_server is built for checking; its cost says nothing")
    devices, seconds = (200, 2) if options.quick else (options.devices, options.seconds)
    with tempfile.TemporaryDirectory(prefix="relay_bench.") as folder:
        figures = measure(Path(folder), devices, seconds, seconds)
    print_table(figures)
    line = json.dumps({name: round(value, 4) for name, value in figures.items()})
    print(line)
    if options.json:
        Path(options.json).write_text(line + "\n")
    if options.quick:
        for name, bound in BOUNDS.items():
            if figures[name] > bound:
                sys.exit(f"bench: {name} is above {bound} {UNITS[name]}")


if __name__ == "__main__":
    main()
