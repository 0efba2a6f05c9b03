"""What the daemon must survive and must not hoard."""

import errno
import random
import resource
import time

import pytest

from daemon import build, slowness
from exchanges import REQUEST, carry, send_request
from processes import wait_until
from relay_peer import (HELLO, MAGIC, QUIET_RELAY_REQUEST, RELAY_REQUEST, WEB_TOKEN, DeafListener,
                        header)


# The thread sanitizer pays for address space, too.
HUGE = 0xFFFFFFFF if build() != "thread" else 1 << 26


# --- claims of length ---

@pytest.fixture
def frugal(daemon):
    """Checks in the end that the daemon has never used more than a session and some pages take."""
    before = daemon.resident_kib()
    yield
    if build() == "plain":
        assert daemon.peak_resident_kib() - before < 16 * 1024


@pytest.mark.lasts(8)
@pytest.mark.parametrize("kind", [RELAY_REQUEST, QUIET_RELAY_REQUEST, WEB_TOKEN])
def test_a_huge_body_that_never_comes_costs_nothing(
        daemon, session, relay, web, frugal, kind):
    session.send(header(kind, 1, HUGE) + bytes(100))
    daemon.log.expect("[CRC:] CloudRelayClient task exit.", within=10 * slowness())
    daemon.open_session(relay).expect_served()


@pytest.mark.lasts(8)
def test_a_huge_hello_answer_that_never_comes_costs_nothing(daemon, relay, frugal):
    daemon.reload(relay.address, relay.port)
    session = relay.accept()
    session.expect_hello()
    session.send(header(HELLO, 0, HUGE) + b'{"err_code":0}')
    daemon.log.expect("[CRC:] CloudRelayClient task exit.", within=10 * slowness())
    assert not daemon.log.find("[CRC:] begin cycle loop")
    daemon.open_session(relay).expect_served()


@pytest.mark.plain_build
def test_a_token_request_too_large_for_memory_ends_the_session_with_101(daemon, session, relay):
    daemon.limit_address_space(32 * 1024)
    session.send(header(WEB_TOKEN, 1, 1 << 30))
    daemon.log.expect_all("[CRC:] Out of memory!", "[CRC:] socket receive/send error: 101",
                          "[CRC:] CloudRelayClient task exit.")
    daemon.lift_address_space_limit()
    daemon.open_session(relay).expect_served()


@pytest.mark.plain_build
def test_a_hello_answer_too_large_for_memory_fails_the_handshake(daemon, relay):
    daemon.reload(relay.address, relay.port)
    session = relay.accept()
    session.expect_hello()
    daemon.limit_address_space(32 * 1024)
    session.send(header(HELLO, 0, 1 << 30))
    daemon.log.expect_all("[CRC:] malloc error", "[CRC:] socket recv error.",
                          "[CRC:] CloudRelayClient task exit.")
    daemon.lift_address_space_limit()
    daemon.open_session(relay).expect_served()


@pytest.mark.plain_build
def test_an_answer_too_large_for_memory_is_dropped_and_the_session_lives(daemon, session, web):
    daemon.limit_address_space(16 * 1024)
    exchange = send_request(session, web)
    with pytest.raises(ConnectionError):
        exchange.send(bytes(64 << 20))
    daemon.log.expect_all("[CRC:] Out of memory.", "=======HTTPD -> CRC: FAILED.",
                          "E - 101 call _cloud_remote_mq_response_recv(pNode) failed.")
    daemon.lift_address_space_limit()
    session.expect_served()


@pytest.mark.plain_build
def test_a_worker_that_cannot_be_created_is_reported_and_leaves_the_daemon_idle(daemon, relay):
    daemon.limit_address_space(64)
    assert daemon.reload(relay.address, relay.port).status == 6
    daemon.log.expect_all(
        f"E - {errno.EAGAIN} call pthread_create(&lCloudBrdTask, NULL, "
        "_swCloudRelayClientTaskEntry, NULL) failed.",
        "[CRC:] Create cloudRelayClient task failed",
        "E - 5 call _swCloudRelayClientTaskStart(ipaddr, port) failed.",
        "E - 6 call swCloudRelayClientTaskStart(addrStr, port) failed.")
    daemon.lift_address_space_limit()
    daemon.open_session(relay).expect_served()


