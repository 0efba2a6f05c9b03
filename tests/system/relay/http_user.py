"""A user's connection to relay_server, byte by byte.

    user = User(relay)
    user.ask("/index.html")
    response = user.read()
"""

import socket
import ssl
from dataclasses import dataclass

from device_peer import DEVICE_ID
from processes import PATIENCE_S
from relay_peer import is_readable, reset


@dataclass
class Response:
    """A response, its framing checked and taken off the body."""
    version: str
    status: int
    reason: str
    headers: list  # names and values in their order
    body: bytes
    keeps_open: bool  # another response can follow

    def values(self, name):
        return [value for each, value in self.headers if each.lower() == name.lower()]


class User:
    """Use it as a context manager, or call close()."""

    def __init__(self, relay, device_id=DEVICE_ID, receive_buffer=None, source="127.0.0.1",
                 lead=b""):
        """`receive_buffer`: bytes the system keeps. `source`: the address he comes from. `lead`:
        bytes in front of TLS or HTTP, in one segment with the first of those."""
        self._relay = relay
        self.host = relay.host(device_id)
        self.socket = socket.socket()
        if receive_buffer:
            self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        self.socket.settimeout(PATIENCE_S)
        self.socket.bind((source, 0))
        self.socket.connect(("127.0.0.1", relay.front_port))
        self.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.socket.send(lead, socket.MSG_MORE)
        if relay.front_is_tls:
            context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
            context.check_hostname = False
            context.verify_mode = ssl.CERT_NONE
            self.socket = context.wrap_socket(self.socket)
        self._input = self.socket.makefile("rb")

    def send(self, data):
        self.socket.sendall(data if isinstance(data, bytes) else data.encode("latin-1"))

    def head(self, target="/", method="GET", headers=(), version="HTTP/1.1"):
        lines = [f"{method} {target} {version}", f"Host: {self.host}", *headers, "", ""]
        return "\r\n".join(lines).encode("latin-1")

    def ask(self, target="/", method="GET", headers=(), body=None, version="HTTP/1.1"):
        """Sends a request, a body with its length."""
        length = [] if body is None else [f"Content-Length: {len(body)}"]
        self.send(self.head(target, method, [*headers, *length], version) + (body or b""))

    # --- reading ---

    def _line(self):
        line = self._input.readline(65536)
        assert line.endswith(b"\r\n"), f"the relay's line ends early: {line!r}"
        return line[:-2].decode("latin-1")

    def _exactly(self, count):
        data = self._input.read(count)
        assert len(data) == count, f"the body ends {count - len(data)} bytes early"
        return data

    def _chunks(self):
        body = bytearray()
        while size := int(self._line(), 16):
            body += self._exactly(size)
            assert self._line() == ""
        assert self._line() == ""
        return bytes(body)

    def read_head(self):
        version, status, reason = self._line().split(" ", 2)
        headers = []
        while line := self._line():
            headers.append(tuple(line.split(": ", 1)))
        response = Response(version, int(status), reason, headers, b"", True)
        response.keeps_open = response.values("Connection") != ["close"]
        return response

    def read(self, method="GET"):
        """The next response."""
        response = self.read_head()
        lengths, codings = response.values("Content-Length"), response.values("Transfer-Encoding")
        assert len(lengths) + len(codings) <= 1 or method == "HEAD", response.headers
        if method == "HEAD" or response.status in (204, 304) or response.status < 200:
            pass
        elif codings:
            assert codings == ["chunked"]
            response.body = self._chunks()
        elif lengths:
            response.body = self._exactly(int(lengths[0]))
        else:
            assert not response.keeps_open, "the end of the body cannot be told"
            response.body = self._input.read()
        return response

    def expect(self, status, method="GET"):
        response = self.read(method)
        assert response.status == status, f"{response.status}: {response.body!r}"
        return response

    def read_rest(self):
        """All bytes until the relay hangs up."""
        try:
            return self._input.read()
        except ConnectionResetError:
            return b""

    def expect_closed(self):
        rest = self.read_rest()
        assert rest == b"", f"the relay sent {rest[:200]!r} instead of hanging up"

    def expect_nothing_for(self, seconds):
        assert not is_readable(self.socket, seconds), "there is something to read"

    # --- ends ---

    def end_output(self):
        self.socket.shutdown(socket.SHUT_WR)

    def reset(self):
        self._input.close()
        reset(self.socket)

    def close(self):
        self._input.close()
        self.socket.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()
