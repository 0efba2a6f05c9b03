"""A device's session: heartbeats, silence, requests and answers, replacement, and bad manners."""

import time

import pytest

from daemon import slowness
from device_peer import DEVICE_ID, Device, http_answer
from http_user import User
from processes import is_sanitized, program, wait_until
from relay_peer import (HEARTBEAT, HELLO, RELAY_REQUEST, RELAY_RESPONSE, WEB_TOKEN, Packet,
                        header)
from suite_rules import of_this_build


def serves(device, user):
    """Carries one request through and checks both ways."""
    user.ask("/probe")
    request = device.expect_request()
    assert request.line == "GET /probe HTTP/1.1"
    device.answer(request, http_answer(b"served"))
    assert user.expect(200).body == b"served"


# --- heartbeats ---

@pytest.mark.parametrize("number", [0, 1, 0x1234, 0xFFFF])
def test_a_heartbeat_is_answered_with_its_id(device, number):
    device.beat(number)


def test_heartbeats_are_answered_in_order(device):
    device.send(b"".join(Packet(HEARTBEAT, number).encode() for number in range(1, 11)))
    assert [device.read_packet().id for _ in range(10)] == list(range(1, 11))


def test_a_heartbeat_in_pieces_is_answered_once(device):
    device.dribble(header(HEARTBEAT, 7, 0), pause=0.002)
    assert device.read_packet().id == 7
    device.beat(8)  # no second reply came before this one's


def test_a_heartbeat_is_answered_while_a_request_is_out(device, user):
    user.ask()
    request = device.expect_request()
    device.beat(9)
    device.answer(request)
    user.expect(200)


@pytest.mark.relay(options={"devices": {"silence_s": 1}})
def test_a_silent_device_is_dropped(relay, device):
    started = time.monotonic()
    device.expect_closed()
    assert 0.7 < time.monotonic() - started < 3 * slowness()
    relay.log.wait_for(f"device {DEVICE_ID} from .* is gone: it was silent for too long")
    relay.wait_for_no_device(DEVICE_ID)


@pytest.mark.lasts(4)
@pytest.mark.relay(options={"devices": {"silence_s": 2}})
def test_heartbeats_keep_a_device(relay, device):
    for number in range(1, 7):
        device.expect_silence(0.5)
        device.beat(number)
    assert DEVICE_ID in relay.devices()


# --- what no device sends ---

NONSENSE = {
    "bad-magic": (header(HEARTBEAT, 1, 0, magic=0x0BB0), "it sent a bad magic number"),
    "garbage": (b"\xde\xad\xbe\xef" * 8, "it sent a bad magic number"),
    "answer-above-the-limit": (header(RELAY_RESPONSE, 1, 70000),
                               "its answer of 70000 bytes is above the limit"),
    "largest-length": (header(RELAY_RESPONSE, 1, 0xFFFFFFFF),
                       "its answer of 4294967295 bytes is above the limit"),
    "token-above-the-limit": (header(WEB_TOKEN, 1, 65537), "it sent a packet that no device sends"),
    "heartbeat-with-body": (header(HEARTBEAT, 1, 1), "it sent a packet that no device sends"),
    "second-hello": (header(HELLO, 0, 2), "it sent a packet that no device sends"),
    "request": (header(RELAY_REQUEST, 1, 2), "it sent a packet that no device sends"),
    "unknown-type": (header(999, 1, 2), "it sent a packet that no device sends, type 999 with 2"),
}


@pytest.mark.relay(options={"devices": {"max_answer_bytes": 65536}})
@pytest.mark.parametrize("nonsense, why", NONSENSE.values(), ids=NONSENSE)
def test_nonsense_ends_its_sender_and_nobody_else(relay, connect, open_user, nonsense, why):
    good, bad = connect("good").join(), connect("bad").join()
    bad.send(nonsense)
    bad.expect_closed()
    relay.log.wait_for(f"device bad from .* is gone: {why}")
    serves(good, open_user("good"))
    assert list(relay.devices()) == ["good"]


