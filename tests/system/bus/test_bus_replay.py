"""Recorded conversations of stock peers, played again: once against our broker, once against our
tool. Every byte must be the same, but for the ids that a broker draws at random."""

import socket
import struct

import pytest

import recordings
from recordings import CALLS_AND_LISTS, FROM_BROKER, FROM_CLIENT, LISTEN_AND_SEND
from ubus_wire import Closed, Connection, Status, split_messages

LOWEST_DRAWN_ID = 1025


class Translation:
    """Recorded ids to the ids of this run. All ids lie on 4-byte boundaries of a message."""

    def __init__(self, recorded_ids):
        self._recorded = recorded_ids
        self._actual = {}

    def to_actual(self, data):
        words, tail = self._words(data)
        return b"".join(struct.pack(">I", self._actual.get(word, word)) for word in words) + tail

    def match(self, recorded, actual):
        """Asserts equality, noting the actual id wherever a recorded one stands the first time."""
        assert len(actual) == len(recorded)
        for old, new in zip(self._words(recorded)[0], self._words(actual)[0]):
            if old in self._recorded and old not in self._actual:
                assert new >= LOWEST_DRAWN_ID and new not in self._actual.values()
                self._actual[old] = new
        assert actual == self.to_actual(recorded)

    @staticmethod
    def _words(data):
        whole = len(data) // 4
        return struct.unpack_from(f">{whole}I", data), data[4 * whole:]


def play_clients(broker, steps, staying):
    """Sends what the recorded clients sent and checks all that the broker sends in answer.

    A client goes after its last step, but for those in `staying`.
    """
    translation = Translation(recordings.ids(steps))
    connections, unfinished = {}, {}
    for number, step in enumerate(steps):
        key = step.connection
        if key not in connections:
            connections[key] = connect(broker.socket)
        if step.direction == FROM_CLIENT:
            connections[key].send_bytes(translation.to_actual(step.data))
        else:
            whole, unfinished[key] = split_messages(unfinished.get(key, b"") + step.data)
            for recorded in whole:
                translation.match(recorded, connections[key].receive_raw())
        later = {other.connection for other in steps[number + 1:]}
        if key not in later and key not in staying:
            connections.pop(key).close()
    assert not any(unfinished.values())
    for connection in connections.values():
        connection.close()


def connect(path):
    sock = socket.socket(socket.AF_UNIX)
    sock.connect(str(path))
    return Connection(sock)


def test_the_broker_answers_the_recorded_calls_and_lists_as_recorded(broker):
    play_clients(broker, recordings.load("vectors.txt"), staying={1})


def test_the_broker_answers_and_passes_on_the_recorded_events_as_recorded(broker):
    play_clients(broker, recordings.load("vectors-events.txt"), staying=set())


# Exit statuses of the runs that ended with an error.
RECORDED_FAILURES = {"call svc reload": 156, "call svc nope": 256 - Status.METHOD_NOT_FOUND,
                     "call nope nope": Status.NOT_FOUND, "list nope": Status.NOT_FOUND,
                     "-t 1 wait_for": Status.TIMEOUT}


def play_broker(scripted_broker, steps, arguments):
    """Runs the tool, sends it what the recorded broker sent, and checks each byte it sends."""
    with scripted_broker.start_tool(*arguments) as tool, scripted_broker.accept() as connection:
        for step in steps:
            if step.direction == FROM_BROKER:
                connection.send_bytes(step.data)
            else:
                assert connection.receive_bytes(len(step.data)).hex() == step.data.hex()
        if arguments[0] != "listen":
            with pytest.raises(Closed):
                connection.receive_bytes(1)
            assert tool.wait() == RECORDED_FAILURES.get(" ".join(arguments[:3]), 0)
            return
        connection.close()
        assert tool.wait() == Status.CONNECTION_FAILED


def cases(name, runs):
    steps = recordings.load(name)
    return [pytest.param([step for step in steps if step.connection == connection], arguments,
                         id=" ".join(arguments[:3]))
            for connection, arguments in runs.items()]


@pytest.mark.parametrize("steps, arguments", cases("vectors.txt", CALLS_AND_LISTS))
def test_the_tool_sends_the_recorded_bytes_to_list_call_and_wait(scripted_broker, steps, arguments):
    play_broker(scripted_broker, steps, arguments)


@pytest.mark.parametrize("steps, arguments", cases("vectors-events.txt", LISTEN_AND_SEND))
def test_the_tool_sends_the_recorded_bytes_to_listen_and_send(scripted_broker, steps, arguments):
    play_broker(scripted_broker, steps, arguments)
