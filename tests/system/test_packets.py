"""Packets of the relay in an established session: their kinds, their cuts, and their end."""

import contextlib
import os
import time

import pytest

from daemon import slowness
from exchanges import REQUEST, send_request
from processes import wait_until
from relay_peer import (HEARTBEAT, HELLO, QUIET_RELAY_REQUEST, RELAY_REQUEST, RELAY_RESPONSE,
                        WEB_TOKEN, OpensslRelay, Packet, header)



def expect_end(daemon, session, code):
    """The session ends for a fault of the relay's, logged with this code."""
    daemon.log.expect_all("[CRC:] begin to disconnect the socket",
                          "[CRC:] Disconnect the socket ok.",
                          f"[CRC:] socket receive/send error: {code}",
                          "[CRC:] Cloud socket is already disconnected",
                          "[CRC:] This connection is closed by relay-server/client.",
                          "[CRC:] Destroy cloud-cycle end.",
                          "[CRC:] CloudRelayClient task exit.")
    assert session.expect_closed() == "in order"


# --- kinds ---

@pytest.mark.parametrize("kind", [HELLO, RELAY_RESPONSE])
def test_a_packet_that_only_the_device_sends_is_ignored(daemon, session, kind):
    session.send_packet(kind, 9)
    session.expect_served()
    assert not daemon.log.errors()


@pytest.mark.parametrize("kind", [0, 7, 8, 0x0300, 0xFFFF])
def test_a_packet_of_no_known_kind_ends_the_session_without_further_word(daemon, session, kind):
    session.send_packet(kind, 9)
    expect_end(daemon, session, -1)
    assert daemon.log.errors() == ["[CRC:] socket receive/send error: -1"]


@pytest.mark.parametrize("magic", [0x0BB0, 0x0000, 0xB00A, 0xFFFF])
def test_a_header_with_another_magic_ends_the_session_with_code_10(daemon, session, magic):
    session.send_record(Packet(WEB_TOKEN, 1, magic=magic).encode())
    daemon.log.expect(f"[CRC:] Magic number(pkt Header 0x{magic:04X}) err.")
    expect_end(daemon, session, 10)


def test_a_received_header_is_dumped(daemon, session):
    session.send_packet(RELAY_RESPONSE, 0x1234, reserve=0x0506)
    dump = (b"--------------------------Pkt Hdr----------------------------\r\n"
            b"[CRC:] parse req, magicNum: 0xB00B\r\n"
            b"[CRC:] parse req, type    : 4\r\n"
            b"[CRC:] parse req, id      : 4660\r\n"
            b"[CRC:] parse req, resv    : 1286\r\n"
            b"[CRC:] parse req, dataLen : 0\r\n"
            b"b0 - 0b - 00 - 04 - 12 - 34 - 05 - 06 - 00 - 00 - 00 - 00 - \r\n"
            b"---------------------------End-------------------------------\r\n")
    daemon.log.expect("[CRC:] parse req, id      : 4660")
    daemon.log.expect("---------------------------End-------------------------------")
    assert dump in daemon.log.raw


def test_a_request_of_type_three_is_announced_and_one_of_type_six_is_not(daemon, session, web):
    for kind, announced in ((RELAY_REQUEST, 1), (QUIET_RELAY_REQUEST, 0)):
        mark = daemon.log.mark()
        session.send_packet(kind, kind, REQUEST)
        exchange = web.accept()
        assert exchange.read_exactly(len(REQUEST)) == REQUEST
        exchange.answer(b"done")
        answer = session.read_packet()
        assert (answer.type, answer.id, answer.body) == (RELAY_RESPONSE, kind, b"done")
        assert daemon.log.count("[CRC:] cloud request recv", mark) == announced


# --- cuts ---

def test_a_packet_in_single_bytes_is_put_together(session, web):
    session.dribble(Packet(RELAY_REQUEST, 77, REQUEST).encode(), pause=0.01)
    exchange = web.accept()
    assert exchange.read_exactly(len(REQUEST)) == REQUEST
    exchange.answer(b"done")
    assert session.read_packet().body == b"done"


@pytest.mark.parametrize("count", [2, 7, 40])
def test_packets_that_share_a_tls_record_are_all_handled_at_once(session, count):
    packets = [Packet(WEB_TOKEN, number, b"{}") for number in range(1, count + 1)]
    started = time.monotonic()
    session.send_record(b"".join(packet.encode() for packet in packets))
    assert [session.read_packet().id for _ in packets] == [packet.id for packet in packets]
    # Nothing more comes from the relay that would wake a reader up.
    assert time.monotonic() - started < (1 + 0.05 * count) * slowness()


def test_a_record_may_hold_the_end_of_one_packet_and_the_start_of_another(session):
    first, second = (Packet(WEB_TOKEN, number, b'{"name":"x"}').encode() for number in (1, 2))
    session.send_record(first[:5])
    session.send_record(first[5:] + second[:13])
    session.send_record(second[13:])
    assert [session.read_packet().id for _ in range(2)] == [1, 2]