def test_garbage_between_tls_records_ends_its_sender_only(relay, connect, open_user):
    good, bad = connect("good").join(), connect("bad").join()
    bad.send_garbage(b"\x17\x03\x03\x00\x20" + b"x" * 32)
    relay.log.wait_for("device bad from .* is gone: .*bad record mac")
    relay.wait_for_no_device("bad")
    serves(good, open_user("good"))


@pytest.mark.parametrize("end", ["close", "drop", "reset"])
def test_a_device_that_goes_is_off_the_list_at_once(relay, device, end):
    getattr(device, end)()
    relay.wait_for_no_device(DEVICE_ID)
    relay.log.wait_for(f"device {DEVICE_ID} from .* is gone: ")


def test_a_device_that_goes_in_the_middle_of_an_answer_leaves_a_broken_body(device, user):
    user.ask()
    request = device.expect_request()
    device.send(header(RELAY_RESPONSE, request.id, 5000) +
                b"HTTP/1.1 200 OK\r\nContent-Length: 4000\r\n\r\nhel")
    assert user.read_head().values("Content-Length") == ["4000"]
    device.close()
    assert user.read_rest() == b"hel"


@pytest.mark.relay(options={"devices": {"silence_s": 1}})
def test_a_device_that_falls_silent_in_the_middle_of_an_answer_is_dropped(relay, device, user):
    user.ask()
    request = device.expect_request()
    device.send(header(RELAY_RESPONSE, request.id, 5000) +
                b"HTTP/1.1 200 OK\r\nContent-Length: 4000\r\n\r\nhel")
    user.read_head()
    assert user.read_rest() == b"hel"
    relay.log.wait_for(f"device {DEVICE_ID} from .* is gone: it was silent for too long")


@pytest.mark.parametrize("kind", [RELAY_RESPONSE, WEB_TOKEN])
def test_an_answer_that_nobody_asked_for_is_ignored(relay, device, user, kind):
    device.send_packet(kind, 4711, b"HTTP/1.1 200 OK\r\n\r\nforged")
    device.beat()
    serves(device, user)
    assert relay.metric("relay_late_answers_total") == 1


@pytest.mark.parametrize("status", [2, 99, 600, 999])
def test_a_status_outside_of_http_is_502(device, user, status):
    user.ask()
    device.answer(device.expect_request(), http_answer(status=f"{status:03} Odd"))
    user.expect(502)


def test_an_answer_of_another_type_ends_the_session(relay, device, user):
    user.ask()
    request = device.expect_request()
    device.send_packet(WEB_TOKEN, request.id, b"{}")
    user.expect(502)
    device.expect_closed()
    relay.log.wait_for("is gone: it answered a request with a packet of type 5")


@pytest.mark.lasts(33)
def test_an_answer_without_a_byte_for_30_s_ends_and_the_session_goes_on(relay, device, user):
    user.ask()
    request = device.expect_request()
    answer = http_answer(b"x" * 1000)
    device.send(header(RELAY_RESPONSE, request.id, len(answer)) + answer[:200])
    assert user.read_head().status == 200
    started = time.monotonic()
    user.socket.settimeout(60 * slowness())
    assert len(user.read_rest()) < 1000
    assert 25 < time.monotonic() - started < 40 * slowness()
    wait_until(lambda: [line.get("note") for line in relay.accesses()] == ["cut_off"],
               "it is logged")
    device.send(answer[200:])
    device.beat()
    assert relay.devices()[DEVICE_ID]["last_error"] == "it broke off an answer"


def test_an_answer_counts_once(relay, device, user):
    user.ask()
    request = device.expect_request()
    device.answer(request)
    device.answer(request, http_answer(b"again"))
    assert user.expect(200).body == b"hello"
    serves(device, user)


