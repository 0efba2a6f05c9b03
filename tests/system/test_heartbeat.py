"""The sign of life, and what becomes of a relay that does not return it."""

import os
import time

import pytest

from daemon import slowness
from relay_peer import HEARTBEAT, WEB_TOKEN, Packet

INTERVAL_S = 100
REPLY_WAIT_S = 5


def begin(daemon, relay):
    """A session whose first heartbeat is still to come or unread."""
    daemon.reload(relay.address, relay.port)
    session = relay.accept()
    session.expect_hello()
    session.answer_hello()
    daemon.log.expect("[CRC:] begin cycle loop")
    return session


@pytest.fixture
def begun(daemon, relay):
    return begin(daemon, relay)


@pytest.fixture
def hurried(unstarted_daemon, relay):
    """The same, of a daemon whose clock can be moved."""
    unstarted_daemon.start(clock_moves=True).wait_for_object()
    return begin(unstarted_daemon, relay)


def let_an_interval_pass(daemon, session):
    """Two seconds before the next heartbeat is due, none has come."""
    session.expect_silence(1)
    daemon.move_clock(INTERVAL_S - 3)
    session.expect_silence(0.5)


def test_the_first_heartbeat_leaves_in_the_first_turn(daemon, begun):
    assert begun.read_exactly(12) == bytes.fromhex("b00b 0002 0001 0000 00000000")
    began = daemon.log.find("[CRC:] begin cycle loop")[0]
    inserted, sent = daemon.log.expect_all(
        "[CRC:] Insert heartbeat pkt successfully, ready 1.", "[CRC:] Send requset ok.")
    assert sent.at - began.at < 0.2 * slowness()
    assert inserted.function == "cloud_mq_insert_request"


@pytest.mark.lasts(8)
@pytest.mark.skipif(not os.path.exists("/proc/self/ns/time"),
                    reason="this kernel has one monotonic clock for all")
def test_on_a_system_just_booted_the_first_heartbeat_waits_until_its_clock_shows_100_seconds(
        unstarted_daemon, relay):
    booted = time.monotonic()
    daemon = unstarted_daemon.start(uptime_s=94).wait_for_object()
    daemon.reload(relay.address, relay.port)
    session = relay.accept()
    session.expect_hello()
    session.answer_hello()
    session.expect_heartbeat(within=10 * slowness())
    # The offset of the clock is a whole number of seconds.
    assert 5 < daemon.log.expect("[CRC:] Send requset ok.").at - booted < 5 + 2.5 * slowness()


def test_an_answered_heartbeat_is_followed_by_no_other(daemon, session):
    session.expect_silence(3)
    assert not daemon.log.errors()


@pytest.mark.lasts(105)
def test_a_relay_that_answers_gets_one_heartbeat_every_hundred_seconds(daemon, begun):
    first = begun.expect_heartbeat()
    started = daemon.log.expect("[CRC:] Send requset ok.").at
    begun.answer_heartbeat(first)
    begun.expect_silence(INTERVAL_S - 2)
    second = begun.expect_heartbeat(within=4 * slowness())
    assert (first.id, second.id) == (1, 2)
    elapsed = daemon.log.expect("[CRC:] Send requset ok.").at - started
    assert INTERVAL_S <= elapsed + 0.05 and elapsed < INTERVAL_S + 0.5 * slowness()
    begun.answer_heartbeat(second)
    daemon.log.expect("[CRC:] cloud heartbeat recv")
    assert not daemon.log.find("[CRC:] Send heartBeat timeout 1 times ....")


@pytest.mark.lasts(30)
def test_a_relay_that_never_answers_is_given_up_after_five_timeouts(unstarted_daemon, hurried):
    daemon, begun = unstarted_daemon, hurried
    first = begun.expect_heartbeat()
    daemon.log.expect("[CRC:] Send requset ok.")
    let_an_interval_pass(daemon, begun)
    again = [begun.expect_heartbeat(within=4 * slowness())]
    again += [begun.expect_heartbeat(within=(REPLY_WAIT_S + 2) * slowness()) for _ in range(4)]
    assert [first.id, *(beat.id for beat in again)] == [1, 2, 3, 4, 5, 6]
    timeouts = daemon.log.expect_all(*(
        f"[CRC:] Send heartBeat timeout {count} times ...." for count in (1, 2, 3, 4, 5, 5)))
    daemon.log.expect_all("[CRC:] begin to disconnect the socket",
                          "[CRC:] Cloud socket is already disconnected",
                          "[CRC:] This connection is closed by relay-server/client.",
                          "[CRC:] CloudRelayClient task exit.")
    assert begun.expect_closed() == "in order"
    gaps = [later.at - earlier.at for earlier, later in zip(timeouts, timeouts[1:])]
    assert all(REPLY_WAIT_S - 0.05 < gap < REPLY_WAIT_S + 0.5 * slowness() for gap in gaps[:4])
    assert gaps[4] < 0.5 * slowness()
    assert not daemon.log.find("[CRC:] socket receive/send error: 4")


