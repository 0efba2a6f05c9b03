"""The relay behind load balancers: what they tell of a connection or a request, and who may."""

import socket
import struct
import time

import pytest

from daemon import slowness
from device_peer import DEVICE_ID, Device, http_answer
from http_user import User
from processes import wait_until

PROXY = "127.0.0.2"
FURTHER_PROXY = "127.0.3.1"  # of the trusted network; in front of PROXY
STRANGER = "127.0.0.1"
TRUSTED = {"trusted_proxies": [PROXY, "127.0.3.0/24"]}

SIGNATURE = b"\r\n\r\n\0\r\nQUIT\n"

pytestmark = pytest.mark.relay(options=TRUSTED)


def text(client="192.0.2.7", port=50123):
    family, relay = ("TCP6", "::1") if ":" in client else ("TCP4", "127.0.0.1")
    return f"PROXY {family} {client} {relay} {port} 443\r\n".encode()


def binary(client="192.0.2.7", port=50123, more=b""):
    family, code, relay = ((socket.AF_INET6, 0x21, "::1") if ":" in client
                           else (socket.AF_INET, 0x11, "127.0.0.1"))
    block = (socket.inet_pton(family, client) + socket.inet_pton(family, relay) +
             struct.pack(">HH", port, 443) + more)
    return SIGNATURE + struct.pack(">BBH", 0x21, code, len(block)) + block


HEADERS = pytest.mark.parametrize("header, client", [
    pytest.param(text(), "192.0.2.7", id="text-ipv4"),
    pytest.param(text("2001:db8::7"), "2001:db8::7", id="text-ipv6"),
    pytest.param(binary(), "192.0.2.7", id="binary-ipv4"),
    pytest.param(binary("2001:db8::7"), "2001:db8::7", id="binary-ipv6"),
    pytest.param(binary(more=b"\x04\x00\x05extra" * 400), "192.0.2.7", id="binary-with-more"),
])

NAMELESS = pytest.mark.parametrize("header", [
    pytest.param(b"", id="none"),
    pytest.param(b"PROXY UNKNOWN\r\n", id="text-unknown"),
    pytest.param(SIGNATURE + b"\x20\x00\x00\x00", id="binary-local"),
    pytest.param(SIGNATURE + b"\x20\x11\x00\x03abc", id="binary-local-with-more"),
])

BROKEN = pytest.mark.parametrize("header", [
    pytest.param(b"PROXY TCP4 192.0.2.7 127.0.0.1 50123\r\n", id="text-without-a-port"),
    pytest.param(b"PROXY TCP9 192.0.2.7 127.0.0.1 1 2\r\n", id="text-of-no-family"),
    pytest.param(b"PROXY UNKNOWN " + b"x" * 107, id="text-too-long"),
    pytest.param(SIGNATURE + b"\x11\x11\x00\x0c" + b"x" * 12, id="binary-version-1"),
    pytest.param(SIGNATURE + b"\x21\x11\x00\x04abcd", id="binary-too-short"),
    pytest.param(SIGNATURE + b"\x21\x11\xff\xff", id="binary-too-long"),
])


def address_of(client, port):
    return f"[{client}]:{port}" if ":" in client else f"{client}:{port}"


@pytest.fixture
def forward(device):
    """Lets a user ask; the request as the device gets it. The user has 200."""
    def carry(user, headers=(), answer=None):
        user.ask(headers=headers)
        request = device.expect_request()
        device.answer(request, answer)
        carry.response = user.expect(200)
        return request
    return carry


def logged_users(relay, count):
    wait_until(lambda: len(relay.accesses()) == count, "all is logged")
    return [line["user"] for line in relay.accesses()]


# --- PROXY headers: users ---

@HEADERS
def test_a_proxy_header_names_the_user(relay, open_user, forward, header, client):
    user = open_user(source=PROXY, lead=header)
    for _ in range(2):
        assert forward(user).values("X-Forwarded-For") == [client]
    assert logged_users(relay, 2) == [client] * 2


@HEADERS
@pytest.mark.relay(options=TRUSTED, front_tls=True)
def test_a_proxy_header_stands_in_front_of_tls(open_user, forward, header, client):
    assert forward(open_user(source=PROXY, lead=header)).values("X-Forwarded-For") == [client]


