"""The command-line tool, and the client library in it, against a broker that misbehaves."""

import random
import signal
import struct

import pytest

from ubus_wire import MAX_BODY, Attribute, Closed, Message, Status, Type, blob

TIME_LIMIT = ["-t", "1"]
COMMANDS = {
    "list": ["list"],
    "verbose list": ["-v", "list"],
    "call": ["call", "svc", "get"],
    "send": ["send", "foo", '{"a":1}'],
    "wait_for": ["wait_for", "svc"],
    "listen": ["listen"],
}
every_command = pytest.mark.parametrize("command", COMMANDS.values(), ids=COMMANDS)
every_command_that_ends = pytest.mark.parametrize(
    "command", [arguments for name, arguments in COMMANDS.items() if name != "listen"],
    ids=[name for name in COMMANDS if name != "listen"])

OBJECT_ID = 0x2233AABB
SVC = {Attribute.OBJPATH: "svc", Attribute.OBJID: OBJECT_ID, Attribute.OBJTYPE: 0x3344AABB,
       Attribute.SIGNATURE: {"get": {}}}
GARBAGE = {
    "text": b"HTTP/1.1 400 Bad Request\r\n\r\n",
    "a wrong version": Message(Type.HELLO, peer=5, version=3).encode(),
    "a body of 16 MiB": struct.pack(">BBHI", 0, 0, 0, 5) + bytes.fromhex("00ffffff"),
    "a body shorter than its header": struct.pack(">BBHI", 0, 0, 0, 5) + bytes.fromhex("00000002"),
    "a body just too large": struct.pack(">BBHII", 0, 0, 0, 5, MAX_BODY + 4),
    "all ones": b"\xff" * 64,
}


def fails(tool):
    """The tool ends by itself, in time, with a status other than 0."""
    return tool.wait() > 0


def answer_first_request(connection, *answers):
    """Reads one request and sends `answers`, each (type, body) under the request's own header."""
    request = connection.receive()
    connection.send_bytes(b"".join(
        Message(kind, request.seq, request.peer, body).encode() for kind, body in answers))
    return request


@every_command
@pytest.mark.parametrize("garbage", GARBAGE.values(), ids=GARBAGE)
def test_a_broker_that_greets_with_garbage_is_an_error(scripted_broker, command, garbage):
    with scripted_broker.start_tool(*TIME_LIMIT, *command) as tool:
        with scripted_broker.accept() as connection:
            connection.send_bytes(garbage)
            assert fails(tool)
            assert tool.errors.text == "Failed to connect to ubus\n"


def test_a_broker_that_never_greets_is_an_error(scripted_broker):
    with scripted_broker.start_tool(*TIME_LIMIT, "list") as tool, scripted_broker.accept():
        assert fails(tool)


@every_command
def test_a_broker_that_hangs_up_before_it_greets_is_an_error(scripted_broker, command):
    with scripted_broker.start_tool(*TIME_LIMIT, *command) as tool:
        scripted_broker.accept().close()
        assert fails(tool)


@every_command
def test_a_broker_that_hangs_up_in_mid_greeting_is_an_error(scripted_broker, command):
    with scripted_broker.start_tool(*TIME_LIMIT, *command) as tool:
        with scripted_broker.accept() as connection:
            connection.send_bytes(Message(Type.HELLO, peer=5).encode()[:7])
        assert fails(tool)


def test_a_greeting_that_comes_byte_by_byte_is_a_greeting(scripted_broker):
    with scripted_broker.start_tool("list") as tool, scripted_broker.accept() as connection:
        for byte in Message(Type.HELLO, peer=5).encode():
            connection.send_bytes(bytes([byte]))
        answer_first_request(connection, (Type.DATA, SVC), (Type.STATUS, {Attribute.STATUS: 0}))
        assert tool.wait() == 0 and tool.output.text == "svc\n"


@every_command_that_ends
def test_a_broker_that_never_answers_ends_the_command_at_its_time_limit(scripted_broker, command):
    with scripted_broker.start_tool(*TIME_LIMIT, *command) as tool, scripted_broker.greet():
        assert fails(tool)
        assert "Request timed out" in tool.errors.text


@every_command
@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_a_command_that_waits_for_an_answer_ends_when_it_is_interrupted(
        scripted_broker, command, number):
    with scripted_broker.start_tool(*command) as tool, scripted_broker.greet() as connection:
        connection.receive()
        assert tool.stop(number) == -number


