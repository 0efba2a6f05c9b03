"""Requests for the router's web server, carried there and back."""

import random
import threading

import pytest

from daemon import slowness
from exchanges import REQUEST, carry, send_request, some_bytes
from processes import wait_until
from relay_peer import QUIET_RELAY_REQUEST, RELAY_REQUEST, RELAY_RESPONSE, header
from web_peer import Lighttpd, WebServer

# Around every place where a chunk of 16384 or an answer block of 16372 bytes begins or ends.
SIZES = [0, 1, *range(16371, 16386), 32755, 32756, 32757, 32768, 49140]


# --- bytes ---

@pytest.mark.parametrize("size", SIZES)
def test_request_and_answer_of_any_size_pass_byte_for_byte(session, web, size):
    carry(session, web, 0xABCD, some_bytes(size, 1), some_bytes(size, 2))


@pytest.mark.lasts(5)
def test_five_million_bytes_pass_byte_for_byte_both_ways(session, web):
    request, answer = some_bytes(5_000_000, 1), some_bytes(5_000_000, 2)

    def handle(exchange):
        assert exchange.read_exactly(len(request)) == request
        exchange.answer(answer)

    web.serve(handle)
    session.send_packet(RELAY_REQUEST, 0xFFFE, request)
    packet = session.read_packet()
    assert (packet.type, packet.id) == (RELAY_RESPONSE, 0xFFFE)
    assert packet.body == answer


def test_the_answer_carries_the_requests_id_and_no_reserve(session, web):
    session.send_packet(RELAY_REQUEST, 0x1234, REQUEST, reserve=0x5678)
    exchange = web.accept()
    exchange.read_exactly(len(REQUEST))
    exchange.answer(b"ok")
    assert session.read_exactly(14) == bytes.fromhex("b00b 0004 1234 0000 00000002") + b"ok"


def test_an_answer_that_dribs_in_goes_out_as_one_packet(session, web):
    answer = some_bytes(3000)
    exchange = send_request(session, web, 5)
    exchange.dribble(answer, size=500, pause=0.3)
    exchange.close()
    assert session.read_packet().body == answer


def test_a_request_that_dribs_in_reaches_the_web_server_piece_by_piece(session, web):
    request = some_bytes(2000)
    session.send(header(RELAY_REQUEST, 6, len(request)))
    exchange = web.accept()
    session.dribble(request, size=100, pause=0.01)
    assert exchange.read_exactly(len(request)) == request
    exchange.answer(b"ok")
    assert session.read_packet().id == 6


def test_a_web_server_that_closes_without_a_byte_is_answered_by_an_empty_packet(session, web):
    carry(session, web, answer=b"")


def test_a_request_without_body_waits_for_an_answer_like_any_other(daemon, session, web):
    session.send_packet(RELAY_REQUEST, 9)
    exchange = web.accept()
    daemon.log.expect_all("Ensure 0 != pRemoteMqNode->reqDataLen failed.",
                          "[CRC:] Send remote request to web-server successfully.")
    exchange.expect_nothing_more()
    exchange.answer(b"unasked")
    assert session.read_packet().body == b"unasked"


def test_the_road_of_a_request_is_logged(daemon, session, web):
    carry(session, web, answer=b"12345678")
    entries = daemon.log.expect_all(
        "[CRC:] cloud request recv", "start handle, ret 0.", "start handle insert,.",
        "[CRC:] Insert remote requset to queue ok.",
        f"=======CRC -> HTTPD: {len(REQUEST)}B", "Send pkt to web-server, ret 0.",
        "[CRC:] Send remote request to web-server successfully.",
        "=======HTTPD -> CRC: 20B.")
    assert {entry.level for entry in entries} == {"info"}
    assert {entry.thread for entry in entries} == {"cycleHnd_0"}


def test_the_connection_to_the_web_server_is_made_anew_for_each_request(daemon, session, web):
    before = daemon.descriptors()
    for number in range(20):
        carry(session, web, number)
    wait_until(lambda: daemon.descriptors() == before, "every web socket is closed again")


# --- many at once ---

