"""Requests that carry their identity: who mixes them up, halves or repeats one is found out.

A request's path says its name and all that is expected of it; both bodies begin with the name and
go on with bytes that the name chooses. So the user knows every byte of the answer, and the web
server every byte of the upload, without having heard of each other.

    web = IdentifiedWeb(Ledger())                    # on the router
    with User(("127.0.0.1", port), host) as user:    # at the relay's front
        outcome = user.ask(Request("round-7", upload=100, answer=5000, framing=CHUNKED))
"""

import contextlib
import hashlib
import random
import re
import socket
import threading
import zlib
from collections import Counter
from dataclasses import dataclass

from processes import PATIENCE_S

COUNTED, UNTIL_CLOSE, CHUNKED = "counted", "until-close", "chunked"
FRAMINGS = (COUNTED, UNTIL_CLOSE, CHUNKED)

# What became of a request, as its user sees it.
RIGHT, REFUSED, CUT, WRONG = "right", "refused", "cut", "wrong"

_POOL_SIZE = 4 << 20
_POOL = random.Random(20).randbytes(_POOL_SIZE) * 2
_PIECE = 1 << 18
_HEAD_LIMIT = 1 << 16
_TARGET = re.compile(r"/(?P<name>[^/]+)/(?P<upload>\d+)/(?P<answer>\d+)/(?P<framing>[a-z-]+)$")


def body_of(name, size):
    """The `size` bytes, at most 4 MiB, that belong to `name`."""
    assert size <= _POOL_SIZE
    start = zlib.crc32(name.encode()) % _POOL_SIZE
    return (name.encode() + b"\n" + _POOL[start:start + size])[:size]


@dataclass(frozen=True)
class Request:
    """`upload`: bytes of its body, None for a GET. `answer`: bytes of the answer's body."""
    name: str
    upload: int | None = None
    answer: int = 0
    framing: str = COUNTED

    def body(self):
        return body_of(f"{self.name}^", self.upload or 0)

    def encode(self, host, keeps=False):
        head = (f"{'GET' if self.upload is None else 'POST'} /{self.name}/{self.upload or 0}/"
                f"{self.answer}/{self.framing} HTTP/1.1\r\nHost: {host}\r\n"
                f"Connection: {'keep-alive' if keeps else 'close'}\r\n")
        if self.upload is not None:
            head += f"Content-Length: {self.upload}\r\n"
        return head.encode() + b"\r\n" + self.body()


@dataclass(frozen=True)
class Outcome:
    """RIGHT: 200, whole, the request's own. REFUSED: a whole page with an error status. CUT: the
    connection ended in the answer's body, before the end that its head announces. WRONG: the rest.
    """
    kind: str
    status: int = 0
    why: str = ""


class _Ended(Exception):
    """The peer hung up; carries whether any byte of what was read had come."""


class _Stream:
    """A connection, read in pieces as HTTP wants them."""

    def __init__(self, connection):
        self._connection = connection
        self._unread = b""

    def _more(self):
        piece = self._connection.recv(_PIECE)
        if not piece:
            raise _Ended(bool(self._unread))
        return piece

    def until(self, end):
        """The bytes up to and without `end`, which is taken, too."""
        while (at := self._unread.find(end)) < 0:
            assert len(self._unread) < _HEAD_LIMIT, "a line or head without end"
            self._unread += self._more()
        found, self._unread = self._unread[:at], self._unread[at + len(end):]
        return found

    def exactly(self, count):
        if len(self._unread) >= count:
            found, self._unread = self._unread[:count], self._unread[count:]
            return found
        pieces, count = [self._unread], count - len(self._unread)
        self._unread = b""
        while count > 0:
            piece = self._more()
            pieces.append(piece[:count])
            self._unread = piece[count:]
            count -= len(pieces[-1])
        return b"".join(pieces)

    def chunks(self):
        pieces = []
        while size := int(self.until(b"\r\n"), 16):
            pieces.append(self.exactly(size))
            assert self.exactly(2) == b"\r\n", "a chunk is longer than its size"
        assert self.exactly(2) == b"\r\n", "there is more behind the last chunk"
        return b"".join(pieces)

    def body(self, headers):
        if b"transfer-encoding" in headers:
            return self.chunks()
        return self.exactly(int(headers.get(b"content-length", 0)))


def _parse_head(head):
    """First line, and the headers by their names in lower case."""
    first, *lines = head.split(b"\r\n")
    headers = {}
    for line in lines:
        name, _, value = line.partition(b":")
        headers[name.lower()] = value.strip()
    return first, headers


# --- the user ------------------------------------------------------------------------------------