@every_command
def test_a_broker_that_hangs_up_instead_of_answering_is_an_error(scripted_broker, command):
    with scripted_broker.start_tool(*command) as tool:
        with scripted_broker.greet() as connection:
            connection.receive()
        assert fails(tool)


@every_command
@pytest.mark.parametrize("size", [1, 8, 11, 12, 40])
def test_a_broker_that_hangs_up_in_mid_answer_is_an_error(scripted_broker, command, size):
    with scripted_broker.start_tool(*command) as tool:
        with scripted_broker.greet() as connection:
            request = connection.receive()
            connection.send_bytes(Message(Type.DATA, request.seq, 0, SVC).encode()[:size])
        assert fails(tool)


@every_command
@pytest.mark.parametrize("garbage", GARBAGE.values(), ids=GARBAGE)
def test_a_broker_that_answers_with_garbage_is_an_error(scripted_broker, command, garbage):
    with scripted_broker.start_tool(*TIME_LIMIT, *command) as tool:
        with scripted_broker.greet() as connection:
            connection.receive()
            connection.send_bytes(garbage)
            assert fails(tool)


@every_command
def test_a_broker_that_refuses_everything_is_an_error(scripted_broker, command):
    with scripted_broker.start_tool(*command) as tool, scripted_broker.greet() as connection:
        answer_first_request(connection, (Type.STATUS, {Attribute.STATUS: 6}))
        assert fails(tool)
        assert tool.errors.text == "Command failed: Permission denied\n"


HALF_ANSWERS = {
    "a status without its value": [(Type.STATUS, {})],
    "a status of two bytes": [(Type.STATUS, {Attribute.STATUS: b"\0\0"})],
    "data without anything": [(Type.DATA, {}), (Type.STATUS, {Attribute.STATUS: 0})],
    "a path without terminator": [(Type.DATA, {**SVC, Attribute.OBJPATH: b"svcx"}),
                                  (Type.STATUS, {Attribute.STATUS: 0})],
    "a path and nothing else": [(Type.DATA, {Attribute.OBJPATH: "svc"}),
                                (Type.STATUS, {Attribute.STATUS: 0})],
    "an object id of one byte": [(Type.DATA, {**SVC, Attribute.OBJID: b"\1"}),
                                 (Type.STATUS, {Attribute.STATUS: 0})],
    "a signature that is no table": [(Type.DATA, {**SVC, Attribute.SIGNATURE: b"\1\2\3\4"}),
                                     (Type.STATUS, {Attribute.STATUS: 0})],
    "a signature of texts": [(Type.DATA, {**SVC, Attribute.SIGNATURE: {"get": "text"}}),
                             (Type.STATUS, {Attribute.STATUS: 0})],
    "argument types out of range": [
        (Type.DATA, {**SVC, Attribute.SIGNATURE: {"get": {"a": -1, "b": 99, "c": "text"}}}),
        (Type.STATUS, {Attribute.STATUS: 0})],
}


@every_command_that_ends
@pytest.mark.parametrize("answers", HALF_ANSWERS.values(), ids=HALF_ANSWERS)
def test_a_broker_whose_answer_lacks_something_crashes_and_hangs_no_tool(
        scripted_broker, command, answers):
    with scripted_broker.start_tool(*TIME_LIMIT, *command) as tool:
        with scripted_broker.greet() as connection:
            try:
                answer_first_request(connection, *answers)
                connection.receive_until_closed()
            except Closed:
                pass
            assert tool.wait() >= 0


WRONG_ANSWERS = {
    "another request's": dict(seq=9, peer=0),
    "another peer's": dict(seq=0, peer=OBJECT_ID + 1),
}


@pytest.mark.parametrize("wrong", WRONG_ANSWERS.values(), ids=WRONG_ANSWERS)
def test_an_answer_to_another_request_is_not_taken_for_ones_own(scripted_broker, wrong):
    with scripted_broker.start_tool("call", "svc", "get") as tool, \
            scripted_broker.greet() as connection:
        answer_first_request(connection, (Type.DATA, SVC), (Type.STATUS, {Attribute.STATUS: 0}))
        invoke = connection.receive()
        seq, peer = invoke.seq + wrong["seq"], wrong["peer"] or invoke.peer
        connection.send(Message(Type.DATA, seq, peer, {
            Attribute.OBJID: OBJECT_ID, Attribute.DATA: {"wrong": 1}}))
        connection.send(Message(Type.STATUS, seq, peer, {Attribute.STATUS: Status.OK}))
        connection.send(Message(Type.DATA, invoke.seq, invoke.peer, {
            Attribute.OBJID: OBJECT_ID, Attribute.DATA: {"right": 1}}))
        connection.send(Message(Type.STATUS, invoke.seq, invoke.peer, {
            Attribute.STATUS: Status.OK, Attribute.OBJID: OBJECT_ID}))
        assert tool.wait() == 0
        assert '"right": 1' in tool.output.text and "wrong" not in tool.output.text


