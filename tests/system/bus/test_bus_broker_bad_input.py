"""Bytes that no honest client sends: the broker answers with a status or ends that connection, and
serves everybody else as before."""

import os
import random
import select
import struct

import pytest

from processes import PATIENCE_S, wait_until
from ubus_wire import (EVENT_OBJECT, HEADER_SIZE, MAX_BODY, Attribute, Blobmsg, Closed, Message,
                       Method, Status, Type, blob, encode_field, encode_table,
                       signed_id)

SIGNATURE = {"get": {}, "set": {"value": int(Blobmsg.INT32)}}


@pytest.fixture(autouse=True)
def served_bystander(broker):
    """Somebody with an object, whom nothing in these tests may disturb."""
    with broker.owner("bystander", {"get": Method(lambda call: {"a": 1})}) as owner:
        yield owner
        with broker.client() as client:
            assert client.invoke(client.lookup_id("bystander"), "get") == [{"a": 1}]


def is_closed(client):
    with pytest.raises(Closed):
        client.receive()
    return True


def with_body(kind, body, seq=1, peer=0, version=0):
    """A message whose body is `body`, header and all, as it stands."""
    return struct.pack(">BBHI", version, kind, seq, peer) + body


def with_attributes(kind, raw_attributes, **header):
    """A message with a right body around attribute bytes that may be wrong."""
    return with_body(kind, blob(0, raw_attributes), **header)


# --- wrong messages ---------------------------------------------------------------------------

@pytest.mark.parametrize("version", [1, 2, 0x7F, 0xFF])
def test_a_wrong_version_ends_the_connection(client, version):
    client.send(Message(Type.PING, 1, version=version))
    assert is_closed(client)


@pytest.mark.parametrize("length", [0, 1, 3, MAX_BODY + 4, 0xFFFFFF])
def test_a_body_length_out_of_range_ends_the_connection(client, length):
    client.send_bytes(with_body(Type.PING, struct.pack(">I", length)))
    assert is_closed(client)


@pytest.mark.parametrize("word", [0x01000004, 0x80000004, 0xFF000004])
def test_a_body_that_is_no_blob_of_id_0_is_no_ping(client, word):
    client.send_bytes(with_body(Type.PING, struct.pack(">I", word)))
    try:
        assert client.receive().status != Status.OK
    except Closed:
        pass


def test_a_body_of_exactly_1_mib_is_served(client):
    ballast = blob(Attribute.OBJPATH, b"x" * (MAX_BODY - 9) + b"\0")
    ping = with_attributes(Type.PING, ballast)
    assert len(ping) == HEADER_SIZE + MAX_BODY
    client.send_bytes(ping)
    assert client.receive_raw()[HEADER_SIZE:] == ping[HEADER_SIZE:]
    assert client.receive().status == Status.OK


def test_an_invoke_that_would_grow_beyond_1_mib_on_its_way_is_refused(broker, client):
    """The caller's user and group, which the broker adds, no longer fit into a body."""
    with broker.client() as owner:
        added = owner.add_object("svc", SIGNATURE)
        invoke = Message(Type.INVOKE, 1, added.id, {
            Attribute.OBJID: added.id, Attribute.METHOD: "get",
            Attribute.DATA: {"x": "y" * (MAX_BODY - 33)}}).encode()
        assert len(invoke) == HEADER_SIZE + MAX_BODY
        client.send_bytes(invoke)
        assert client.answer_to(1)[1] != Status.OK
        owner.ping()
        client.ping()


