"""The cloud relay, played by a test: a TLS server on a real socket that does what it is told.

    relay = Relay(authority.certificate())
    session = relay.accept()                 # TCP and TLS
    hello = session.expect_hello()
    session.answer_hello()
    session.expect_heartbeat()
    session.send_packet(RELAY_REQUEST, 0x1234, b"GET / HTTP/1.0\\r\\n\\r\\n")
    answer = session.read_packet()

Nothing happens by itself: every verb runs on the calling thread and waits at most `within` seconds.
One thread may read a session while another one writes to it.
"""

import json
import os
import select
import socket
import ssl
import struct
import subprocess
import threading
import time
from dataclasses import dataclass

from processes import PATIENCE_S

MAGIC = 0xB00B
HEADER_SIZE = 12
RECORD_SIZE = 16384  # what one TLS record holds at most

HELLO = 1
HEARTBEAT = 2
RELAY_REQUEST = 3
RELAY_RESPONSE = 4
WEB_TOKEN = 5
QUIET_RELAY_REQUEST = 6


class Closed(Exception):
    """The daemon has ended the connection. Its text says how."""


class NothingCame(AssertionError):
    """The daemon sent nothing until the deadline."""


@dataclass
class Packet:
    """One relay packet."""
    type: int
    id: int = 0
    body: bytes = b""
    reserve: int = 0
    magic: int = MAGIC

    def encode(self):
        return header(self.type, self.id, len(self.body), self.reserve, self.magic) + self.body


def header(kind, number, body_size, reserve=0, magic=MAGIC):
    """The 12 bytes that open a packet, for bodies that never come or come in pieces."""
    return struct.pack(">HHHHI", magic, kind, number, reserve, body_size)


def is_readable(stream, within):
    """Whether there is something to read, or the end, within that many seconds."""
    poller = select.poll()  # unlike select() it takes descriptors of any number
    poller.register(stream, select.POLLIN)
    return bool(poller.poll(max(0, within) * 1000))


class Relay:
    """A listening relay. Use it as a context manager, or call close()."""

    def __init__(self, certificate, version=None, address="127.0.0.1", listener=None,
                 secrets=None):
        """`version`: the only ssl.TLSVersion to offer; 1.2 and 1.3 without it.
        `listener`: a listening socket to use instead of a new one at `address`.
        `secrets`: a file that gets the sessions' keys, for whoever records them."""
        self._context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        self._context.load_cert_chain(certificate.certificate, certificate.key)
        self._context.minimum_version = version or ssl.TLSVersion.TLSv1_2
        self._context.maximum_version = version or ssl.TLSVersion.TLSv1_3
        if secrets:
            self._context.keylog_filename = str(secrets)
        self._listener = listener or socket.create_server((address, 0), backlog=128)
        self.address, self.port = self._listener.getsockname()
        self._sessions = []

    def accept_tcp(self, within=PATIENCE_S):
        """The next TCP connection, not a byte of TLS spoken."""
        self._listener.settimeout(within)
        try:
            connection, _ = self._listener.accept()
        except TimeoutError:
            raise AssertionError(f"nobody connected within {within} s") from None
        connection.settimeout(None)
        connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        return connection

    def accept(self, within=PATIENCE_S):
        """The next connection, TLS established."""
        session = Session(self.accept_tcp(within), self._context, within)
        self._sessions.append(session)
        return session

    def is_called(self, within):
        """Whether somebody connects within that time; the connection is left unaccepted."""
        return is_readable(self._listener, within)

    def close(self):
        self._listener.close()
        for session in self._sessions:
            session.abandon()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()


