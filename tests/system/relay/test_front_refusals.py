"""Requests that the relay answers itself, and requests that nobody may pass on."""

import pytest

from device_peer import DEVICE_ID
from processes import wait_until


def untouched(device):
    """No request has reached the device: the next it gets is the reply to its heartbeat."""
    device.beat()


@pytest.fixture
def refuse(device, user):
    """Sends what must be refused with that status, and checks that the device never hears of it."""
    def check(raw, status):
        user.send(raw)
        response = user.expect(status)
        assert f"<h1>{status} {response.reason}</h1>".encode() in response.body
        assert response.values("Content-Type") == ["text/html; charset=utf-8"]
        if not response.keeps_open:
            user.expect_closed()
        untouched(device)
        return response
    return check


# --- pages ---

@pytest.mark.parametrize("host, text", [
    ("localhost", b"put the device"), ("example.org", b"put the device"),
    ("127.0.0.1", b"put the device"), ("nobody.localhost", b"&quot;nobody&quot; is not "
                                                           b"connected"),
    ("a.b.localhost", b"a.b"),
])
def test_404_for_a_host_that_is_no_device_s(refuse, user, host, text):
    response = refuse(f"GET / HTTP/1.1\r\nHost: {host}\r\n\r\n", 404)
    assert text in response.body and response.keeps_open
    refuse(f"GET / HTTP/1.1\r\nHost: {host}:80\r\n\r\n", 404)


def test_404_with_a_body_unread_ends_the_connection(refuse):
    assert not refuse("POST / HTTP/1.1\r\nHost: no.localhost\r\nContent-Length: 9\r\n\r\n",
                      404).keeps_open


def test_a_page_for_head_has_no_body(device, user):
    user.send("HEAD / HTTP/1.1\r\nHost: nobody.localhost\r\n\r\n")
    assert int(user.expect(404, "HEAD").values("Content-Length")[0]) > 100
    user.send("GET / HTTP/1.1\r\nHost: nobody.localhost\r\n\r\n")
    user.expect(404)


@pytest.mark.relay(options={"front": {"max_body_bytes": 1000}})
def test_413_for_a_body_above_the_limit(refuse, user, device):
    user.ask("/", "POST", body=b"x" * 1000)
    device.answer(device.expect_request())
    user.expect(200)
    response = refuse(user.head("/", "POST", ["Content-Length: 1001"]), 413)
    assert not response.keeps_open


@pytest.mark.relay(options={"front": {"max_body_bytes": 1000}})
def test_413_for_chunks_above_the_limit(refuse, user, device):
    start = user.head("/", "POST", ["Transfer-Encoding: chunked"])
    user.send(start + b"3e8\r\n" + b"x" * 1000 + b"\r\n0\r\n\r\n")
    device.answer(device.expect_request())
    user.expect(200)
    refuse(start + b"3e7\r\n" + b"x" * 999 + b"\r\n2\r\nxx\r\n0\r\n\r\n", 413)


@pytest.mark.relay(options={"front": {"max_body_bytes": 1000}})
def test_413_comes_before_the_body_when_it_is_asked_for(refuse, user):
    refuse(user.head("/", "POST", ["Content-Length: 1001", "Expect: 100-continue"]), 413)


@pytest.mark.relay(options={"front": {"max_body_bytes": 1000}})
def test_who_is_refused_can_still_read_why(device, user):
    """A reset under what he still sends would take the page from him."""
    user.send(user.head("/", "POST", ["Content-Length: 500000"]))
    for _ in range(50):
        user.send(b"x" * 10000)
    assert user.expect(413).body
    untouched(device)


@pytest.mark.relay(options={"front": {"max_header_bytes": 2048}})
def test_431_for_a_header_above_the_limit(refuse, user, device):
    fill = 2048 - len(user.head(headers=["X: "]))
    user.send(user.head(headers=["X: " + "y" * fill]))
    device.answer(device.expect_request())
    user.expect(200)
    refuse(user.head(headers=["X: " + "y" * (fill + 1)]), 431)


