"""Requests carried from the relay through the daemon to the web server and back."""

import random
import time

from processes import wait_until
from relay_peer import RELAY_REQUEST, RELAY_RESPONSE

REQUEST = b"GET / HTTP/1.0\r\n\r\n"
"""A request where it does not matter which."""


def some_bytes(size, seed=1):
    """Bytes without any pattern, the same ones each time."""
    return random.Random(seed * 7919 + size).randbytes(size)


def send_request(session, web, number=1, request=REQUEST):
    """Sends a request and returns the web server's side of it, the request read and checked."""
    session.send_packet(RELAY_REQUEST, number, request)
    exchange = web.accept()
    assert exchange.read_exactly(len(request)) == request
    return exchange


def wait_until_stuck(daemon):
    """Waits until the worker has nowhere to write to: all buffers up to its peer are full."""
    def is_full():
        seen = daemon.unsent_bytes()
        time.sleep(0.2)
        return seen > 0 and daemon.unsent_bytes() == seen
    wait_until(is_full, "the daemon's connection is full")


def wait_until_taken(daemon):
    """Waits until the daemon has read all that its peers have sent."""
    wait_until(lambda: daemon.unread_bytes() == 0, "the daemon has read what came")


def carry(session, web, number=0x1234, request=REQUEST, answer=b"HTTP/1.0 200 OK\r\n\r\nhello"):
    """Carries one request through and checks both ways."""
    send_request(session, web, number, request).answer(answer)
    packet = session.read_packet()
    assert (packet.type, packet.id, packet.reserve) == (RELAY_RESPONSE, number, 0)
    assert packet.body == answer