ATTRIBUTE_FAULTS = {
    "an attribute longer than the body": bytes.fromhex("02000100 73766300"),
    "an attribute shorter than its header": bytes.fromhex("02000003"),
    "an attribute of length nought": bytes.fromhex("02000000"),
    "half an attribute header": bytes.fromhex("0200"),
    "an attribute that ends in its padding": bytes.fromhex("02000007 737663"),
    "a path without terminator": bytes.fromhex("02000007 73766361"),
    "a path of no byte": bytes.fromhex("02000004"),
    "an object id of two bytes": bytes.fromhex("03000006 12340000"),
    "an object id of no byte": bytes.fromhex("03000004"),
    "an object id of eight bytes": bytes.fromhex("0300000c 0000000000000001"),
    "a type id of one byte": bytes.fromhex("05000005 01000000"),
    "a method without terminator": bytes.fromhex("03000008 00000001 04000008 73656e64"),
    "a method of no byte": bytes.fromhex("03000008 00000001 04000004"),
    "a signature that is no table": bytes.fromhex("02000008 73766300 06000008 01020304"),
    "a signature cut short": bytes.fromhex("02000008 73766300 06000006 82000000"),
    "data that is no table": bytes.fromhex(
        "03000008 00000001 04000009 73656e64 00000000 07000008 ffffffff"),
    "the same attribute twice": bytes.fromhex("02000006 61000000 02000006 62000000"),
    "an attribute nobody knows": bytes.fromhex("7f000008 00000000"),
}


@pytest.mark.parametrize("fault", ATTRIBUTE_FAULTS)
@pytest.mark.parametrize("kind", [Type.LOOKUP, Type.INVOKE, Type.ADD_OBJECT, Type.REMOVE_OBJECT],
                         ids=lambda kind: kind.name)
def test_a_faulty_attribute_ends_in_a_status_or_the_end_of_the_connection(client, kind, fault):
    client.send_bytes(with_attributes(kind, ATTRIBUTE_FAULTS[fault]))
    answer_or_end(client)


def answer_or_end(client):
    """Reads up to the STATUS, or the end of the connection; anything but silence will do."""
    try:
        while client.receive().type != Type.STATUS:
            pass
        client.ping()
    except Closed:
        pass


@pytest.mark.parametrize("kind", [Type.DATA, Type.STATUS], ids=lambda kind: kind.name)
@pytest.mark.parametrize("fault", ATTRIBUTE_FAULTS)
def test_a_faulty_answer_is_dropped_or_ends_the_connection(client, kind, fault):
    client.send_bytes(with_attributes(kind, ATTRIBUTE_FAULTS[fault]))
    try:
        client.ping()
    except Closed:
        pass


SIGNATURE_FAULTS = {
    "a method that is a number": encode_field("get", 1),
    "a method that is a text": encode_field("get", "text"),
    "a method that is an array": encode_field("get", [1, 2]),
    "an argument type that is a text": encode_table({"get": {"value": "text"}}),
    "an argument type that is a table": encode_table({"get": {"value": {}}}),
    "an argument type of 64 bits": encode_table({"get": {"value": 1 << 40}}),
    "a good method, then a bad one": encode_table({"get": {}, "set": 5}),
    "a method cut short": encode_table({"get": {"value": 5}})[:-2],
    "a method without name header": blob(Blobmsg.TABLE, b"", 1 << 31),
    "a method whose name goes beyond it": bytes.fromhex("82000008 00ff6700"),
    "a method that is no blobmsg field": bytes.fromhex("02000008 00036700"),
    "an argument whose name has no end": bytes.fromhex(
        "82000018 0003676574000000 8500000c 0003616263640005"),
}


@pytest.mark.parametrize("fault", SIGNATURE_FAULTS)
def test_a_bad_signature_makes_no_object(broker, client, fault):
    attributes = {Attribute.OBJPATH: "bad", Attribute.SIGNATURE: SIGNATURE_FAULTS[fault]}
    try:
        assert client.request(Type.ADD_OBJECT, attributes) == ([], Status.INVALID_ARGUMENT)
    except Closed:
        pass
    with broker.client() as other:
        assert [found.path for found in other.lookup()] == ["bystander"]
        other.add_object("bad", SIGNATURE)


@pytest.mark.parametrize("kind", [Type.HELLO, 12, 127, 128, 255])
def test_a_type_out_of_range_gets_a_status_whatever_it_carries(client, kind):
    client.send_bytes(with_attributes(kind, ATTRIBUTE_FAULTS["an object id of two bytes"]))
    answer_or_end(client)


