"""Days on which everything takes its time: slow web servers, slow relays, helpers that hang, an
output that nobody reads, and stops that come in the middle of it."""

import contextlib
import re
import threading
import time
from pathlib import Path

import pytest

import namespaces
from daemon import slowness
from exchanges import (REQUEST, carry, send_request, some_bytes, wait_until_stuck,
                       wait_until_taken)
from processes import wait_until
from relay_peer import RELAY_REQUEST, WEB_TOKEN, Closed, DeafListener

LET_GO_S = 1   # within this a stop or a reload gets a worker out of any wait but the resolver's
TOKEN_LIMIT_S = 10


class Ended:
    """Measures how long the daemon takes to end a session after a stop."""

    def __init__(self, daemon):
        self._daemon = daemon
        daemon.log.mark()
        self._started = time.monotonic()
        assert daemon.stop().status == 0

    def seconds(self, within=15):
        ended = self._daemon.log.expect("[CRC:] CloudRelayClient task exit.", within=within)
        return ended.at - self._started


# --- answers and uploads ---

@pytest.mark.lasts(16)
def test_an_answer_that_flows_for_15_seconds_arrives_whole(session, web):
    answer = some_bytes(30_000)
    exchange = send_request(session, web)
    exchange.dribble(answer, size=200, pause=0.1)
    exchange.close()
    assert session.read_packet().body == answer


@pytest.mark.lasts(16)
def test_an_upload_to_a_web_server_that_takes_130_kb_a_second_arrives_whole(session, web):
    upload = some_bytes(2_000_000)
    web.limit_receive_buffers(16384)
    sender = threading.Thread(target=session.send_packet, args=(RELAY_REQUEST, 1, upload))
    sender.start()
    exchange = web.accept()
    received = b""
    while len(received) < len(upload):
        received += exchange.read_exactly(min(13_000, len(upload) - len(received)))
        time.sleep(0.1)
    assert received == upload
    sender.join()
    exchange.answer(b"taken")
    assert session.read_packet().body == b"taken"


@pytest.mark.lasts(30)
def test_an_upload_that_the_web_server_takes_at_12_kb_a_second_is_answered(session, web):
    upload = some_bytes(300_000)
    web.limit_receive_buffers(16384)
    sender = threading.Thread(target=session.send_packet, args=(RELAY_REQUEST, 1, upload))
    sender.start()
    exchange = web.accept()
    for start in range(0, len(upload), 1200):
        assert exchange.read_exactly(len(upload[start:start + 1200])) == upload[start:start + 1200]
        time.sleep(0.1)
    sender.join()
    exchange.answer(b"taken")
    assert session.read_packet().body == b"taken"


@pytest.mark.lasts(14)
def test_an_answer_that_is_there_is_sent_although_another_took_longer_than_its_time(
        daemon, session, web):
    slow = send_request(session, web, number=1)
    quick = send_request(session, web, number=2)
    slow.send(b"x")  # read first: it came first
    wait_until_taken(daemon)
    quick.answer(b"complete")
    slow.dribble(b"y" * 12, size=1, pause=1)
    slow.close()
    assert [session.read_packet().id for _ in range(2)] == [1, 2]


@pytest.mark.lasts(9)
def test_a_heartbeats_reply_that_waits_behind_a_slow_answer_is_accepted(daemon, relay, web):
    assert daemon.reload(relay.address, relay.port).status == 0
    session = relay.accept()
    session.expect_hello()
    session.answer_hello()
    heartbeat = session.expect_heartbeat()
    exchange = send_request(session, web)
    exchange.send(b"x")
    wait_until_taken(daemon)
    session.answer_heartbeat(heartbeat)
    exchange.dribble(b"y" * 8, size=1, pause=1)  # longer than a reply may take
    exchange.close()
    assert session.read_packet().body == b"xyyyyyyyy"
    session.expect_served()
    assert not [text for text in daemon.log.errors() if "response timeout" in text]


@pytest.mark.lasts(6)
def test_a_reply_that_is_late_by_itself_is_refused_as_ever(daemon, relay):
    assert daemon.reload(relay.address, relay.port).status == 0
    session = relay.accept()
    session.expect_hello()
    session.answer_hello()
    heartbeat = session.expect_heartbeat()
    session.expect_silence(5.5)
    session.answer_heartbeat(heartbeat)
    daemon.log.expect("[CRC:]response timeout, will discard")


def test_an_answer_for_which_the_router_has_no_memory_left_is_given_up(
        places, unstarted_daemon, relay, web):
    (places.scratch / "meminfo").write_text("MemTotal: 65536 kB\nMemFree: 900 kB\n"
                                            "MemAvailable: 3000 kB\n")
    namespaces.bind(places.scratch / "meminfo", Path("/proc/meminfo"))
    try:
        daemon = unstarted_daemon.start().wait_for_object()
        session = daemon.open_session(relay)
        send_request(session, web).answer(some_bytes(100_000))
        daemon.log.expect_all("[CRC:] Out of memory.",
                              "E - 101 call _cloud_remote_mq_response_recv(pNode) failed.")
    finally:
        namespaces.unmount(Path("/proc/meminfo"))


def test_a_staged_change_of_the_port_is_seen_by_the_next_request(
        session, web, router, tmp_path):
    router.take_staged_changes(tmp_path)
    carry(session, web, 1)
    with type(web)() as other:
        router.stage("system", f"system.service_port.http_port='{other.port}'")
        carry(session, other, 2)
        router.unstage("system")
        carry(session, web, 3)