class Session:
    """One TLS connection, from the relay's side; device_peer takes the other side.

    TLS runs over memory buffers, so that a test decides which bytes share a TLS record and which
    share a segment.
    """

    def __init__(self, connection, context, within=PATIENCE_S, server_side=True):
        self._connection = connection
        self._arrived = ssl.MemoryBIO()
        self._leaving = ssl.MemoryBIO()
        self._tls = context.wrap_bio(self._arrived, self._leaving, server_side)
        self._tls_lock = threading.Lock()    # the TLS state; never held while waiting
        self._order_lock = threading.Lock()  # keeps records in the order they were made
        self._wait_for(self._tls.do_handshake, within)

    # --- moving bytes ---

    def _run(self, operation):
        """Runs one TLS operation on what has arrived; None when it wants more."""
        with self._tls_lock:
            try:
                return operation()
            except ssl.SSLWantReadError:
                return None

    def _flush(self):
        if self._leaving.pending:
            with self._order_lock:
                self._connection.sendall(self._leaving.read())

    def _wait_for(self, operation, within):
        deadline = time.monotonic() + within

        def once():
            value = operation()
            return True if value is None else value

        while True:
            result = self._run(once)
            self._flush()
            if result is not None:
                return result
            self._take_in(deadline, within)

    def _take_in(self, deadline, within):
        if not is_readable(self._connection, deadline - time.monotonic()):
            raise NothingCame(f"the daemon sent nothing within {within} s")
        data = self._receive()
        with self._tls_lock:
            if data:
                self._arrived.write(data)
            else:
                self._arrived.write_eof()

    def _receive(self):
        """What has arrived, still encrypted."""
        return self._connection.recv(262144)

    # --- sending ---

    def send_record(self, data):
        """Sends `data` as one TLS record; whole packets, several packets or parts of one."""
        assert 0 < len(data) <= RECORD_SIZE
        with self._order_lock:
            self._run(lambda: self._tls.write(data))
            self._connection.sendall(self._leaving.read())

    def send(self, data):
        """Sends `data` in as few TLS records as it takes."""
        for start in range(0, len(data), RECORD_SIZE):
            self.send_record(data[start:start + RECORD_SIZE])

    def dribble(self, data, size=1, pause=0.0):
        """Sends `data` in TLS records of `size` bytes with a `pause` in seconds between them."""
        for start in range(0, len(data), size):
            self.send_record(data[start:start + size])
            time.sleep(pause)

    def send_split(self, data, at, pause):
        """Sends `data` as one TLS record whose own bytes come in two segments, cut at `at`."""
        with self._order_lock:
            self._run(lambda: self._tls.write(data))
            record = self._leaving.read()
            self._connection.sendall(record[:at])
            time.sleep(pause)
            self._connection.sendall(record[at:])

    def send_garbage(self, data):
        """Sends `data` on the TCP connection, outside of TLS."""
        with self._order_lock:
            self._connection.sendall(data)

    def send_packet(self, kind, number=0, body=b"", reserve=0):
        self.send(Packet(kind, number, body, reserve).encode())

    # --- receiving ---

    def read_some(self, within=PATIENCE_S, most=RECORD_SIZE):
        """The next bytes, however few. Raises Closed at the end of the connection."""
        try:
            data = self._wait_for(lambda: self._tls.read(most), within)
        except ssl.SSLEOFError:
            raise Closed("without goodbye") from None
        except ConnectionError as error:
            raise Closed("by reset") from error
        if not data:
            raise Closed("in order")
        return data

    def read_exactly(self, count, within=PATIENCE_S):
        deadline = time.monotonic() + within
        pieces = []
        while count > 0:
            pieces.append(self.read_some(deadline - time.monotonic(), min(count, RECORD_SIZE)))
            count -= len(pieces[-1])
        return b"".join(pieces)

    def read_header(self, within=PATIENCE_S):
        """What opens the next packet: type, ID, reserve, and how many bytes of body follow."""
        magic, kind, number, reserve, size = struct.unpack(
            ">HHHHI", self.read_exactly(HEADER_SIZE, within))
        assert magic == MAGIC, f"a packet opens with {magic:#06x}"
        return kind, number, reserve, size

    def read_packet(self, within=PATIENCE_S):
        """The next packet."""
        kind, number, reserve, size = self.read_header(within)
        return Packet(kind, number, self.read_exactly(size, within), reserve)

    def expect_silence(self, seconds):
        """Nothing comes from the daemon for that long, and the connection stays."""
        try:
            data = self.read_some(seconds)
        except NothingCame:
            return
        except Closed as closed:
            raise AssertionError(f"the daemon hung up {closed}") from None
        raise AssertionError(f"the daemon sent {data!r}")

    def expect_closed(self, within=PATIENCE_S):
        """The daemon ends the connection without another packet; returns how it did so."""
        try:
            data = self.read_some(within)
        except Closed as closed:
            return str(closed)
        raise AssertionError(f"the daemon sent {data!r} instead of closing")

    # --- verbs of the protocol ---

    def expect_hello(self, within=PATIENCE_S):
        """The hello packet; its JSON body as sent is in `body`."""
        packet = self.read_packet(within)
        assert packet.type == HELLO, f"{packet} is no hello"
        return packet

    def answer_hello(self, err_code=0):
        self.send_packet(HELLO, 0, json.dumps({"err_code": err_code}).encode())

    def expect_heartbeat(self, within=PATIENCE_S):
        packet = self.read_packet(within)
        assert packet.type == HEARTBEAT and packet.body == b"", f"{packet} is no heartbeat"
        return packet

    def answer_heartbeat(self, heartbeat):
        self.send_packet(HEARTBEAT, heartbeat.id)

    def welcome(self):
        """Goes through the handshake and the first heartbeat; the session is then idle."""
        self.expect_hello()
        self.answer_hello()
        self.answer_heartbeat(self.expect_heartbeat())
        return self

    def expect_served(self, number=0x4242):
        """The session does its work: a web token is asked for and comes."""
        self.send_packet(WEB_TOKEN, number, b"{}")
        reply = self.read_packet()
        assert (reply.type, reply.id) == (WEB_TOKEN, number), f"{reply} is no token"

    # --- ends ---

    def close(self):
        """Closes TLS and TCP in order."""
        with self._order_lock:
            try:
                self._run(self._tls.unwrap)
            except ssl.SSLError:
                pass  # the daemon's own goodbye, or bytes nobody read, came first
            try:
                self._connection.sendall(self._leaving.read())
            except ConnectionError:
                pass
        self._connection.close()

    def close_tls(self):
        """Says goodbye in TLS and leaves TCP open."""
        with self._order_lock:
            self._run(self._tls.unwrap)
            self._connection.sendall(self._leaving.read())

    def drop(self):
        """Closes TCP without a goodbye in TLS."""
        self._connection.shutdown(socket.SHUT_WR)
        self._connection.close()

    def reset(self):
        """Ends TCP with a reset, whatever is under way."""
        reset(self._connection)

    def abandon(self):
        self._connection.close()


