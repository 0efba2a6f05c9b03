"""How the daemon finds and trusts its relay."""

import errno
import os
import re
import socket
import ssl
import time

import pytest

import namespaces
from daemon import slowness
from relay_peer import DeafListener, Relay, refusing_port
from router import ROOT_CERTIFICATE

TLS_BUDGET_S = 35
TCP_WAIT_S = 5


def expect_unreachable(daemon, within=15):
    """The attempt fails for good, and the daemon is idle again."""
    *_, end = daemon.log.expect_all("[CRC:] Fail to connect the defaultSvr, result:9",
                                    "E - 9 call cloud_session_connect(cycle) failed.",
                                    "[CRC:] CloudRelayClient task exit.", within=within)
    begun = [entry.thread for entry in daemon.log.find("[CRC:] begin cycle loop")]
    assert end.thread not in begun


# --- the road to a session ---

def test_the_road_to_a_session_is_logged(daemon, relay):
    daemon.open_session(relay)
    here = f"{relay.address}:{relay.port}"
    entries = daemon.log.expect_all(
        "[CRC:] Start cloudRelayClient task.",
        f"[CRC:] Connect relay-server use [{here}]",
        f"[CRC:] Connect [{here}] successfully",
        f"[CRC:] connect socket. use IP {relay.address}, port {relay.port}.",
        f"[CRC:] begin to connect the socket, ip:{relay.address}, port:{relay.port}",
        "[CRC:] tcp connect to the server success",
        "[CRC:] socket connect select device successfully",
        f"[CRC:] SSL connect to the server success, ip:{relay.address}, port:{relay.port}",
        f"[CRC:] Connect relay-server successfully, use [{here}]",
        "[CRC:] begin cycle loop")
    assert entries[1].thread == "cycleHnd_0" and entries[0].thread == "main"
    assert entries[-1].function == "cloud_cycle_start"
    assert not daemon.log.errors()


def test_the_certificates_path_is_logged_before_it_is_read(daemon, relay):
    daemon.open_session(relay)
    (entry,) = [entry for entry in daemon.log.entries if entry.text.startswith("[CRC:] ctx:")]
    assert entry.text.endswith(", cerfile:/etc/cloud-sdk/velmora-root-CA.pem")


# --- trust ---

@pytest.mark.parametrize("kind", ["ec", "rsa"])
@pytest.mark.parametrize("version", [ssl.TLSVersion.TLSv1_2, ssl.TLSVersion.TLSv1_3],
                         ids=["TLS 1.2", "TLS 1.3"])
def test_either_tls_version_carries_a_session_with_either_key(
        daemon, places, authority, version, kind):
    with Relay(authority.certificate(kind=kind), version) as relay:
        session = daemon.open_session(relay)
        session.expect_served()


def test_the_certificates_name_is_not_compared_with_the_relays(daemon, authority, router):
    router.name_hosts({"relay.example": ["127.0.0.1"]})
    with Relay(authority.certificate("someone.else.example")) as relay:
        daemon.open_session(relay, "relay.example")


def expect_failed_tls(daemon, relay):
    with pytest.raises((ssl.SSLError, ConnectionError, AssertionError)):
        relay.accept().expect_hello()
    daemon.log.expect_all(
        f"[CRC:] Fail to connect the server, ip:{relay.address}, port:{relay.port}",
        "[CRC:] begin to disconnect the socket", "[CRC:] Close the socket.",
        f"[CRC:] Connect [{relay.address} : {relay.port}] error")
    expect_unreachable(daemon)
    assert [text for text in daemon.log.errors() if text.startswith("[CRC:] ssl connect error")]


@pytest.mark.parametrize("version", [ssl.TLSVersion.TLSv1_2, ssl.TLSVersion.TLSv1_3],
                         ids=["TLS 1.2", "TLS 1.3"])
def test_a_relay_certified_by_an_impostor_of_the_same_name_is_refused(daemon, impostor, version):
    with Relay(impostor.certificate(), version) as relay:
        daemon.reload(relay.address, relay.port)
        expect_failed_tls(daemon, relay)


def test_after_a_refused_certificate_an_honest_relay_is_accepted(daemon, relay, impostor):
    with Relay(impostor.certificate()) as false_relay:
        daemon.reload(false_relay.address, false_relay.port)
        expect_failed_tls(daemon, false_relay)
    daemon.open_session(relay)