@NAMELESS
@pytest.mark.parametrize("front_tls", [False, True], ids=["plain", "tls"])
def test_a_proxy_that_names_nobody_counts_as_the_user(make_relay, header, front_tls):
    relay = make_relay(options=TRUSTED, front_tls=front_tls).start()
    with Device(relay.device_port) as device, User(relay, source=PROXY, lead=header) as user:
        device.join()
        user.ask()
        request = device.expect_request()
        assert request.values("X-Forwarded-For") == [PROXY]
        device.answer(request)
        user.expect(200)


def test_a_proxy_header_may_come_byte_by_byte(open_user, forward):
    user = open_user(source=PROXY)
    for byte in text():
        user.send(bytes([byte]))
        time.sleep(0.002)
    assert forward(user).values("X-Forwarded-For") == ["192.0.2.7"]


@BROKEN
def test_a_broken_proxy_header_ends_a_users_connection(relay, open_user, header):
    user = open_user(source=PROXY, lead=header)
    user.expect_closed()
    relay.log.wait_for(f"a connection from {PROXY} is ended: its PROXY header is broken: ")
    relay.stop()
    assert relay.log.text.count("its PROXY header") == 1


@pytest.mark.lasts(3)
@pytest.mark.relay(options={**TRUSTED, "front": {"patience_s": 1}})
def test_a_proxy_header_that_does_not_end_is_not_waited_for(open_user):
    started = time.monotonic()
    user = open_user(source=PROXY)
    user.send(text()[:20])
    user.expect_closed()
    assert 0.7 < time.monotonic() - started < 3 * slowness()


# As a request line it has the address in the place of a version.
@pytest.mark.parametrize("header, status", [(text(), 505), (binary(), 400)], ids=["text", "binary"])
def test_a_proxy_header_of_a_stranger_is_a_malformed_request(relay, device, open_user, header,
                                                             status):
    user = open_user(source=STRANGER, lead=header)
    user.send(user.head())
    user.expect(status)
    assert logged_users(relay, 1) == [STRANGER]
    device.beat()


def test_a_second_proxy_header_is_a_malformed_request(open_user):
    user = open_user(source=PROXY, lead=text())
    user.send(text("192.0.2.8") + user.head())
    user.expect(505)


@pytest.mark.relay(options={**TRUSTED, "front": {"max_connections_per_address": 2}})
def test_a_proxys_connections_count_for_the_users_it_names(relay, device, open_user):
    waiting = [open_user(source=PROXY) for _ in range(4)]  # more than one address may have
    users = [open_user(source=PROXY, lead=text("192.0.2.7", port)) for port in (1, 2)]
    for number, user in enumerate(users):
        user.ask()
        wait_until(lambda: relay.devices()[DEVICE_ID]["open"] == number + 1, "it is there")
    open_user(source=PROXY, lead=text("192.0.2.7", 3)).expect_closed()
    relay.log.wait_for("too many connections of users: 1 turned away")
    users.append(open_user(source=PROXY, lead=text("192.0.2.8", 4)))
    users[-1].ask()
    for user in users:
        device.answer(device.expect_request())
        user.expect(200)
    for user in waiting:
        user.ask()
        device.answer(device.expect_request())
        user.expect(200)


# --- PROXY headers: devices ---

@HEADERS
def test_a_proxy_header_names_the_device(relay, connect, header, client):
    connect(source=PROXY, lead=header).join().beat()
    address = address_of(client, 50123)
    assert relay.devices()[DEVICE_ID]["address"] == address
    relay.log.wait_for(f"device {DEVICE_ID} from [^ ]*50123 is connected")
    assert f"from {address} is connected" in relay.log.text


@NAMELESS
def test_a_device_may_come_through_a_proxy_that_does_not_name_it(relay, connect, header):
    connect(source=PROXY, lead=header).join().beat()
    assert relay.devices()[DEVICE_ID]["address"].startswith(f"{PROXY}:")


