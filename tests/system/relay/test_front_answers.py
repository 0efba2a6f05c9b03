"""What of a device's answer reaches the user, and what becomes of one that is unusable."""

import gzip
import threading

import pytest

from device_peer import DEVICE_ID, http_answer
from processes import wait_until
from relay_peer import RELAY_RESPONSE, header


@pytest.fixture
def hand_on(device, user):
    """Has the device answer a request with these bytes; what the user gets."""
    def carry(answer, method="GET", version="HTTP/1.1"):
        user.ask("/", method, version=version)
        device.answer(device.expect_request(), answer)
        return user.read(method)
    return carry


def test_an_answer_with_its_length_is_handed_on(hand_on):
    response = hand_on(b"HTTP/1.1 201 Made It So\r\nServer: tiny\r\nX-cAsE: Kept  as\r\n"
                       b"Content-Type: text/plain\r\nContent-Length: 5\r\n\r\nhello")
    assert (response.version, response.status, response.reason) == ("HTTP/1.1", 201, "Made It So")
    assert response.headers == [
        ("Server", "tiny"), ("X-cAsE", "Kept  as"), ("Content-Type", "text/plain"),
        ("Content-Length", "5"), ("Connection", "keep-alive")]
    assert response.body == b"hello"


def test_what_comes_behind_the_length_is_cut_off(hand_on, device, user):
    assert hand_on(http_answer(b"hello") + b"HTTP/1.1 200 OK\r\n\r\nsplit").body == b"hello"
    user.ask()
    device.answer(device.expect_request(), http_answer(b"next"))
    assert user.expect(200).body == b"next"


@pytest.mark.parametrize("version", [b"HTTP/1.0", b"HTTP/1.1"])
def test_an_answer_until_the_end_gets_a_length(hand_on, version):
    response = hand_on(version + b" 200 OK\r\nServer: x\r\n\r\nuntil the end")
    assert response.body == b"until the end"
    assert response.values("Content-Length") == ["13"] and response.keeps_open


def test_an_answer_of_a_head_only_has_no_body(hand_on):
    response = hand_on(b"HTTP/1.0 200 OK\r\n\r\n")
    assert response.values("Content-Length") == ["0"] and response.body == b""


@pytest.mark.parametrize("size", [1, 16384, 262144, 1_000_000])
def test_a_chunked_answer_is_handed_on_chunked(hand_on, size):
    body = bytes(number % 251 for number in range(size)) * (1 if size > 1 else 300)
    chunks = b"".join(b"%X;ext=1\r\n%s\r\n" % (len(body[at:at + size]), body[at:at + size])
                      for at in range(0, len(body), size))
    response = hand_on(b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" + chunks +
                       b"0\r\nX-Trailer: dropped\r\n\r\n")
    assert response.body == body
    assert response.values("Transfer-Encoding") == ["chunked"]
    assert response.values("X-Trailer") == [] and response.keeps_open


@pytest.mark.parametrize("status", ["204 No Content", "304 Not Modified"])
def test_answers_without_a_body(hand_on, status):
    response = hand_on(f"HTTP/1.1 {status}\r\nETag: \"a\"\r\n\r\n".encode())
    assert response.status == int(status[:3]) and response.values("ETag") == ['"a"']
    assert response.keeps_open


@pytest.mark.parametrize("answer", [
    b"HTTP/1.1 200 OK\r\nContent-Length: 4711\r\n\r\n",
    b"HTTP/1.1 200 OK\r\nContent-Length: 4711\r\n\r\n" + b"x" * 4711,  # some servers do
])
def test_an_answer_to_head_keeps_the_length_that_it_tells(hand_on, answer, device, user):
    assert hand_on(answer, "HEAD").values("Content-Length") == ["4711"]
    user.ask()
    device.answer(device.expect_request())
    assert user.expect(200).body == b"hello"


