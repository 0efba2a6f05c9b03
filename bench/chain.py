#!/usr/bin/python3
"""What the whole road costs: wrk, relay_server, TLS, the daemon, nginx, beside nginx direct and ssh -R.

    CRC_BIN=build/release/bin bench/chain.py [--json FILE] [--seconds N]

All on this machine's loopback, in one run. Prints a table, the bound that the TLS library sets and
the share of it that a large download reaches, and one line of JSON. Exit status 1 when that share
misses its target. Run it on a quiet machine: load, relay, daemon and web server share its
processors.
"""

import argparse
import json
import statistics
import subprocess
import sys
import time
from pathlib import Path

TREE = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(TREE / "tests" / "support"))

from certificates import Authority  # noqa: E402
from daemon import build  # noqa: E402
from processes import program, run  # noqa: E402
from router import Router, prepare  # noqa: E402

import loads  # noqa: E402
from figures import Figure  # noqa: E402
from routes import Direct, Nginx, Relay, SshReverse  # noqa: E402

KIB, MIB = 1024, 1024 * 1024
SIZES = {"1k": KIB, "1m": MIB, "100m": 100 * MIB}
CONNECTS = 5
ROUNDS = 7
SHARE_TARGET = 75

COLUMNS = {
    "1 KiB, 1 conn": "req/s", "p50": "ms", "p99": "ms",
    "1 KiB, 16 conn": "req/s", "p50 of 16": "ms", "p99 of 16": "ms",
    "1 MiB": "req/s", "100 MiB": "MB/s",
    "CPU": "s/1000 req", "at rest": "KiB", "highest": "KiB", "connect": "ms",
}


def memory_kib(pid, field):
    for line in Path(f"/proc/{pid}/status").read_text().splitlines():
        if line.startswith(field + ":"):
            return int(line.split()[1])
    raise AssertionError(f"no {field} for {pid}")


def cpu_seconds(pid):
    return sum(int((task / "schedstat").read_text().split()[0])
               for task in Path(f"/proc/{pid}/task").iterdir()) / 1e9


def measure(route, seconds):
    """One row of the table."""
    row = {}
    if route.pid:
        time.sleep(3)
        row["at rest"] = memory_kib(route.pid, "VmRSS")
    loads.requests(f"{route.url}/1k", route.host, 1, 1)  # warm, not counted
    before = cpu_seconds(route.pid) if route.pid else 0
    one = loads.requests(f"{route.url}/1k", route.host, 1, seconds)
    if route.pid:
        row["CPU"] = (cpu_seconds(route.pid) - before) / one["requests"] * 1000
    many = loads.requests(f"{route.url}/1k", route.host, 16, seconds)
    row |= {"1 KiB, 1 conn": one["per_s"], "p50": one["p50_ms"], "p99": one["p99_ms"],
            "1 KiB, 16 conn": many["per_s"], "p50 of 16": many["p50_ms"],
            "p99 of 16": many["p99_ms"],
            "1 MiB": loads.requests(f"{route.url}/1m", route.host, 1, seconds)["per_s"],
            "100 MiB": loads.download(f"{route.url}/100m", route.host, SIZES["100m"])}
    if route.pid:
        row["highest"] = memory_kib(route.pid, "VmHWM")
        row["connect"] = statistics.median(route.reconnect() for _ in range(CONNECTS)) * 1000
    return row


def measure_all(seconds):
    places = prepare()
    authority = Authority(places.scratch / "authority")
    rows, bound = {}, {}
    with Router(authority) as router:
        web = Nginx(places.scratch / "nginx", SIZES)
        makers = (lambda: Direct(web),
                  lambda: Relay(places.scratch / "relay", router, authority, web),
                  lambda: SshReverse(places.scratch / "ssh", web))
        for make in makers:
            route = make()
            rows[route.name] = measure(route, seconds)
            if isinstance(route, Relay):
                bound = encryption_bound(route)
            route.stop()
        web.stop()
    return rows, bound


def encryption_bound(relay):
    """What wolfSSL encrypts by itself, with the cipher that the relay chose, and the share of it
    that a large download reaches: in turns, since the speed of a virtual machine may change from
    one second to the next."""
    rates, shares = [], []
    for _ in range(ROUNDS):
        cipher, rate = run(program("tls_rate"), relay.server.device_port).output.split()
        rates.append(float(rate))
        shares.append(loads.download(f"{relay.url}/100m", relay.host, SIZES["100m"], times=1) /
                      float(rate))
    return {"cipher": cipher, "MB/s": statistics.median(rates),
            "share": statistics.median(shares)}


def shown(value):
    return "-" if value is None else f"{value:.3f}" if value < 10 else f"{value:.0f}"


def print_table(rows, bound):
    print(f"| | {' | '.join(f'{name}, {unit}' for name, unit in COLUMNS.items())} |")
    print("| --- " * (len(COLUMNS) + 1) + "|")
    for name, row in rows.items():
        print(f"| {name} | {' | '.join(shown(row.get(column)) for column in COLUMNS)} |")
    print(f"\nwolfSSL encrypts {bound['MB/s']:.0f} MB/s by itself with {bound['cipher']}.")


def main():
    arguments = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    arguments.add_argument("--json", help="also write the figures to this file")
    arguments.add_argument("--seconds", type=int, default=8, help="length of each load")
    options = arguments.parse_args()
    if build() != "plain":
        sys.exit("bench: the programs are built or run for checking; their cost says nothing")
    try:
        rows, bound = measure_all(options.seconds)
    except (AssertionError, subprocess.CalledProcessError) as failure:
        sys.exit(f"bench: {failure}")
    print_table(rows, bound)
    share = Figure("100 MiB as a share of that", bound["share"] * 100, "%", SHARE_TARGET,
                   at_least=True)
    print(share.line())
    line = json.dumps({"rows": rows, "encryption bound": bound})
    print(line)
    if options.json:
        Path(options.json).write_text(line + "\n")
    sys.exit(1 if share.missed else 0)


if __name__ == "__main__":
    main()