def test_deep_nesting_does_not_exhaust_the_brokers_stack(client):
    depth = 60000
    table = b"".join(struct.pack(">IHxx", 0x82000000 | 8 * (depth - level), 0)
                     for level in range(depth))
    attributes = {Attribute.OBJPATH: "deep", Attribute.SIGNATURE: table}
    try:
        client.request(Type.ADD_OBJECT, attributes)
        client.request(Type.INVOKE, {
            Attribute.OBJID: EVENT_OBJECT, Attribute.METHOD: "send",
            Attribute.DATA: encode_field("id", "foo") + table})
    except Closed:
        pass


# --- corrupted messages -----------------------------------------------------------------------

def valid_messages(client, bystander_id):
    """One valid message of each kind that the broker reads into."""
    own = client.add_object(f"own{client.id}", SIGNATURE)
    return [message.encode() for message in [
        Message(Type.PING, 1, 0, {Attribute.DATA: {"a": 1}}),
        Message(Type.LOOKUP, 2, 0, {Attribute.OBJPATH: "by*"}),
        Message(Type.ADD_OBJECT, 3, 0, {Attribute.OBJPATH: "new", Attribute.SIGNATURE: SIGNATURE}),
        Message(Type.ADD_OBJECT, 4, 0, {Attribute.OBJPATH: "new", Attribute.OBJTYPE: own.type}),
        Message(Type.REMOVE_OBJECT, 5, 0, {Attribute.OBJID: own.id}),
        Message(Type.INVOKE, 6, bystander_id, {Attribute.OBJID: bystander_id,
                                               Attribute.METHOD: "get", Attribute.DATA: {"a": 1}}),
        Message(Type.INVOKE, 7, 1, {Attribute.OBJID: EVENT_OBJECT, Attribute.METHOD: "register",
                                    Attribute.DATA: {"object": signed_id(own.id),
                                                     "pattern": "foo*"}}),
        Message(Type.INVOKE, 8, 1, {Attribute.OBJID: EVENT_OBJECT, Attribute.METHOD: "send",
                                    Attribute.DATA: {"id": "foo", "data": {"x": [1, "y"]}}}),
        Message(Type.STATUS, 9, client.id, {Attribute.STATUS: 0, Attribute.OBJID: own.id}),
        Message(Type.DATA, 9, client.id, {Attribute.OBJID: own.id, Attribute.DATA: {"z": 0}}),
    ]]


def corrupted(message, chance):
    """`message` with one to three bytes changed, most often where lengths and ids stand."""
    data = bytearray(message)
    for _ in range(chance.randint(1, 3)):
        at = chance.randrange(len(data))
        data[at] = chance.choice([0, 1, 3, 4, 0x7F, 0x80, 0xFF, chance.randrange(256)])
    return bytes(data)


@pytest.mark.parametrize("seed", range(4))
def test_corrupted_messages_harm_nobody_else(broker, served_bystander, seed):
    chance = random.Random(seed)
    for _ in range(100):
        with broker.client() as client:
            valid = valid_messages(client, served_bystander.object.id)
            try:
                for _ in range(8):
                    client.send_bytes(corrupted(chance.choice(valid), chance))
            except Closed:
                pass  # it need not hear the rest


@pytest.mark.parametrize("seed", range(2))
def test_random_bytes_end_the_connection_or_wait_for_more(broker, seed):
    chance = random.Random(seed)
    for _ in range(150):
        with broker.client() as client:
            try:
                client.send_bytes(chance.randbytes(chance.randint(1, 400)))
            except Closed:
                pass


def test_every_truncation_of_a_message_leaves_nothing_behind(broker, served_bystander):
    before = broker.process.descriptor_count()
    with broker.client() as client:
        valid = valid_messages(client, served_bystander.object.id)
    for message in valid:
        for size in range(1, len(message), 3):
            with broker.client() as client:
                client.send_bytes(message[:size])
    wait_until(lambda: broker.process.descriptor_count() == before, "all connections are closed")


def test_a_client_that_sends_one_byte_at_a_time_is_served(broker, client, served_bystander):
    invoke = Message(Type.INVOKE, 1, served_bystander.object.id, {
        Attribute.OBJID: served_bystander.object.id, Attribute.METHOD: "get", Attribute.DATA: {}})
    for message in (Message(Type.PING, 1), Message(Type.LOOKUP, 1), invoke):
        for byte in message.encode():
            client.send_bytes(bytes([byte]))
            with broker.client() as other:
                other.ping()
        bodies, status = client.answer_to(1)
        assert len(bodies) == 1 and status == Status.OK


