"""What of a user's request reaches the device, and how."""

import socket
import subprocess

import pytest

from daemon import slowness
from device_peer import DEVICE_ID, http_answer
from processes import wait_until


@pytest.fixture
def forward(device, user):
    """Sends a head and body as given; the request as the device gets it. The user has 200."""
    def carry(raw, status=200, method="GET"):
        user.send(raw)
        request = device.expect_request()
        device.answer(request)
        user.expect(status, method)
        return request
    return carry


def test_line_and_headers_arrive_as_they_came(forward, user):
    host = user.host
    request = forward(f"GET /a/../b//c?q=%20+&x[]=1 HTTP/1.1\r\nzeta: 1\r\nHOST: {host}\r\n"
                      "X-cAsE: Kept as IS\r\nAccept: */*\r\nalpha:  spaces  \r\nempty:\r\n"
                      "Cookie: a=b; c=\"d e\"\r\nlatin: \xe4\xf6\xfc\r\n\r\n")
    assert request.line == "GET /a/../b//c?q=%20+&x[]=1 HTTP/1.1"
    assert request.headers == [
        ("Host", "127.0.0.1"), ("zeta", "1"), ("X-cAsE", "Kept as IS"), ("Accept", "*/*"),
        ("alpha", "spaces"), ("empty", ""), ("Cookie", 'a=b; c="d e"'), ("latin", "\xe4\xf6\xfc"),
        ("X-Forwarded-For", "127.0.0.1"), ("X-Forwarded-Proto", "http"),
        ("X-Forwarded-Host", host), ("Connection", "close")]
    assert request.body == b""


def test_repeated_headers_all_arrive_where_they_stood(forward, user):
    request = forward(user.head(headers=["A: 1", "A: 2", "B: 3", "A: 4", "B: 5"]))
    assert request.headers[1:6] == [("A", "1"), ("A", "2"), ("B", "3"), ("A", "4"), ("B", "5")]


def test_hop_by_hop_headers_end_here(forward, user):
    request = forward(user.head(headers=[
        "Connection: keep-alive, X-One", "Keep-Alive: timeout=5", "Proxy-Connection: keep-alive",
        "Proxy-Authorization: Basic eA==", "TE: trailers", "Trailer: X-Sum",
        "X-One: 1", "X-Two: 2", "connection: x-three", "X-Three: 3", "X-Four: 4"]))
    names = [name.lower() for name, _ in request.headers]
    assert names == ["host", "x-two", "x-four", "x-forwarded-for", "x-forwarded-proto",
                     "x-forwarded-host", "connection"]
    assert request.values("Connection") == ["close"]


def test_forged_forwarding_headers_are_replaced(forward, user):
    request = forward(user.head(headers=[
        "X-Forwarded-For: 6.6.6.6", "x-forwarded-for: 7.7.7.7", "X-Forwarded-Proto: https",
        "X-Forwarded-Host: bank.example", "X-Forwarded-Port: 1", "X-Real-IP: 6.6.6.6",
        "Forwarded: for=6.6.6.6"]))
    assert request.headers[1:] == [
        ("X-Forwarded-For", "127.0.0.1"), ("X-Forwarded-Proto", "http"),
        ("X-Forwarded-Host", user.host), ("Connection", "close")]


@pytest.mark.relay(options={"front": {"device_host": "router.lan:8080"}})
def test_the_host_that_the_device_expects_is_configurable(forward, user):
    assert forward(user.head()).values("Host") == ["router.lan:8080"]


@pytest.mark.relay(options={"front": {"base_domain": "Relay.Example"}})
@pytest.mark.parametrize("host", ["{}.relay.example", "{}.RELAY.EXAMPLE:8080",
                                  "{}.relay.example.", "{}.relay.example.:80"])
def test_the_base_domain_is_configurable(forward, host):
    host = host.format(DEVICE_ID)
    request = forward(f"GET / HTTP/1.1\r\nHost: {host}\r\n\r\n")
    assert request.values("X-Forwarded-Host") == [host]