@pytest.mark.lasts(4)
def test_a_device_that_floods_heartbeats_and_reads_nothing_is_dropped(relay, connect):
    good, flooder = connect("good").join(), connect("flood", receive_buffer=4096).join()
    before = relay.process.resident_kib()
    beats = b"".join(Packet(HEARTBEAT, number % 65536).encode() for number in range(1300))
    with pytest.raises(OSError):
        for _ in range(20000):
            flooder.send(beats)
    relay.log.wait_for("device flood from .* is gone: it sends heartbeats and does not read")
    assert relay.process.resident_kib() - before < 4096
    good.beat()


@pytest.mark.lasts(33)
def test_a_device_that_takes_no_bytes_is_dropped(relay, connect, open_user):
    good, lazy = connect("good").join(), connect("lazy", receive_buffer=4096).join()
    open_user("lazy").ask("/", "POST", body=b"x" * 12_000_000)
    relay.log.wait_for("device lazy from .* is gone: it takes no bytes", timeout_s=40)
    lazy.abandon()
    serves(good, open_user("good"))
    wait_until(lambda: relay.metric("relay_memory_used_bytes") == 0, "nothing is held")


# --- replacement ---

def test_a_second_connection_takes_the_place_of_the_first(relay, device, connect, user):
    second = connect().join()
    device.expect_closed()
    relay.log.wait_for(f"device {DEVICE_ID} from .* is gone: a new connection from .* takes its")
    serves(second, user)
    assert list(relay.devices()) == [DEVICE_ID]
    assert relay.metric("relay_sessions_replaced_total") == 1


def test_the_id_s_case_makes_no_other_device(relay, device, connect):
    connect(DEVICE_ID.lower()).join().beat()
    device.expect_closed()
    assert list(relay.devices()) == [DEVICE_ID.lower()]


def test_a_replaced_session_s_end_does_not_touch_its_successor(relay, device, connect, user):
    """The first one's goodbye comes when the second one stands."""
    second = connect().join()
    device.close()
    relay.log.wait_for("takes its place")
    serves(second, user)


@pytest.mark.relay(options={"devices": {"requests_out": 1}})
def test_what_waits_moves_over_and_what_was_out_gets_502(relay, device, connect, user, open_user):
    user.ask("/out")
    assert device.expect_request().line.startswith("GET /out ")
    waiting = [open_user() for _ in range(3)]
    for number, each in enumerate(waiting):
        each.ask(f"/waits-{number}")
        wait_until(lambda: relay.devices()[DEVICE_ID]["open"] == 2 + number, "it waits")
    second = connect().join()
    assert b"cut off before it had answered" in user.expect(502).body
    for number, each in enumerate(waiting):
        request = second.expect_request()
        assert request.line == f"GET /waits-{number} HTTP/1.1"
        second.answer(request)
        each.expect(200)


def test_a_device_can_come_back_again_and_again(relay, user):
    for _ in range(20):
        with Device(relay.device_port) as device:
            device.join()
            serves(device, user)
    assert relay.metric("relay_sessions_total") == 20


# --- what a slow line holds up ---

def test_heartbeats_are_answered_before_requests_that_wait(relay, connect, open_user):
    device = connect("slow", receive_buffer=4096).join()
    first, second = open_user("slow"), open_user("slow")
    first.ask("/upload", "POST", body=b"x" * 4_000_000)
    wait_until(lambda: relay.devices()["slow"]["open"] == 1, "the upload is on its way")
    second.ask("/next")
    wait_until(lambda: relay.devices()["slow"]["open"] == 2, "the next one is there")
    device.send(Packet(HEARTBEAT, 77).encode())
    wait_until(lambda: relay.metric("relay_heartbeats_total") == 1, "the relay has the heartbeat")
    upload = device.expect_request()
    assert device.read_packet() == Packet(HEARTBEAT, 77)
    request = device.expect_request()
    assert (upload.line, request.line) == ("POST /upload HTTP/1.1", "GET /next HTTP/1.1")
    for each, user in ((upload, first), (request, second)):
        device.answer(each)
        user.expect(200)