@pytest.mark.parametrize("start", ["GET /", "GET / HTTP/1.1\r\nX: ", "GET / HTTP/1.1\r\n"])
def test_431_for_a_header_of_1_mb(device, user, start):
    user.send(start)
    try:
        for _ in range(100):
            user.send("X: yyyyyy\r\n" * 1000 if start.endswith("\n") else "y" * 10000)
    except OSError:
        pass  # the relay need not take it all in
    assert user.expect(431).body
    untouched(device)


@pytest.mark.parametrize("upgrade", ["websocket", "h2c, WebSocket"])
def test_501_for_a_websocket_says_why(refuse, user, upgrade):
    head = user.head("/ws", headers=["Connection: Upgrade", f"Upgrade: {upgrade}"])
    assert b"WebSocket" in refuse(head, 501).body


def test_other_offers_to_upgrade_are_ignored(device, user):
    user.ask(headers=["Connection: Upgrade, HTTP2-Settings", "Upgrade: h2c",
                      "HTTP2-Settings: AAMAAABkAARAAAAAAAIAAAAA"])
    request = device.expect_request()
    assert request.values("Upgrade") == request.values("HTTP2-Settings") == []
    device.answer(request)
    user.expect(200)


@pytest.mark.parametrize("origin", ["http://neighbour.localhost:{port}", "null",
                                    "http://neighbour.localhost"])
def test_403_for_a_change_that_another_device_s_page_asks_for(relay, device, user, origin):
    origin = origin.format(port=relay.front_port)
    user.ask("/reset", "POST", ["Sec-Fetch-Site: same-site", f"Origin: {origin}"], b"")
    assert b"another device" in user.expect(403).body
    user.ask("/link", headers=["Sec-Fetch-Site: same-site"])
    request = device.expect_request()
    assert request.line == "GET /link HTTP/1.1"
    device.answer(request)
    user.expect(200)


@pytest.mark.parametrize("site", ["same-site", "same-origin"])
def test_a_page_of_the_device_itself_may_change_it(device, user, site):
    user.ask("/reset", "POST", [f"Sec-Fetch-Site: {site}", f"Origin: http://{user.host}"], b"")
    request = device.expect_request()
    assert request.values("Origin") == ["http://127.0.0.1"]
    device.answer(request)
    user.expect(200)


def test_501_for_connect(refuse):
    refuse("CONNECT example.org:443 HTTP/1.1\r\nHost: example.org:443\r\n\r\n", 501)


def test_501_for_trace(refuse, user):
    refuse(user.head(method="TRACE"), 501)


@pytest.mark.parametrize("version", ["HTTP/2.0", "HTTP/1.2", "HTTP/0.9"])
def test_505_for_other_versions(refuse, user, version):
    refuse(user.head(version=version), 505)


@pytest.mark.relay(options={"devices": {"requests_open": 5, "requests_out": 2}})
def test_503_when_a_device_has_too_many_open(relay, device, open_user, connect):
    users = [open_user() for _ in range(6)]
    for number, each in enumerate(users[:5]):
        each.ask(f"/{number}")
        wait_until(lambda: relay.devices()[DEVICE_ID]["open"] == number + 1, "it is there")
    users[5].ask("/one-too-many")
    response = users[5].expect(503)
    assert b"too many requests open" in response.body and response.keeps_open
    connect("idle").join()
    other = open_user("idle")
    other.ask()  # another device is not concerned
    for number, each in enumerate(users[:5]):
        request = device.expect_request()
        assert request.line == f"GET /{number} HTTP/1.1"
        device.answer(request)
        each.expect(200)
    users[5].ask("/again")
    device.answer(device.expect_request())
    users[5].expect(200)


def test_a_page_shows_what_came_from_outside_as_text(refuse):
    response = refuse("GET / HTTP/1.1\r\nHost: nobody[x].localhost\r\n\r\n", 404)
    assert b"<script" not in response.body


# --- what two parsers could read differently ---

H = "Host: {host}\r\n"
NEXT = "GET /smuggled HTTP/1.1\r\n" + H + "\r\n"
CHUNKED = "POST / HTTP/1.1\r\n" + H + "Transfer-Encoding: chunked\r\n\r\n"


