"""The hello exchange as the relay may end it."""

import pytest

from daemon import slowness
from relay_peer import HELLO, RELAY_RESPONSE, WEB_TOKEN, Packet, header


@pytest.fixture
def greeted(daemon, relay):
    """A connection on which the hello has been read and not yet answered."""
    assert daemon.reload(relay.address, relay.port).status == 0
    connection = relay.accept()
    connection.expect_hello()
    daemon.log.expect(r"---------------------------End-------------------------------")
    daemon.log.mark()
    return connection


def expect_failed_handshake(daemon, relay, *lines):
    """The handshake fails with these lines first, and takes the session with it."""
    daemon.log.expect_all(
        *lines,
        f"[CRC:] Handshake [{relay.address} : {relay.port}] error",
        "[CRC:] begin to disconnect the socket",
        "[CRC:] Shut down and free the SSL.",
        "[CRC:] Free the CTX.",
        "[CRC:] Close the socket.",
        "[CRC:] Disconnect the socket ok.",
        f"[CRC:] Connect [{relay.address}:{relay.port}] error",
        "[CRC:] Fail to connect the defaultSvr, result:9",
        "E - 9 call cloud_session_connect(cycle) failed.",
        "[CRC:] Destroy cloud-cycle end.",
        "[CRC:] CloudRelayClient task exit.")
    assert not daemon.log.find("[CRC:] begin cycle loop")


def test_an_accepted_hello_is_logged_down_to_the_loop(daemon, relay, greeted):
    greeted.answer_hello()
    daemon.log.expect_all(
        "[CRC:] Start read. bucketSize 16384, bucketCnt 1",
        "[CRC:] Read socket end. dataLen is 15.",
        "[CRC:] recv hello-pkt from relay-svr.",
        "response->errorcode is 0",
        f"[CRC:] Connect relay-server successfully, use [{relay.address}:{relay.port}]",
        "[CRC:] begin cycle loop")


def test_the_verdict_is_framed_by_rules_of_66_dashes(daemon, greeted):
    greeted.answer_hello()
    daemon.log.expect("[CRC:] begin cycle loop")
    lines = [entry.text for entry in daemon.log.entries]
    at = lines.index("response->errorcode is 0")
    assert lines[at - 2] == "-" * 66 and lines[at + 1] == "-" * 66
    assert "zemc_recv_response_of_hello_cloud_v2" in lines[at - 1]


def test_a_refusal_is_named_printed_and_final(daemon, relay, greeted):
    greeted.answer_hello(7)
    expect_failed_handshake(daemon, relay, "[CRC:] Error code of response : 7",
                            "response->errorcode is 7")
    assert greeted.expect_closed() == "in order"


def test_a_negative_verdict_is_a_refusal_too(daemon, relay, greeted):
    greeted.answer_hello(-3)
    expect_failed_handshake(daemon, relay, "[CRC:] Error code of response : -3",
                            "response->errorcode is -3")


@pytest.mark.parametrize("kind", [0, 2, 4, 0x0100])
def test_an_answer_of_another_type_fails_even_with_a_good_verdict(daemon, relay, greeted, kind):
    greeted.send_packet(kind, 0, b'{"err_code":0}')
    expect_failed_handshake(daemon, relay, "[CRC:] Response type error.",
                            "[CRC:] svr response parse error.")


@pytest.mark.parametrize("body", [b"", b"accepted", b'{"err_code":0', b"\0", b"\xff" * 100])
def test_an_answer_that_is_no_json_fails(daemon, relay, greeted, body):
    greeted.send_packet(HELLO, 0, body)
    expect_failed_handshake(daemon, relay, "[CRC:] Parse response error.",
                            "[CRC:] svr response parse error.")


@pytest.mark.parametrize("body", [b"{}", b'{"errcode":0}', b"[0]", b"0"])
def test_an_answer_without_verdict_fails(daemon, relay, greeted, body):
    greeted.send_packet(HELLO, 0, body)
    expect_failed_handshake(daemon, relay, "[CRC:] Parse errorcode error.",
                            "[CRC:] svr response parse error.")


def test_an_empty_answer_is_logged_as_such(daemon, relay, greeted):
    greeted.send_packet(HELLO)
    expect_failed_handshake(daemon, relay, "[CRC:] Data entity length is zero.",
                            "[CRC:] Parse response error.")


def test_neither_id_nor_reserve_of_the_answer_matter(daemon, greeted):
    greeted.send_packet(HELLO, 0xBEEF, b'{"err_code":0}', reserve=0x1234)
    daemon.log.expect("[CRC:] begin cycle loop")