@pytest.mark.parametrize("content", [None, b"", b"no certificate"], ids=["none", "empty", "junk"])
def test_without_a_root_certificate_no_relay_is_trusted(daemon, relay, router, content):
    if content is None:
        router.trust_nobody()
    else:
        ROOT_CERTIFICATE.write_bytes(content)
    daemon.reload(relay.address, relay.port)
    expect_failed_tls(daemon, relay)
    (load,) = [entry for entry in daemon.log.entries
               if entry.text.startswith("[CRC:] load cer file error, result:")]
    assert load.function == "cloud_socket_connect" and load.level == "error"


def test_the_root_certificate_is_read_anew_for_each_session(daemon, relay, router, authority):
    router.trust_nobody()
    daemon.reload(relay.address, relay.port)
    expect_failed_tls(daemon, relay)
    router.trust(authority)
    daemon.open_session(relay)


# --- names and addresses ---

def test_a_name_is_resolved_and_its_address_used(daemon, relay, router):
    router.name_hosts({"relay.example": ["127.0.0.1"]})
    daemon.open_session(relay, "relay.example")
    daemon.log.expect_all(f"[CRC:] Connect relay-server use [relay.example:{relay.port}]",
                          f"[CRC:] Connect [127.0.0.1:{relay.port}] successfully",
                          f"[CRC:] Connect relay-server successfully, use "
                          f"[relay.example:{relay.port}]")


@pytest.mark.parametrize("name", ["nowhere.example", "", "300.1.2.3", "a b", "::1"])
def test_a_name_that_does_not_resolve_fails_quickly(daemon, name):
    started = time.monotonic()
    daemon.reload(name, 443)
    failure = daemon.log.expect(re.compile(r"^\[CRC:\] Gethostbyname .* err, "))
    assert failure.text.startswith(f"[CRC:] Gethostbyname {name} err, ")
    expect_unreachable(daemon)
    assert time.monotonic() - started < 3 * slowness()


def test_the_next_address_is_tried_when_the_first_refuses(daemon, authority, router):
    router.name_hosts({"relay.example": ["127.0.0.2", "127.0.0.1"]})
    with Relay(authority.certificate()) as relay:
        daemon.open_session(relay, "relay.example")
        port = relay.port
        daemon.log.expect_all(
            f"[CRC:] Connect [127.0.0.2:{port}] successfully",
            f"[CRC:] Connect [127.0.0.2 : {port}] error",
            f"[CRC:] Connect [127.0.0.2:{port}] error",
            f"[CRC:] Connect [127.0.0.1:{port}] successfully",
            f"[CRC:] Connect relay-server successfully, use [relay.example:{port}]")


def test_the_next_address_is_tried_when_the_first_refuses_the_hello(
        daemon, authority, router):
    router.name_hosts({"relay.example": ["127.0.0.2", "127.0.0.1"]})
    with Relay(authority.certificate()) as good, Relay(
            authority.certificate(), listener=listener_at("127.0.0.2", good.port)) as grim:
        daemon.reload("relay.example", good.port)
        refused = grim.accept()
        refused.expect_hello()
        refused.answer_hello(7)
        good.accept().welcome()
        daemon.log.expect_all(f"[CRC:] Handshake [127.0.0.2 : {good.port}] error",
                              f"[CRC:] Connect [127.0.0.2:{good.port}] error",
                              f"[CRC:] Connect [127.0.0.1:{good.port}] successfully",
                              "[CRC:] begin cycle loop")


def listener_at(address, port):
    return socket.create_server((address, port), backlog=8)


def test_a_relay_that_refuses_everywhere_is_unreachable(daemon, router):
    router.name_hosts({"relay.example": ["127.0.0.2", "127.0.0.3"]})
    port = refusing_port()
    daemon.reload("relay.example", port)
    for address in ("127.0.0.2", "127.0.0.3"):
        daemon.log.expect_all(f"[CRC:] Connect [{address}:{port}] successfully",
                              f"[CRC:] Connect [{address} : {port}] error",
                              f"[CRC:] Connect [{address}:{port}] error")
    expect_unreachable(daemon)


def test_a_refused_connection_is_logged_with_its_cause(daemon):
    port = refusing_port()
    daemon.reload("127.0.0.1", port)
    daemon.log.expect(f"[CRC:] socket connect select device failed, errno:{errno.ECONNREFUSED}")
    expect_unreachable(daemon)


