"""The recorded bytes of stock peers, and what the stock tool printed in those runs."""

import re
from dataclasses import dataclass
from pathlib import Path

from ubus_wire import Attribute, Type, decode, split_messages

_HERE = Path(__file__).resolve().parent
_RECORDED = _HERE.parents[1] / "unit" / "bus" / "data"

FROM_BROKER = "broker->client"
FROM_CLIENT = "client->broker"

# Which connections of vectors.txt are which runs of the tool; 12 and 13 sent nothing.
CALLS_AND_LISTS = {
    2: ["list"],
    3: ["-v", "list"],
    4: ["call", "svc", "get_device_id"],
    5: ["call", "svc", "getInfo", '{"infoMask":33}'],
    6: ["-S", "call", "svc", "getInfo", '{"infoMask":33}'],
    7: ["call", "svc", "reload", '{"address":"10.0.0.1","port":8443}'],
    8: ["call", "svc", "nope"],
    9: ["call", "nope", "nope"],
    10: ["list", "nope"],
    11: ["list", "s*"],
    14: ["wait_for", "svc"],
    15: ["-t", "1", "wait_for", "nope"],
}
LISTEN_AND_SEND = {
    1: ["listen", "foo*", "ubus.object.remove"],
    2: ["send", "foo.bar", '{"a":1,"b":"two","c":[true,3]}'],
    3: ["send", "other", '{"x":1}'],
}


@dataclass
class Step:
    """One read of a recorded socket: a piece of a stream, not necessarily whole messages."""
    connection: int
    direction: str
    data: bytes


def load(name):
    """The steps of tests/unit/bus/data/<name>, in their order in time."""
    steps = []
    for line in (_RECORDED / name).read_text().splitlines():
        if line and not line.startswith("#"):
            connection, direction, data = line.split()
            steps.append(Step(int(connection), direction, bytes.fromhex(data)))
    return steps


def messages(steps, connection, direction):
    """The whole messages, as bytes, that went over one connection in one direction."""
    stream = b"".join(step.data for step in steps
                      if (step.connection, step.direction) == (connection, direction))
    whole, rest = split_messages(stream)
    assert not rest
    return whole


def ids(steps):
    """The ids that the recorded broker drew: of clients, objects and types."""
    drawn = set()
    for connection in {step.connection for step in steps}:
        for raw in messages(steps, connection, FROM_BROKER):
            message = decode(raw)
            if message.type == Type.HELLO:
                drawn.add(message.peer)
            elif message.type == Type.DATA:
                drawn |= {message.body[key] for key in (Attribute.OBJID, Attribute.OBJTYPE)
                          if key in message.body}
    return drawn


@dataclass
class Printed:
    """What a run of the stock tool printed, both streams together, and its exit status."""
    output: str
    status: int


def load_printed():
    """The runs of data/cli.txt by title; several runs under one title in a list."""
    text = (_HERE / "data" / "cli.txt").read_text()
    runs = {}
    for section in re.split(r"^## ", text, flags=re.MULTILINE)[1:]:
        title, body = section.split("\n", 1)
        runs[title] = [Printed(output, int(status)) for output, status
                       in re.findall(r"(.*?)rc=(\d+)\n", body, flags=re.DOTALL)]
    return runs


def load_listened():
    """The lines that the listener of vectors-events.txt printed."""
    return (_HERE / "data" / "events.txt").read_text().splitlines()