def post(*headers, body="5\r\nhello\r\n0\r\n\r\n"):
    return "POST / HTTP/1.1\r\n" + H + "".join(f"{each}\r\n" for each in headers) + "\r\n" + body


ATTACKS = {
    # lengths
    "two-lengths": post("Content-Length: 5", "Content-Length: 6", body="hello"),
    "two-equal-lengths": post("Content-Length: 5", "Content-Length: 5", body="hello"),
    "list-of-lengths": post("Content-Length: 5, 5", body="hello"),
    "list-of-different-lengths": post("Content-Length: 5, 6", body="hello"),
    "list-with-nothing": post("Content-Length: 5,", body="hello"),
    "negative-length": post("Content-Length: -5", body="hello"),
    "signed-length": post("Content-Length: +5", body="hello"),
    "hexadecimal-length": post("Content-Length: 0x5", body="hello"),
    "length-with-text": post("Content-Length: 5x", body="hello"),
    "length-in-two-words": post("Content-Length: 5 5", body="hello"),
    "empty-length": post("Content-Length:", body="hello"),
    "quoted-length": post('Content-Length: "5"', body="hello"),
    "fractional-length": post("Content-Length: 5.0", body="hello"),
    "overflowing-length": post("Content-Length: 18446744073709551621", body="hello"),
    "overflowing-length-of-32-bits": post("Content-Length: 4294967301", body="hello"),
    "endless-length": post("Content-Length: " + "9" * 400, body="hello"),
    # length and coding
    "length-then-coding": post("Content-Length: 5", "Transfer-Encoding: chunked"),
    "coding-then-length": post("Transfer-Encoding: chunked", "Content-Length: 5"),
    "coding-then-zero-length": post("Transfer-Encoding: chunked", "Content-Length: 0"),
    "coding-in-http-1.0": post("Transfer-Encoding: chunked").replace("HTTP/1.1", "HTTP/1.0", 1),
    "two-codings": post("Transfer-Encoding: chunked", "Transfer-Encoding: chunked"),
    "two-different-codings": post("Transfer-Encoding: chunked", "Transfer-Encoding: identity"),
    "identity-first": post("Transfer-Encoding: identity", "Transfer-Encoding: chunked"),
    "list-of-codings": post("Transfer-Encoding: chunked, chunked"),
    "coding-and-identity": post("Transfer-Encoding: chunked, identity"),
    "gzip-coding": post("Transfer-Encoding: gzip, chunked"),
    "identity-coding": post("Transfer-Encoding: identity"),
    "near-coding": post("Transfer-Encoding: xchunked"),
    "quoted-coding": post('Transfer-Encoding: "chunked"'),
    "coding-with-parameter": post("Transfer-Encoding: chunked;q=1"),
    "coding-with-comma": post("Transfer-Encoding: chunked,"),
    "coding-behind-comma": post("Transfer-Encoding: ,chunked"),
    "empty-coding": post("Transfer-Encoding:"),
    "coding-behind-vertical-tab": post("Transfer-Encoding: \x0bchunked"),
    "coding-with-latin-blank": post("Transfer-Encoding: \xa0chunked"),
    "blank-before-colon": post("Transfer-Encoding : chunked"),
    "tab-before-colon": post("Transfer-Encoding\t: chunked"),
    "blank-before-colon-of-length": post("Content-Length : 5", body="hello"),
    "coding-folded": post("Transfer-Encoding:\r\n chunked"),
    "coding-with-nul": post("Transfer-Encoding: chunked\0"),
    # lines
    "bare-cr-in-value": post("X: a\rContent-Length: 5", body="hello"),
    "bare-cr-line-end": "GET / HTTP/1.1\r" + H + "\r\n",
    "bare-cr-at-the-end": "GET / HTTP/1.1\r\n" + H + "\r\r\n",
    "two-crs": "GET / HTTP/1.1\r\n" + H + "X: y\r\r\n\r\n",
    "bare-lf-in-head": "GET / HTTP/1.1\r\nX: y\n" + H + "\r\n",
    "bare-lf-everywhere": "GET / HTTP/1.1\nHost: {host}\n\n",
    "bare-lf-at-the-end": "GET / HTTP/1.1\r\n" + H + "\n",
    "lf-cr": "GET / HTTP/1.1\n\r" + H + "\r\n",
    "nul-in-value": "GET / HTTP/1.1\r\n" + H + "X: a\0b\r\n\r\n",
    "nul-in-name": "GET / HTTP/1.1\r\n" + H + "X\0: a\r\n\r\n",
    "nul-in-target": "GET /a\0b HTTP/1.1\r\n" + H + "\r\n",
    "control-in-value": "GET / HTTP/1.1\r\n" + H + "X: a\x08b\r\n\r\n",
    "delete-in-value": "GET / HTTP/1.1\r\n" + H + "X: a\x7fb\r\n\r\n",
    "folded-by-blank": "GET / HTTP/1.1\r\n" + H + "X: a\r\n b\r\n\r\n",
    "folded-by-tab": "GET / HTTP/1.1\r\n" + H + "X: a\r\n\tb\r\n\r\n",
    "folded-first-header": "GET / HTTP/1.1\r\n X: a\r\n" + H + "\r\n",
    "no-colon": "GET / HTTP/1.1\r\n" + H + "nothing\r\n\r\n",
    "empty-name": "GET / HTTP/1.1\r\n" + H + ": x\r\n\r\n",
    "blank-in-name": "GET / HTTP/1.1\r\n" + H + "X Y: x\r\n\r\n",
    "latin-name": "GET / HTTP/1.1\r\n" + H + "\xc4: x\r\n\r\n",
    # request line
    "no-version": "GET /\r\n" + H + "\r\n",
    "two-blanks": "GET  / HTTP/1.1\r\n" + H + "\r\n",
    "tab-in-line": "GET\t/ HTTP/1.1\r\n" + H + "\r\n",
    "blank-in-target": "GET /a b HTTP/1.1\r\n" + H + "\r\n",
    "blank-at-the-end": "GET / HTTP/1.1 \r\n" + H + "\r\n",
    "blank-at-the-start": " GET / HTTP/1.1\r\n" + H + "\r\n",
    "small-version": "GET / http/1.1\r\n" + H + "\r\n",
    "long-version": "GET / HTTP/1.10\r\n" + H + "\r\n",
    "method-with-colon": "GET: / HTTP/1.1\r\n" + H + "\r\n",
    "no-method": " / HTTP/1.1\r\n" + H + "\r\n",
    "no-path": "GET page HTTP/1.1\r\n" + H + "\r\n",
    "delete-in-target": "GET /\x7f HTTP/1.1\r\n" + H + "\r\n",
    "tls-to-plain": "\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03",
    # hosts
    "no-host": "GET / HTTP/1.1\r\n\r\n",
    "two-hosts": "GET / HTTP/1.1\r\n" + H + "Host: other.localhost\r\n\r\n",
    "two-equal-hosts": "GET / HTTP/1.1\r\n" + H + H + "\r\n",
    "empty-host": "GET / HTTP/1.1\r\nHost:\r\n\r\n",
    "host-with-user": "GET / HTTP/1.1\r\nHost: x@{host}\r\n\r\n",
    "host-with-path": "GET / HTTP/1.1\r\nHost: {host}/x\r\n\r\n",
    "host-with-blank": "GET / HTTP/1.1\r\nHost: x {host}\r\n\r\n",
    "host-list": "GET / HTTP/1.1\r\nHost: {host}, x\r\n\r\n",
    "absolute-with-user": "GET http://x@{host}/ HTTP/1.1\r\n" + H + "\r\n",
    "absolute-with-user-and-password": "GET http://x:y@{host}/ HTTP/1.1\r\n" + H + "\r\n",
    "absolute-without-host": "GET http:///x HTTP/1.1\r\n" + H + "\r\n",
    "absolute-with-backslash": "GET http:\\\\{host}/ HTTP/1.1\r\n" + H + "\r\n",
    "absolute-with-two-hosts": "GET http://{host}\\@other.localhost/ HTTP/1.1\r\n" + H + "\r\n",
    # chunks
    "chunk-of-nothing": CHUNKED + "\r\nhello\r\n0\r\n\r\n",
    "negative-chunk": CHUNKED + "-5\r\nhello\r\n0\r\n\r\n",
    "signed-chunk": CHUNKED + "+5\r\nhello\r\n0\r\n\r\n",
    "hexadecimal-chunk": CHUNKED + "0x5\r\nhello\r\n0\r\n\r\n",
    "blank-before-chunk": CHUNKED + " 5\r\nhello\r\n0\r\n\r\n",
    "overflowing-chunk": CHUNKED + "10000000000000005\r\nhello\r\n0\r\n\r\n",
    "chunk-of-all-bits": CHUNKED + "ffffffffffffffff\r\nhello\r\n0\r\n\r\n",
    "bare-lf-behind-size": CHUNKED + "5\nhello\r\n0\r\n\r\n",
    "bare-cr-behind-size": CHUNKED + "5\rhello\r\n0\r\n\r\n",
    "bare-lf-in-extension": CHUNKED + "5;a\nb\r\nhello\r\n0\r\n\r\n",
    "bare-cr-in-extension": CHUNKED + "5;a\rb\r\nhello\r\n0\r\n\r\n",
    "nul-in-extension": CHUNKED + "5;a\0\r\nhello\r\n0\r\n\r\n",
    "extension-without-name": CHUNKED + "5;=x\r\nhello\r\n0\r\n\r\n",
    "text-behind-size": CHUNKED + "5x\r\nhello\r\n0\r\n\r\n",
    "chunk-longer-than-its-size": CHUNKED + "4\r\nhello\r\n0\r\n\r\n",
    "chunk-without-line-end": CHUNKED + "5\r\nhello0\r\n\r\n",
    "bare-lf-behind-chunk": CHUNKED + "5\r\nhello\n0\r\n\r\n",
    "bad-trailer": CHUNKED + "5\r\nhello\r\n0\r\nno colon\r\n\r\n",
    "length-as-trailer": CHUNKED + "5\r\nhello\r\n0\r\nContent-Length: 3\r\n\r\n",
    "coding-as-trailer": CHUNKED + "5\r\nhello\r\n0\r\nTransfer-Encoding: chunked\r\n\r\n",
    "nul-in-trailer": CHUNKED + "5\r\nhello\r\n0\r\nX: a\0\r\n\r\n",
    "bare-lf-in-trailer": CHUNKED + "5\r\nhello\r\n0\r\nX: a\n\r\n\r\n",
    "endless-extension": CHUNKED + "5;" + "a" * 1_000_000 + "\r\nhello\r\n0\r\n\r\n",
    "endless-trailer": CHUNKED + "0\r\n" + "X: y\r\n" * 100_000 + "\r\n",
}