@pytest.mark.lasts(6)
def test_a_relay_that_does_not_answer_on_tcp_is_given_five_seconds(daemon, places):
    with DeafListener() as deaf:
        daemon.reload(deaf.address, deaf.port)
        begin = daemon.log.expect(
            f"[CRC:] begin to connect the socket, ip:{deaf.address}, port:{deaf.port}")
        end = daemon.log.expect("[CRC:] select error, result:0, errno:Connection timed out",
                                within=8 * slowness())
        assert TCP_WAIT_S - 0.1 < end.at - begin.at < TCP_WAIT_S + 1 * slowness()
        expect_unreachable(daemon)


@pytest.mark.lasts(38)
def test_a_relay_that_never_speaks_tls_is_given_thirty_five_seconds(daemon, relay):
    daemon.reload(relay.address, relay.port)
    with relay.accept_tcp():
        begin = daemon.log.expect("[CRC:] socket connect select device successfully")
        end = daemon.log.expect("[CRC:] ssl connect timeout",
                                within=TLS_BUDGET_S + 5 * slowness())
        assert TLS_BUDGET_S - 0.5 < end.at - begin.at < TLS_BUDGET_S + 2 * slowness()
        expect_unreachable(daemon)


def test_a_relay_that_speaks_something_else_than_tls_fails_at_once(daemon, relay):
    daemon.reload(relay.address, relay.port)
    with relay.accept_tcp() as connection:
        connection.sendall(b"HTTP/1.0 400 Bad Request\r\n\r\n" + os.urandom(64))
        daemon.log.expect(re.compile(r"^\[CRC:\] ssl connect error, err: -\d+$"))
        expect_unreachable(daemon)


def test_a_relay_that_hangs_up_before_tls_fails_at_once(daemon, relay):
    daemon.reload(relay.address, relay.port)
    relay.accept_tcp().close()
    expect_unreachable(daemon)
    assert daemon.alive


def test_a_failed_attempt_leaves_no_descriptor_behind(daemon, relay):
    before = daemon.descriptors()
    for _ in range(5):
        mark = daemon.log.mark()
        daemon.reload(relay.address, relay.port)
        relay.accept_tcp().close()
        daemon.log.expect("[CRC:] CloudRelayClient task exit.")
        assert daemon.log.count("[CRC:] Close the socket.", mark) == 1
    assert daemon.descriptors() == before


# --- several uplinks ---

@pytest.fixture
def uplinks(places):
    """Two ways out of the router; the relay's address lies behind the second one only."""
    first, second = namespaces.Uplink("wan0", 1, 10), namespaces.Uplink("wan1", 2, 20)
    try:
        first.refuse("10.99.0.1")
        second.host("10.99.0.1")
        yield first, second
    finally:
        first.remove()
        second.remove()


@pytest.fixture
def far_relay(authority, uplinks):
    with Relay(authority.certificate(), listener=uplinks[1].listen("10.99.0.1")) as relay:
        yield relay


def end_session(daemon, session):
    session.close()
    daemon.log.expect("[CRC:] CloudRelayClient task exit.")


def test_a_relay_behind_the_second_uplink_is_reached_through_it(daemon, far_relay):
    session = daemon.open_session(far_relay)
    daemon.log.expect_all(
        "[CRC:] there is no reserve_gateway_device, try to find one!",
        "[CRC:] try device : wan1",
        "[CRC:] bind device successfully",
        "[CRC:] connect_nonblock successfully",
        "[CRC:] add reserve_gateway_device:wan1 to g_gateway_device_list",
        "[CRC:] tcp connect to the server success",
        "[CRC:] begin cycle loop")
    session.expect_served()


@pytest.mark.lasts(8)
def test_a_first_uplink_that_swallows_everything_costs_five_seconds(daemon, places, authority):
    first, second = namespaces.Uplink("wan0", 1, 10), namespaces.Uplink("wan1", 2, 20)
    try:
        second.host("10.99.0.1")
        with Relay(authority.certificate(), listener=second.listen("10.99.0.1")) as relay:
            daemon.open_session(relay).expect_served()
        begin, found = daemon.log.expect_all(
            f"[CRC:] begin to connect the socket, ip:10.99.0.1, port:{relay.port}",
            "[CRC:] add reserve_gateway_device:wan1 to g_gateway_device_list")
        assert TCP_WAIT_S - 0.1 < found.at - begin.at < TCP_WAIT_S + 1 * slowness()
    finally:
        first.remove()
        second.remove()


