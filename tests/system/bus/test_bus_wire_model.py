"""The Python model of the wire, which the other tests trust, against the recorded bytes."""

import pytest

import recordings
from ubus_wire import (Attribute, Message, Type, WireError, decode, decode_table, encode_body,
                       encode_table)


def recorded_messages():
    for name in ("vectors.txt", "vectors-events.txt"):
        steps = recordings.load(name)
        for connection in sorted({step.connection for step in steps}):
            for direction in (recordings.FROM_BROKER, recordings.FROM_CLIENT):
                yield from recordings.messages(steps, connection, direction)


def test_every_recorded_message_decodes_and_encodes_to_the_same_bytes():
    recorded = list(recorded_messages())
    assert len(recorded) == 110
    for raw in recorded:
        assert decode(raw).encode() == raw


def test_a_recorded_registration_reads_as_path_and_signature():
    steps = recordings.load("vectors.txt")
    (registration, *_) = recordings.messages(steps, 1, recordings.FROM_CLIENT)
    assert decode(registration) == Message(Type.ADD_OBJECT, 1, 0, {
        Attribute.OBJPATH: "svc",
        Attribute.SIGNATURE: {"get_device_id": {}, "getInfo": {"infoMask": 5},
                              "reload": {"address": 3, "port": 5}}})


def test_every_kind_of_value_survives_the_round_trip():
    table = {"text": "zwölf", "empty": "", "small": -1, "large": 1 << 40, "yes": True, "no": False,
             "half": 0.5, "list": ["a", 1, [True], {"x": 2}], "table": {"nested": {}}, "": 7}
    assert decode_table(encode_table(table)) == table


@pytest.mark.parametrize("data", [
    "00000008",                  # body longer than the bytes
    "0000000403",                # bytes after the body
    "0000000c0100000700000000",  # STATUS of three bytes
    "0000000c0100000c00000000",  # attribute longer than the body
    "0000000c0200000873766363",  # path without terminator
    "0000000c0e00000800000000",  # unknown attribute
    "01000004",                  # body with an id
])
def test_malformed_bytes_are_no_message(data):
    with pytest.raises(WireError):
        decode(Message(Type.PING).encode()[:8] + bytes.fromhex(data))


def test_an_empty_body_is_its_own_header():
    assert encode_body({}) == bytes.fromhex("00000004")
