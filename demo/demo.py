"""The whole road on this machine: what `make demo` runs.

    demo.py [--once]

Brings up, in a private mount namespace and on free loopback ports, so that nothing on the machine
changes, a router (bus, identity services, configuration, web server with a small page) and
relay_server; starts the daemon, points it at the relay with a real `reload`, and fetches the page
as an owner would. With --once it ends there, with status 0 only if the page that came is the page
that is served. Else the supervisor keeps the session up until Ctrl-C: kill what you like.
"""

import argparse
import signal
import sys
import time
from pathlib import Path

TREE = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(TREE / "tests" / "support"))

from certificates import Authority  # noqa: E402
from daemon import OBJECT, Daemon  # noqa: E402
from relay_server import ADDRESS, RelayServer  # noqa: E402
from router import Router, prepare  # noqa: E402
from supervised import Supervisor  # noqa: E402
from web_peer import Lighttpd  # noqa: E402

LOOK_S = 0.3
PAGES = TREE / "demo" / "www"


def say(text):
    print(f"== {text}", flush=True)


def enter():
    """The private places. Says so where the machine allows none."""
    try:
        return prepare(private_network=False)
    except OSError as error:
        sys.exit(f"demo: this machine lets an ordinary user make no namespaces ({error}); "
                 "run it as root")


def fetch(relay, device_id):
    """The page as an owner gets it, and the seconds that it took."""
    started = time.monotonic()
    response = relay.get(device_id, "/index.html")
    seconds = time.monotonic() - started
    if response.status != 200 or response.body != (PAGES / "index.html").read_bytes():
        sys.exit(f"demo: not the page that is served, but {response.status}: {response.body!r}")
    return response.body.decode(), seconds


def show_addresses(relay, device_id):
    print(f"\n  dashboard        http://{ADDRESS}:{relay.admin_port}/"
          f"\n  the router       http://{relay.host(device_id)}/"
          f"\n\nKill the relay (process {relay.pid}) and see it come back. Ctrl-C ends it.",
          flush=True)


def stay_up(home, relay, supervisor):
    """Plays whoever starts relay and bus again on a real machine; sessions are the supervisor's."""
    supervisor.configure(f"{ADDRESS}:{relay.device_port}").start()
    while True:
        time.sleep(LOOK_S)
        if relay.has_ended:
            say(f"the relay has ended; it runs again as process {relay.restart().pid}")
        if home.bus_has_ended:
            home.restart_bus()
            say("the bus has ended; it runs again")


def play(once, places, daemon):
    authority = Authority(places.scratch / "authority")
    with (Router(authority) as home, Lighttpd(PAGES, places.scratch) as web,
          RelayServer(places.scratch / "relay", authority.certificate()) as relay):
        home.set_web_port(web.port)
        say(f"relay_server is up, devices connect to port {relay.device_port}")
        daemon.start().wait_for_object()
        say(f"the router is up; ubus call {OBJECT} reload")
        if daemon.reload(ADDRESS, relay.device_port).status != 0:
            sys.exit("demo: the reload was refused")
        device_id = home.identity.device_id
        relay.wait_for_device(device_id)
        say("the device is connected; this is its page, fetched through the relay:")
        page, seconds = fetch(relay, device_id)
        print(page)
        say(f"it came from the router's web server in {seconds * 1000:.1f} ms")
        if once:
            return
        show_addresses(relay, device_id)
        supervisor = Supervisor(home)
        try:
            stay_up(home, relay, supervisor)
        finally:
            supervisor.finish()


def main():
    arguments = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    arguments.add_argument("--once", action="store_true", help="end after the fetch")
    once = arguments.parse_args().once
    signal.signal(signal.SIGTERM, signal.default_int_handler)
    places = enter()
    daemon = Daemon()
    try:
        play(once, places, daemon)
    except KeyboardInterrupt:
        print()
    finally:
        daemon.finish()


if __name__ == "__main__":
    main()
