"""Loads on a web server, by wrk and curl, and what they tell."""

import json
import re
import socket
import statistics
import subprocess
import tempfile
import time
from pathlib import Path

MIB = 1024 * 1024
_PATIENCE_S = 20

_REPORT = """
done = function(summary, latency, requests)
  io.write(string.format('REPORT {"requests":%d,"us":%d,"p50_us":%.1f,"p99_us":%.1f,"errors":%d}\\n',
    summary.requests, summary.duration, latency:percentile(50.0), latency:percentile(99.0),
    summary.errors.connect + summary.errors.read + summary.errors.write + summary.errors.status +
    summary.errors.timeout))
end
"""

_RANDOM_HOST = """
local prepared = {}
init = function()
  math.randomseed(1)
  for i = 0, %(count)d - 1 do
    prepared[i] = wrk.format("GET", nil, { Host = string.format("%(host)s", i) })
  end
end
request = function() return prepared[math.random(0, %(count)d - 1)] end
"""


def _headers(host):
    return ["-H", f"Host: {host}"] if host else []


def requests(url, host, connections, seconds):
    """wrk, a new connection for each request: rate and latency."""
    return _wrk(url, connections, seconds, _REPORT, ["-H", "Connection: close", *_headers(host)])


def requests_of_many(url, host, count, connections, seconds):
    """As requests(), but on connections that stay, and each for a host taken at random: `host` with
    a number below `count` in place of its %d."""
    script = _RANDOM_HOST % {"host": host, "count": count} + _REPORT
    return _wrk(url, connections, seconds, script, [])


def _wrk(url, connections, seconds, code, arguments):
    with tempfile.NamedTemporaryFile("w", suffix=".lua") as script:
        script.write(code)
        script.flush()
        output = subprocess.run(
            ["wrk", "-t1", f"-c{connections}", f"-d{seconds}s", "--timeout", "5s",
             "-s", script.name, *arguments, url],
            capture_output=True, text=True, check=True).stdout
    report = json.loads(re.search(r"REPORT (.+)", output)[1])
    assert report["errors"] == 0, f"{url}: {output}"
    return {"requests": report["requests"],
            "per_s": report["requests"] / (report["us"] / 1e6),
            "p50_ms": report["p50_us"] / 1000, "p99_ms": report["p99_us"] / 1000}


def download(url, host, size, times=3):
    """curl; MB/s (10^6 bytes), the median."""
    rates = []
    for _ in range(times):
        output = subprocess.run(
            ["curl", "-q", "-sS", "-o", "/dev/null", "--noproxy", "*", "--max-time", "120",
             "-w", "%{http_code} %{size_download} %{time_total}", *_headers(host), url],
            capture_output=True, text=True, check=True).stdout
        code, got, seconds = output.split()
        assert code == "200" and int(got) == size, f"{url}: {output}"
        rates.append(size / 1e6 / float(seconds))
    return statistics.median(rates)


def fetch(port, page, host, size, count):
    """`count` requests on this machine, one after the other, a new connection for each; seconds.
    For loads that are too short for wrk."""
    request = f"GET /{page} HTTP/1.1\r\nHost: {host}\r\nConnection: close\r\n\r\n".encode()
    buffer = bytearray(MIB)
    started = time.monotonic()
    for _ in range(count):
        with socket.create_connection(("127.0.0.1", port), _PATIENCE_S) as connection:
            connection.sendall(request)
            head = connection.recv(MIB)
            got = len(head)
            while more := connection.recv_into(buffer):
                got += more
        body = got - (head.find(b"\r\n\r\n") + 4)
        assert head.startswith(b"HTTP/1.1 200 ") and body == size, f"{page}: {body} bytes, {head}"
    return time.monotonic() - started


def fetch_status(url, host):
    """The status of one request, 0 where nobody answers."""
    output = subprocess.run(["curl", "-q", "-s", "-o", "/dev/null", "--noproxy", "*", "-m", "5",
                             "-w", "%{http_code}", *_headers(host), url],
                            capture_output=True, text=True, check=False).stdout
    return int(output or 0)


def write_files(folder, sizes):
    """Files of the given names and sizes for a web server to serve."""
    for name, size in sizes.items():
        Path(folder, name).write_bytes(bytes(range(256)) * (size // 256))