@pytest.mark.plain_build
@pytest.mark.lasts(9)
def test_a_restart_that_fails_has_status_8_and_leaves_the_daemon_idle(daemon, places, relay):
    with DeafListener() as deaf:
        daemon.reload(deaf.address, deaf.port)
        daemon.log.expect(
            f"[CRC:] begin to connect the socket, ip:{deaf.address}, port:{deaf.port}")
        daemon.limit_address_space(64)
        # The old worker is still connecting, so that the new one needs a stack of its own.
        assert daemon.reload(relay.address, relay.port).status == 8
        daemon.log.expect_all(
            "E - 5 call _swCloudRelayClientTaskInit(ipAddr, port) failed.",
            "[CRC:] Create cloud-brd-task failed",
            "E - -1 call _swCloudRelayClientTaskRestart(ipaddr, port) failed.",
            "E - 8 call swCloudRelayClientTaskStart(addrStr, port) failed.")
        daemon.lift_address_space_limit()
        assert daemon.reload(relay.address, relay.port).seconds < 2 * slowness()
        relay.accept().welcome().expect_served()


def test_a_daemon_without_descriptors_refuses_a_request_and_recovers(daemon, session, relay, web):
    daemon.limit_descriptors(max(daemon.descriptors()) + 1)
    session.send_packet(RELAY_REQUEST, 1, REQUEST)
    daemon.log.expect("[CRC:] CloudRelayClient task exit.")
    daemon.limit_descriptors(1024)
    session = daemon.open_session(relay)
    carry(session, web, 2, answer=b"back")


@pytest.fixture
def many_descriptors():
    """Lets this process, which plays the web server, hold some thousand connections."""
    usual = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (min(8192, usual[1]), usual[1]))
    yield
    resource.setrlimit(resource.RLIMIT_NOFILE, usual)


@pytest.mark.lasts(4)
def test_more_requests_at_once_than_a_select_set_holds_kill_nothing(
        daemon, many_descriptors, relay, web):
    daemon.limit_descriptors(4096)
    session = daemon.open_session(relay)
    accepted = []
    web.serve(accepted.append)
    for number in range(1100):
        session.send_packet(RELAY_REQUEST, number)
    wait_until(lambda: len(accepted) > 950 or not daemon.alive, "the requests reach the web server")
    wait_until(lambda: daemon.log.count("[CRC:] CloudRelayClient task exit.") == 1 or
               len(accepted) == 1100, "all requests are taken or the session is given up")
    for exchange in accepted:
        exchange.close()
    daemon.stop()
    wait_until(lambda: daemon.log.count("[CRC:] CloudRelayClient task exit.") == 1,
               "the session ends")
    daemon.open_session(relay).expect_served()


# --- relays that say anything ---

def random_packet(dice):
    """Mostly a header with something wrong in it, sometimes with a body."""
    body = dice.randbytes(dice.choice([0, 1, 12, 200]))
    size = dice.choice([len(body), len(body), len(body) + 1, 0, HUGE])
    kind = dice.choice([0, 1, 2, 3, 4, 5, 6, 7, dice.randrange(0x10000)])
    magic = dice.choice([MAGIC] * 9 + [dice.randrange(0x10000)])
    return header(kind, dice.randrange(0x10000), size, dice.randrange(0x10000), magic) + body


@pytest.mark.lasts(6)
@pytest.mark.parametrize("seed", range(4))
def test_sessions_of_random_packets_kill_nothing(daemon, relay, web, seed):
    dice = random.Random(seed)
    web.serve(lambda exchange: exchange.answer(b"whatever"))
    for _ in range(15):
        session = daemon.open_session(relay)
        try:
            for _ in range(dice.randrange(1, 8)):
                session.send_record(random_packet(dice))
            session.close()
        except ConnectionError:
            pass  # the daemon had enough before
        daemon.log.expect("[CRC:] CloudRelayClient task exit.")
    daemon.open_session(relay).expect_served()