@pytest.mark.parametrize("data", [
    b"\xff\xff\xff\xff", bytes.fromhex("83000008 00ff6100"), blob(2, b"abc"), b"\x82\0\0",
], ids=["all ones", "a name beyond its field", "no field", "half a header"])
def test_an_answer_of_malformed_data_crashes_no_caller(scripted_broker, data):
    with scripted_broker.start_tool(*TIME_LIMIT, "call", "svc", "get") as tool, \
            scripted_broker.greet() as connection:
        answer_first_request(connection, (Type.DATA, SVC), (Type.STATUS, {Attribute.STATUS: 0}))
        invoke = connection.receive()
        try:
            connection.send(Message(Type.DATA, invoke.seq, invoke.peer, {
                Attribute.OBJID: OBJECT_ID, Attribute.DATA: data}))
            connection.send(Message(Type.STATUS, invoke.seq, invoke.peer, {
                Attribute.STATUS: Status.OK, Attribute.OBJID: OBJECT_ID}))
        except Closed:
            pass
        assert tool.wait() == 256 - Status.PARSE_ERROR
        assert r"\xff" not in tool.output.text


@pytest.mark.parametrize("seed", range(40))
def test_corrupted_answers_neither_crash_nor_hang_the_tool(scripted_broker, seed):
    chance = random.Random(seed)
    command = chance.choice(list(COMMANDS.values())[:5])
    with scripted_broker.start_tool(*TIME_LIMIT, *command) as tool, \
            scripted_broker.greet() as connection:
        try:
            while True:
                request = connection.receive()
                body = SVC if request.type == Type.LOOKUP else {
                    Attribute.OBJID: OBJECT_ID, Attribute.DATA: {"a": [1, {"b": "text"}]}}
                answer = bytearray(
                    Message(Type.DATA, request.seq, request.peer, body).encode() +
                    Message(Type.STATUS, request.seq, request.peer,
                            {Attribute.STATUS: 0, Attribute.OBJID: OBJECT_ID}).encode())
                for _ in range(chance.randint(0, 3)):
                    answer[chance.randrange(len(answer))] = chance.choice(
                        [0, 1, 4, 0x80, 0xFF, chance.randrange(256)])
                connection.send_bytes(bytes(answer))
        except Closed:
            pass
        assert tool.wait() >= 0


def test_a_listener_survives_events_that_make_no_sense(scripted_broker):
    with scripted_broker.start_tool("listen") as tool, scripted_broker.greet() as connection:
        added = connection.receive()
        connection.send(Message(Type.DATA, added.seq, 0, {Attribute.OBJID: OBJECT_ID}))
        connection.send(Message(Type.STATUS, added.seq, 0, {Attribute.STATUS: 0}))
        register = connection.receive()
        connection.send(Message(Type.STATUS, register.seq, register.peer, {Attribute.STATUS: 0}))
        for body in ({}, {Attribute.OBJID: OBJECT_ID}, {Attribute.METHOD: "x"},
                     {Attribute.OBJID: 5, Attribute.METHOD: "x", Attribute.DATA: {}},
                     {Attribute.OBJID: OBJECT_ID, Attribute.METHOD: b"xxxx", Attribute.DATA: {}},
                     {Attribute.OBJID: OBJECT_ID, Attribute.METHOD: "x", Attribute.DATA: b"\1\2"}):
            connection.send(Message(Type.INVOKE, 1, 0, body))
        connection.send(Message(Type.INVOKE, 2, 0, {
            Attribute.OBJID: OBJECT_ID, Attribute.METHOD: "good", Attribute.DATA: {"a": 1}}))
        tool.output.wait_for(r'^\{ "good": \{"a":1\} \}$')
        assert tool.stop() == -signal.SIGTERM
