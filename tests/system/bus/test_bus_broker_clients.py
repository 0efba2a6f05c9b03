"""Events, clients that go, clients that are slow, and clients that may not."""

import itertools

import pytest

from processes import can_change_user, wait_until
from ubus_programs import Broker
from ubus_wire import (EVENT_OBJECT, Attribute, Message, Method, Status, Type, signed_id,
                       status_of)

NOBODY = 65534
UNNAMED_UID = 54321
SIGNATURE = {"get": {}}

needs_other_users = pytest.mark.skipif(
    not can_change_user(), reason="only the machine's root can act as somebody else")


# --- events -----------------------------------------------------------------------------------

def test_an_event_reaches_each_object_registered_for_it(broker, client, other):
    registered = client.register_events("foo.bar")
    with broker.client() as sender:
        sender.send_event("foo.bar", {"a": 1})
        sender.ping()
    event = client.next_invoke()
    assert event.peer == 0
    assert event.body == {Attribute.OBJID: registered, Attribute.METHOD: "foo.bar",
                          Attribute.DATA: {"a": 1}}
    other.ping()


@pytest.mark.parametrize("pattern, hits, misses", [
    ("foo", ["foo"], ["fo", "foo.bar", "foobar", "xfoo"]),
    ("foo*", ["foo", "foo.bar", "foobar"], ["fo", "bar.foo"]),
    ("foo.*", ["foo.", "foo.bar"], ["foo", "foobar"]),
    ("*", ["a", "anything.at.all"], []),
    ("f*o", ["f*o"], ["foo", "fo", "f*oo"]),
])
def test_a_pattern_is_exact_but_for_a_trailing_star(client, other, pattern, hits, misses):
    client.register_events(pattern)
    for name in misses + hits:
        other.send_event(name, {})
    assert [client.next_event()[0] for _ in hits] == hits
    client.ping()


def test_an_object_takes_several_patterns(client, other):
    registered = client.register_events("one")
    client.register_events("two*", registered)
    for name in ("one", "three", "two.a"):
        other.send_event(name, {})
    assert [client.next_event()[0] for _ in range(2)] == ["one", "two.a"]


def test_an_event_that_nobody_waits_for_is_sent_with_success(client):
    client.send_event("nobody", {"x": 1})


def test_events_end_when_the_object_registered_for_them_is_removed(client, other):
    registered = client.register_events("foo*")
    client.remove_object(registered)
    other.send_event("foo", {})
    client.ping()


def test_events_are_registered_for_an_object_of_ones_own_only(client, other):
    victim = client.add_object("svc", SIGNATURE)
    assert status_of(other.register_events, "foo", victim.id) != Status.OK
    assert status_of(other.register_events, "foo", 0x7FFFFFFF) != Status.OK
    other.send_event("foo", {})
    client.ping()


@pytest.mark.parametrize("method, data, status", [
    ("nonsense", {}, Status.METHOD_NOT_FOUND),
    ("register", {}, Status.INVALID_ARGUMENT),
    ("register", {"pattern": "x"}, Status.INVALID_ARGUMENT),
    ("register", {"object": "text", "pattern": 5}, Status.INVALID_ARGUMENT),
    ("send", {}, Status.INVALID_ARGUMENT),
    ("send", {"data": {}}, Status.INVALID_ARGUMENT),
    ("send", {"id": 5, "data": "text"}, Status.INVALID_ARGUMENT),
])
def test_a_wrong_request_about_events_is_refused(client, method, data, status):
    assert status_of(client.invoke, EVENT_OBJECT, method, data) == status


def test_the_broker_announces_named_objects_that_come_and_go(client, other):
    client.register_events("ubus.object.*")
    added = other.add_object("svc", SIGNATURE)
    about = {"id": signed_id(added.id), "path": "svc"}
    assert client.next_event() == ("ubus.object.add", about)
    other.remove_object(added.id)
    assert client.next_event() == ("ubus.object.remove", about)
    client.remove_object(client.add_object().id)
    client.ping()


# --- clients that go, clients that are slow ---------------------------------------------------

def test_a_client_that_goes_takes_its_objects_along(broker, client):
    client.register_events("ubus.object.remove")
    leaver = broker.client()
    added = [leaver.add_object(f"svc{number}", SIGNATURE) for number in range(3)]
    leaver.add_object()
    leaver.close()
    gone = [client.next_event()[1]["path"] for _ in added]
    assert sorted(gone) == ["svc0", "svc1", "svc2"]
    assert client.lookup() == []
    assert status_of(client.invoke, added[0].id, "get") == Status.NOT_FOUND
    client.ping()


def test_what_a_client_asked_for_before_it_hung_up_is_still_done(broker, client):
    client.register_events("foo")
    for number in range(20):
        with broker.client() as hasty:
            hasty.post_invoke(EVENT_OBJECT, "send", {"id": "foo", "data": {"number": number}})
        assert client.next_event()[1]["number"] == number


def test_a_type_lives_on_while_an_object_of_another_client_has_it(broker, client):
    with broker.client() as maker:
        made = maker.add_object("made", SIGNATURE)
        client.add_object("kept", type_id=made.type)
    wait_until(lambda: len(client.lookup()) == 1, "the maker's object goes")
    assert client.lookup("kept")[0].signature == SIGNATURE


