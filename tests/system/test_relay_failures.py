"""Requests for the router's web server when that or the relay does not do its part."""

import time

import pytest

from daemon import slowness
from exchanges import REQUEST, carry, send_request, some_bytes, wait_until_stuck
from processes import wait_until
from relay_peer import RELAY_REQUEST, WEB_TOKEN, Relay, header, refusing_port
from web_peer import WebServer

NODE_LIFE_S = 10


def expect_unanswered_then_served(session, web, seconds):
    """Nothing comes for that long; then the next request is served as ever."""
    session.expect_silence(seconds)
    carry(session, web, 0x0777)


# --- web servers that fail ---

def test_a_web_server_that_is_down_ends_the_session(daemon, session, router):
    port = refusing_port()
    router.set_web_port(port)
    session.send_packet(RELAY_REQUEST, 1, REQUEST)
    connect, call = daemon.log.expect_all(
        f"Connect web-server with {port} err, Connection refused.",
        "E - -1 call _cloud_remote_mq_request_con_web_server(pRemoteMqNode) failed.")
    assert (connect.function, call.function) == (
        "_cloud_remote_mq_request_con_web_server", "cloud_remote_mq_request_handle")
    daemon.log.expect_all("[CRC:] socket receive/send error: -1",
                          "[CRC:] CloudRelayClient task exit.")


def test_a_web_server_that_comes_back_serves_the_next_session(daemon, session, relay, router):
    router.set_web_port(refusing_port())
    session.send_packet(RELAY_REQUEST, 1, REQUEST)
    daemon.log.expect("[CRC:] CloudRelayClient task exit.")
    with WebServer() as web:
        router.set_web_port(web.port)
        carry(daemon.open_session(relay), web)


@pytest.mark.lasts(13)
def test_a_silent_web_server_is_dropped_after_ten_seconds_without_an_answer(session, web):
    session.send_packet(RELAY_REQUEST, 1, REQUEST)
    exchange = web.accept()
    delivered = time.monotonic()
    exchange.read_exactly(len(REQUEST))
    session.expect_silence(NODE_LIFE_S - 1)
    exchange.expect_closed(within=3 * slowness())
    assert NODE_LIFE_S - 0.5 < time.monotonic() - delivered
    expect_unanswered_then_served(session, web, 1)


@pytest.mark.lasts(13)
def test_other_requests_are_served_while_one_web_connection_stays_silent(session, web):
    session.send_packet(RELAY_REQUEST, 1, REQUEST)
    silent = web.accept()
    for number in range(2, 12):
        carry(session, web, number)
    silent.read_exactly(len(REQUEST))
    silent.expect_closed(within=(NODE_LIFE_S + 3) * slowness())
    carry(session, web, 99)


@pytest.mark.lasts(12)
def test_a_web_server_that_resets_is_logged_and_not_answered(daemon, session, web):
    exchange = send_request(session, web)
    exchange.reset()
    daemon.log.expect_all(
        "=======HTTPD -> CRC: FAILED.",
        "E - -1 call _cloud_remote_mq_response_recv(pNode) failed.")
    expect_unanswered_then_served(session, web, 1)


@pytest.mark.lasts(12)
def test_a_failed_exchange_hides_the_relay_until_it_is_dropped(daemon, session, web):
    exchange = send_request(session, web)
    exchange.reset()
    failed = daemon.log.expect("=======HTTPD -> CRC: FAILED.")
    session.send_packet(WEB_TOKEN, 2, b"{}")
    heard = daemon.log.expect("[CRC:] Recv request pkt for webToken from relay server.")
    assert NODE_LIFE_S - 1 < heard.at - failed.at < NODE_LIFE_S + 1 * slowness()
    assert session.read_packet().id == 2


@pytest.mark.lasts(12)
def test_a_web_server_that_resets_after_half_an_answer_is_not_answered(daemon, session, web):
    exchange = send_request(session, web)
    exchange.send(some_bytes(20_000))
    exchange.reset()
    daemon.log.expect("=======HTTPD -> CRC: FAILED.")
    expect_unanswered_then_served(session, web, 1)


@pytest.mark.lasts(15)
def test_a_web_server_that_never_closes_after_its_answer_counts_as_failed(daemon, session, web):
    exchange = send_request(session, web)
    exchange.send(b"HTTP/1.1 200 OK\r\n\r\nand now nothing")
    started = time.monotonic()
    daemon.log.expect("=======HTTPD -> CRC: FAILED.", within=(NODE_LIFE_S + 3) * slowness())
    assert NODE_LIFE_S - 1 < time.monotonic() - started
    exchange.expect_closed()
    expect_unanswered_then_served(session, web, 1)


@pytest.mark.lasts(15)
def test_a_web_server_that_stalls_in_the_middle_counts_as_failed(daemon, session, web):
    exchange = send_request(session, web)
    exchange.send(some_bytes(100_000))
    daemon.log.expect("=======HTTPD -> CRC: FAILED.", within=(NODE_LIFE_S + 5) * slowness())
    exchange.expect_closed()
    expect_unanswered_then_served(session, web, 1)


@pytest.mark.lasts(15)
def test_a_stop_ends_the_session_soon_even_while_a_web_server_stalls(daemon, session, web):
    exchange = send_request(session, web)
    exchange.send(b"half")
    assert daemon.stop().status == 0
    session.expect_closed(within=(NODE_LIFE_S + 3) * slowness())
    daemon.log.expect("[CRC:] CloudRelayClient task exit.")


