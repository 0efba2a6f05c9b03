"""The whole road on this machine: what `make demo` runs.

    demo.py [--once]

Brings up relay_server on free loopback ports and, with files and a network of its own, so that
nothing on the machine changes, a router (bus, identity services, configuration, web server with a
small page) behind an uplink; starts the daemon, points it at the relay with a real `reload`, and
fetches the page as an owner would. With --once it ends there, with status 0 only if the page that
came is the page that is served. Else the supervisor keeps the session up until Ctrl-C: break what
you like.
"""

import argparse
import contextlib
import itertools
import os
import select
import signal
import subprocess
import sys
import time
from pathlib import Path

TREE = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(TREE / "tests" / "support"))

import namespaces  # noqa: E402
from certificates import Authority  # noqa: E402
from daemon import OBJECT, Daemon  # noqa: E402
from relay_server import ADDRESS, RelayServer  # noqa: E402
from router import Router, prepare  # noqa: E402
from supervised import Supervisor  # noqa: E402
from web_peer import Lighttpd  # noqa: E402

from internet import Internet  # noqa: E402

# Where the router finds the relay.
RELAY_ADDRESS, RELAY_PORT = "198.51.100.7", 443
OUTAGE_S = 3
LOOK_S = 0.3
PAGES = TREE / "demo" / "www"


def say(text):
    print(f"== {text}", flush=True)


class Line:
    """The router's uplink, with the relay somewhere behind it."""

    def __init__(self, internet, relay_port):
        self._internet, self._relay_port = internet, relay_port
        self._leases = itertools.cycle(range(1, 255))
        self._cut_at = None
        self._plug_in()

    def _plug_in(self):
        self._uplink = namespaces.Uplink("wan", next(self._leases), metric=10,
                                         hosts=[RELAY_ADDRESS])
        self._internet.lead(self._uplink.listen(RELAY_ADDRESS, RELAY_PORT), ADDRESS,
                            self._relay_port)

    def cut(self):
        if self._cut_at is None:
            self._uplink.remove()
            self._cut_at = time.monotonic()

    def mend(self):
        """True when the uplink was cut for long enough and is back, with another address."""
        if self._cut_at is None or time.monotonic() - self._cut_at < OUTAGE_S:
            return False
        self._cut_at = None
        self._plug_in()
        return True


class Owner:
    """Whoever looks at the router from outside."""

    def __init__(self, internet, relay, device_id):
        self._internet, self._relay, self._device_id = internet, relay, device_id
        self._session = None

    def wait_for_device(self):
        device = self._internet.run(self._relay.wait_for_device, self._device_id)
        self._session = device["since"]

    def has_new_session(self):
        """True once for each session of the device."""
        try:
            device = self._internet.run(self._relay.devices).get(self._device_id)
        except OSError:  # no relay just now
            return False
        is_new = device is not None and device["since"] != self._session
        if is_new:
            self._session = device["since"]
        return is_new

    def fetch(self):
        """The page, and the seconds that it took."""
        started = time.monotonic()
        response = self._internet.run(self._relay.get, self._device_id, "/index.html")
        seconds = time.monotonic() - started
        if response.status != 200 or response.body != (PAGES / "index.html").read_bytes():
            sys.exit(f"demo: not the page that is served, but {response.status}: {response.body!r}")
        return response.body.decode(), seconds


def enter():
    """The private places, and what is left outside. Says so where the machine allows none."""
    try:
        places = prepare(private_network=False)
        internet = Internet()
        namespaces.leave_network()
        return places, internet
    except OSError as error:
        sys.exit(f"demo: this machine lets an ordinary user make no namespaces ({error}); "
                 "run it as root")


def show_addresses(relay, device_id):
    print(f"\n  dashboard        http://{ADDRESS}:{relay.admin_port}/"
          f"\n  the router       http://{relay.host(device_id)}/"
          "\n\nType relay, bus or uplink, and Enter, to break it and see it come back. "
          "Ctrl-C ends it.", flush=True)


def typed(streams):
    """The word that was typed, if any, at most LOOK_S later. Takes away a stream that has ended, or
    is a terminal that belongs to somebody else."""
    ready = select.select(streams, [], [], LOOK_S)[0]
    line = b""
    if ready:
        with contextlib.suppress(OSError):
            line = os.read(ready[0].fileno(), 1024)
        if not line:
            streams.clear()
    return line.decode(errors="replace").strip()


def stay_up(home, relay, internet, line, owner):
    """Breaks what is asked for, and plays whoever starts relay and bus again and mends the uplink
    on a real router; sessions are the supervisor's."""
    actions = {"relay": lambda: os.kill(relay.pid, signal.SIGKILL),
               "bus": lambda: os.kill(home.bus.pid, signal.SIGKILL), "uplink": line.cut}
    streams = [sys.stdin] if sys.stdin else []
    while True:
        word = typed(streams)
        if word in actions:
            actions[word]()
            say(f"the {word} is gone")
        elif word:
            say(f"there is no {word!r} to break; type relay, bus or uplink")
        if relay.has_ended:
            say(f"the relay has ended; it runs again as process {internet.run(relay.restart).pid}")
        if home.bus_has_ended:
            home.restart_bus()
            say("the bus has ended; it runs again")
        if line.mend():
            say("the uplink is back, with another address")
        if owner.has_new_session():
            say("the device has a new session")


def connect(daemon, owner):
    say(f"the router is up; ubus call {OBJECT} reload")
    if daemon.reload(RELAY_ADDRESS, RELAY_PORT).status != 0:
        sys.exit("demo: the reload was refused")
    owner.wait_for_device()
    say("the device is connected; this is its page, fetched through the relay:")
    page, seconds = owner.fetch()
    print(page)
    say(f"it came from the router's web server in {seconds * 1000:.1f} ms")


def play(once, places, internet, daemon):
    authority = Authority(places.scratch / "authority")
    with contextlib.ExitStack() as running:
        relay = RelayServer(places.scratch / "relay", authority.certificate())
        running.push(internet.run(relay.start))
        say(f"relay_server is up, devices connect to port {relay.device_port}")
        home = running.enter_context(Router(authority))
        home.set_web_port(running.enter_context(Lighttpd(PAGES, places.scratch)).port)
        line = Line(internet, relay.device_port)
        owner = Owner(internet, relay, home.identity.device_id)
        daemon.start().wait_for_object()
        connect(daemon, owner)
        if once:
            return
        supervisor = Supervisor(home).configure(f"{RELAY_ADDRESS}:{RELAY_PORT}")
        try:
            supervisor.start().wait_for_object()
            show_addresses(relay, home.identity.device_id)
            stay_up(home, relay, internet, line, owner)
        finally:
            supervisor.finish()


def main():
    arguments = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    arguments.add_argument("--once", action="store_true", help="end after the fetch")
    once = arguments.parse_args().once
    signal.signal(signal.SIGTERM, signal.default_int_handler)
    signal.signal(signal.SIGTTIN, signal.SIG_IGN)  # in the background, nobody types
    places, internet = enter()
    daemon = Daemon()
    try:
        play(once, places, internet, daemon)
    except KeyboardInterrupt:
        print()
    except subprocess.CalledProcessError as error:
        sys.exit(f"demo: {' '.join(error.cmd)}: {error.stderr.strip()}")
    finally:
        daemon.finish()


if __name__ == "__main__":
    main()
