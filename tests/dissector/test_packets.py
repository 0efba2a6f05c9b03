"""Packets cut, joined and broken in every way, over plain TCP."""

import pytest

from relay_peer import (HEARTBEAT, HELLO, QUIET_RELAY_REQUEST, RELAY_REQUEST, RELAY_RESPONSE,
                        WEB_TOKEN, Packet, header)

HELLO_BODY = b'{"deviceId":"D","deviceMac":"AABBCCDDEEFF","firmwareId":"F","token":"T"}'
REQUEST = b"GET / HTTP/1.0\r\n\r\n"
ANSWER = b"HTTP/1.0 200 OK\r\n\r\nhello"


def hello():
    return Packet(HELLO, 0, HELLO_BODY).encode()


def admission():
    return Packet(HELLO, 0, b'{"err_code":0}').encode()


def heartbeat(number=1):
    return Packet(HEARTBEAT, number).encode()


@pytest.fixture
def session(connection):
    """A connection on which packets were seen already: frames 4 and 5."""
    connection.device(hello())
    connection.relay(admission())
    return connection


def show(tshark, recording, names, *arguments):
    """The fields of all frames after the hello's exchange."""
    return tshark.fields(tshark.written(recording), names, *arguments,
                         only="cloud_relay && frame.number > 5")


# --- the header ---

def test_the_fields_are_those_of_the_header(tshark, recording, session):
    session.relay(Packet(RELAY_REQUEST, 0x1234, REQUEST).encode())
    assert show(tshark, recording, [
        "cloud_relay.magic", "cloud_relay.type", "cloud_relay.id", "cloud_relay.reserve",
        "cloud_relay.length", "cloud_relay.body"]) == [
        ("0xb00b", "3", "4660", "0x0000", "18", REQUEST.hex())]


def test_a_field_can_be_filtered_by(tshark, recording, session):
    session.relay(*(Packet(RELAY_REQUEST, number, REQUEST).encode() for number in (7, 8, 9)))
    assert tshark.summary(tshark.written(recording), only="cloud_relay.id == 8") == [
        "Relay request, ID 0x0008: GET / HTTP/1.0"]


# --- packets and segments ---

def test_packets_that_share_a_segment_are_told_apart(tshark, recording, session):
    session.device(heartbeat(1) + heartbeat(2) + heartbeat(3))
    assert show(tshark, recording, ["cloud_relay.id", "_ws.col.Info"]) == [
        ("1,2,3", "Heartbeat, ID 0x0001 | Heartbeat, ID 0x0002 | Heartbeat, ID 0x0003")]


@pytest.mark.parametrize("cut", [1, 2, 4, 8, 11, 12, 13, 29])
def test_a_packet_cut_anywhere_is_put_together(tshark, recording, session, cut):
    packet = Packet(RELAY_REQUEST, 5, REQUEST).encode()
    session.relay(packet[:cut], packet[cut:])
    assert show(tshark, recording, ["frame.number", "cloud_relay.body", "http.request.uri"]) == [
        ("7", REQUEST.hex(), "/")]


def test_a_packet_that_comes_byte_by_byte_is_put_together(tshark, recording, session):
    packet = Packet(RELAY_RESPONSE, 5, ANSWER).encode()
    session.device(*(packet[at:at + 1] for at in range(len(packet))))
    assert show(tshark, recording, ["frame.number", "http.response.code"]) == [
        (str(5 + len(packet)), "200")]


def test_a_segment_may_end_one_packet_and_start_the_next(tshark, recording, session):
    stream = heartbeat(1) + Packet(WEB_TOKEN, 2, b'{"name":"x"}').encode() + heartbeat(3)
    session.relay(stream[:6], stream[6:20], stream[20:40], stream[40:])
    assert show(tshark, recording, ["frame.number", "cloud_relay.id"]) == [
        ("7", "1"), ("8", "2"), ("9", "3")]


def test_a_body_of_many_segments_is_put_together(tshark, recording, session):
    body = ANSWER + bytes(range(256)) * 200
    packet = Packet(RELAY_RESPONSE, 5, body).encode()
    session.device(*(packet[at:at + 1400] for at in range(0, len(packet), 1400)))
    [(length, shown)] = show(tshark, recording, ["cloud_relay.length", "cloud_relay.body"])
    assert (int(length), shown) == (len(body), body.hex())


# --- finding packets ---

def test_other_traffic_is_left_alone(tshark, recording, connection):
    connection.device(REQUEST)
    connection.relay(ANSWER)
    assert tshark.fields(tshark.written(recording), ["frame.number"]) == []