def test_a_web_server_that_hangs_up_on_a_long_request_ends_the_session_and_kills_nothing(
        daemon, session, relay, web):
    request = some_bytes(1_000_000)
    session.send(header(RELAY_REQUEST, 1, len(request)))
    exchange = web.accept()
    daemon.log.expect("=======CRC -> HTTPD: 1000000B")
    exchange.reset()
    session.send(request)
    daemon.log.expect(
        "E - -1 call _cloud_remote_mq_request_send_to_web_server(cycle, pRemoteMqNode, timeout) "
        "failed.")
    daemon.log.expect_all("[CRC:] socket receive/send error: -1",
                          "[CRC:] CloudRelayClient task exit.")
    # The body was read to its end, so nothing of it was taken for a packet.
    assert not [text for text in daemon.log.errors() if "Magic number" in text]
    carry(daemon.open_session(relay), web)


def test_a_web_server_that_reads_late_still_gets_the_whole_request(daemon, session, web):
    request = some_bytes(200_000)
    session.send_packet(RELAY_REQUEST, 1, request)
    exchange = web.accept()
    daemon.log.expect("[CRC:] Send remote request to web-server successfully.")
    assert exchange.read_exactly(len(request)) == request
    exchange.answer(b"at last")
    assert session.read_packet().body == b"at last"


# --- relays that fail ---

@pytest.mark.lasts(7)
def test_a_body_that_stops_coming_ends_the_session_after_five_seconds(daemon, session, web):
    session.send(header(RELAY_REQUEST, 1, 1000) + bytes(10))
    web.accept()
    started = time.monotonic()
    daemon.log.expect_all(
        "[CRC:] socket recv error, recvCnt:-1",
        "E - 4 call _cloud_remote_mq_request_send_to_web_server(cycle, pRemoteMqNode, timeout) "
        "failed.", "[CRC:] socket receive/send error: 4", within=7 * slowness())
    assert 4 < time.monotonic() - started
    session.expect_closed()


def test_a_relay_that_hangs_up_within_a_body_ends_the_session(daemon, session, web):
    session.send(header(RELAY_REQUEST, 1, 1000))
    web.accept()
    session.close()
    daemon.log.expect_all(
        "[CRC:] socket closed by peer",
        "E - 9 call _cloud_remote_mq_request_send_to_web_server(cycle, pRemoteMqNode, timeout) "
        "failed.", "[CRC:] CloudRelayClient task exit.")
    assert daemon.alive


@pytest.mark.lasts(4)
def test_a_relay_that_reads_late_gets_the_whole_answer(daemon, session, web):
    answer = some_bytes(5_000_000)
    exchange = send_request(session, web)
    exchange.answer(answer)
    daemon.log.expect(f"=======HTTPD -> CRC: {len(answer) + 12}B.")
    wait_until_stuck(daemon)
    assert daemon.call("reload", {}).status == -1  # the bus is served meanwhile
    assert session.read_packet().body == answer


@pytest.mark.lasts(6)
def test_a_reload_gets_away_from_a_relay_that_stops_reading(daemon, session, web, authority):
    answer = some_bytes(5_000_000)
    send_request(session, web).answer(answer)
    wait_until_stuck(daemon)
    with Relay(authority.certificate()) as other:
        second = daemon.open_session(other)
        wait_until(lambda: "cycleHnd_0" not in daemon.threads(), "the old worker gives up")
        carry(second, web)


@pytest.mark.lasts(4)
def test_a_relay_that_stops_reading_and_vanishes_frees_the_daemon(daemon, session, web, relay):
    exchange = send_request(session, web)
    exchange.answer(some_bytes(5_000_000))
    daemon.log.expect("=======HTTPD -> CRC: 5000012B.")
    wait_until_stuck(daemon)
    session.reset()
    daemon.log.expect("[CRC:] CloudRelayClient task exit.")
    carry(daemon.open_session(relay), web)


def test_requests_under_way_die_with_their_session(daemon, session, web, relay):
    before = len(daemon.descriptors())
    for number in range(5):
        session.send_packet(RELAY_REQUEST, number, REQUEST)
    exchanges = [web.accept() for _ in range(5)]
    session.close()
    daemon.log.expect("[CRC:] CloudRelayClient task exit.")
    for exchange in exchanges:
        exchange.read_exactly(len(REQUEST))
        exchange.expect_closed()
    wait_until(lambda: len(daemon.descriptors()) == before - 1, "all sockets are closed")
    second = daemon.open_session(relay)
    second.expect_silence(1)
    carry(second, web)


def test_a_web_socket_numbered_below_the_relays_hides_the_relay_until_it_is_done(
        daemon, session, web, router):
    relays = max(number for number, what in daemon.descriptors().items()
                 if what.startswith("socket:"))
    router.identity.stop()
    router.stop_bus()  # frees the number of the bus connection, which is the lower one
    daemon.log.expect("failed to reconnect, trying again in 2 seconds")
    before = daemon.descriptors()
    exchange = send_request(session, web)
    (webs,) = set(daemon.descriptors()) - set(before)
    assert webs < relays, "this test needs the order of the numbers"
    session.send_packet(WEB_TOKEN, 2, b"{}")
    session.expect_silence(2)
    exchange.answer(b"done")
    assert [session.read_packet().id for _ in range(2)] == [1, 2]