def test_one_large_body_is_out_at_a_time_and_small_requests_pass_the_next(relay, device, open_user):
    users = [open_user() for _ in range(3)]
    for number, (each, size) in enumerate(zip(users, (100_000, 100_000, 100))):
        each.ask(f"/{number}", "POST", body=b"x" * size)
        wait_until(lambda: relay.devices()[DEVICE_ID]["open"] == number + 1, "it is there")
    first, third = device.expect_request(), device.expect_request()
    assert (first.line, third.line) == ("POST /0 HTTP/1.1", "POST /2 HTTP/1.1")
    device.beat()  # no further request came before this reply
    device.answer(first)
    second = device.expect_request()
    assert second.line == "POST /1 HTTP/1.1"
    for request in (second, third):
        device.answer(request)
    for each in users:
        each.expect(200)


# --- requests on the wire ---

def test_a_small_request_is_one_tls_record(device, user):
    device.data_records()
    user.ask("/", "POST", body=b"x" * 500)
    request = device.expect_request()
    assert request.body == b"x" * 500
    sizes = device.data_records()
    assert len(sizes) == 1 and sizes[0] >= 12 + len(request.raw)


def test_a_large_request_leaves_in_full_records(device, user):
    device.data_records()
    user.ask("/", "POST", body=b"x" * 100_000)
    request = device.expect_request()
    sizes = device.data_records()
    assert len(sizes) <= (12 + len(request.raw)) // 16384 + 2


def test_ids_are_never_0_and_differ_while_open(relay, device, open_user):
    users = [open_user() for _ in range(4)]
    for each in users:
        each.ask()
    requests = [device.expect_request() for _ in range(4)]
    assert len({request.id for request in requests} | {0}) == 5
    for request in requests:
        device.answer(request)
    for each in users:
        each.expect(200)


@pytest.mark.lasts(20)
# The first request stays open for 65,536 others: more than 300 s on a busy machine.
@pytest.mark.relay(options={"devices": {"answer_s": 3600}})
@pytest.mark.skipif(is_sanitized(program("relay_server")),
                    reason=of_this_build("the numbers are the same there"))
def test_ids_begin_anew_after_65535_and_pass_over_one_that_is_open(device, user, open_user):
    user.ask("/kept")
    kept = device.expect_request()
    other = open_user()
    seen = []
    for start in range(0, 65536 - kept.id + 4, 16):  # sixteen pipelined at a time
        other.send(other.head() * 16)
        for _ in range(16):
            request = device.expect_request()
            seen.append(request.id)
            device.answer(request, b"HTTP/1.1 204 No Content\r\n\r\n")
        for _ in range(16):
            other.expect(204)
    assert kept.id not in seen and 0 not in seen
    assert len(set(seen[:65534])) == min(len(seen), 65534)
    device.answer(kept)
    user.expect(200)


@pytest.mark.parametrize("limit", [1, 4])
def test_at_most_so_many_are_out_and_the_order_is_kept(make_relay, limit):
    relay = make_relay(options={"devices": {"requests_out": limit}} if limit != 4 else {}).start()
    with Device(relay.device_port) as device:
        device.join()
        users = []
        for number in range(10):
            users.append(User(relay))
            users[-1].ask(f"/{number}")
            wait_until(lambda: relay.devices()[DEVICE_ID]["open"] == number + 1, "it is there")
        out = [device.expect_request() for _ in range(limit)]
        device.beat()  # no further request came before this reply
        for number, each in enumerate(users):
            request = out.pop(0)
            assert request.line == f"GET /{number} HTTP/1.1"
            device.answer(request, http_answer(str(number).encode()))
            if number + limit < 10:
                out.append(device.expect_request())
            assert each.expect(200).body == str(number).encode()
            each.close()