def test_devices_are_tried_from_the_last_in_the_table_to_the_first(
        daemon, far_relay, uplinks):
    third = namespaces.Uplink("wan2", 3, 30)
    try:
        third.refuse("10.99.0.1")
        assert gateway_devices() == ["wan0", "wan1", "wan2"]
        daemon.open_session(far_relay)
        tried = [entry.text for entry in daemon.log.entries
                 if entry.text.startswith("[CRC:] try device")]
        assert tried == ["[CRC:] try device : wan2", "[CRC:] try device : wan1"]
    finally:
        third.remove()


def gateway_devices():
    """Devices of the routing table's gateway rows, in its order."""
    with open("/proc/net/route", encoding="ascii") as table:
        rows = [line.split() for line in table][1:]
    return [row[0] for row in rows if int(row[2], 16) and int(row[3], 16) & 1]


def test_the_device_that_worked_is_tried_first_the_next_time(daemon, far_relay):
    end_session(daemon, daemon.open_session(far_relay))
    mark = daemon.log.mark()
    daemon.open_session(far_relay)
    daemon.log.expect_all("[CRC:] there is reserve_gateway_device: wan1",
                          "[CRC:] bind device successfully",
                          "[CRC:] socket connect select device successfully",
                          "[CRC:] begin cycle loop")
    assert not daemon.log.find("[CRC:] try device : wan1", mark)


def test_a_relay_that_the_plain_way_reaches_needs_no_device(daemon, uplinks, relay):
    daemon.open_session(relay)
    assert not daemon.log.find("[CRC:] there is no reserve_gateway_device, try to find one!")


def test_a_reserved_device_that_is_gone_is_forgotten(daemon, far_relay, uplinks):
    end_session(daemon, daemon.open_session(far_relay))
    _, second = uplinks
    second.cut()
    third, fourth = namespaces.Uplink("wan2", 3, 30), namespaces.Uplink("wan3", 4, 40)
    try:
        third.refuse("10.99.0.1")
        fourth.refuse("10.99.0.1")
        daemon.log.mark()
        daemon.reload(far_relay.address, far_relay.port)
        daemon.log.expect_all("[CRC:] there is reserve_gateway_device: wan1",
                              "[CRC:] bind device failed",
                              "[CRC:] connect_nonblock failed, clear the reserve_gateway_device")
        expect_unreachable(daemon, within=40)
        daemon.log.mark()
        daemon.reload(far_relay.address, far_relay.port)
        daemon.log.expect("[CRC:] there is no reserve_gateway_device, try to find one!")
        expect_unreachable(daemon, within=40)
    finally:
        third.remove()
        fourth.remove()


def test_a_reserved_device_that_no_longer_leads_there_is_forgotten(daemon, far_relay, uplinks):
    end_session(daemon, daemon.open_session(far_relay))
    far_relay.close()  # whoever connects there is refused from now on
    daemon.log.mark()
    daemon.reload(far_relay.address, far_relay.port)
    daemon.log.expect_all(
        "[CRC:] there is reserve_gateway_device: wan1",
        "[CRC:] bind device successfully",
        "[CRC:] connect_nonblock failed, clear the reserve_gateway_device!",
        "[CRC:] close the socket and init again!",
        "[CRC:] try device : wan1", "[CRC:] try device : wan0")
    expect_unreachable(daemon)


def test_with_a_single_uplink_a_failed_connect_fails_at_once(daemon, places):
    only = namespaces.Uplink("wan0", 1, 10)
    try:
        only.refuse("10.99.0.1")
        daemon.reload("10.99.0.1", 443)
        expect_unreachable(daemon)
        assert not [entry for entry in daemon.log.entries if "device :" in entry.text]
        assert not daemon.log.find("[CRC:] there is no reserve_gateway_device, try to find one!")
    finally:
        only.remove()


@pytest.mark.lasts(4)
def test_a_device_that_was_not_found_locks_nobody_out(daemon, uplinks, relay):
    for uplink in uplinks:
        uplink.refuse("10.99.0.2")
    for _ in range(3):
        daemon.log.mark()
        daemon.reload("10.99.0.2", 443)
        daemon.log.expect("[CRC:] there is no reserve_gateway_device, try to find one!")
        expect_unreachable(daemon, within=40)
    daemon.open_session(relay)