@pytest.mark.parametrize("attack", ATTACKS.values(), ids=ATTACKS)
def test_what_could_be_read_in_two_ways_is_never_passed_on(device, user, attack):
    user.send((attack + NEXT).replace("{host}", user.host))
    response = user.read()
    assert response.status in (400, 413, 431, 501, 505), response.status
    assert not response.keeps_open
    user.expect_closed()
    untouched(device)


@pytest.mark.parametrize("attack", [
    "GET / HTTP/1.1\r\nX: y\n" + H + "\r\n", post("X: a\rY: b"), post("X: a\r\n b"),
    CHUNKED + "5\nhello\r\n", post("Content-Length: 5, 5", body="hello")])
def test_byte_by_byte_they_fare_no_better(device, user, attack):
    try:
        for character in attack.replace("{host}", user.host):
            user.send(character)
    except OSError:
        pass  # refused before the last one
    assert user.read().status in (400, 501)
    untouched(device)


@pytest.mark.relay(front_tls=True)
def test_tls_changes_nothing(device, user):
    user.send(ATTACKS["length-then-coding"].replace("{host}", user.host))
    assert user.read().status == 400
    untouched(device)


def test_a_refusal_is_written_to_the_access_log(relay, device, user):
    user.send("GET /\0 HTTP/1.1\r\n\r\n")
    user.expect(400)
    wait_until(lambda: relay.access_log.read_text(), "it is logged")
    line, = relay.accesses()
    assert (line["status"], line["note"], line["device"]) == (400, "bad_request", "")
