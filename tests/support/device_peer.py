"""A device of relay_server, played by a test: a TLS client that does what it is told.

    device = Device(relay.device_port).join()      # TLS, hello, admitted
    request = device.expect_request()              # what a user asked for
    device.answer(request, http_answer(b"hello"))

Nothing happens by itself: every verb runs on the calling thread. serve() instead answers every
request from a thread of its own, for exchanges too many to be taken step by step.
"""

import json
import socket
import ssl
import struct
import threading
from dataclasses import dataclass

from processes import PATIENCE_S
from relay_peer import (HEARTBEAT, HELLO, RELAY_REQUEST, RELAY_RESPONSE, WEB_TOKEN, Closed, Packet,
                        Session)

DEVICE_ID = "0123456789ABCDEF0123456789ABCDEF01234567"
MAC = "AABBCCDDEEFF"
FIRMWARE = "FW0123456789ABCDEF"
TOKEN = "0f1e2d3c4b5a69788796a5b4c3d2e1f00123456789"

_APPLICATION_DATA = 23


def hello_of(device_id=DEVICE_ID, mac=MAC, firmware=FIRMWARE, token=TOKEN):
    """A hello's members, as a device names them."""
    return {"deviceId": device_id, "deviceMac": mac, "firmwareId": firmware, "token": token}


def http_answer(body=b"hello", status="200 OK", headers=(), version="HTTP/1.1"):
    """A web server's answer with its length."""
    lines = [f"{version} {status}", *headers, f"Content-Length: {len(body)}", "", ""]
    return "\r\n".join(lines).encode() + body


@dataclass
class Request:
    """A user's HTTP request as the device got it."""
    id: int
    raw: bytes

    @property
    def head(self):
        """Request line and header lines, without the empty one."""
        return self.raw.partition(b"\r\n\r\n")[0].decode("latin-1").split("\r\n")

    @property
    def line(self):
        return self.head[0]

    @property
    def headers(self):
        """Names and values in their order, as they stand there."""
        return [tuple(line.split(": ", 1)) for line in self.head[1:]]

    @property
    def body(self):
        return self.raw.partition(b"\r\n\r\n")[2]

    def values(self, name):
        """All values of a header, whatever the case of its name."""
        return [value for each, value in self.headers if each.lower() == name.lower()]


def _context(version=None):
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    context.check_hostname = False
    context.verify_mode = ssl.CERT_NONE
    if version:
        context.set_ciphers("DEFAULT:@SECLEVEL=0")  # below, version 1.1 is not even offered
        context.minimum_version = context.maximum_version = version
    return context


class Device(Session):
    """One connection of a device. TLS stands when it is made; nothing has been said."""

    def __init__(self, port, device_id=DEVICE_ID, version=None, receive_buffer=None,
                 source="127.0.0.1", lead=b""):
        """`version`: the only ssl.TLSVersion to offer. `receive_buffer`: bytes the system keeps.
        `source`: the address it comes from. `lead`: bytes in front of TLS, in one segment with its
        first ones."""
        self.id = device_id
        self._record_bytes = bytearray()
        self._requests = []
        connection = socket.socket()
        if receive_buffer:
            connection.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        connection.settimeout(PATIENCE_S)
        connection.bind((source, 0))
        connection.connect(("127.0.0.1", port))
        connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        connection.send(lead, socket.MSG_MORE)
        super().__init__(connection, _context(version), server_side=False)
        self._record_bytes.clear()

    def _receive(self):
        data = super()._receive()
        self._record_bytes += data
        return data

    @property
    def tls_version(self):
        return self._tls.version()

    def relay_certificate(self):
        """What the relay showed, as DER."""
        return self._tls.getpeercert(binary_form=True)

    def data_records(self):
        """Sizes of the TLS records of data that have arrived since the last call."""
        sizes, rest = [], bytes(self._record_bytes)
        while len(rest) >= 5 and len(rest) >= 5 + struct.unpack_from(">H", rest, 3)[0]:
            kind, size = rest[0], struct.unpack_from(">H", rest, 3)[0]
            sizes += [size] if kind == _APPLICATION_DATA else []
            rest = rest[5 + size:]
        self._record_bytes[:] = rest
        return sizes

    # --- verbs of the protocol ---

    def say_hello(self, members=None):
        """`members`: a table, or the very text to send."""
        members = hello_of(self.id) if members is None else members
        text = members if isinstance(members, (bytes, str)) else json.dumps(members)
        self.send_packet(HELLO, 0, text if isinstance(text, bytes) else text.encode())

    def hello_reply(self, within=PATIENCE_S):
        """The relay's err_code."""
        packet = self.read_packet(within)
        assert (packet.type, packet.id) == (HELLO, 0), f"{packet} answers no hello"
        reply = json.loads(packet.body)
        assert list(reply) == ["err_code"]
        return reply["err_code"]

    def join(self, members=None):
        """Says hello and is admitted."""
        self.say_hello(members)
        assert self.hello_reply() == 0
        return self

    def beat(self, number=1):
        """A heartbeat and its reply."""
        self.send_packet(HEARTBEAT, number)
        packet = self.read_packet()
        assert packet == Packet(HEARTBEAT, number), f"{packet} answers no heartbeat {number}"

    def expect_request(self, within=PATIENCE_S):
        packet = self.read_packet(within)
        assert packet.type == RELAY_REQUEST and packet.reserve == 0, f"{packet} is no request"
        return Request(packet.id, packet.body)

    def expect_token_request(self):
        packet = self.read_packet()
        assert packet.type == WEB_TOKEN, f"{packet} asks for no token"
        return Request(packet.id, packet.body)

    def answer(self, request, answer=None):
        self.send_packet(RELAY_RESPONSE, request.id, http_answer() if answer is None else answer)

    def answer_token(self, request, body):
        self.send_packet(WEB_TOKEN, request.id, body)

    def serve(self, handler):
        """Answers every further request with what `handler(request)` returns, until the end."""
        threading.Thread(target=self._serve, args=(handler,), daemon=True).start()
        return self

    def _serve(self, handler):
        try:
            while True:
                request = self.expect_request(within=3600)
                self.answer(request, handler(request))
        except (Closed, OSError, ValueError):
            return  # the last one: the test has closed it here

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.abandon()
