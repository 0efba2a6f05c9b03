"""Requests, answers and packets with random damage: whatever comes of them is well-formed."""

import json
import random
import re

import pytest

from device_peer import Device, hello_of, http_answer
from http_user import User
from processes import wait_until
from relay_peer import HELLO, RELAY_RESPONSE, Closed, NothingCame, header

_PIECES = [
    b"\r", b"\n", b"\r\n", b"\r\n\r\n", b"\0", b" ", b"\t", b":", b",", b";", b"0", b"-", b"+",
    b"%", b"\xff", b"\x7f", b"f" * 16, b"chunked", b"HTTP/1.1", b"Host: x\r\n",
    b"GET / HTTP/1.1\r\n", b"Content-Length: 3\r\n", b"Transfer-Encoding: chunked\r\n",
]


def damaged(data, chance):
    """`data` with a few places changed, cut or doubled."""
    data = bytearray(data)
    for _ in range(chance.choice((1, 1, 3))):
        at = chance.randrange(len(data) + 1)
        to = min(len(data), at + chance.randint(0, 8))
        how = chance.randrange(5)
        if how == 0:
            data[at:at] = chance.choice(_PIECES)
        elif how == 1:
            data[at:to] = b""
        elif how == 2:
            data[at:to] = chance.choice(_PIECES)
        elif how == 3:
            data[at:at] = data[at:to]
        elif at < len(data):
            data[at] = chance.randrange(256)
    return bytes(data)


def requests_of(host):
    return [
        b"GET /page?x=1 HTTP/1.1\r\nHost: %s\r\nAccept: */*\r\nCookie: a=b\r\n\r\n" % host,
        b"POST /form HTTP/1.1\r\nHost: %s\r\nContent-Length: 11\r\nX: y\r\n\r\nhello world" % host,
        b"POST /form HTTP/1.1\r\nHost: %s\r\nTransfer-Encoding: chunked\r\n\r\n"
        b"6;a=b\r\nhello \r\n5\r\nworld\r\n0\r\nX: y\r\n\r\n" % host,
        b"GET http://%s/x HTTP/1.1\r\nHost: x\r\nConnection: close, X\r\nX: 1\r\n\r\n" % host,
    ]


def assert_fit_for_a_device(request):
    """Two parsers cannot read it differently."""
    assert re.fullmatch(r"[!#$%&'*+.^_`|~0-9A-Za-z-]+ [!-~\x80-\xff]+ HTTP/1\.[01]", request.line)
    for line in request.head[1:]:
        assert re.fullmatch(r"[!#$%&'*+.^_`|~0-9A-Za-z-]+: [\t -~\x80-\xff]*", line), line
    assert request.values("Host") == ["127.0.0.1"] and request.headers[0][0] == "Host"
    assert request.values("Transfer-Encoding") == [] and request.values("Upgrade") == []
    assert request.values("Connection") == ["close"] and request.head[-1] == "Connection: close"
    lengths = request.values("Content-Length")
    assert lengths in ([], [str(len(request.body))])
    assert lengths or not request.body


@pytest.mark.lasts(4)
@pytest.mark.parametrize("seed", range(4))
def test_damaged_requests_arrive_well_formed_or_not_at_all(relay, seed):
    chance = random.Random(seed)
    arrived = []

    def take(request):
        arrived.append(request)
        return http_answer()

    with Device(relay.device_port) as device:
        device.join().serve(take)
        for _ in range(150):
            with User(relay) as user:
                kinds = requests_of(user.host.encode())
                user.send(damaged(chance.choice(kinds), chance) + chance.choice(kinds))
                user.end_output()
                answers = user.read_rest()
                assert answers == b"" or answers.startswith(b"HTTP/1.1 ")
        assert relay.process.status is None
        with User(relay) as user:
            user.ask("/last")
            assert user.expect(200).body == b"hello"
    assert len(arrived) > 10
    for request in arrived:
        assert_fit_for_a_device(request)


ANSWERS = [
    b"HTTP/1.1 200 OK\r\nContent-Length: 5\r\nSet-Cookie: a=b\r\n\r\nhello",
    b"HTTP/1.0 302 Found\r\nLocation: http://127.0.0.1/x\r\nConnection: close\r\n\r\nbody",
    b"HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
    b"5;x=y\r\nhello\r\n6\r\n world\r\n0\r\nX: y\r\n\r\n",
]


@pytest.mark.lasts(4)
@pytest.mark.parametrize("seed", range(4))
def test_damaged_answers_come_out_well_formed(relay, device, seed):
    """User.read() checks the framing, and the next answer on the connection where it ends."""
    chance = random.Random(seed)
    user = None
    for number in range(150):
        user = user or User(relay)
        method = chance.choice(["GET", "GET", "HEAD"])
        user.ask(f"/{number}", method)
        device.answer(device.expect_request(), damaged(chance.choice(ANSWERS), chance))
        response = user.read(method)
        for _, value in response.headers:
            assert not re.search(r"[\0\r\n]", value)
        if not response.keeps_open:
            user.close()
            user = None
    device.beat()
    if user:
        user.close()


@pytest.mark.lasts(4)
@pytest.mark.parametrize("seed", range(2))
def test_damaged_packets_hurt_only_their_sender(relay, connect, seed):
    chance = random.Random(seed)
    good = connect("good").join()
    hello = json.dumps(hello_of("bad")).encode()
    talk = header(HELLO, 0, len(hello)) + hello + header(2, 7, 0) + header(
        RELAY_RESPONSE, 9, 20) + b"HTTP/1.1 200 OK\r\n\r\nx" + header(5, 9, 2) + b"{}"
    for _ in range(60):
        with Device(relay.device_port, "bad") as bad:
            try:
                bad.send(damaged(talk, chance))
                bad.read_some(within=0.05)
            except (Closed, NothingCame, OSError):
                pass
        good.beat()
    assert relay.process.status is None
    wait_until(lambda: list(relay.devices()) == ["good"], "the others have gone")