@pytest.mark.parametrize("opening", [
    header(7, 0, 0), header(0, 0, 0), header(HELLO, 0, 0, magic=0x0BB0), hello()[:11],
], ids=["type 7", "type 0", "swapped magic", "part of a header"])
def test_looks_alone_do_not_make_a_packet_of(tshark, recording, connection, opening):
    connection.device(opening)
    assert tshark.fields(tshark.written(recording), ["frame.number"]) == []


def test_decode_as_needs_no_looks(tshark, recording, connection):
    connection.relay(header(9, 1, 0))
    connection.device(hello())
    assert tshark.fields(tshark.written(recording), ["cloud_relay.type"],
                         "-d", "tcp.port==51000,cloud_relay") == [("9",), ("1",)]


def test_a_recording_that_starts_within_a_session_is_found_at_the_next_packet(
        tshark, recording, connection):
    connection.relay(b"the end of a body", heartbeat(4))
    assert tshark.summary(tshark.written(recording)) == ["Heartbeat, ID 0x0004"]


# --- pairing ---

def test_an_answer_knows_its_request_and_the_time_between(tshark, recording, session):
    session.relay(Packet(RELAY_REQUEST, 1, REQUEST).encode())
    session.relay(Packet(QUIET_RELAY_REQUEST, 2, REQUEST).encode())
    session.device(Packet(RELAY_RESPONSE, 2, ANSWER).encode())
    session.device(Packet(RELAY_RESPONSE, 1, ANSWER).encode())
    assert show(tshark, recording, ["cloud_relay.id", "cloud_relay.request_in",
                                    "cloud_relay.answer_in", "cloud_relay.time"], "-2") == [
        ("1", "", "9", ""), ("2", "", "8", ""),
        ("2", "7", "", "0.001000000"), ("1", "6", "", "0.003000000")]


def test_the_same_id_means_something_else_in_another_kind_of_packet(tshark, recording, session):
    session.device(heartbeat(1))
    session.relay(Packet(RELAY_REQUEST, 1, REQUEST).encode())
    session.relay(Packet(WEB_TOKEN, 1, b"{}").encode())
    session.device(Packet(RELAY_RESPONSE, 1, ANSWER).encode())
    session.device(Packet(WEB_TOKEN, 1, b"{}").encode())
    session.relay(heartbeat(1))
    assert show(tshark, recording, ["frame.number", "cloud_relay.request_in"]) == [
        ("6", ""), ("7", ""), ("8", ""), ("9", "7"), ("10", "8"), ("11", "6")]


def test_sessions_are_told_apart(tshark, recording):
    first = recording.connection(device=("10.0.0.2", 40001))
    second = recording.connection(device=("10.0.0.3", 40001))
    for connection in (first, second):
        connection.device(heartbeat(1))
    second.relay(heartbeat(1))
    first.relay(heartbeat(1))
    assert tshark.fields(tshark.written(recording), ["frame.number", "cloud_relay.request_in"]) == [
        ("7", ""), ("8", ""), ("9", "8"), ("10", "7")]


def test_an_id_may_be_used_again_once_it_was_answered(tshark, recording, session):
    for _ in range(2):
        session.device(heartbeat(1))
        session.relay(heartbeat(1))
    assert show(tshark, recording, ["cloud_relay.request_in"]) == [("",), ("6",), ("",), ("8",)]
    assert tshark.errors(tshark.written(recording)) == []


def test_the_sides_are_told_apart_where_both_use_the_same_port(tshark, recording):
    connection = recording.connection(device=("10.0.0.2", 51000), relay=("10.0.0.1", 51000))
    connection.device(heartbeat(1))
    connection.relay(heartbeat(1))
    assert tshark.fields(tshark.written(recording), ["cloud_relay.request_in"]) == [("",), ("4",)]


def test_a_repeated_request_is_no_answer_to_itself(tshark, recording, session):
    session.device(heartbeat(1), heartbeat(1))
    session.relay(heartbeat(1))
    assert show(tshark, recording, ["cloud_relay.request_in"]) == [("",), ("",), ("7",)]
    assert tshark.errors(tshark.written(recording)) == [
        (7, "The ID of a request that has no answer yet")]


# --- what is wrong with a packet ---

