"""Many clients, many objects, large messages, and programs that die at the worst moment."""

import json
import resource
import socket
import threading
import time

from daemon import build_cost
from processes import program, run, wait_until
from ubus_wire import SILENT, Attribute, Blobmsg, Client, Connection, Message, Method, Status, Type

NINE_HUNDRED_KB = 900_000


def test_200_clients_at_once_are_each_served_their_own_answers(broker):
    with broker.owner("echo", {"say": Method(lambda call: call.data)}) as owner:
        clients = [broker.client() for _ in range(200)]
        for turn in range(3):
            seqs = [client.post_invoke(owner.object.id, "say", {"of": client.id & 0xFFFF,
                                                                "turn": turn})
                    for client in clients]
            for client, seq in zip(clients, seqs):
                bodies, status = client.answer_to(seq)
                assert status == Status.OK
                assert bodies[0][Attribute.DATA] == {"of": client.id & 0xFFFF, "turn": turn}
        assert broker.process.descriptor_count() > 200
        for client in clients:
            client.close()


def test_200_clients_that_own_objects_and_call_one_another(broker):
    clients = [broker.client() for _ in range(200)]
    objects = [client.add_object(f"svc{number:03}", {}) for number, client in enumerate(clients)]
    seqs = [client.post_invoke(objects[number - 1].id, "hop", {"from": number})
            for number, client in enumerate(clients)]
    invokes = [client.next_invoke() for client in clients]
    for number, (client, invoke) in enumerate(zip(clients, invokes)):
        assert invoke.body[Attribute.DATA] == {"from": (number + 1) % 200}
        client.reply(invoke, {"to": number})
    for number, (client, seq) in enumerate(zip(clients, seqs)):
        bodies, status = client.answer_to(seq)
        assert (bodies[0][Attribute.DATA], status) == ({"to": (number - 1) % 200}, Status.OK)
    assert [found.path for found in clients[0].lookup()] == [added.path for added in objects]
    for client in clients:
        client.close()


def test_a_caller_that_never_reads_holds_up_neither_owner_nor_other_callers(broker):
    answer = {"ballast": "x" * 50_000}
    with broker.owner("big", {"get": Method(lambda call: answer)}) as owner, \
            broker.client() as deaf, broker.client() as reader:
        for _ in range(60):
            deaf.post_invoke(owner.object.id, "get")
            assert reader.invoke(owner.object.id, "get") == [answer]


def test_a_client_that_lists_and_never_reads_holds_up_nobody(broker):
    with broker.client() as owner, broker.client() as deaf, broker.client() as reader:
        for number in range(300):
            owner.add_object(f"svc{number:03}", {"method": {"argument": int(Blobmsg.STRING)}})
        for _ in range(100):
            deaf.post(Type.LOOKUP)
            reader.ping()
        assert len(reader.lookup()) == 300


MANY = 10_000
THREE_METHODS = {"get_device_id": {}, "getInfo": {"infoMask": int(Blobmsg.INT32)},
                 "reload": {"address": int(Blobmsg.STRING), "port": int(Blobmsg.INT32)}}


def offer_many(owner):
    """MANY objects of one client, whose list is larger than a client's queue; their names."""
    names = [f"svc{number:05}" for number in range(MANY)]
    first = owner.add_object(names[0], THREE_METHODS)
    for start in range(1, MANY, 500):
        seqs = [owner.post(Type.ADD_OBJECT, {Attribute.OBJPATH: name,
                                             Attribute.OBJTYPE: first.type})
                for name in reversed(names[start:start + 500])]
        for seq in seqs:
            assert owner.answer_to(seq)[1] == Status.OK
    return names


def test_10000_objects_are_listed_in_name_order(broker):
    with broker.client() as owner:
        names = offer_many(owner)
        ran = broker.tool("list")
        assert ran.status == 0 and ran.output.splitlines() == names
        with broker.client() as client:
            assert [found.path for found in client.lookup("svc0999*")] == names[9990:]


def test_a_list_larger_than_the_queue_waits_for_its_reader_while_others_are_served(broker):
    with broker.client() as owner, broker.client() as reader, broker.client() as other:
        names = offer_many(owner)
        seq = reader.post(Type.LOOKUP)
        assert other.lookup(names[-1])[0].signature == THREE_METHODS
        bodies, status = reader.answer_to(seq)
        assert [body[Attribute.OBJPATH] for body in bodies] == names and status == Status.OK


def test_a_list_under_way_ends_well_when_the_objects_go(broker):
    with broker.client() as reader, broker.client() as other:
        with broker.client() as owner:
            names = offer_many(owner)
            seq = reader.post(Type.LOOKUP)
            other.ping()
        wait_until(lambda: not other.lookup(), "the objects go with their owner")
        bodies, status = reader.answer_to(seq)
        assert [body[Attribute.OBJPATH] for body in bodies] == names[:len(bodies)]
        assert status == Status.OK


def test_a_reader_that_goes_in_mid_list_leaves_nothing_behind(broker):
    with broker.client() as owner:
        offer_many(owner)
        for _ in range(5):
            with broker.client() as reader, broker.client() as other:
                reader.post(Type.LOOKUP)
                reader.post(Type.LOOKUP)
                other.ping()
        wait_until(lambda: broker.connection_count() == 1, "only the owner is left")
        owner.ping()


def test_a_900_kb_call_and_answer_arrive_whole(broker):
    ballast = "".join(chr(32 + number % 95) for number in range(NINE_HUNDRED_KB))
    with broker.owner("echo", {"say": Method(lambda call: call.data)}) as owner:
        with broker.client() as client:
            assert client.invoke(owner.object.id, "say", {"text": ballast}) == [{"text": ballast}]


