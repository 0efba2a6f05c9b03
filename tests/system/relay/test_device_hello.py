"""How devices come in: TLS, hello, and what never becomes a session."""

import json
import socket
import ssl
import subprocess
import time

import pytest

from daemon import slowness
from device_peer import DEVICE_ID, FIRMWARE, MAC, TOKEN, Device, hello_of
from processes import wait_until
from relay_peer import HEARTBEAT, HELLO, RELAY_RESPONSE, header

MALFORMED = 1


def refusals(relay, cause):
    return relay.metric(f'relay_handshakes_refused_total{{cause="{cause}"}}')


def without(member):
    members = hello_of()
    del members[member]
    return members


def test_a_device_that_says_hello_is_listed_with_what_it_said(relay, device):
    entry = relay.devices()[DEVICE_ID]
    assert (entry["mac"], entry["firmware"]) == (MAC, FIRMWARE)
    assert entry["address"].startswith("127.0.0.1:")
    assert TOKEN not in json.dumps(entry)
    relay.log.wait_for(f"device {DEVICE_ID} from 127.0.0.1:\\d+ is connected, MAC {MAC}, "
                       f"firmware {FIRMWARE}")
    assert TOKEN not in relay.log.text


def test_the_reply_is_the_documented_text(device, connect):
    other = connect("other")
    other.say_hello()
    assert other.read_packet().body == b'{"err_code":0}'


def test_a_hello_may_come_byte_by_byte(connect):
    device = connect()
    text = json.dumps(hello_of()).encode()
    device.dribble(header(HELLO, 0, len(text)) + text)
    assert device.hello_reply() == 0
    device.beat()


def test_a_hello_may_share_a_record_with_the_first_heartbeat(connect):
    device = connect()
    text = json.dumps(hello_of()).encode()
    device.send_record(header(HELLO, 0, len(text)) + text + header(HEARTBEAT, 1, 0))
    assert device.hello_reply() == 0
    assert device.read_packet().type == HEARTBEAT


@pytest.mark.parametrize("hello", [
    *[pytest.param(without(member), id=f"without-{member}") for member in hello_of()],
    *[pytest.param({**hello_of(), member: "x" * 128}, id=f"oversized-{member}")
      for member in hello_of()],
    *[pytest.param({**hello_of(), member: 7}, id=f"number-{member}") for member in hello_of()],
    pytest.param("", id="empty"),
    pytest.param("no JSON", id="no-json"),
    pytest.param(b'{"deviceId":"\xff"}', id="no-utf8"),
    pytest.param("[1,2]", id="a-list"),
    pytest.param("null", id="null"),
    pytest.param(json.dumps(hello_of()) + "x", id="text-behind"),
    pytest.param("[" * 4000, id="deep"),
    pytest.param(hello_of(device_id=""), id="empty-id"),
    pytest.param(hello_of(device_id="a.b"), id="id-with-dot"),
    pytest.param(hello_of(device_id="a b"), id="id-with-blank"),
    pytest.param(hello_of(device_id="a\r\nX: y"), id="id-with-line-end"),
    pytest.param(hello_of(device_id="x" * 64), id="id-longer-than-a-label"),
])
def test_a_malformed_hello_is_told_so(relay, connect, hello):
    device = connect()
    device.say_hello(hello)
    assert device.hello_reply() == MALFORMED
    device.expect_closed()
    device.close()
    relay.log.wait_for("became no session: its hello is malformed: ")
    assert refusals(relay, "malformed") == 1
    assert relay.devices() == {}


def test_members_of_the_largest_size_pass(relay, connect):
    connect().join({"deviceId": "x" * 63, "deviceMac": "m" * 127, "firmwareId": "f" * 127,
                    "token": "t" * 127, "more": "is not looked at"})
    assert relay.devices()["x" * 63]["firmware"] == "f" * 127


@pytest.mark.parametrize("first_bytes", [
    pytest.param(header(HELLO, 0, 10, magic=0xB00C) + b"{}" * 5, id="bad-magic"),
    pytest.param(header(HEARTBEAT, 1, 0), id="heartbeat"),
    pytest.param(header(RELAY_RESPONSE, 1, 2) + b"{}", id="answer"),
    pytest.param(header(0xFFFF, 0, 0), id="unknown-type"),
    pytest.param(header(HELLO, 0, 0xFFFFFFFF), id="huge-length"),
    pytest.param(header(HELLO, 0, 4097), id="length-above-the-limit"),
    pytest.param(b"GET / HTTP/1.1\r\n\r\n", id="http"),
])
def test_what_is_no_hello_gets_no_reply(relay, connect, first_bytes):
    device = connect()
    device.send(first_bytes)
    device.expect_closed()
    relay.log.wait_for("became no session: its first packet is no hello")
    assert refusals(relay, "malformed") == 1


def test_who_goes_away_before_the_hello_is_counted(relay, connect):
    connect().close()
    relay.log.wait_for("became no session: it went away without a hello")
    assert refusals(relay, "malformed") == 1


