"""The daemon at work on this machine: what `make demo` runs.

    demo.py [--once]

Brings up, in private namespaces so that nothing on the machine changes, a bus, the identity
services, a web server with a small page and a TLS relay; starts the daemon, points it at the relay
with a real `reload`, and fetches the page through it. Stays up until Ctrl-C; with --once it ends
after the fetch, with status 0 only if the page that came is the page that is served.
"""

import argparse
import os
import signal
import sys
import time
from pathlib import Path

TREE = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(TREE / "tests" / "support"))

from certificates import Authority  # noqa: E402
from daemon import OBJECT, Daemon  # noqa: E402
from processes import program, run  # noqa: E402
from relay_peer import HEARTBEAT, RELAY_REQUEST, Relay  # noqa: E402
from router import BUS_SOCKET, Router, prepare  # noqa: E402
from web_peer import Lighttpd  # noqa: E402

PAGE = TREE / "demo" / "www" / "index.html"
REQUEST = b"GET /index.html HTTP/1.1\r\nHost: router\r\nConnection: close\r\n\r\n"
LOOK_S = 1


def say(text):
    print(f"\n== {text}", flush=True)


def fetch_page(session):
    """The page as it comes through the session, and the seconds that it took."""
    started = time.monotonic()
    session.send_packet(RELAY_REQUEST, 1, REQUEST)
    answer = session.read_packet().body
    _, _, body = answer.partition(b"\r\n\r\n")
    return body, time.monotonic() - started


def answer_heartbeats(session):
    """Plays the relay until Ctrl-C or until the daemon goes."""
    while True:
        try:
            packet = session.read_packet(within=LOOK_S)
        except AssertionError:
            continue  # nothing came
        if packet.type == HEARTBEAT:
            session.answer_heartbeat(packet)


def show(page, seconds):
    print(page.decode())
    say(f"that page came from the router's web server through the relay in {seconds * 1000:.1f} ms")


def stay_up(session):
    inside = f"nsenter -t {os.getpid()} -m -n"
    print(f"\nTry, from another terminal, as root:\n"
          f"  {inside} {program('ubus')} list -v\n"
          f"  {inside} {program('ubus')} call {OBJECT} stop\n"
          f"Ctrl-C ends it.", flush=True)
    answer_heartbeats(session)


def main():
    arguments = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    arguments.add_argument("--once", action="store_true", help="end after the fetch")
    once = arguments.parse_args().once
    signal.signal(signal.SIGTERM, signal.default_int_handler)

    try:
        places = prepare()
    except OSError as error:
        sys.exit(f"demo: this machine lets an ordinary user make no namespaces ({error}); "
                 "run it as root")
    authority = Authority(places.scratch / "authority")
    daemon = Daemon()
    try:
        with (Router(authority) as home, Lighttpd(PAGE.parent, places.scratch) as web,
              Relay(authority.certificate()) as relay):
            home.set_web_port(web.port)
            say("the bus is up; the daemon starts")
            daemon.start().wait_for_object()
            print(run(program("ubus"), "-s", BUS_SOCKET, "-v", "list",
                      OBJECT).output, end="")
            say(f"ubus call {OBJECT} reload: toward the relay at port {relay.port}")
            assert daemon.reload(relay.address, relay.port).status == 0
            session = relay.accept().welcome()
            say("the device said hello, and the relay let it in")
            page, seconds = fetch_page(session)
            show(page, seconds)
            if page != PAGE.read_bytes():
                sys.exit("demo: the page that came is not the page that is served")
            if not once:
                stay_up(session)
    except KeyboardInterrupt:
        print()
    finally:
        if daemon.log is not None:
            daemon.finish()


if __name__ == "__main__":
    main()