@pytest.mark.parametrize("method, body", [
    ("GET", None), ("HEAD", None), ("DELETE", None), ("OPTIONS", None), ("PATCH", b"p"),
    ("POST", b""), ("POST", b"\x00\xff\r\n\r\n"), ("PUT", b"put"), ("DELETE", b"with a body"),
    ("PROPFIND", b"<x/>"), ("MADE-UP", b"1"),
])
def test_methods_pass_with_their_bodies(device, user, method, body):
    user.ask("/m", method, body=body)
    request = device.expect_request()
    assert request.line == f"{method} /m HTTP/1.1"
    assert request.body == (body or b"")
    assert request.values("Content-Length") == ([] if body is None else [str(len(body))])
    device.answer(request)
    assert user.expect(200, method).body == (b"" if method == "HEAD" else b"hello")


def test_a_post_of_5_mb_arrives_whole(device, user):
    body = bytes(range(256)) * 20480
    user.ask("/up", "POST", body=body)
    request = device.expect_request()
    assert request.body == body
    device.answer(request)
    user.expect(200)


def test_a_chunked_upload_arrives_with_its_length(forward, user):
    chunks = [b"first ", b"x" * 70000, b" last"]
    body = b"".join(b"%x;name=\"v\"\r\n%s\r\n" % (len(chunk), chunk) for chunk in chunks)
    request = forward(user.head(method="POST", headers=["Transfer-Encoding: Chunked"]) + body +
                      b"0\r\n\r\n")
    assert request.body == b"".join(chunks)
    assert request.values("Content-Length") == [str(len(request.body))]
    assert request.values("Transfer-Encoding") == []


def test_trailers_do_not_become_headers(forward, user):
    """Who looks at headers only would let through what comes behind the body."""
    request = forward(user.head(method="POST", headers=["Transfer-Encoding: chunked", "X-A: 1"]) +
                      b"1\r\nx\r\n0\r\nX-A: 2\r\nAuthorization: forged\r\nX-B: 3\r\n\r\n")
    assert request.values("X-A") == ["1"]
    assert request.values("Authorization") == [] and request.values("X-B") == []


def test_an_empty_chunked_upload_has_length_0(forward, user):
    request = forward(user.head(method="POST", headers=["Transfer-Encoding: chunked"]) +
                      b"0\r\n\r\n")
    assert request.values("Content-Length") == ["0"]


def test_a_body_byte_by_byte_is_one_packet(device, user):
    user.send(user.head(method="POST", headers=["Content-Length: 20"]))
    for _ in range(20):
        user.send(b"y")
    request = device.expect_request()
    assert request.body == b"y" * 20
    device.answer(request)
    user.expect(200)


def test_the_device_hears_of_a_request_when_it_is_whole(relay, device, user):
    user.send(user.head(method="POST", headers=["Content-Length: 2"]) + b"a")
    wait_until(lambda: relay.metric("relay_memory_used_bytes") > 0, "the relay has its beginning")
    device.beat()  # no request came before this reply
    user.send(b"b")
    assert device.expect_request().body == b"ab"


def test_who_expects_to_be_asked_for_the_body_is_asked(device, user):
    user.send(user.head(method="POST", headers=["Content-Length: 2", "Expect: 100-continue"]))
    assert user.expect(100).headers == []
    device.beat()  # no request came before this reply
    user.send(b"ab")
    request = device.expect_request()
    assert request.body == b"ab" and request.values("Expect") == []
    device.answer(request)
    user.expect(200)


def test_an_http_1_0_user_is_not_asked_for_the_body(device, user):
    user.send(user.head(method="POST", version="HTTP/1.0",
                        headers=["Content-Length: 2", "Expect: 100-continue"]))
    user.expect_nothing_for(0.3)
    user.send(b"ab")
    device.answer(device.expect_request())
    user.expect(200)


# --- targets ---

def test_options_of_the_server_itself(forward, user):
    assert forward(user.head("*", "OPTIONS")).line == "OPTIONS * HTTP/1.1"


@pytest.mark.parametrize("rest, target", [("/page?x=1", "/page?x=1"), ("", "/"), ("?x=1", "/?x=1")])
def test_the_absolute_form_names_the_device_itself(forward, user, rest, target):
    request = forward(f"GET http://{user.host}{rest} HTTP/1.1\r\nHost: elsewhere.example\r\n\r\n")
    assert request.line == f"GET {target} HTTP/1.1"
    assert request.values("X-Forwarded-Host") == [user.host]


def test_empty_lines_before_a_request_are_passed_over(forward, user):
    assert forward(b"\r\n\r\n" + user.head("/x")).line == "GET /x HTTP/1.1"


# --- one connection, many requests ---