# --- stops ---

@pytest.mark.lasts(3)
def test_a_stop_lets_an_answer_pass_that_is_on_its_way(daemon, session, web):
    answer = some_bytes(8_000_000)
    send_request(session, web).answer(answer)
    daemon.log.expect(f"=======HTTPD -> CRC: {len(answer) + 12}B.")
    head = session.read_exactly(100_000)
    assert daemon.stop().status == 0
    rest = b""
    while len(rest) < len(answer) + 12 - len(head):  # 4 MB a second
        rest += session.read_exactly(min(200_000, len(answer) + 12 - len(head) - len(rest)))
        time.sleep(0.05)
    assert (head + rest)[12:] == answer
    assert session.expect_closed() == "in order"


@pytest.mark.lasts(4)
def test_a_stop_cuts_an_answer_that_the_relay_does_not_take_for_two_seconds(daemon, session, web):
    send_request(session, web).answer(some_bytes(20_000_000))
    daemon.log.expect("=======HTTPD -> CRC: 20000012B.")
    session.read_exactly(12)
    wait_until_stuck(daemon)
    assert 2 <= Ended(daemon).seconds() < 2.5 + LET_GO_S * slowness()


@pytest.mark.lasts(12)
def test_a_stop_gives_an_answer_ten_seconds_however_steadily_it_moves(daemon, session, web):
    send_request(session, web).answer(some_bytes(60_000_000))
    daemon.log.expect("=======HTTPD -> CRC: 60000012B.")
    done = threading.Event()

    def trickle():
        with contextlib.suppress(Closed):
            while not done.is_set():
                session.read_exactly(16_384)
                time.sleep(0.05)

    reader = threading.Thread(target=trickle)
    reader.start()
    try:
        assert 9.5 < Ended(daemon).seconds(within=20) < 10.5 + LET_GO_S * slowness()
    finally:
        done.set()
        reader.join()


def test_a_stop_ends_the_wait_for_a_web_server_that_does_not_accept(daemon, session, router):
    with DeafListener() as deaf:
        router.set_web_port(deaf.port)
        session.send_packet(RELAY_REQUEST, 1, REQUEST)
        daemon.log.expect(re.compile("^Connect web-server, lWebSvrProxySockfd"))
        assert Ended(daemon).seconds() < LET_GO_S * slowness()


def test_a_stop_ends_the_wait_for_a_web_server_that_takes_no_body(daemon, session, web):
    def upload():
        with contextlib.suppress(OSError):  # the session ends meanwhile
            session.send_packet(RELAY_REQUEST, 1, some_bytes(20_000_000))

    sender = threading.Thread(target=upload)
    sender.start()
    web.accept()
    daemon.log.expect("=======CRC -> HTTPD: 20000000B")
    wait_until_stuck(daemon)
    assert Ended(daemon).seconds() < LET_GO_S * slowness()
    session.reset()
    sender.join()


def test_a_stop_ends_the_wait_for_the_rest_of_an_answer(daemon, session, web):
    exchange = send_request(session, web)
    exchange.send(b"half")
    wait_until_taken(daemon)
    assert Ended(daemon).seconds() < LET_GO_S * slowness()


# --- helpers ---

@pytest.mark.lasts(12)
def test_a_token_helper_that_never_ends_is_ended_with_its_children(daemon, session, router, places):
    witness = places.scratch / "helper"
    router.write_token_script(f'os.execute("echo $$ > {witness}; sleep 1000 & sleep 1000")')
    session.send_packet(WEB_TOKEN, 7, b"{}")
    reply = session.read_packet(within=TOKEN_LIMIT_S + 5 * slowness())
    assert reply.body == b'{"err_code": 0,"webToken":""}'
    wait_until(lambda: not Path(f"/proc/{witness.read_text().strip()}").exists(), "the shell is gone")
    assert daemon.children() == []
    router.write_token_script('io.write("again")')
    session.send_packet(WEB_TOKEN, 8, b"{}")
    assert session.read_packet().body == b'{"err_code": 0,"webToken":"again"}'


@pytest.mark.lasts(12)
def test_a_token_helper_that_prints_for_ever_is_ended(daemon, session, router):
    router.write_token_script('os.execute("trap \'\' PIPE; while :; do echo x 2>/dev/null; done")')
    session.send_packet(WEB_TOKEN, 7, b"{}")
    reply = session.read_packet(within=TOKEN_LIMIT_S + 5 * slowness())
    assert reply.body == b'{"err_code": 0,"webToken":""}'
    assert daemon.children() == []


# --- the log ---

@pytest.mark.lasts(4)
def test_a_log_that_nobody_reads_does_not_hold_a_session(unstarted_daemon, relay, web):
    daemon = unstarted_daemon.start().wait_for_object()
    session = daemon.open_session(relay)
    carry(session, web, 1)
    daemon.log.stop_reading()
    try:
        started = time.monotonic()
        for number in range(2, 100):  # far more lines than the pipe holds
            carry(session, web, number)
        assert time.monotonic() - started < (1 + 5) * slowness()
    finally:
        daemon.log.go_on_reading()
    carry(session, web, 101)
    daemon.log.expect("=======HTTPD -> CRC: 36B.")
