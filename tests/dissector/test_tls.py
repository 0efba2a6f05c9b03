"""Packets in TLS, its records and their segments cut as the network might."""

import pytest

from certificates import Authority
from recording import TlsConnection
from relay_peer import HEARTBEAT, HELLO, RELAY_RESPONSE, Packet

PORT = ("-o", "cloud_relay.port:51000")
HELLO_PACKET = Packet(HELLO, 0, b'{"deviceId":"D"}').encode()
LARGE = Packet(RELAY_RESPONSE, 5, b"HTTP/1.0 200 OK\r\n\r\n" + bytes(40000)).encode()


def records_of(data, size):
    return [data[at:at + size] for at in range(0, len(data), size)]


@pytest.fixture
def keys(tmp_path):
    return tmp_path / "keys"


@pytest.fixture
def session(connection, tmp_path, keys):
    authority = Authority(tmp_path / "authority")
    return TlsConnection(connection, authority.certificate(), keys)


@pytest.fixture
def show(tshark, recording, keys):
    """The summary of what was recorded, once as tshark sees it and once as a window does."""
    def shown(*arguments, passes=("", "-2")):
        told = ["-o", f"tls.keylog_file:{tshark.lent(keys)}", *arguments]
        views = [tshark.summary(tshark.written(recording), *told, *filter(None, [number]))
                 for number in passes]
        assert all(view == views[0] for view in views)
        return views[0]
    return shown


def test_records_that_are_cut_into_segments_are_put_together(session, show):
    session.device(HELLO_PACKET, largest=7)
    session.device(*records_of(LARGE, 16384), largest=1460)
    assert show(*PORT) == ["Hello, JavaScript Object Notation",
                           "Relay response, ID 0x0005: HTTP/1.0 200 OK"]


def test_a_first_packet_that_comes_in_many_records_is_found_on_the_port_that_is_told(session, show):
    session.device(*records_of(HELLO_PACKET, 5))
    session.relay(Packet(HEARTBEAT, 1).encode())
    assert show(*PORT) == ["Hello, JavaScript Object Notation", "Heartbeat, ID 0x0001"]


def test_without_the_port_one_pass_finds_packets_by_their_looks(session, show):
    session.device(HELLO_PACKET, *records_of(LARGE, 16384))
    assert show(passes=[""]) == ["Hello, JavaScript Object Notation",
                                 "Relay response, ID 0x0005: HTTP/1.0 200 OK"]
