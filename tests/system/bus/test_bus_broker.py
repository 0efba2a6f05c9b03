"""Requests that clients make of the broker, and calls of one client to another."""

import grp
import os
import pwd

import pytest

from processes import program, run
from ubus_wire import Attribute, Blobmsg, Message, Status, Type, status_of

LOWEST_DRAWN_ID = 1025
SIGNATURE = {"get": {}, "set": {"name": int(Blobmsg.STRING), "value": int(Blobmsg.INT32)}}


# --- connecting, PING -------------------------------------------------------------------------

def test_every_client_is_greeted_with_an_id_of_its_own(broker):
    clients = [broker.client() for _ in range(50)]
    ids = {client.id for client in clients}
    assert len(ids) == 50 and min(ids) >= LOWEST_DRAWN_ID
    for client in clients:
        client.close()


def test_ids_are_drawn_at_random(broker):
    ids = []
    for _ in range(20):
        with broker.client() as client:
            ids.append(client.id)
    steps = {after - before for before, after in zip(ids, ids[1:])}
    assert len(steps) == len(ids) - 1 and max(ids) > 1 << 24


def test_a_ping_comes_back_as_data_before_its_status(client):
    attributes = {Attribute.OBJPATH: "kept", Attribute.DATA: {"a": 1}}
    client.send(Message(Type.PING, 77, 1234, attributes))
    assert client.receive() == Message(Type.DATA, 77, 1234, attributes)
    assert client.receive() == Message(Type.STATUS, 77, 1234, {Attribute.STATUS: Status.OK})


def test_requests_sent_at_once_are_answered_in_order(client):
    client.send_bytes(b"".join(Message(Type.PING, seq).encode() for seq in range(1, 101)))
    for seq in range(1, 101):
        assert client.receive() == Message(Type.DATA, seq)
        assert client.receive() == Message(Type.STATUS, seq, 0, {Attribute.STATUS: Status.OK})


# --- LOOKUP -----------------------------------------------------------------------------------

def test_lookup_without_a_path_lists_all_objects_in_name_order(client, other):
    for path in ("b.two", "a", "c", "b.one", "B", "b"):
        client.add_object(path, SIGNATURE)
    assert [found.path for found in other.lookup()] == ["B", "a", "b", "b.one", "b.two", "c"]


def test_lookup_without_a_path_succeeds_when_there_is_no_object(client):
    assert client.lookup() == []


def test_lookup_of_a_path_finds_that_object_alone(client, other):
    for path in ("svc", "svc2", "sv"):
        client.add_object(path, {})
    added = client.add_object("svc1", SIGNATURE)
    assert other.lookup("svc1") == [added]


def test_lookup_of_a_prefix_finds_all_below_it_in_name_order(client, other):
    for path in ("net.b", "network", "ne", "net", "net.a", "other"):
        client.add_object(path, {})
    assert [found.path for found in other.lookup("net*")] == ["net", "net.a", "net.b", "network"]
    assert [found.path for found in other.lookup("net.*")] == ["net.a", "net.b"]
    assert len(other.lookup("*")) == 6


def test_a_star_within_a_path_is_a_plain_character(client):
    client.add_object("abc", {})
    assert status_of(client.lookup, "a*c") == Status.NOT_FOUND


@pytest.mark.parametrize("path", ["nope", "nope*", "sv", "svcx", "svc.*", ""])
def test_lookup_that_matches_nothing_is_not_found(client, path):
    client.add_object("svc", SIGNATURE)
    assert status_of(client.lookup, path) == Status.NOT_FOUND


def test_an_object_without_type_is_not_listed(client, other):
    client.add_object("untyped")
    client.add_object("typed", {})
    assert [found.path for found in other.lookup()] == ["typed"]
    assert [found.path for found in other.lookup("*")] == ["typed"]


# --- ADD_OBJECT and REMOVE_OBJECT -------------------------------------------------------------

def test_an_object_added_with_a_signature_gets_an_id_and_a_type(client, other):
    added = client.add_object("svc", SIGNATURE)
    assert min(added.id, added.type) >= LOWEST_DRAWN_ID and added.id != added.type
    assert other.lookup("svc") == [added]


def test_an_object_added_with_a_known_type_shares_its_signature(client, other):
    first = client.add_object("first", SIGNATURE)
    second = other.add_object("second", type_id=first.type)
    assert second.type is None, "the type is no news to who named it"
    (listed,) = client.lookup("second")
    assert (listed.id, listed.type, listed.signature) == (second.id, first.type, SIGNATURE)


def test_an_object_needs_neither_path_nor_type(client, other):
    added = client.add_object()
    assert added.id >= LOWEST_DRAWN_ID and added.type is None
    other.post_invoke(added.id, "anything")
    assert client.next_invoke().body[Attribute.METHOD] == "anything"