def test_answers_may_come_in_any_order(device, open_user):
    users = [open_user() for _ in range(4)]
    for each in users:
        each.ask()
        each.request = device.expect_request()
    for each in reversed(users):
        device.answer(each.request, http_answer(str(each.request.id).encode()))
    for each in users:
        assert each.expect(200).body == str(each.request.id).encode()


def test_devices_do_not_see_each_other_s_requests(connect, open_user):
    devices = [connect(f"device-{number}").join() for number in range(5)]
    users = [open_user(f"device-{number}") for number in range(5)]
    for device, each in zip(devices, users):
        each.ask("/mine")
        device.answer(device.expect_request(), http_answer(device.id.encode()))
    for device, each in zip(devices, users):
        assert each.expect(200).body == device.id.encode()


# --- time ---

@pytest.mark.relay(options={"devices": {"answer_s": 1}})
def test_no_answer_in_time_is_504_and_the_late_one_is_dropped(relay, device, user):
    started = time.monotonic()
    user.ask("/slow")
    late = device.expect_request()
    assert b"device is slow" in user.expect(504).body
    assert 0.7 < time.monotonic() - started < 3 * slowness()
    device.answer(late, http_answer(b"late"))
    serves(device, user)
    assert relay.metric("relay_late_answers_total") == 1
    assert relay.devices()[DEVICE_ID]["last_error"] == "a request was not answered in time"


@pytest.mark.lasts(5)
@pytest.mark.relay(options={"devices": {"answer_s": 3, "requests_out": 1}})
def test_who_waits_too_long_gets_504_and_never_reaches_the_device(relay, device, open_user):
    first, second, third = open_user(), open_user(), open_user()
    for number, each in enumerate((first, second, third)):
        each.ask(f"/{number}")
        wait_until(lambda: relay.devices()[DEVICE_ID]["open"] == number + 1, "it is there")
    request = device.expect_request()
    device.expect_silence(1.5)
    device.answer(request)  # the second one is sent now and keeps the third one waiting
    first.expect(200)
    request = device.expect_request()
    third.expect(504)
    device.answer(request)  # its time began when it was sent
    second.expect(200)
    serves(device, first)


@pytest.mark.lasts(4)
@pytest.mark.relay(options={"devices": {"answer_s": 1}})
def test_the_time_to_answer_begins_when_the_device_has_the_request(relay, connect, open_user):
    device, user = connect("slow", receive_buffer=65536).join(), open_user("slow")
    body = bytes(range(256)) * 40000
    user.ask("/", "POST", body=body)
    _, number, _, size = device.read_header()
    raw = b""
    for _ in range(12):  # 3 s, in which it takes a little at a time
        raw += device.read_exactly(65536)
        time.sleep(0.25)
    raw += device.read_exactly(size - len(raw))
    assert raw.endswith(body)
    device.send_packet(RELAY_RESPONSE, number, http_answer())
    user.expect(200)


@pytest.mark.lasts(27)
@pytest.mark.relay(options={"devices": {"answer_s": 1}})
def test_a_device_that_takes_a_request_too_slowly_is_dropped(relay, connect, open_user):
    """Below 4 KiB a second: it moves, and yet its user would wait for ever."""
    device, user = connect("slow", receive_buffer=4096).join(), open_user("slow")
    user.ask("/", "POST", body=b"x" * 100_000)
    wait_until(lambda: relay.devices()["slow"]["open"] == 1, "it is on its way")
    user.socket.settimeout(60 * slowness())
    assert b"cut off before it had answered" in user.expect(502).body
    relay.log.wait_for("device slow from .* is gone: it takes requests too slowly")


@pytest.mark.relay(options={"devices": {"answer_s": 1}})
def test_an_answer_that_has_begun_may_take_longer(device, user):
    user.ask()
    request = device.expect_request()
    answer = http_answer(b"x" * 50)
    device.send(header(RELAY_RESPONSE, request.id, len(answer)))
    device.dribble(answer, size=10, pause=0.2)
    assert user.expect(200).body == b"x" * 50