class User:
    """Asks on one connection as long as it stands, and on another one then."""

    def __init__(self, address, host, patience_s=PATIENCE_S):
        self._address, self._host, self._patience_s = address, host, patience_s
        self._connection = None

    def close(self):
        if self._connection:
            self._connection.close()
            self._connection = None

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def ask(self, request, keeps=False):
        """`keeps`: the connection is to stand for a next request."""
        if self._connection is None:
            self._connect()
        try:
            outcome, stands = self._exchange(request, keeps)
        except TimeoutError:
            outcome, stands = Outcome(WRONG, why=f"no end within {self._patience_s} s"), False
        except AssertionError as failure:
            outcome, stands = Outcome(WRONG, why=str(failure)), False
        if not (keeps and stands):
            self.close()
        return outcome

    def _connect(self):
        self._connection = socket.create_connection(self._address, self._patience_s)
        self._connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self._stream = _Stream(self._connection)

    def _exchange(self, request, keeps):
        with contextlib.suppress(ConnectionError):  # an answer may have come nevertheless
            self._connection.sendall(request.encode(self._host, keeps))
        try:
            first, headers = _parse_head(self._stream.until(b"\r\n\r\n"))
        except (_Ended, ConnectionError):
            return Outcome(WRONG, why="the connection ended without a response"), False
        status = int(first.split()[1])
        try:
            body = self._stream.body(headers)
        except (_Ended, ConnectionError):
            return Outcome(CUT, status), False
        return self._judge(request, status, headers, body), headers.get(b"connection") != b"close"

    @staticmethod
    def _judge(request, status, headers, body):
        if status >= 400:
            return Outcome(REFUSED, status)
        named = headers.get(b"x-name", b"").decode()
        if named != request.name:
            return Outcome(WRONG, status, f"the answer to {named!r} came to {request.name!r}")
        taken = headers.get(b"x-taken", b"").decode()
        if taken != hashlib.sha256(request.body()).hexdigest():
            return Outcome(WRONG, status, "the web server took another body than was sent")
        expected = hashlib.sha256(body_of(request.name, request.answer)).digest()
        if hashlib.sha256(body).digest() != expected:
            return Outcome(WRONG, status, f"of {request.answer} bytes {len(body)} came, "
                           f"beginning with {body[:40]!r}")
        return Outcome(RIGHT, status)


# --- the web server ------------------------------------------------------------------------------


class Ledger:
    """What the web server has executed. Safe to use from any thread."""

    def __init__(self):
        self._lock = threading.Lock()
        self._executed = Counter()
        self._wrongs = []
        self.halves = 0  # requests that ended early, and were not executed

    def execute(self, name):
        with self._lock:
            self._executed[name] += 1

    def times(self, name):
        with self._lock:
            return self._executed[name]

    def repeated(self):
        """Names that were executed more than once."""
        with self._lock:
            return [name for name, times in self._executed.items() if times > 1]

    def note_wrong(self, what):
        with self._lock:
            self._wrongs.append(what)

    def take_wrongs(self):
        """What was wrong with requests since the last call."""
        with self._lock:
            wrongs, self._wrongs = self._wrongs, []
            return wrongs


@dataclass
class Answer:
    """What is about to leave; for whoever wants it spoilt."""
    name: str
    taken: str  # hash of the upload
    body: bytes
    framing: str

    def encode(self):
        head = f"HTTP/1.1 200 OK\r\nX-Name: {self.name}\r\nX-Taken: {self.taken}\r\n"
        if self.framing == COUNTED:
            head += f"Content-Length: {len(self.body)}\r\n"
        if self.framing != CHUNKED:
            return head.encode() + b"\r\n" + self.body
        half = len(self.body) // 2
        chunks = [piece for piece in (self.body[:half], self.body[half:]) if piece]
        return (f"{head}Transfer-Encoding: chunked\r\n\r\n".encode() +
                b"".join(b"%x\r\n%s\r\n" % (len(piece), piece) for piece in chunks) + b"0\r\n\r\n")


def take_request(connection, ledger):
    """Reads a request and executes it; its answer, or None when the request is not whole."""
    stream = _Stream(connection)
    try:
        first, headers = _parse_head(stream.until(b"\r\n\r\n"))
        body = stream.body(headers)
    except (_Ended, ConnectionError, TimeoutError):
        ledger.halves += 1
        return None
    asked = _TARGET.match(first.split()[1].decode())
    name, upload = asked["name"], int(asked["upload"])
    if body != body_of(f"{name}^", upload):
        ledger.note_wrong(f"the upload of {name}: of {upload} bytes {len(body)} came for whole")
    ledger.execute(name)
    return Answer(name, hashlib.sha256(body).hexdigest(), body_of(name, int(asked["answer"])),
                  asked["framing"])


class IdentifiedWeb:
    """The router's web server, a thread for each connection. `spoil(answer)` may change an answer.
    Use it as a context manager."""

    def __init__(self, ledger, spoil=None):
        self._ledger, self._spoil = ledger, spoil
        self._listener = socket.create_server(("127.0.0.1", 0), backlog=128)
        self.port = self._listener.getsockname()[1]

    def __enter__(self):
        threading.Thread(target=self._serve, daemon=True).start()
        return self

    def __exit__(self, *_):
        with contextlib.suppress(OSError):
            self._listener.shutdown(socket.SHUT_RDWR)  # wakes the accept() under way
        self._listener.close()

    def _serve(self):
        while True:
            try:
                connection, _ = self._listener.accept()
            except OSError:
                return  # closed
            threading.Thread(target=self._handle, args=(connection,), daemon=True).start()

    def _handle(self, connection):
        connection.settimeout(PATIENCE_S)
        with connection:
            answer = take_request(connection, self._ledger)
            if answer and self._spoil:
                self._spoil(answer)
            if answer:
                with contextlib.suppress(OSError):  # the daemon gave it up
                    connection.sendall(answer.encode())