def test_a_path_is_taken_once(client, other):
    added = client.add_object("svc", SIGNATURE)
    assert status_of(other.add_object, "svc", SIGNATURE) == Status.INVALID_ARGUMENT
    assert status_of(client.add_object, "svc", SIGNATURE) == Status.INVALID_ARGUMENT
    assert other.lookup() == [added]


def test_a_path_that_was_removed_is_free_again(client, other):
    client.remove_object(client.add_object("svc", SIGNATURE).id)
    added = other.add_object("svc", {"new": {}})
    assert client.lookup() == [added]


def test_an_unknown_type_makes_no_object(client):
    assert status_of(client.add_object, "svc", type_id=0x7FFFFFFF) != Status.OK
    assert client.lookup() == []
    client.add_object("svc", SIGNATURE)


def test_only_its_owner_removes_an_object(client, other):
    added = client.add_object("svc", SIGNATURE)
    assert status_of(other.remove_object, added.id) == Status.PERMISSION_DENIED
    assert other.lookup("svc") == [added]


def test_removing_an_unknown_object_is_not_found(client):
    assert status_of(client.remove_object, 0x7FFFFFFF) == Status.NOT_FOUND
    removed = client.add_object("svc", SIGNATURE)
    client.remove_object(removed.id)
    assert status_of(client.remove_object, removed.id) == Status.NOT_FOUND


def test_removing_tells_the_type_only_when_it_goes_too(client):
    first = client.add_object("first", SIGNATURE)
    second = client.add_object("second", type_id=first.type)
    assert client.remove_object(first.id) == {Attribute.OBJID: first.id}
    assert client.lookup("second")[0].signature == SIGNATURE
    assert client.remove_object(second.id) == {Attribute.OBJID: second.id,
                                               Attribute.OBJTYPE: first.type}
    assert status_of(client.add_object, "third", type_id=first.type) != Status.OK


def test_removing_an_object_without_type_tells_its_id_alone(client):
    added = client.add_object("untyped")
    assert client.remove_object(added.id) == {Attribute.OBJID: added.id}


def test_the_brokers_own_objects_cannot_be_removed(client):
    for own in (1, 2, 3):
        assert status_of(client.remove_object, own) != Status.OK
    client.register_events("still.works")


# --- INVOKE, DATA, STATUS ---------------------------------------------------------------------

def test_an_invoke_reaches_the_owner_with_the_callers_id_user_and_group(client, other):
    added = client.add_object("svc", SIGNATURE)
    seq = other.post_invoke(added.id, "set", {"name": "x", "value": 1})
    invoke = client.next_invoke()
    assert invoke == Message(Type.INVOKE, seq, other.id, {
        Attribute.OBJID: added.id, Attribute.METHOD: "set",
        Attribute.USER: pwd.getpwuid(os.getuid()).pw_name,
        Attribute.GROUP: grp.getgrgid(os.getgid()).gr_name,
        Attribute.DATA: {"name": "x", "value": 1}})


def test_an_invoke_that_wants_no_reply_says_so_to_the_owner(client, other):
    added = client.add_object("svc", SIGNATURE)
    other.post(Type.INVOKE, {Attribute.OBJID: added.id, Attribute.METHOD: "get",
                             Attribute.NO_REPLY: 1, Attribute.DATA: {}})
    assert client.next_invoke().body[Attribute.NO_REPLY] == 1
    other.ping()


def test_the_broker_adds_no_status_to_a_forwarded_invoke(client, other):
    added = client.add_object("svc", SIGNATURE)
    other.post_invoke(added.id, "get")
    client.next_invoke()
    other.ping()


def test_an_answer_reaches_the_caller_with_the_objects_id_as_peer(client, other):
    added = client.add_object("svc", SIGNATURE)
    seq = other.post_invoke(added.id, "get")
    client.reply(client.next_invoke(), {"a": 1}, status=100)
    assert other.receive() == Message(Type.DATA, seq, added.id, {
        Attribute.OBJID: added.id, Attribute.DATA: {"a": 1}})
    assert other.receive() == Message(Type.STATUS, seq, added.id, {
        Attribute.STATUS: 100, Attribute.OBJID: added.id})
    client.ping()


@pytest.mark.parametrize("status", [0, -1, 100, 2**31 - 1, -2**31])
def test_a_status_carries_any_32_bit_value(client, other, status):
    added = client.add_object("svc", SIGNATURE)
    seq = other.post_invoke(added.id, "get")
    client.reply(client.next_invoke(), status=status)
    assert other.answer_to(seq) == ([], status)