def test_an_answer_with_other_members_is_accepted(daemon, greeted):
    greeted.send_packet(HELLO, 0, b' {"server":"r1", "err_code" : 0, "list":[1,{"err_code":9}]} ')
    daemon.log.expect("[CRC:] begin cycle loop")


def test_an_answer_with_swapped_magic_fails_with_its_value(daemon, relay, greeted):
    greeted.send(Packet(HELLO, 0, b'{"err_code":0}', magic=0x0BB0).encode())
    expect_failed_handshake(daemon, relay, "[CRC:] Magic number(pkt Header 0x0BB0) err.",
                            "[CRC:] socket recv error.")


@pytest.mark.lasts(6)
def test_a_relay_that_does_not_answer_is_given_five_seconds(daemon, relay, greeted):
    started = daemon.log.entries[-1].at
    timeout = daemon.log.expect("[CRC:] recv timeout", within=6 * slowness())
    assert 4.8 < timeout.at - started < 5.5 * slowness()
    expect_failed_handshake(daemon, relay, "[CRC:] socket recv error, result:-1",
                            "[CRC:] socket recv error.")
    assert greeted.expect_closed() == "in order"


@pytest.mark.lasts(6)
def test_half_a_header_is_no_answer(daemon, relay, greeted):
    greeted.send(header(HELLO, 0, 15)[:6])
    expect_failed_handshake(daemon, relay, "[CRC:] recv timeout", "[CRC:] socket recv error.")


@pytest.mark.lasts(6)
def test_half_a_body_is_no_answer(daemon, relay, greeted):
    greeted.send(header(HELLO, 0, 15) + b'{"err_')
    expect_failed_handshake(daemon, relay, "[CRC:] recv timeout", "[CRC:] socket recv error.")


@pytest.mark.parametrize("end", ["close", "drop"])
def test_a_relay_that_hangs_up_after_the_hello_fails_the_handshake(daemon, relay, greeted, end):
    getattr(greeted, end)()
    expect_failed_handshake(daemon, relay, "[CRC:] socket closed by peer",
                            "[CRC:] socket recv error.")


def test_a_relay_that_resets_after_the_hello_fails_the_handshake(daemon, relay, greeted):
    greeted.reset()
    expect_failed_handshake(daemon, relay, "[CRC:] socket recv error.")


def test_an_answer_in_single_bytes_is_put_together(daemon, greeted):
    greeted.dribble(Packet(HELLO, 0, b'{"err_code":0}').encode(), pause=0.02)
    daemon.log.expect("[CRC:] begin cycle loop")


@pytest.mark.parametrize("size, buckets", [(16384, 1), (16385, 2), (40_000, 3), (1_000_000, 62)])
def test_a_long_answer_is_read_in_buckets(daemon, greeted, size, buckets):
    body = b'{"err_code":0}'.ljust(size)
    greeted.send_packet(HELLO, 0, body)
    daemon.log.expect_all(f"[CRC:] Start read. bucketSize 16384, bucketCnt {buckets}",
                          f"[CRC:] Read socket end. dataLen is {size}.",
                          "[CRC:] begin cycle loop")


def test_what_follows_the_answer_in_the_same_record_is_not_lost(daemon, greeted):
    greeted.send_record(Packet(HELLO, 0, b'{"err_code":0}').encode() +
                        Packet(WEB_TOKEN, 5, b"{}").encode() +
                        Packet(WEB_TOKEN, 6, b"{}").encode())
    greeted.expect_heartbeat()
    assert [greeted.read_packet(within=1 * slowness()).id for _ in range(2)] == [5, 6]


def test_an_ignored_packet_before_the_answer_is_taken_for_the_answer(daemon, relay, greeted):
    greeted.send_packet(RELAY_RESPONSE)
    greeted.answer_hello()
    expect_failed_handshake(daemon, relay, "[CRC:] Response type error.")


def test_after_a_refusal_the_next_reload_is_a_first_start(daemon, relay, greeted):
    greeted.answer_hello(7)
    daemon.log.expect("[CRC:] CloudRelayClient task exit.")
    answer = daemon.reload(relay.address, relay.port)
    assert answer.status == 0 and answer.seconds < 2 * slowness()
    relay.accept().welcome()
    daemon.log.expect("[CRC:] begin cycle loop")
    assert not daemon.log.find("[CRC:] Stop cloudRelayClient-task")
