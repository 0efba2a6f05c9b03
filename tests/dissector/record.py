"""Records the sessions that the tests read: the real daemon with a relay that speaks TLS.

    record.py FOLDER

Writes session-tls13.pcapng and session-tls12.pcapng, the sessions' keys inside, so that Wireshark
shows what TLS carried. Needs root (or a machine that lets a user make namespaces), dumpcap,
tshark and editcap; the tests need tshark alone, and no root. They name frames and times: new
recordings need new numbers in test_recorded_sessions.py.
"""

import ssl
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "support"))

from certificates import Authority  # noqa: E402
from daemon import Daemon  # noqa: E402
from exchanges import carry, send_request  # noqa: E402
from processes import Process, run, wait_until  # noqa: E402
from relay_peer import (  # noqa: E402
    QUIET_RELAY_REQUEST, RELAY_REQUEST, WEB_TOKEN, Packet, Relay)
from router import Router, prepare  # noqa: E402
from web_peer import WebServer  # noqa: E402

PAGE = b"HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nConnection: close\r\n\r\n"


def request(path):
    return f"GET {path} HTTP/1.1\r\nHost: router\r\nConnection: close\r\n\r\n".encode()


def drive(session, web):
    """One session with everything in it, ended by a packet that is none."""
    carry(session, web, 0x1234, request("/index"), PAGE + b"hello")
    # More than a TLS record holds, so that the answer comes in several.
    carry(session, web, 0x1235, request("/large"), PAGE + b"0123456789" * 2000)

    session.send_packet(QUIET_RELAY_REQUEST, 0x1236, request("/quiet"))
    web.accept().answer(PAGE + b"quiet")
    session.read_packet()

    # A header in pieces, and a packet that starts in the middle of a record.
    token = Packet(WEB_TOKEN, 0x2A, b'{"name":"token"}').encode()
    session.dribble(token[:14], size=5)
    session.send_record(token[14:] + Packet(WEB_TOKEN, 0x2B, b"any bytes").encode())
    session.read_packet()
    session.read_packet()

    # A request that nobody answers, before its ID is used again.
    exchange = send_request(session, web, 0x1237, request("/dropped"))
    exchange.reset()
    carry(session, web, 0x1237, request("/again"), PAGE + b"again")

    session.send(Packet(RELAY_REQUEST, 1, b"", magic=0x0BB0).encode())
    session.expect_closed()


def holds_the_end(recording):
    return run("tshark", "-r", recording, "-Y", "tcp.flags.fin == 1").output.count("\n") >= 2


def record(folder, places, authority, name, version):
    secrets, plain = (places.scratch / f"{name}.{suffix}" for suffix in ("keys", "pcapng"))
    daemon = Daemon()
    with Router(authority) as router, WebServer() as web, Relay(
            authority.certificate(), version, secrets=secrets) as relay:
        router.set_web_port(web.port)
        with Process("dumpcap", "-q", "-i", "lo", "-f", f"tcp port {relay.port}",
                     "-w", plain) as dumpcap:
            dumpcap.errors.wait_for("File: ")
            daemon.start().wait_for_object()
            drive(daemon.open_session(relay), web)
            daemon.log.expect("[CRC:] CloudRelayClient task exit.")
            wait_until(lambda: holds_the_end(plain), "the end of the session is recorded")
    daemon.finish()
    run("editcap", "--inject-secrets", f"tls,{secrets}", plain, Path(folder) / f"{name}.pcapng")


def main(folder):
    places = prepare()
    authority = Authority(places.scratch / "authority")
    record(folder, places, authority, "session-tls13", ssl.TLSVersion.TLSv1_3)
    record(folder, places, authority, "session-tls12", ssl.TLSVersion.TLSv1_2)


if __name__ == "__main__":
    main(Path(sys.argv[1]).resolve())