def test_answers_given_out_of_order_reach_their_callers(broker, client, other):
    added = client.add_object("svc", SIGNATURE)
    with broker.client() as third:
        seqs = {caller: caller.post_invoke(added.id, "get", {"of": caller.id})
                for caller in (other, third)}
        invokes = [client.next_invoke(), client.next_invoke()]
        for invoke in reversed(invokes):
            client.reply(invoke, invoke.body[Attribute.DATA])
        for caller, seq in seqs.items():
            bodies, _ = caller.answer_to(seq)
            assert bodies[0][Attribute.DATA] == {"of": caller.id}


def test_a_client_may_call_an_object_of_its_own(client):
    added = client.add_object("svc", SIGNATURE)
    seq = client.post_invoke(added.id, "get")
    invoke = client.next_invoke()
    assert invoke.peer == client.id
    client.reply(invoke, {"a": 1})
    bodies, status = client.answer_to(seq)
    assert (bodies[0][Attribute.DATA], status) == ({"a": 1}, Status.OK)


def test_an_invoke_of_an_unknown_object_is_not_found(client, other):
    assert status_of(client.invoke, 0x7FFFFFFF, "get") == Status.NOT_FOUND
    removed = client.add_object("svc", SIGNATURE)
    client.remove_object(removed.id)
    assert status_of(other.invoke, removed.id, "get") == Status.NOT_FOUND


def test_an_invoke_without_object_or_method_is_an_invalid_argument(client, other):
    added = client.add_object("svc", SIGNATURE)
    for attributes in ({Attribute.METHOD: "get", Attribute.DATA: {}},
                       {Attribute.OBJID: added.id, Attribute.DATA: {}}, {}):
        assert other.request(Type.INVOKE, attributes) == ([], Status.INVALID_ARGUMENT)
    client.ping()


def answers(owner_id, caller_id, seq):
    """A DATA and a STATUS as an owner would send them to a caller."""
    return [Message(Type.DATA, seq, caller_id, {Attribute.OBJID: owner_id,
                                                Attribute.DATA: {"forged": True}}),
            Message(Type.STATUS, seq, caller_id, {Attribute.STATUS: 0, Attribute.OBJID: owner_id})]


def test_an_answer_for_somebody_elses_object_is_dropped(broker, client, other):
    added = client.add_object("svc", SIGNATURE)
    with broker.client() as forger:
        forger.add_object("forger", SIGNATURE)
        seq = other.post_invoke(added.id, "get")
        for message in answers(added.id, other.id, seq):
            forger.send(message)
        forger.ping()
        other.ping()
    client.reply(client.next_invoke(), {"true": True})
    assert other.answer_to(seq)[0][0][Attribute.DATA] == {"true": True}


@pytest.mark.parametrize("attributes", [
    {Attribute.STATUS: 0}, {Attribute.DATA: {}}, {},
    {Attribute.STATUS: 0, Attribute.OBJID: 0x7FFFFFFF}, {Attribute.STATUS: 0, Attribute.OBJID: 1},
])
def test_an_answer_without_an_object_of_ones_own_is_dropped(client, other, attributes):
    client.add_object("svc", SIGNATURE)
    for kind in (Type.DATA, Type.STATUS):
        client.send(Message(kind, 1, other.id, attributes))
    client.ping()
    other.ping()


def test_an_answer_to_a_caller_that_has_gone_is_dropped(broker, client):
    added = client.add_object("svc", SIGNATURE)
    with broker.client() as caller:
        caller.post_invoke(added.id, "get")
        invoke = client.next_invoke()
    client.reply(invoke, {"late": True})
    client.ping()


def test_left_out_types_are_not_supported(client):
    for kind in (Type.SUBSCRIBE, Type.UNSUBSCRIBE, Type.NOTIFY, Type.MONITOR):
        assert client.request(kind) == ([], Status.NOT_SUPPORTED)
        assert client.request(kind, {Attribute.OBJID: 1, Attribute.TARGET: 1,
                                     Attribute.METHOD: "x"}, peer=9) == ([], Status.NOT_SUPPORTED)


@pytest.mark.parametrize("kind", [12, 13, 100, 255])
def test_an_unknown_type_is_an_invalid_command(client, kind):
    client.send(Message(kind, 5, 6))
    assert client.receive() == Message(Type.STATUS, 5, 6,
                                       {Attribute.STATUS: Status.INVALID_COMMAND})
    client.ping()


# --- the socket -------------------------------------------------------------------------------

def test_the_broker_starts_again_over_the_socket_that_a_crash_left(broker):
    broker.restart()
    with broker.client() as client:
        client.ping()


def test_a_broker_without_a_place_for_its_socket_ends_with_an_error(broker):
    ran = run(program("ubusd"), "-s", broker.socket.parent / "missing" / "ubus.sock")
    assert ran.status != 0 and ran.errors