@BROKEN
def test_a_broken_proxy_header_ends_a_devices_connection(relay, device, header):
    with socket.create_connection(("127.0.0.1", relay.device_port), 20, (PROXY, 0)) as proxy:
        proxy.sendall(header)
        assert proxy.recv(1) == b""
    relay.log.wait_for(f"a connection from {PROXY}:\\d+ became no session: "
                       "its PROXY header is broken: ")
    assert relay.metric('relay_handshakes_refused_total{cause="malformed"}') == 1
    device.beat()
    relay.stop()
    assert relay.log.text.count("its PROXY header") == 1


@pytest.mark.relay(options={**TRUSTED, "devices": {"hello_s": 1}})
@pytest.mark.parametrize("said", [b"", text()[:20], text()], ids=["nothing", "a-part", "all"])
def test_time_for_the_hello_begins_before_the_proxy_header(relay, said):
    with socket.create_connection(("127.0.0.1", relay.device_port), 20, (PROXY, 0)) as proxy:
        started = time.monotonic()
        proxy.sendall(said)
        assert proxy.recv(1) == b""
        assert 0.7 < time.monotonic() - started < 3 * slowness()
    assert relay.metric('relay_handshakes_refused_total{cause="time_out"}') == 1


@pytest.mark.parametrize("header", [text(), binary()], ids=["text", "binary"])
def test_a_proxy_header_of_a_stranger_is_no_tls(relay, device, header):
    with socket.create_connection(("127.0.0.1", relay.device_port)) as stranger:
        stranger.sendall(header)
        relay.log.wait_for("became no session: TLS failed: ")
    device.beat()


@pytest.mark.relay(options={**TRUSTED, "devices": {"max_handshakes_per_address": 2}})
def test_a_proxys_handshakes_count_for_the_devices_it_names(relay, connect):
    unnamed = [connect(f"unnamed-{number}", source=PROXY) for number in range(4)]
    named = [connect(f"named-{port}", source=PROXY, lead=text("192.0.2.7", port))
             for port in (1, 2)]
    with socket.create_connection(("127.0.0.1", relay.device_port), 20, (PROXY, 0)) as third:
        third.sendall(text("192.0.2.7", 3))
        assert third.recv(1) == b""
    assert relay.metric('relay_handshakes_refused_total{cause="crowded_out"}') == 1
    other = connect("other", source=PROXY, lead=text("192.0.2.8", 4))
    for device in [*unnamed, *named, other]:
        device.join()


# --- X-Forwarded-For and X-Forwarded-Proto ---

def test_x_forwarded_for_names_the_user_of_each_request(relay, open_user, forward):
    proxy = open_user(source=PROXY)
    said = {"192.0.2.7": "192.0.2.7", "6.6.6.6, 192.0.2.8": "192.0.2.8",
            "[2001:db8::7]:1234": "2001:db8::7", f"192.0.2.9, {FURTHER_PROXY}": "192.0.2.9"}
    for value, user in said.items():
        assert forward(proxy, [f"X-Forwarded-For: {value}"]).values("X-Forwarded-For") == [user]
    assert forward(proxy).values("X-Forwarded-For") == [PROXY]
    assert logged_users(relay, 5) == [*said.values(), PROXY]


def test_a_refused_request_is_logged_with_its_user(relay, open_user):
    proxy = open_user("nobody", source=PROXY)
    proxy.ask(headers=["X-Forwarded-For: 192.0.2.7"])
    proxy.expect(404)
    proxy.ask(headers=["X-Forwarded-For: 192.0.2.8", "Upgrade: websocket"])
    proxy.expect(501)
    assert logged_users(relay, 2) == ["192.0.2.7", "192.0.2.8"]


ANSWER = http_answer(status="302 Found", headers=["Location: http://127.0.0.1/next",
                                                  "Set-Cookie: a=b; Path=/"])


def redirected(user, device, headers):
    """The request as the device gets it, and what the user gets of ANSWER."""
    user.ask(headers=headers)
    request = device.expect_request()
    device.answer(request, ANSWER)
    response = user.expect(302)
    return request.values("X-Forwarded-Proto") + response.values("Location") + \
        response.values("Set-Cookie")


