"""Users who are slow, who go away, and who are many: bounded in memory and time."""

import contextlib
import resource
import socket
import subprocess
import threading
import time

import pytest

from daemon import build_cost, slowness
from device_peer import DEVICE_ID, Device, http_answer
from http_user import User
from processes import is_sanitized, program, wait_until
from relay_peer import RELAY_RESPONSE, header

MIB = 1 << 20


def dribble(user, data, pause):
    """Sends byte by byte until the relay hangs up; the seconds that this took."""
    started = time.monotonic()
    try:
        for byte in data:
            user.send(bytes([byte]))
            time.sleep(pause)
    except OSError:
        pass
    return time.monotonic() - started


def no_more_than(relay, before_kib, more_kib):
    if not is_sanitized(program("relay_server")):
        assert relay.process.resident_kib() - before_kib < more_kib


# --- slow senders ---

PATIENT_1_S = pytest.mark.relay(options={"front": {"patience_s": 1, "idle_s": 1, "hold_s": 1}})


@PATIENT_1_S
@pytest.mark.lasts(3)
def test_a_head_that_comes_too_slowly_ends_the_connection(relay, device, user):
    assert dribble(user, user.head(headers=["X: y"] * 50), 0.05) < 4 * slowness()
    user.expect_closed()
    device.beat()


@PATIENT_1_S
@pytest.mark.lasts(3)
def test_a_body_that_comes_too_slowly_ends_the_connection(relay, device, user):
    user.send(user.head(method="POST", headers=["Content-Length: 1000"]))
    assert dribble(user, b"x" * 1000, 0.05) < 4 * slowness()
    user.expect_closed()
    device.beat()
    wait_until(lambda: relay.access_log.read_text(), "it is logged")
    assert relay.accesses()[0]["status"] == 0
    assert relay.metric('relay_requests_total{status="0"}') == 1


@PATIENT_1_S
@pytest.mark.lasts(3)
@pytest.mark.parametrize("chunked", [False, True], ids=["counted", "chunked"])
def test_what_came_quickly_buys_a_slow_body_no_time(relay, device, user, chunked):
    """At 4 KiB a second, 8 MB would be half an hour's worth."""
    length = "Transfer-Encoding: chunked" if chunked else f"Content-Length: {9 * MIB}"
    user.send(user.head(method="POST", headers=[length]) + (b"%x\r\n" % (9 * MIB) * chunked) +
              b"x" * 8 * MIB)
    wait_until(lambda: relay.metric("relay_memory_used_bytes") >= 8 * MIB, "it has come")
    assert dribble(user, b"x" * 1000, 0.05) < 4 * slowness()
    user.expect_closed()
    device.beat()


@pytest.mark.relay(options={"front": {"patience_s": 2}})
@pytest.mark.lasts(5)
def test_a_body_that_comes_steadily_is_waited_for(device, user):
    body = b"x" * 16 * 8192
    user.send(user.head(method="POST", headers=[f"Content-Length: {len(body)}"]))
    for _ in range(16):  # twice its pace, for twice its time
        time.sleep(0.25)
        user.send(b"x" * 8192)
    request = device.expect_request()
    assert request.body == body
    device.answer(request)
    user.expect(200)


@PATIENT_1_S
@pytest.mark.lasts(3)
@pytest.mark.parametrize("said", [b"", b"\r\n", b"G"])
def test_who_says_nothing_is_not_waited_for(relay, user, said):
    started = time.monotonic()
    user.send(said)
    user.expect_closed()
    assert 0.7 < time.monotonic() - started < 3 * slowness()


@PATIENT_1_S
@pytest.mark.lasts(3)
def test_an_idle_connection_ends(device, user):
    user.ask()
    device.answer(device.expect_request())
    user.expect(200)
    started = time.monotonic()
    user.expect_closed()
    assert 0.7 < time.monotonic() - started < 3 * slowness()


@PATIENT_1_S
@pytest.mark.lasts(4)
def test_a_device_that_takes_its_time_costs_the_user_no_patience(device, user):
    user.ask()
    request = device.expect_request()
    device.expect_silence(2.5)
    device.answer(request)
    user.expect(200)


@pytest.mark.lasts(4)
@pytest.mark.relay(options={"front": {"patience_s": 2, "max_connections": 400,
                                      "max_connections_per_address": 400}})
def test_300_slow_senders_hold_up_nobody(relay, device, user, open_user):
    before = relay.process.resident_kib()
    slow = [open_user() for _ in range(300)]
    for each in slow:
        each.send(each.head()[:40])
    for number in range(20):
        user.ask(f"/{number}")
        device.answer(device.expect_request())
        user.expect(200)
    no_more_than(relay, before, 16 * 1024)
    for each in slow:
        each.expect_closed()
    user.ask()
    device.answer(device.expect_request())
    user.expect(200)