def test_an_answer_to_head_may_tell_chunks(hand_on):
    response = hand_on(b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n", "HEAD")
    assert response.status == 200 and response.keeps_open


def test_interim_answers_are_passed_over(hand_on):
    interim = b"HTTP/1.1 103 Early Hints\r\nLink: </a>\r\n\r\n"
    response = hand_on(b"HTTP/1.1 100 Continue\r\n\r\n" + interim + http_answer(b"final"))
    assert (response.status, response.body) == (200, b"final")


def test_hop_by_hop_headers_end_here(hand_on):
    response = hand_on(http_answer(headers=[
        "Connection: X-One", "Keep-Alive: timeout=5", "Upgrade: h2c", "X-One: 1", "X-Two: 2",
        "Connection: close, x-three", "X-Three: 3", "Proxy-Authenticate: Basic", "Trailer: X"]))
    assert response.headers == [("X-Two", "2"), ("Content-Length", "5"),
                                ("Connection", "keep-alive")]


def test_cookies_are_handed_on_in_their_order(hand_on):
    cookies = ["sid=1; Path=/; HttpOnly", 'b="2"; Secure; SameSite=Lax', "c="]
    response = hand_on(http_answer(headers=[f"Set-Cookie: {cookie}" for cookie in cookies]))
    assert response.values("Set-Cookie") == cookies


def test_a_device_sets_no_cookies_for_its_neighbours(hand_on):
    response = hand_on(http_answer(headers=["Set-Cookie: a=1; domain=localhost; Path=/"]))
    assert response.values("Set-Cookie") == ["a=1; Path=/"]


def test_content_codings_pass_as_they_are(hand_on):
    body = gzip.compress(b"hello" * 100)
    response = hand_on(http_answer(body, headers=["Content-Encoding: gzip"]))
    assert response.body == body and response.values("Content-Encoding") == ["gzip"]


# --- redirects ---

@pytest.mark.parametrize("location, rewritten", [
    ("http://127.0.0.1/login?x=1#y", "http://{host}/login?x=1#y"),
    ("http://127.0.0.1", "http://{host}"),
    ("https://127.0.0.1:443/x", "http://{host}/x"),
    ("HTTP://LOCALHOST:80/x", "http://{host}/x"),
    ("http://127.0.0.1?x", "http://{host}?x"),
])
def test_redirects_to_the_device_itself_lead_to_the_public_address(hand_on, user, location,
                                                                   rewritten):
    response = hand_on(http_answer(b"", "302 Found", [f"Location: {location}"]))
    assert response.values("Location") == [rewritten.format(host=user.host)]


@pytest.mark.parametrize("location", ["https://127.0.0.1/", "https://localhost:443",
                                      "HTTPS://127.0.0.1:8443/"])
def test_a_redirect_to_the_device_s_own_https_is_explained(hand_on, location):
    response = hand_on(http_answer(b"", "301 Moved Permanently", [f"Location: {location}"]))
    assert response.status == 502
    assert b"Let the device serve plain HTTP to the relay" in response.body


@pytest.mark.parametrize("location", [
    "/relative", "relative", "", "http://elsewhere.example/", "http://127.0.0.1.evil.example/",
    "http://127.0.0.10/", "ftp://127.0.0.1/", "http://x@127.0.0.1/", "http://",
])
def test_other_redirects_stay(hand_on, location):
    response = hand_on(http_answer(b"", "302 Found", [f"Location: {location}"]))
    assert response.values("Location") == [location]


@pytest.mark.relay(options={"front": {"device_host": "router.lan:8080"}})
def test_the_device_s_own_name_is_what_it_is_called_by(hand_on, user):
    for port in ("", ":8080"):
        response = hand_on(http_answer(b"", "302 Found", [f"Location: http://Router.LAN{port}/x"]))
        assert response.values("Location") == [f"http://{user.host}/x"]


# --- unusable answers ---

UNUSABLE = {
    "empty": b"",
    "garbage": b"\x00\x01\x02 no HTTP",
    "text": b"hello\r\n\r\n",
    "no-end-of-head": b"HTTP/1.1 200 OK\r\nServer: x\r\n",
    "bare-line-feeds": b"HTTP/1.1 200 OK\nServer: x\n\nhello",
    "bad-version": b"HTTP/x.y 200 OK\r\n\r\n",
    "bad-status": b"HTTP/1.1 2000 OK\r\n\r\n",
    "bad-header": b"HTTP/1.1 200 OK\r\nno colon\r\n\r\n",
    "blank-before-colon": b"HTTP/1.1 200 OK\r\nServer : x\r\n\r\n",
    "shorter-than-its-length": b"HTTP/1.1 200 OK\r\nContent-Length: 6\r\n\r\nhello",
    "bad-length": b"HTTP/1.1 200 OK\r\nContent-Length: -1\r\n\r\nhello",
    "bare-cr-in-value": b"HTTP/1.1 200 OK\r\nX: a\rSet-Cookie: b\r\n\r\n",
    "bare-lf-in-value": b"HTTP/1.1 200 OK\r\nX: a\nSet-Cookie: b\r\n\r\n",
    "nul-in-value": b"HTTP/1.1 200 OK\r\nX: a\0b\r\n\r\n",
    "two-lengths": b"HTTP/1.1 200 OK\r\nContent-Length: 5\r\nContent-Length: 4\r\n\r\nhello",
    "length-and-chunks": b"HTTP/1.1 200 OK\r\nContent-Length: 5\r\nTransfer-Encoding: chunked\r\n"
                         b"\r\n5\r\nhello\r\n0\r\n\r\n",
    "bad-chunk": b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\nhello\r\n",
    "cut-chunk": b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhel",
    "no-last-chunk": b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n",
    "no-chunk": b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n",
    "interim-only": b"HTTP/1.1 100 Continue\r\n\r\n",
    "switching-protocols": b"HTTP/1.1 101 Switching Protocols\r\nUpgrade: x\r\n\r\n",
    "endless-head": b"HTTP/1.1 200 OK\r\nX: " + b"x" * 70000 + b"\r\n\r\n",
    "endless-head-without-end": b"HTTP/1.1 200 OK\r\n" + b"X: y\r\n" * 50000,
}


@pytest.mark.parametrize("answer", UNUSABLE.values(), ids=UNUSABLE)
def test_an_unusable_answer_is_502_and_the_connection_goes_on(hand_on, relay, answer, device, user):
    response = hand_on(answer)
    assert response.status == 502
    assert response.values("Content-Type") == ["text/html; charset=utf-8"]
    assert b"<h1>502 Bad Gateway</h1>" in response.body
    assert response.keeps_open
    user.ask()
    device.answer(device.expect_request())
    assert user.expect(200).body == b"hello"
    wait_until(lambda: [line["status"] for line in relay.accesses()] == [502, 200], "it is logged")
    assert relay.accesses()[0]["note"] == "unusable_answer"


def test_an_unusable_answer_to_head_is_a_page_without_body(hand_on):
    response = hand_on(b"", "HEAD")
    assert response.status == 502 and int(response.values("Content-Length")[0]) > 0


def test_chunks_that_break_off_later_do_not_look_whole(relay, device, user):
    user.ask()
    request = device.expect_request()
    start = b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n"
    device.send(header(RELAY_RESPONSE, request.id, len(start) + 3) + start)
    assert user.read_head().status == 200
    device.send(b"zzz")
    assert user.read_rest() == b"5\r\nhello\r\n"
    assert relay.devices()[DEVICE_ID]["open"] == 0
    wait_until(lambda: [line.get("note") for line in relay.accesses()] == ["cut_off"],
               "it is logged")
    device.beat()


def test_a_body_that_ends_with_the_connection_breaks_off_with_a_reset(relay, device, user):
    user.ask(version="HTTP/1.0")
    request = device.expect_request()
    start = b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n"
    device.send(header(RELAY_RESPONSE, request.id, len(start) + 3) + start)
    assert user.read_head().values("Connection") == ["close"]
    assert user._exactly(5) == b"hello"
    device.send(b"zzz")
    with pytest.raises(ConnectionResetError):
        user.socket.recv(1)
    wait_until(lambda: [line.get("note") for line in relay.accesses()] == ["cut_off"],
               "it is logged")


def test_an_answer_arrives_while_it_comes(device, user):
    """A page shows before it is whole."""
    user.ask()
    request = device.expect_request()
    answer = http_answer(b"x" * 3000)
    device.send(header(RELAY_RESPONSE, request.id, len(answer)) + answer[:1000])
    response = user.read_head()
    assert response.values("Content-Length") == ["3000"]
    assert user._exactly(500) == b"x" * 500
    device.send(answer[1000:])
    assert user._exactly(2500) == b"x" * 2500


def test_64_mb_pass_unchanged(device, user):
    body = bytes(range(256)) * (1 << 18)
    user.ask()
    request = device.expect_request()
    sender = threading.Thread(target=device.answer, args=(request, http_answer(body)))
    sender.start()
    assert user.expect(200).body == body
    sender.join()