def test_requests_that_share_a_record_reach_the_web_server_unmixed(session, web):
    bodies = [b"first request", b"2nd", b"the third one"]
    session.send_record(b"".join(
        Packet(RELAY_REQUEST, number, body).encode() for number, body in enumerate(bodies)))
    exchanges = [web.accept() for _ in bodies]
    for exchange, body in zip(exchanges, bodies):
        assert exchange.read_exactly(len(body)) == body
        exchange.expect_nothing_more(0.05)
    for exchange, body in zip(exchanges, bodies):
        exchange.answer(body.upper())
    answers = {(answer := session.read_packet()).id: answer.body for _ in bodies}
    assert answers == {number: body.upper() for number, body in enumerate(bodies)}


def test_a_tls_record_that_comes_in_two_segments_is_one_record(session):
    session.send_split(Packet(WEB_TOKEN, 11, b"{}").encode(), at=20, pause=0.5)
    assert session.read_packet().id == 11


def test_a_header_in_two_records_half_a_second_apart_is_one_header(session):
    packet = Packet(WEB_TOKEN, 12, b"{}").encode()
    session.dribble(packet, size=6, pause=0.5)
    assert session.read_packet().id == 12


@pytest.mark.lasts(7)
def test_a_header_that_stays_unfinished_ends_the_session_after_five_seconds(daemon, session):
    session.send_record(header(WEB_TOKEN, 1, 2)[:7])
    started = time.monotonic()
    received = daemon.log.expect("[CRC:] socket recv error, result:-1", within=6 * slowness())
    assert 4.8 < received.at - started
    daemon.log.expect("[CRC:] socket receive error:4")
    expect_end(daemon, session, 4)


# --- nothing for the session ---

@pytest.fixture
def scripted_tls(daemon, authority):
    """An idle session whose relay can do more with TLS than Python's."""
    with OpensslRelay(authority.certificate()) as relay:
        daemon.reload(relay.address, relay.port)
        relay.receive_until(b'"token"')
        relay.send(Packet(HELLO, 0, b'{"err_code":0}').encode())
        relay.receive_until(Packet(HEARTBEAT, 1).encode())
        relay.send(Packet(HEARTBEAT, 1).encode())
        daemon.log.expect("[CRC:] cloud heartbeat recv")
        yield relay


@pytest.mark.lasts(12)
@pytest.mark.parametrize("both_ways", [False, True], ids=["theirs", "both"])
def test_a_key_update_on_an_idle_session_does_not_disturb_it(daemon, scripted_tls, both_ways):
    mark = daemon.log.mark()
    scripted_tls.update_keys(both_ways)
    daemon.log.expect_nothing_for(10)
    scripted_tls.send(Packet(WEB_TOKEN, 0x6162, b"{}").encode())
    scripted_tls.receive_until(bytes.fromhex("b00b 0005 6162"))
    assert not daemon.log.errors(mark)


@pytest.mark.lasts(11)
def test_session_tickets_do_not_disturb_an_idle_session(daemon, session):
    # TLS 1.3 sends them right after its own handshake, together with no packet.
    session.expect_silence(10)
    session.expect_served()
    assert not daemon.log.errors()


# --- ends ---

@pytest.mark.parametrize("end", ["close", "close_tls", "drop", "reset"])
def test_a_relay_that_goes_ends_the_session_without_an_error_line(daemon, session, end):
    getattr(session, end)()
    daemon.log.expect_all("[CRC:] begin to disconnect the socket",
                          "[CRC:] This connection is closed by relay-server/client.",
                          "[CRC:] CloudRelayClient task exit.")
    closed = daemon.log.find("[CRC:] socket closed by peer")
    assert [entry.function for entry in closed].count("cloud_cycle_start") == 1
    assert all(entry.level == "info" for entry in closed)
    assert not [text for text in daemon.log.errors() if "receive" in text]


def test_garbage_in_place_of_tls_ends_the_session(daemon, session):
    session.send_garbage(os.urandom(100))
    daemon.log.expect("[CRC:] CloudRelayClient task exit.")
    assert daemon.alive


def test_a_relay_that_vanishes_before_the_answer_kills_nothing(daemon, session, web, relay):
    exchange = send_request(session, web)
    session.reset()
    with contextlib.suppress(ConnectionError):  # the daemon may have given the request up already
        exchange.answer(bytes(1_000_000))
    daemon.log.expect("[CRC:] CloudRelayClient task exit.")
    daemon.open_session(relay)


def test_a_session_that_ended_by_itself_leaves_no_descriptor_and_no_thread(daemon, relay):
    before = daemon.descriptors()
    daemon.open_session(relay).close()
    daemon.log.expect("[CRC:] CloudRelayClient task exit.")
    wait_until(lambda: "cycleHnd_0" not in daemon.threads(), "the worker ends")
    assert daemon.descriptors() == before