def test_a_connection_is_kept(device, user):
    for number in range(5):
        user.ask(f"/{number}")
        device.answer(device.expect_request(), http_answer(str(number).encode()))
        response = user.expect(200)
        assert response.body == str(number).encode() and response.keeps_open
    assert user._relay.metric("relay_user_connections_total") == 1


def test_pipelined_requests_are_answered_in_order(device, user):
    user.send(b"".join(user.head(f"/{number}") if number % 2 else
                       user.head(f"/{number}", "POST", ["Content-Length: 3"]) + b"abc"
                       for number in range(10)))
    for number in range(10):
        request = device.expect_request()
        assert f" /{number} " in request.line
        device.answer(request, http_answer(str(number).encode()))
    assert [user.expect(200).body for _ in range(10)] == [b"%d" % number for number in range(10)]


def test_who_asks_for_close_gets_it(device, user):
    user.ask(headers=["Connection: close"])
    device.answer(device.expect_request())
    assert not user.expect(200).keeps_open
    user.expect_closed()


def test_an_http_1_0_user_gets_an_answer_and_the_end(device, user):
    user.ask(version="HTTP/1.0")
    request = device.expect_request()
    assert request.line == "GET / HTTP/1.0"
    device.answer(request)
    response = user.expect(200)
    assert response.body == b"hello" and not response.keeps_open
    user.expect_closed()


def test_an_http_1_0_user_may_ask_to_stay(device, user):
    for _ in range(2):
        user.ask(version="HTTP/1.0", headers=["Connection: keep-alive"])
        device.answer(device.expect_request())
        assert user.expect(200).values("Connection") == ["keep-alive"]


def test_an_http_1_0_user_gets_a_chunked_answer_unchunked(device, user):
    user.ask(version="HTTP/1.0", headers=["Connection: keep-alive"])
    device.answer(device.expect_request(), b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
                                           b"5\r\nhello\r\n0\r\n\r\n")
    response = user.expect(200)
    assert response.body == b"hello" and not response.keeps_open


# --- TLS ---

@pytest.mark.relay(front_tls=True)
def test_users_may_speak_tls(relay, device, user):
    for number in range(3):
        user.ask(f"/{number}")
        request = device.expect_request()
        assert request.values("X-Forwarded-Proto") == ["https"]
        device.answer(request, http_answer(headers=["Location: http://127.0.0.1/x"]))
        assert user.expect(200).values("Location") == [f"https://{user.host}/x"]
    assert relay.devices()[DEVICE_ID]["url"].startswith("https://")


@pytest.mark.relay(front_tls=True)
@pytest.mark.parametrize("versions, status", [
    (["--tlsv1.3"], 0), (["--tlsv1.2", "--tls-max", "1.2"], 0),
    (["--tlsv1.1", "--tls-max", "1.1"], 35)])
def test_only_current_tls_is_spoken_to_users(relay, device, versions, status):
    device.serve(lambda request: http_answer(b"page"))
    finished = subprocess.run(
        ["curl", "-skS", *versions, "--ciphers", "DEFAULT:@SECLEVEL=0",
         f"https://{relay.host(DEVICE_ID)}/"], capture_output=True, timeout=30)
    assert finished.returncode == status
    assert finished.stdout == (b"page" if status == 0 else b"")


@pytest.mark.relay(front_tls=True)
def test_a_body_that_ends_with_the_connection_ends_in_order(relay, device, user):
    """Over TLS an end without a goodbye could be anybody's doing; openssl minds."""
    device.serve(lambda request: b"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
                                 b"5\r\nhello\r\n0\r\n\r\n")
    finished = subprocess.run(
        ["openssl", "s_client", "-quiet", "-connect", f"127.0.0.1:{relay.front_port}"],
        input=user.head(version="HTTP/1.0"), capture_output=True, timeout=30)
    assert finished.stdout.endswith(b"\r\n\r\nhello")
    assert b"unexpected eof" not in finished.stderr


@pytest.mark.relay(front_tls=True, options={"front": {"patience_s": 1}})
def test_a_user_who_starts_no_tls_is_dropped(relay):
    with socket.create_connection(("127.0.0.1", relay.front_port)) as silent:
        silent.settimeout(3 * slowness())
        assert silent.recv(1) == b""
    with socket.create_connection(("127.0.0.1", relay.front_port)) as plain:
        plain.sendall(b"GET / HTTP/1.1\r\n\r\n")
        plain.settimeout(3 * slowness())
        assert b"HTTP" not in plain.recv(100)