@pytest.mark.lasts(18)
def test_one_answer_in_time_forgives_all_earlier_misses(unstarted_daemon, hurried):
    daemon, begun = unstarted_daemon, hurried
    begun.expect_heartbeat()
    let_an_interval_pass(daemon, begun)
    begun.expect_heartbeat(within=4 * slowness())
    third = begun.expect_heartbeat(within=(REPLY_WAIT_S + 2) * slowness())
    daemon.log.expect_all("[CRC:] Send heartBeat timeout 1 times ....",
                          "[CRC:] Send heartBeat timeout 2 times ....")
    begun.answer_heartbeat(third)
    daemon.log.expect("[CRC:] cloud heartbeat recv")
    begun.expect_silence(REPLY_WAIT_S + 2)
    assert not daemon.log.find("[CRC:] Send heartBeat timeout 3 times ....")


@pytest.mark.lasts(8)
def test_a_reply_that_comes_after_six_seconds_ends_the_session(daemon, begun):
    heartbeat = begun.expect_heartbeat()
    begun.expect_silence(6)
    begun.answer_heartbeat(heartbeat)
    daemon.log.expect_all("[CRC:] cloud heartbeat recv", "[CRC:]response timeout, will discard",
                          "[CRC:] set response error", "[CRC:] socket receive/send error: -1")
    assert begun.expect_closed() == "in order"


@pytest.mark.lasts(5)
def test_a_reply_that_comes_after_four_seconds_is_in_time(daemon, begun):
    heartbeat = begun.expect_heartbeat()
    begun.expect_silence(4)
    begun.answer_heartbeat(heartbeat)
    daemon.log.expect("[CRC:] cloud heartbeat recv")
    begun.expect_silence(1)
    assert not daemon.log.errors()


@pytest.mark.parametrize("number", [2, 0xFFFF, 0x0100])
def test_a_reply_to_a_heartbeat_never_sent_ends_the_session(daemon, begun, number):
    begun.expect_heartbeat()
    begun.send_packet(HEARTBEAT, number)
    lines = daemon.log.expect_all(
        "[CRC:] cloud heartbeat recv", "[CRC:] coresponding request not found",
        "[CRC:] set response error", "[CRC:] socket receive/send error: -1")
    assert [line.function for line in lines] == [
        "cloud_server_handle_dispatch", "cloud_mq_set_response", "cloud_server_handle_response",
        "cloud_cycle_start"]
    assert begun.expect_closed() == "in order"


def test_a_reply_with_id_zero_meets_a_slot_never_used_and_is_too_late_for_it(daemon, begun):
    begun.expect_heartbeat()
    begun.send_packet(HEARTBEAT, 0)
    daemon.log.expect_all("[CRC:]response timeout, will discard", "[CRC:] set response error",
                          "[CRC:] socket receive/send error: -1")


def test_a_heartbeat_reply_that_comes_twice_does_no_harm(daemon, begun):
    heartbeat = begun.expect_heartbeat()
    begun.answer_heartbeat(heartbeat)
    begun.answer_heartbeat(heartbeat)
    daemon.log.expect_all("[CRC:] cloud heartbeat recv", "[CRC:] cloud heartbeat recv")
    begun.send_packet(WEB_TOKEN, 1, b"{}")
    assert begun.read_packet().type == WEB_TOKEN


def test_the_body_of_a_heartbeat_reply_is_read_as_the_next_packet(daemon, begun):
    heartbeat = begun.expect_heartbeat()
    begun.send_packet(HEARTBEAT, heartbeat.id, Packet(WEB_TOKEN, 3, b"{}").encode())
    assert begun.read_packet().id == 3
    begun.send_packet(HEARTBEAT, heartbeat.id, b"not a header")
    daemon.log.expect("[CRC:] Magic number(pkt Header 0x6E6F) err.")


def test_identifiers_begin_anew_with_each_session(daemon, relay):
    for _ in range(3):
        daemon.reload(relay.address, relay.port)
        session = relay.accept()
        session.expect_hello()
        session.answer_hello()
        assert session.expect_heartbeat().id == 1
        session.close()
        daemon.log.expect("[CRC:] CloudRelayClient task exit.")