@pytest.mark.lasts(3)
@pytest.mark.parametrize("seed", range(2))
def test_random_answers_to_the_hello_kill_nothing(daemon, relay, seed):
    dice = random.Random(seed)
    texts = [b'{"err_code":', b"0", b"{", b"}", b"[", b"1e999", b"null", b'"\\ud800"', b"\xff"]
    for _ in range(15):
        daemon.reload(relay.address, relay.port)
        session = relay.accept()
        session.expect_hello()
        body = b"".join(dice.choices(texts, k=dice.randrange(12)))
        session.send_packet(HELLO, 0, body)
        session.close()
        daemon.log.expect("[CRC:] CloudRelayClient task exit.")
    daemon.open_session(relay).expect_served()


# --- the long run ---

@pytest.mark.lasts(20)
def test_sixty_sessions_in_a_row_leave_nothing_behind(daemon, relay, web):
    def one_session(number):
        session = daemon.open_session(relay)
        exchange = send_request(session, web, number)
        exchange.answer(bytes(20_000))
        assert len(session.read_packet().body) == 20_000
        session.expect_served()
        session.close()
        daemon.log.expect("[CRC:] CloudRelayClient task exit.")
        wait_until(lambda: not [name for name in daemon.threads() if name.startswith("cycleHnd")],
                   "the worker ends")

    descriptors, threads = daemon.descriptors(), daemon.threads()
    for number in range(20):
        one_session(number)
    settled = daemon.resident_kib()
    for number in range(20, 60):
        one_session(number)
    assert daemon.descriptors() == descriptors
    assert daemon.children() == []
    if build() == "plain":  # checkers have threads and memory of their own
        assert daemon.threads() == threads
        assert daemon.resident_kib() - settled < 128


@pytest.mark.lasts(6)
@pytest.mark.plain_build
def test_a_thousand_requests_do_not_make_the_daemon_grow(daemon, session, web):
    web.serve(lambda exchange: exchange.answer(exchange.read_exactly(1024)))
    body = bytes(1024)

    def requests(count):
        for number in range(count):
            session.send_packet(RELAY_REQUEST, number, body)
            assert session.read_packet().id == number

    requests(200)
    settled = daemon.resident_kib()
    requests(800)
    assert daemon.resident_kib() - settled < 64


@pytest.mark.lasts(4)
@pytest.mark.plain_build
def test_the_memory_of_a_large_answer_is_given_back(daemon, session, web):
    before = daemon.resident_kib()
    web.serve(lambda exchange: exchange.answer(bytes(20_000_000)))
    session.send_packet(RELAY_REQUEST, 1)
    assert len(session.read_packet().body) == 20_000_000
    wait_until(lambda: daemon.resident_kib() - before < 1024, "the memory is given back")


@pytest.mark.lasts(11)
@pytest.mark.plain_build
def test_a_daemon_without_a_session_sleeps(daemon):
    wakeups, cpu = daemon.wakeups(), daemon.cpu_seconds()
    time.sleep(10)
    assert daemon.wakeups() - wakeups <= 5
    assert daemon.cpu_seconds() - cpu < 0.005


@pytest.mark.lasts(11)
@pytest.mark.plain_build
def test_an_idle_session_wakes_five_times_a_second(daemon, session):
    wakeups, cpu = daemon.wakeups(), daemon.cpu_seconds()
    time.sleep(10)
    assert daemon.wakeups() - wakeups <= 60
    assert daemon.cpu_seconds() - cpu < 0.02


@pytest.mark.lasts(7)
@pytest.mark.plain_build
def test_a_stalled_relay_does_not_make_the_daemon_spin(daemon, session, web):
    session.send(header(RELAY_REQUEST, 1, 1000))
    web.accept()
    cpu = daemon.cpu_seconds()
    daemon.log.expect("[CRC:] CloudRelayClient task exit.", within=8)
    assert daemon.cpu_seconds() - cpu < 0.25


@pytest.mark.parametrize("script", [
    'io.write("x")', 'os.exit(7)', 'io.write(string.rep("x", 100000))',
    'io.stdout:close() os.execute("sleep 0.2")', 'os.execute("kill -KILL $PPID")',
], ids=["prints", "fails", "prints too much", "outlives its output", "is killed"])
def test_a_token_helper_is_gone_when_the_token_is_sent(daemon, session, router, script):
    router.write_token_script(script)
    for number in range(5):
        session.expect_served(number)
        assert daemon.children() == []