def reset(connection):
    """Closes a socket with a reset instead of an orderly end."""
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    connection.close()


class OpensslRelay:
    """The openssl program as relay, for TLS 1.3 messages that Python cannot send: one connection,
    whose bytes the test writes and reads. Use it as a context manager."""

    def __init__(self, certificate):
        with socket.create_server(("127.0.0.1", 0)) as free:
            self.address, self.port = free.getsockname()
        self._program = subprocess.Popen(
            ["openssl", "s_server", "-accept", f"{self.address}:{self.port}", "-tls1_3",
             "-cert", certificate.certificate, "-key", certificate.key],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        self._received = bytearray()

    def send(self, data):
        """Sends `data`, which must not begin with a letter: the program would take an order."""
        self._program.stdin.write(data)
        self._program.stdin.flush()

    def update_keys(self, both_ways):
        """Sends a key update, with or without asking the device for one in turn."""
        self.send(b"K\n" if both_ways else b"k\n")

    def receive_until(self, expected, within=PATIENCE_S):
        """Reads on until `expected` has come."""
        deadline = time.monotonic() + within
        output = self._program.stdout
        while expected not in self._received:
            if not is_readable(output, deadline - time.monotonic()):
                raise NothingCame(f"{expected!r} did not come within {within} s")
            data = os.read(output.fileno(), 65536)
            assert data, f"openssl ended after {bytes(self._received)!r}"
            self._received += data
        end = self._received.index(expected) + len(expected)
        del self._received[:end]

    def __enter__(self):
        self.receive_until(b"ACCEPT")
        return self

    def __exit__(self, *_):
        status = self._program.poll()
        self._program.kill()
        self._program.wait()
        self._program.stdin.close()
        self._program.stdout.close()
        assert status is None, f"openssl ended by itself with {status}"


class DeafListener:
    """A port on which connecting never comes to an end: its queue is full and nobody accepts."""

    def __init__(self, address="127.0.0.1"):
        self._listener = socket.create_server((address, 0), backlog=0)
        self.address, self.port = self._listener.getsockname()
        self._fillers = []
        while self._takes_another():
            pass

    def _takes_another(self):
        filler = socket.socket()
        filler.setblocking(False)
        filler.connect_ex((self.address, self.port))
        self._fillers.append(filler)
        writable = select.select([], [filler], [], 0.2)[1]
        assert len(self._fillers) < 64, "the queue does not fill"
        return bool(writable)

    def close(self):
        for filler in self._fillers:
            filler.close()
        self._listener.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()


def refusing_port(address="127.0.0.1"):
    """A port that refuses connections: it was free a moment ago."""
    with socket.create_server((address, 0)) as listener:
        return listener.getsockname()[1]