def test_the_tool_prints_a_900_kb_answer(broker):
    ballast = "0123456789" * (NINE_HUNDRED_KB // 10)
    with broker.owner("big", {"get": Method(lambda call: {"text": ballast})}):
        ran = broker.tool("call", "big", "get")
        assert ran.status == 0 and json.loads(ran.output) == {"text": ballast}


def test_20_tools_at_once_are_all_served(broker):
    with broker.owner("echo", {"say": Method(lambda call: call.data)}):
        tools = [broker.start_tool("-S", "call", "echo", "say", f'{{"n":{number}}}')
                 for number in range(20)]
        for number, tool in enumerate(tools):
            assert tool.wait() == 0
            assert tool.output.text == f'{{"n":{number}}}\n'


def test_the_callers_of_an_owner_that_dies_in_mid_call_do_not_hang(broker):
    owner = broker.owner("svc", {"wait": Method(lambda call: SILENT)})
    with broker.start_tool("-t", "2", "call", "svc", "wait") as tool:
        owner.next_call()
        owner.die()
        status = tool.wait()
        assert 256 - status in (Status.NOT_FOUND, Status.NO_DATA, Status.TIMEOUT)
        assert tool.errors.text.startswith("Command failed: ubus call svc wait (")
    assert broker.tool("list").output == ""


def test_an_owner_that_dies_between_data_and_status_hangs_no_caller(broker):
    with broker.client() as owner:
        added = owner.add_object("svc", {"get": {}})
        with broker.start_tool("-t", "2", "call", "svc", "get") as tool:
            invoke = owner.next_invoke()
            owner.send(Message(Type.DATA, invoke.seq, invoke.peer, {
                Attribute.OBJID: added.id, Attribute.DATA: {"half": 1}}))
            owner.close()
            assert 256 - tool.wait() in (Status.NOT_FOUND, Status.NO_DATA,
                                                      Status.TIMEOUT)


def test_a_caller_that_dies_in_mid_call_costs_the_owner_nothing(broker):
    release = threading.Event()

    def slow(call):
        release.wait(10)
        return {"late": True}

    with broker.owner("svc", {"get": Method(slow)}) as owner:
        tool = broker.start_tool("call", "svc", "get")
        owner.next_call()
        tool.kill()
        release.set()
        assert json.loads(broker.tool("call", "svc", "get").output) == {"late": True}


def test_a_call_under_way_when_the_broker_dies_ends_with_a_time_out_at_once(broker):
    owner = broker.owner("svc", {"wait": Method(lambda call: SILENT)})
    with broker.start_tool("-t", "30", "call", "svc", "wait") as tool:
        owner.next_call()
        broker.kill()
        assert tool.wait() == 256 - Status.TIMEOUT
    owner.die()


def test_programs_find_a_broker_that_was_killed_and_started_again(broker):
    for _ in range(3):
        with broker.owner("svc", {"get": Method(lambda call: {"a": 1})}):
            with broker.start_tool("wait_for", "later") as waiting, \
                    broker.start_tool("listen") as listening:
                wait_until(lambda: broker.connection_count() >= 3, "both tools are connected")
                broker.restart()
                for tool in (waiting, listening):
                    # The latter when its first requests were still under way.
                    assert tool.wait() in (Status.CONNECTION_FAILED, Status.TIMEOUT)
        with broker.owner("later", {}):
            assert broker.tool("wait_for", "later").status == 0


def visit(broker, count):
    """`count` clients that offer something and go; returns when the broker has noticed."""
    for _ in range(count):
        with broker.client() as client:
            client.add_object(f"visitor{client.id}", {"get": {}})
            client.lookup()
    wait_until(lambda: broker.connection_count() == 0, "all visitors have gone")


def test_short_connections_leave_no_descriptor_behind(broker):
    before = broker.process.descriptor_count()
    visit(broker, 200)
    assert broker.process.descriptor_count() == before
    with broker.client() as client:
        assert client.lookup() == []


def test_short_connections_leave_no_memory_behind(broker, telling_memory):
    visit(broker, 200)
    warm_kib = broker.process.resident_kib()
    visit(broker, 1500)
    assert broker.process.resident_kib() - warm_kib < 400


def connect(path):
    """A connection whose greeting may be long in coming."""
    sock = socket.socket(socket.AF_UNIX)
    sock.connect(str(path))
    return Connection(sock)


def test_a_broker_out_of_descriptors_serves_the_clients_it_has_and_later_the_others(broker):
    with broker.client() as served:
        limit = broker.process.descriptor_count() + 5
        resource.prlimit(broker.process.pid, resource.RLIMIT_NOFILE, (limit, limit))
        crowd = [connect(broker.socket) for _ in range(20)]
        wait_until(lambda: broker.process.descriptor_count() == limit, "the broker is full")
        spent_s = broker.process.processor_time_s()
        for _ in range(100):
            served.ping()
            time.sleep(0.005)
        assert broker.process.processor_time_s() - spent_s < 0.25 * build_cost(), "it spins"
        for connection in crowd[:-1]:
            connection.close()
        assert crowd[-1].receive().type == Type.HELLO
        crowd[-1].close()


def test_the_broker_ends_in_order_while_clients_are_connected(broker):
    clients = [Client(broker.socket) for _ in range(5)]
    clients[0].add_object("svc", {"get": {}})
    clients[1].register_events("*")
    assert broker.process.stop() == 0
    assert run(program("ubus"), "-s", broker.socket, "list").status == 255
    for client in clients:
        client.close()