def test_x_forwarded_proto_tells_what_the_user_speaks(device, open_user):
    user = open_user(source=PROXY)
    assert redirected(user, device, ["X-Forwarded-Proto: https"]) == [
        "https", f"https://{user.host}/next", "a=b; Path=/; Secure"]
    for headers in ([], ["X-Forwarded-Proto: gopher"], ["X-Forwarded-Proto: https, http"]):
        assert redirected(user, device, headers) == [
            "http", f"http://{user.host}/next", "a=b; Path=/"]


@pytest.mark.relay(options=TRUSTED, front_tls=True)
def test_x_forwarded_proto_may_tell_that_tls_begins_at_the_proxy(device, open_user):
    user = open_user(source=PROXY)
    assert redirected(user, device, ["X-Forwarded-Proto: http"]) == [
        "http", f"http://{user.host}/next", "a=b; Path=/"]


FORGED = ["X-Forwarded-For: 6.6.6.6", "X-Forwarded-Proto: https"]


@pytest.mark.parametrize("source, lead, seen", [
    pytest.param(STRANGER, b"", STRANGER, id="by-himself"),
    pytest.param(PROXY, text("192.0.2.7"), "192.0.2.7", id="through-a-proxy"),
])
def test_x_forwarded_headers_of_a_stranger_are_replaced(relay, device, open_user, source, lead,
                                                        seen):
    user = open_user(source=source, lead=lead)
    user.ask(headers=FORGED)
    request = device.expect_request()
    assert request.headers[1:] == [
        ("X-Forwarded-For", seen), ("X-Forwarded-Proto", "http"),
        ("X-Forwarded-Host", user.host), ("Connection", "close")]
    device.answer(request)
    user.expect(200)
    assert logged_users(relay, 1) == [seen]


def test_a_proxy_may_name_another_proxy_which_names_the_user(open_user, forward):
    proxy = open_user(source=PROXY, lead=text(FURTHER_PROXY))
    assert forward(proxy).values("X-Forwarded-For") == [FURTHER_PROXY]
    assert forward(proxy, ["X-Forwarded-For: 192.0.2.7"]).values("X-Forwarded-For") == ["192.0.2.7"]


@pytest.mark.relay(options={**TRUSTED, "front": {"max_connections_per_address": 1}})
def test_requests_count_for_the_user_that_a_proxy_names(relay, device, open_user):
    first, second, third = (open_user(source=PROXY) for _ in range(3))
    first.ask(headers=["X-Forwarded-For: 192.0.2.7"])
    request = device.expect_request()
    second.ask(headers=["X-Forwarded-For: 192.0.2.7"])
    assert b"from your address" in second.expect(503).body
    third.ask(headers=["X-Forwarded-For: 192.0.2.8"])
    for user, asked in ((first, request), (third, device.expect_request())):
        device.answer(asked)
        user.expect(200)
    third.ask(headers=["X-Forwarded-For: 192.0.2.7"])  # his other request is over
    device.answer(device.expect_request())
    third.expect(200)
    assert relay.metric("relay_user_connections_turned_away_total") == 1


@pytest.mark.relay(options={**TRUSTED, "memory_bytes": 1 << 20})
def test_memory_counts_for_the_user_that_a_proxy_names(relay, device, open_user):
    hoarder = open_user(source=PROXY)
    hoarder.send(hoarder.head(method="POST", headers=["X-Forwarded-For: 192.0.2.7",
                                                      "Content-Length: 200000"]) + b"x" * 190000)
    wait_until(lambda: relay.metric("relay_memory_used_bytes") >= 190000, "he holds his share")
    for user, status in (("192.0.2.7", 503), ("192.0.2.8", 200)):
        other = open_user(source=PROXY)
        other.ask("/", "POST", headers=[f"X-Forwarded-For: {user}"], body=b"x" * 100_000)
        if status == 200:
            device.answer(device.expect_request())
        other.expect(status)


# --- the configuration ---

@pytest.mark.relay()
def test_without_trusted_proxies_nobody_is_one(open_user, forward):
    user = open_user(source=PROXY)
    assert forward(user, FORGED).values("X-Forwarded-For") == [PROXY]
    line = open_user(source=PROXY, lead=text())
    line.send(line.head())
    line.expect(505)