@pytest.mark.lasts(3)
@pytest.mark.parametrize("kind", [RELAY_REQUEST, QUIET_RELAY_REQUEST])
def test_sixty_overlapping_requests_are_all_answered_under_their_ids(session, web, kind):
    count = 60
    requests = {0x1000 + number: some_bytes(200 + number, number) for number in range(count)}
    for number, body in requests.items():
        session.send_packet(kind, number, body)
    exchanges = [web.accept() for _ in requests]
    bodies = [exchange.read_exactly(len(body))
              for exchange, body in zip(exchanges, requests.values())]
    assert bodies == list(requests.values())
    order = list(zip(exchanges, bodies))
    random.Random(7).shuffle(order)
    for exchange, body in order:
        exchange.answer(body[::-1])
    answers = {(packet := session.read_packet()).id: packet.body for _ in requests}
    assert answers == {number: body[::-1] for number, body in requests.items()}


def test_a_slow_answer_does_not_hold_up_a_quick_one(session, web):
    session.send_packet(RELAY_REQUEST, 1, REQUEST)
    slow = web.accept()
    quick = send_request(session, web, 2)
    quick.answer(b"quick")
    assert session.read_packet(within=2 * slowness()).id == 2
    slow.answer(b"slow")
    assert session.read_packet().id == 1


def test_requests_keep_coming_while_answers_go_out(session, web):
    count = 200

    def handle(exchange):
        exchange.answer(exchange.read_exactly(64)[::-1])

    web.serve(handle)
    bodies = {number: some_bytes(64, number) for number in range(count)}

    def send_all():
        for number, body in bodies.items():
            session.send_packet(RELAY_REQUEST, number, body)

    sender = threading.Thread(target=send_all)
    sender.start()
    answers = {(packet := session.read_packet()).id: packet.body for _ in bodies}
    sender.join()
    assert answers == {number: body[::-1] for number, body in bodies.items()}


# --- where the web server is ---

def test_the_port_is_read_for_every_request(session, web, router):
    carry(session, web)
    with WebServer() as moved:
        router.set_web_port(moved.port)
        carry(session, moved)


@pytest.mark.parametrize("text", ["0", "http", " ", "-0"])
def test_a_port_option_that_is_no_number_means_port_80(session, router, text):
    router.set_web_port(text)
    with WebServer(port=80) as web:
        carry(session, web)


def test_a_missing_configuration_file_means_port_80(daemon, session):
    with WebServer(port=80) as web:
        carry(session, web)
    entry = daemon.log.expect(
        "readUCI(system.service_port.http_port) failed. Use default port 80.")
    assert entry.level == "error"


def test_a_missing_option_means_port_80(daemon, session, router):
    router.configure("system", "config service 'service_port'\n\toption other '1'\n")
    with WebServer(port=80) as web:
        carry(session, web)
    daemon.log.expect("readUCI(system.service_port.http_port) failed. Use default port 80.")


def test_a_port_option_longer_than_its_buffer_does_no_harm(daemon, session, router, web):
    router.set_web_port("0" * 500)
    with WebServer(port=80) as default:
        carry(session, default)
    router.set_web_port(web.port)
    carry(session, web)
    assert daemon.alive


def test_the_web_server_may_listen_on_any_local_address(session, router):
    with WebServer(address="0.0.0.0") as web:
        router.set_web_port(web.port)
        carry(session, web)


@pytest.mark.parametrize("size", [0, 1000, 3_000_000])
def test_a_real_web_server_answers_through_the_relay_as_it_does_directly(
        session, router, places, tmp_path, size):
    folder = tmp_path / "www"
    folder.mkdir()
    (folder / "page.bin").write_bytes(some_bytes(size))
    request = b"GET /page.bin HTTP/1.1\r\nHost: router\r\nConnection: close\r\n\r\n"
    with Lighttpd(folder, tmp_path) as server:
        router.set_web_port(server.port)
        session.send_packet(RELAY_REQUEST, 1, request)
        through_relay = without_date(session.read_packet().body)
        assert through_relay == without_date(server.fetch(request))
    assert through_relay.startswith(b"HTTP/1.1 200 OK\r\n")
    assert through_relay.endswith(b"\r\n\r\n" + some_bytes(size))


def without_date(answer):
    head, _, body = answer.partition(b"\r\n\r\n")
    lines = [line for line in head.split(b"\r\n") if not line.startswith(b"Date:")]
    return b"\r\n".join(lines) + b"\r\n\r\n" + body