@pytest.mark.relay(options={"devices": {"hello_s": 1}})
@pytest.mark.parametrize("said", [
    pytest.param(b"", id="nothing"),
    pytest.param(header(HELLO, 0, 100)[:7], id="half-a-header"),
    pytest.param(header(HELLO, 0, 100) + b"{", id="half-a-hello"),
])
def test_who_says_no_hello_in_time_is_dropped(relay, connect, said):
    device = connect()
    started = time.monotonic()
    if said:
        device.send(said)
    device.expect_closed()
    assert 0.7 < time.monotonic() - started < 3 * slowness()
    relay.log.wait_for("became no session: it said no hello in time")
    assert refusals(relay, "time_out") == 1


@pytest.mark.relay(options={"devices": {"hello_s": 1}})
def test_who_starts_no_tls_in_time_is_dropped(relay):
    with socket.create_connection(("127.0.0.1", relay.device_port)) as silent:
        silent.settimeout(3 * slowness())
        assert silent.recv(1) == b""
    assert refusals(relay, "time_out") == 1


def test_ten_seconds_are_granted_unless_configured(relay, connect):
    device = connect()
    device.expect_silence(2)
    device.join()


@pytest.mark.parametrize("garbage", [
    pytest.param(b"\x00" * 600, id="zeros"),
    pytest.param(b"GET / HTTP/1.0\r\n\r\n", id="http"),
    pytest.param(b"\x16\x03\x01" * 300, id="looks-like-tls"),
])
def test_garbage_instead_of_tls_is_dropped_with_a_line(relay, device, garbage):
    with socket.create_connection(("127.0.0.1", relay.device_port)) as stranger:
        stranger.sendall(garbage)
        stranger.shutdown(socket.SHUT_WR)
        relay.log.wait_for("became no session: TLS failed: ")
    assert refusals(relay, "tls") == 1
    device.beat()


# --- TLS versions ---

@pytest.mark.parametrize("version", [ssl.TLSVersion.TLSv1_2, ssl.TLSVersion.TLSv1_3])
def test_current_tls_is_spoken(connect, version):
    device = connect(version=version).join()
    assert device.tls_version == {ssl.TLSVersion.TLSv1_2: "TLSv1.2",
                                  ssl.TLSVersion.TLSv1_3: "TLSv1.3"}[version]
    device.beat()


@pytest.mark.filterwarnings("ignore:ssl.TLSVersion.TLSv1")
@pytest.mark.parametrize("version", [ssl.TLSVersion.TLSv1, ssl.TLSVersion.TLSv1_1])
def test_old_tls_is_refused(relay, version):
    with pytest.raises(ssl.SSLError, match="(?i)protocol.version"):
        Device(relay.device_port, version=version)
    relay.log.wait_for("TLS failed: .*(unsupported protocol|version)")
    assert refusals(relay, "tls") == 1


def test_a_small_processor_gets_the_cipher_it_is_best_at(relay, connect):
    for version in (ssl.TLSVersion.TLSv1_2, ssl.TLSVersion.TLSv1_3):
        assert "CHACHA20" in connect(version=version)._tls.cipher()[0]


def test_renegotiation_is_refused(relay):
    finished = subprocess.run(
        ["openssl", "s_client", "-tls1_2", "-connect", f"127.0.0.1:{relay.device_port}"],
        input=b"R\n", capture_output=True, timeout=20)
    assert b"no renegotiation" in finished.stdout + finished.stderr


# --- many at once ---

@pytest.mark.lasts(3)
@pytest.mark.relay(options={"devices": {"max_handshakes": 4}})
def test_a_quiet_handshake_makes_room_for_a_newcomer(relay, connect):
    quiet = [connect(source=f"127.0.0.{number}") for number in (2, 2, 3, 4)]
    late = connect().join()  # once one of them has been quiet for a second
    quiet[0].expect_closed()
    relay.log.wait_for("too many connections of devices: 1 turned away")
    assert refusals(relay, "crowded_out") == 1
    for number, device in enumerate(quiet[1:]):
        device.join(hello_of(f"device-{number}"))
    late.beat()


@pytest.mark.lasts(4)
@pytest.mark.relay(options={"devices": {"max_handshakes": 8, "max_handshakes_per_address": 4}})
def test_a_flood_from_one_address_keeps_no_device_out(relay, device):
    strangers = []
    for number in range(5):
        for _ in range(20):
            strangers.append(socket.create_connection(("127.0.0.1", relay.device_port),
                                                      source_address=("127.0.0.2", 0)))
        with Device(relay.device_port, f"good-{number}") as good:
            good.join().beat()
    device.beat()
    wait_until(lambda: refusals(relay, "crowded_out") >= 90, "they are turned away")
    assert relay.log.text.count("turned away") == 1
    for stranger in strangers:
        stranger.close()
    wait_until(lambda: relay.metric("relay_handshakes_under_way") == 0, "they are gone")


@pytest.mark.relay(options={"devices": {"max_connections": 2}})
def test_when_all_places_are_taken_newcomers_wait(relay, connect):
    first, second = connect("first").join(), connect("second").join()
    with socket.create_connection(("127.0.0.1", relay.device_port)) as waiting:
        first.beat()
        second.beat()
        assert relay.metric("relay_device_connections_total") == 2
        first.close()
        wait_until(lambda: relay.metric("relay_device_connections_total") == 3, "it is let in")
        waiting.close()
    second.beat()