@pytest.mark.parametrize("packet, complaint", [
    (header(HEARTBEAT, 1, 0, magic=0x0BB0), "Bad magic number: the receiver ends the session"),
    (header(7, 1, 0), "Unknown DataType: the receiver ends the session"),
    (header(0, 1, 0), "Unknown DataType: the receiver ends the session"),
    (header(HEARTBEAT, 1, 0, reserve=1), "Reserve is not 0"),
    (Packet(HEARTBEAT, 1, b"?").encode(), "A heartbeat with a body: the device does not read it"),
    (header(WEB_TOKEN, 1, 0xFFFFFFFF), "DataLen is too large to put the body together"),
    (header(RELAY_RESPONSE, 1, 0), "An answer whose request is not in this capture"),
], ids=lambda value: value.hex() if isinstance(value, bytes) else "")
def test_a_broken_packet_is_pointed_out(tshark, recording, session, packet, complaint):
    session.relay(packet)
    assert tshark.errors(tshark.written(recording)) == [(6, complaint)]


def test_packets_without_fault_bring_no_complaint(tshark, recording, session):
    session.device(heartbeat(1))
    session.relay(heartbeat(1), Packet(WEB_TOKEN, 2, b"{}").encode())
    session.device(Packet(WEB_TOKEN, 2, b'{"err_code": 0,"webToken":"t"}').encode())
    assert tshark.errors(tshark.written(recording)) == []


def test_bytes_behind_a_bad_magic_number_are_shown_as_they_are(tshark, recording, session):
    session.relay(heartbeat(1) + b"\x0b\xb0" + bytes(10) + b"rest")
    assert show(tshark, recording, ["cloud_relay.id", "cloud_relay.magic", "cloud_relay.lost"]) == [
        ("1", "0xb00b,0x0bb0", "0bb000000000000000000000" + b"rest".hex())]


def test_a_packet_of_unknown_type_keeps_the_stream_in_step(tshark, recording, session):
    session.relay(Packet(9, 1, b"whatever").encode() + heartbeat(2))
    assert show(tshark, recording, ["cloud_relay.type", "cloud_relay.body"]) == [
        ("9,2", b"whatever".hex())]


@pytest.mark.parametrize("size", [64 * 1024 * 1024 + 1, 0x7FFFFFFF, 0xFFFFFFF4, 0xFFFFFFFF])
def test_a_length_beyond_belief_stops_nothing(tshark, recording, session, size):
    session.relay(header(RELAY_REQUEST, 1, size) + b"abc")
    session.device(heartbeat(2))
    assert show(tshark, recording, ["cloud_relay.length", "cloud_relay.id"]) == [
        (str(size), "1"), ("0", "2")]


@pytest.mark.parametrize("kept", [54 + 14, 54 + 12])
def test_a_packet_of_which_only_a_part_was_recorded_is_shown_as_far_as_it_goes(
        tshark, recording, session, kept):
    session.relay(Packet(RELAY_REQUEST, 1, b"GET / HTTP/1.0\r\n").encode())
    recording.forget_behind(kept)
    session.device(heartbeat(2))
    assert show(tshark, recording, ["cloud_relay.length"]) == [("16",), ("0",)]


def test_a_token_answer_that_is_no_strict_json_is_still_shown(tshark, recording, session):
    body = b'{"err_code": 0,"webToken":"abc\n"}'
    session.device(Packet(WEB_TOKEN, 1, body).encode())
    assert show(tshark, recording, ["cloud_relay.body"]) == [(body.hex(),)]


BODIES = {
    "nothing": b"",
    "a zero byte": b"\0",
    "broken JSON": b"{",
    "an answer that promises more": b"HTTP/1.1 200 OK\r\nContent-Length: 9999\r\n\r\nx",
    "half a request": b"GET / HTTP/1.1\r\n",
    "a tunnel granted": b"HTTP/1.1 200 OK\r\n\r\n",
    "a change of protocol": b"HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\n\r\n",
    "every byte there is": bytes(range(256)),
}


@pytest.mark.parametrize("body", BODIES.values(), ids=BODIES)
def test_no_body_brings_what_follows_out_of_step(tshark, recording, session, body):
    session.relay(Packet(RELAY_REQUEST, 1, b"CONNECT router:80 HTTP/1.1\r\n\r\n").encode())
    for kind in (HELLO, RELAY_REQUEST, RELAY_RESPONSE, WEB_TOKEN, QUIET_RELAY_REQUEST):
        session.device(Packet(kind, 1, body).encode() + heartbeat(7))
        session.relay(heartbeat(8))
    assert show(tshark, recording, ["cloud_relay.id"]) == [("1",)] + 5 * [("1,7",), ("8",)]