@pytest.mark.lasts(3)
@pytest.mark.relay(options={"front": {"max_connections": 3}})
def test_a_user_who_does_nothing_makes_room_for_the_next(relay, device, user, open_user):
    user.ask("/busy")
    request = device.expect_request()
    quiet = [open_user() for _ in range(2)]
    late = open_user()
    late.ask("/late")
    quiet[0].expect_closed()  # after it has been quiet for a second
    for each, asked in ((user, request), (late, device.expect_request())):
        device.answer(asked)
        each.expect(200)
    assert relay.metric("relay_user_connections_turned_away_total") == 1


@pytest.mark.relay(options={"front": {"max_connections_per_address": 3}})
def test_one_address_has_its_share_of_the_connections(relay, device, open_user):
    crowd = [open_user(source="127.0.0.2") for _ in range(3)]
    for number, each in enumerate(crowd):
        each.ask(f"/{number}")
        wait_until(lambda: relay.devices()[DEVICE_ID]["open"] == number + 1, "it is there")
    open_user(source="127.0.0.2").expect_closed()
    relay.log.wait_for("too many connections of users: 1 turned away")
    other = open_user()
    other.ask("/other")
    for each in (*crowd, other):
        device.answer(device.expect_request())
        each.expect(200)


# --- slow readers ---

SLOW_READERS = pytest.mark.relay(options={"front": {
    "hold_s": 1, "patience_s": 1, "answer_buffer_bytes": MIB}})


@SLOW_READERS
@pytest.mark.lasts(6)
def test_an_answer_that_nobody_reads_costs_little_and_frees_the_device(relay, device, connect,
                                                                       open_user):
    other = connect("other").join()
    before = relay.process.resident_kib()
    reader = open_user(receive_buffer=65536)
    reader.ask("/64-mb")
    request = device.expect_request()
    sender = threading.Thread(target=device.answer, args=(request, http_answer(b"x" * 64 * MIB)))
    started = time.monotonic()
    sender.start()
    meanwhile = open_user("other")
    while sender.is_alive() and time.monotonic() - started < 30 * slowness():
        meanwhile.ask()  # another device's users notice nothing
        other.answer(other.expect_request())
        meanwhile.expect(200)
        no_more_than(relay, before, 24 * 1024)
    sender.join()
    assert 0.9 < time.monotonic() - started < 30 * slowness()
    quick = open_user()
    quick.ask("/next")
    device.answer(device.expect_request())
    quick.expect(200)
    assert relay.devices()[DEVICE_ID]["last_error"] == "a user took an answer too slowly"
    with pytest.raises(AssertionError, match="bytes early"):
        reader.read()