MARKERS = itertools.count(-1, -1)


def flood(sender, count, size):
    """Sends `count` numbered events of about `size` bytes."""
    for number in range(count):
        sender.send_event("flood", {"number": number, "ballast": "x" * size})


def read_flood(reader, sender):
    """The numbers of all events that wait for the reader, until its queue is empty.

    A last event marks the end; it is sent again as long as it finds no room in the queue.
    """
    marker = next(MARKERS)
    numbers = []
    while marker not in numbers:
        try:
            numbers.append(reader.next_event(timeout_s=0.1)[1]["number"])
        except TimeoutError:
            sender.send_event("flood", {"number": marker})
    return [number for number in numbers if number >= 0]


def test_a_slow_reader_loses_what_its_queue_does_not_hold(client, other):
    client.register_events("flood")
    flood(other, count=1000, size=8000)
    numbers = read_flood(client, other)
    assert numbers == list(range(len(numbers))), "what arrives, arrives in order and unbroken"
    assert 1 << 20 <= len(numbers) * 8000 + 16000 < 3 << 20
    client.ping()


def test_a_slow_reader_costs_the_broker_no_more_than_its_queue(
        broker, client, other, telling_memory):
    client.register_events("flood")
    before_kib = broker.process.resident_kib()
    flood(other, count=1000, size=8000)
    assert broker.process.resident_kib() - before_kib < 4000


def test_a_slow_reader_holds_up_nobody(broker, client, other):
    client.register_events("flood")
    with broker.client() as second:
        second.register_events("flood")
        for number in range(400):
            flood(other, count=1, size=8000)
            assert second.next_event()[1]["number"] == 0, number
        second.ping()


def test_a_slow_reader_is_sent_all_of_a_queue_that_fits(client, other):
    client.register_events("flood")
    flood(other, count=900, size=1000)
    assert read_flood(client, other) == list(range(900))


def test_a_slow_reader_is_served_again_once_it_has_read(client, other):
    client.register_events("flood")
    flood(other, count=400, size=8000)
    assert len(read_flood(client, other)) < 400
    flood(other, count=5, size=10)
    assert read_flood(client, other) == list(range(5))


# --- access -----------------------------------------------------------------------------------

@needs_other_users
def test_a_caller_of_another_user_may_neither_offer_nor_call(broker, client):
    added = client.add_object("svc", SIGNATURE)
    with broker.client_of(NOBODY) as stranger:
        assert status_of(stranger.add_object, "mine", SIGNATURE) == Status.PERMISSION_DENIED
        assert status_of(stranger.add_object) == Status.PERMISSION_DENIED
        assert status_of(stranger.invoke, added.id, "get") == Status.PERMISSION_DENIED
        assert status_of(stranger.send_event, "foo", {}) == Status.PERMISSION_DENIED
        assert status_of(stranger.invoke, EVENT_OBJECT, "register", {
            "object": signed_id(added.id), "pattern": "*"}) == Status.PERMISSION_DENIED
        assert status_of(stranger.remove_object, added.id) != Status.OK
    client.ping()
    assert client.lookup() == [added]


@needs_other_users
def test_a_caller_of_another_user_sees_no_object(broker, client):
    client.add_object("svc", SIGNATURE)
    with broker.client_of(NOBODY) as stranger:
        assert stranger.lookup() == []
        for path in ("svc", "s*", "*"):
            assert status_of(stranger.lookup, path) == Status.NOT_FOUND
        stranger.ping()


@needs_other_users
def test_a_caller_of_another_user_cannot_answer_for_an_owner(broker, client, other):
    added = client.add_object("svc", SIGNATURE)
    with broker.client_of(NOBODY) as stranger:
        seq = other.post_invoke(added.id, "get")
        stranger.send(Message(Type.STATUS, seq, other.id, {Attribute.STATUS: Status.OK,
                                                           Attribute.OBJID: added.id}))
        stranger.ping()
    other.ping()


@needs_other_users
def test_callers_of_the_brokers_own_user_and_of_root_may_do_anything():
    with Broker(user=NOBODY) as broker, broker.client_of(NOBODY) as own, broker.client() as root:
        served = own.add_object("svc", SIGNATURE)
        for caller, user in ((own, "nobody"), (root, "root")):
            seq = caller.post_invoke(served.id, "get")
            invoke = own.next_invoke()
            assert invoke.body[Attribute.USER] == user
            own.reply(invoke, {})
            assert caller.answer_to(seq)[1] == Status.OK
        root.add_object("root", SIGNATURE)
        assert [found.path for found in own.lookup()] == ["root", "svc"]


@needs_other_users
def test_a_caller_whose_user_has_no_name_is_served_all_the_same():
    with Broker(user=UNNAMED_UID) as broker, broker.client_of(UNNAMED_UID) as caller:
        with broker.owner("svc", {"get": Method(lambda call: {"a": 1})}) as owner:
            assert caller.invoke(owner.object.id, "get") == [{"a": 1}]