def test_many_half_messages_hold_up_nobody(broker):
    halves = [broker.client() for _ in range(50)]
    for half in halves:
        half.send_bytes(with_body(Type.PING, struct.pack(">I", MAX_BODY)) + b"x" * 1000)
    with broker.client() as client:
        client.ping()
    for half in halves:
        half.close()


# --- descriptors ------------------------------------------------------------------------------

def assert_closed_everywhere(reader, writer):
    """Closes a pipe of ours; its end comes when no other process holds `writer` either."""
    os.close(writer)
    ready, _, _ = select.select([reader], [], [], PATIENCE_S)
    assert ready and os.read(reader, 1) == b"", "somebody keeps the descriptor"
    os.close(reader)


def test_descriptors_beside_a_message_are_closed(broker, client):
    before = broker.process.descriptor_count()
    reader, writer = os.pipe()
    for seq in range(1, 51):
        client.send_with_descriptors(Message(Type.PING, seq).encode(), [writer] * 3)
        assert client.answer_to(seq)[1] == Status.OK
    assert_closed_everywhere(reader, writer)
    assert broker.process.descriptor_count() == before


def test_descriptors_beside_half_a_message_are_closed(broker, client):
    reader, writer = os.pipe()
    ping = Message(Type.PING, 1).encode()
    client.send_with_descriptors(ping[:5], [writer])
    client.send_with_descriptors(ping[5:], [writer] * 200)
    assert client.answer_to(1)[1] == Status.OK
    assert_closed_everywhere(reader, writer)


def test_a_descriptor_beside_an_invoke_is_not_kept(broker, client, served_bystander):
    reader, writer = os.pipe()
    invoke = Message(Type.INVOKE, 1, 0, {Attribute.OBJID: served_bystander.object.id,
                                         Attribute.METHOD: "get", Attribute.DATA: {}})
    client.send_with_descriptors(invoke.encode(), [writer])
    assert client.answer_to(1)[1] == Status.OK
    assert_closed_everywhere(reader, writer)


# --- what is left behind ----------------------------------------------------------------------

def abuse(broker, rounds):
    """Connections that end in every wrong way, with objects, types and patterns of their own."""
    chance = random.Random(7)
    for number in range(rounds):
        with broker.client() as client:
            client.add_object(f"abuser{number}", SIGNATURE)
            client.register_events(f"pattern{number}*")
            client.request(Type.ADD_OBJECT, {Attribute.OBJPATH: "bystander"})
            client.request(Type.ADD_OBJECT, {Attribute.OBJPATH: "bad",
                                             Attribute.SIGNATURE: encode_field("get", 1)})
            client.send_bytes(chance.choice([
                Message(Type.PING, 1, version=9).encode(),
                with_body(Type.PING, struct.pack(">I", MAX_BODY + 4)),
                with_body(Type.PING, struct.pack(">I", MAX_BODY)) + bytes(5000),
                with_attributes(Type.LOOKUP, ATTRIBUTE_FAULTS["a path without terminator"]),
            ]))


def test_descriptors_stay_flat_under_abuse(broker):
    before = broker.process.descriptor_count()
    abuse(broker, 300)
    wait_until(lambda: broker.process.descriptor_count() == before, "all connections are closed")


def test_memory_stays_flat_under_abuse(broker, telling_memory):
    abuse(broker, 300)
    warm_kib = broker.process.resident_kib()
    abuse(broker, 900)
    assert broker.process.resident_kib() - warm_kib < 600


def test_all_ids_of_a_gone_client_are_forgotten(broker):
    with broker.client() as client:
        added = client.add_object("gone", SIGNATURE)
    with broker.client() as client:
        wait_until(lambda: len(client.lookup()) == 1, "the object goes with its client")
        bodies, status = client.request(Type.ADD_OBJECT, {Attribute.OBJTYPE: added.type})
        assert bodies == [] and status != Status.OK