@SLOW_READERS
def test_a_slow_reader_who_goes_on_gets_all(device, open_user):
    reader = open_user(receive_buffer=65536)
    reader.ask()
    request = device.expect_request()
    body = bytes(range(256)) * (8 * MIB // 256)
    sender = threading.Thread(target=device.answer, args=(request, http_answer(body)))
    sender.start()
    reader.read_head()
    received = bytearray()
    while len(received) < len(body):
        received += reader._exactly(MIB)
        time.sleep(0.05)
    sender.join()
    assert received == body


@SLOW_READERS
@pytest.mark.parametrize("end", ["close", "reset"])
def test_a_reader_who_goes_away_frees_the_device_at_once(relay, device, open_user, end):
    reader = open_user()
    reader.ask()
    request = device.expect_request()
    answer = http_answer(b"x" * 16 * MIB)
    device.send(header(RELAY_RESPONSE, request.id, len(answer)) + answer[:MIB])
    reader.read_head()
    getattr(reader, end)()
    device.send(answer[MIB:])
    device.beat()
    wait_until(lambda: relay.metric("relay_memory_used_bytes") == 0, "nothing is held")


@SLOW_READERS
@pytest.mark.lasts(4)
def test_who_asks_and_reads_nothing_is_not_waited_for(relay, device, open_user):
    """Pipelining without ever reading an answer fills nothing but his own buffers."""
    reader = open_user(receive_buffer=4096)
    device.serve(lambda request: http_answer(b"x" * 500_000))
    reader.send(reader.head() * 40)
    reader.socket.settimeout(60)
    wait_until(lambda: relay.metric("relay_user_connections_open") == 0, "he is dropped", 90)


# --- memory ---

@pytest.mark.relay(options={"memory_bytes": MIB})
def test_503_while_the_memory_is_spent(relay, device, user, open_user):
    hoarder = open_user()
    hoarder.send(hoarder.head(method="POST", headers=["Content-Length: 1048577"]) + b"x" * MIB)
    assert b"no memory" in hoarder.expect(503).body
    wait_until(lambda: relay.metric("relay_memory_used_bytes") == 0, "it is given back")
    user.ask()
    device.answer(device.expect_request())
    user.expect(200)


@pytest.mark.relay(options={"memory_bytes": MIB, "front": {"answer_buffer_bytes": 8 * MIB}})
def test_who_holds_his_share_gets_no_more_and_others_are_served(relay, connect, device, open_user):
    big = connect("big").join()
    hoarder = open_user("big", receive_buffer=65536, source="127.0.0.9")
    hoarder.ask()
    big.serve(lambda request: http_answer(b"x" * 32 * MIB))
    wait_until(lambda: relay.metric("relay_memory_used_bytes") >= MIB / 6, "he holds his share")
    same = open_user(source="127.0.0.9")
    same.ask("/", "POST", body=b"x" * 100_000)
    assert b"no memory left" in same.expect(503).body
    other = open_user()
    other.ask("/", "POST", body=b"x" * 100_000)
    device.answer(device.expect_request())
    other.expect(200)
    hoarder.close()
    wait_until(lambda: relay.metric("relay_memory_used_bytes") == 0, "it is given back")


@pytest.mark.lasts(2)
@pytest.mark.relay(options={"memory_bytes": 4 * MIB})
def test_uploads_that_never_end_keep_nobody_out(device, user, open_user):
    uploads = [open_user(source=f"127.0.0.{2 + number % 6}") for number in range(18)]
    for each in uploads:
        each.send(each.head(method="POST", headers=["Content-Length: 600000"]) + b"x" * (4 * MIB // 18))
    for _ in range(10):  # the relay takes the uploads in meanwhile
        user.ask("/sign-in", "POST", body=b"x" * 40000)
        device.answer(device.expect_request())
        user.expect(200)
        time.sleep(0.1)


@pytest.mark.lasts(3)
@pytest.mark.relay(options={"memory_bytes": MIB, "front": {"answer_buffer_bytes": 8 * MIB,
                                                           "hold_s": 1, "patience_s": 1}})
def test_answers_nobody_reads_stay_within_the_memory(relay, open_user):
    """Many slow readers at once share one budget."""
    before = relay.process.resident_kib()
    devices = [Device(relay.device_port, f"device-{number}").join() for number in range(8)]
    for number, device in enumerate(devices):
        device.serve(lambda request: http_answer(b"x" * 16 * MIB))
        open_user(device.id, receive_buffer=65536, source=f"127.0.0.{2 + number}").ask()
    wait_until(lambda: relay.metric("relay_memory_used_bytes") > MIB / 2, "it is made use of")
    most = 0
    deadline = time.monotonic() + 1
    while time.monotonic() < deadline:
        most = max(most, relay.metric("relay_memory_used_bytes"))
        no_more_than(relay, before, 40 * 1024)
    assert most < MIB + 2 * 8 * 2 * 65536
    for device in devices:
        device.abandon()


@pytest.mark.lasts(12)
@pytest.mark.relay(options={"memory_bytes": 64 * MIB})
def test_60_users_who_upload_and_read_slowly_stay_within_the_memory(relay):
    before = relay.process.resident_kib()
    devices = [Device(relay.device_port, f"device-{number}").join() for number in range(6)]
    for device in devices:
        device.serve(lambda request: http_answer(b"x" * 8 * MIB))
    over = threading.Event()

    def use(number):
        while not over.is_set():
            with contextlib.suppress(OSError, AssertionError), \
                    User(relay, f"device-{number % 6}", 65536, f"127.0.1.{number}") as user:
                user.ask("/", "POST", body=b"x" * 8 * MIB)
                user.read_head()
                while user.socket.recv(65536) and not over.wait(0.1):
                    pass

    users = [threading.Thread(target=use, args=(number,)) for number in range(60)]
    for user in users:
        user.start()
    try:
        deadline = time.monotonic() + 8
        while time.monotonic() < deadline:
            no_more_than(relay, before, (64 * 3 // 2 + 40) * 1024)
            time.sleep(0.05)
    finally:
        over.set()
        relay.stop()
        for user in users:
            user.join()


@pytest.mark.relay(options={"devices": {"requests_out": 1}})
def test_requests_that_a_device_does_not_take_are_counted(relay, connect, user):
    """What was sent and not taken is held as well."""
    lazy = connect(receive_buffer=4096).join()
    user.ask("/", "POST", body=b"x" * 12 * MIB)
    wait_until(lambda: relay.devices()[DEVICE_ID]["open"] == 1, "it is on its way")
    assert relay.metric("relay_memory_used_bytes") >= 12 * MIB
    lazy.answer(lazy.expect_request())
    user.expect(200)
    wait_until(lambda: relay.metric("relay_memory_used_bytes") == 0, "it is given back")


# --- users who leave ---

@pytest.mark.parametrize("front_tls", [False, True], ids=["plain", "tls"])
@pytest.mark.parametrize("end", ["close", "reset"])
def test_who_hangs_up_while_waiting_is_not_sent_to_the_device(make_relay, end, front_tls):
    relay = make_relay(options={"devices": {"requests_out": 1}}, front_tls=front_tls).start()
    with Device(relay.device_port) as device, User(relay) as first, User(relay) as second, \
            User(relay) as third:
        device.join()
        for number, each in enumerate((first, second, third)):
            each.ask(f"/{number}")
            wait_until(lambda: relay.devices()[DEVICE_ID]["open"] == number + 1, "it is there")
        request = device.expect_request()
        getattr(second, end)()
        device.answer(request)
        first.expect(200)
        request = device.expect_request()
        assert request.line == "GET /2 HTTP/1.1"
        device.answer(request)
        third.expect(200)
        wait_until(lambda: len(relay.accesses()) == 3, "it is logged")
        assert sorted(line["status"] for line in relay.accesses()) == [0, 200, 200]


def test_who_hangs_up_with_the_next_request_sent_is_not_sent_either(make_relay):
    relay = make_relay(options={"devices": {"requests_out": 1}}).start()
    with Device(relay.device_port) as device, User(relay) as first, User(relay) as second:
        device.join()
        first.ask("/0")
        request = device.expect_request()
        second.send(second.head("/1") + second.head("/1-pipelined"))
        wait_until(lambda: relay.devices()[DEVICE_ID]["open"] == 2, "it is there")
        second.close()
        device.answer(request)
        first.expect(200)
        device.beat()


def test_who_hangs_up_while_the_device_works_disturbs_nobody(relay, device, user, open_user):
    leaver = open_user()
    leaver.ask("/left")
    request = device.expect_request()
    leaver.reset()
    device.answer(request)
    user.ask("/next")
    device.answer(device.expect_request(), http_answer(b"next"))
    assert user.expect(200).body == b"next"
    wait_until(lambda: len(relay.accesses()) == 2, "it is logged")


# --- many at once ---

def test_100_users_at_once_get_each_his_own_answer(relay, device, open_user):
    device.serve(lambda request: http_answer(request.line.encode() * 50))
    users = [open_user() for _ in range(100)]
    for turn in range(3):
        for number, each in enumerate(users):
            each.ask(f"/{turn}/{number}")
        for number, each in enumerate(users):
            assert each.expect(200).body == b"GET /%d/%d HTTP/1.1" % (turn, number) * 50
    assert relay.devices()[DEVICE_ID]["requests"] == 300


@pytest.mark.lasts(4)
def test_wrk_with_100_connections_sees_no_error(relay, device):
    device.serve(lambda request: http_answer(b"x" * 1024))
    finished = subprocess.run(
        ["wrk", "-t1", "-c100", "-d2s", "--timeout", "20s", "-H", f"Host: {relay.host(DEVICE_ID)}",
         f"http://127.0.0.1:{relay.front_port}/x"], capture_output=True, text=True, timeout=60)
    assert finished.returncode == 0
    assert "Socket errors" not in finished.stdout and "Non-2xx" not in finished.stdout
    answered = int(finished.stdout.split(" requests in ")[0].split()[-1])
    assert answered > 100
    wait_until(lambda: relay.metric("relay_user_connections_open") == 0, "wrk has gone")
    assert relay.metric('relay_requests_total{status="200"}') >= answered


def test_descriptors_that_run_out_are_waited_for(relay, device, user):
    """The relay neither ends nor spins when it can accept nobody."""
    limit = relay.process.descriptor_count() + 1
    soft, hard = resource.prlimit(relay.pid, resource.RLIMIT_NOFILE)
    resource.prlimit(relay.pid, resource.RLIMIT_NOFILE, (limit, hard))
    sockets = [socket.create_connection(("127.0.0.1", relay.front_port)) for _ in range(5)]
    relay.log.wait_for("cannot accept a connection: Too many open files")
    spent = relay.process.processor_time_s()
    user.ask()
    device.answer(device.expect_request())
    user.expect(200)
    time.sleep(0.5)
    assert relay.process.processor_time_s() - spent < 0.3 * build_cost()
    resource.prlimit(relay.pid, resource.RLIMIT_NOFILE, (soft, hard))
    for each in sockets:
        each.close()
    wait_until(lambda: relay.get(DEVICE_ID + "x").status == 404, "it accepts again")
