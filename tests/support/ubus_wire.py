"""The ubus wire in use: a client that speaks it, and an object owner to play services.

What messages are made of is in ubus_message, whose names are offered from here as well.
"""

import array
import queue
import socket
import threading
import time
from dataclasses import dataclass, field

from processes import PATIENCE_S, run_python_as
from ubus_message import (HEADER_SIZE, MAX_BODY, Attribute, Blobmsg, Message, Status, Type,
                          WireError, blob, decode, decode_table, encode_body, encode_field,
                          encode_table, message_size, signed_id, split_messages)

__all__ = [
    "HEADER_SIZE", "MAX_BODY", "EVENT_OBJECT", "SILENT",
    "Attribute", "Blobmsg", "Status", "Type", "Message", "WireError",
    "blob", "decode", "decode_table", "encode_body", "encode_field", "encode_table",
    "message_size", "signed_id", "split_messages",
    "Call", "Client", "Closed", "Connection", "Method", "Object", "ObjectOwner", "Refused",
    "connect_as", "status_of",
]

EVENT_OBJECT = 1  # the broker's own object for events


class Closed(Exception):
    """The peer has closed the connection."""


class Connection:
    """A connected unix socket that carries messages; the broker's end or the client's alike."""

    def __init__(self, sock):
        self.sock = sock
        self._rest = bytearray()

    def send(self, message):
        self.send_bytes(message.encode())

    def send_bytes(self, data, timeout_s=PATIENCE_S):
        self.sock.settimeout(timeout_s)
        try:
            self.sock.sendall(data)
        except (BrokenPipeError, ConnectionResetError) as error:
            raise Closed from error

    def send_with_descriptors(self, data, descriptors):
        rights = array.array("i", descriptors).tobytes()
        self.sock.sendmsg([data], [(socket.SOL_SOCKET, socket.SCM_RIGHTS, rights)])

    def receive(self, timeout_s=PATIENCE_S):
        """The next message. Raises Closed at the stream's end, TimeoutError at the deadline."""
        return decode(self.receive_raw(timeout_s))

    def receive_raw(self, timeout_s=PATIENCE_S):
        """The next message's bytes."""
        deadline = time.monotonic() + timeout_s
        while (size := message_size(self._rest)) is None or len(self._rest) < size:
            self._read_more(deadline)
        return self._take(size)

    def receive_bytes(self, count, timeout_s=PATIENCE_S):
        """The next `count` bytes, whatever they are."""
        deadline = time.monotonic() + timeout_s
        while len(self._rest) < count:
            self._read_more(deadline)
        return self._take(count)

    def receive_until_closed(self, timeout_s=PATIENCE_S):
        """All messages up to the end of the stream, as bytes each."""
        messages = []
        try:
            while True:
                messages.append(self.receive_raw(timeout_s))
        except Closed:
            return messages

    def _take(self, count):
        data = bytes(self._rest[:count])
        del self._rest[:count]
        return data

    def _read_more(self, deadline):
        left = deadline - time.monotonic()
        if left <= 0:
            raise TimeoutError
        self.sock.settimeout(left)
        try:
            data = self.sock.recv(65536)
        except ConnectionResetError as error:
            raise Closed from error
        if not data:
            raise Closed
        self._rest += data

    def close(self):
        self.sock.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()


# --- the client -------------------------------------------------------------------------------

@dataclass
class Object:
    """One object as LOOKUP lists it or ADD_OBJECT made it."""
    path: str
    id: int
    type: int | None
    signature: dict | None = None


class Refused(Exception):
    """A request ended with a status other than success."""

    def __init__(self, status):
        super().__init__(f"status {status}")
        self.status = status


def status_of(verb, *arguments, **options):
    """The status with which the request behind a verb of Client ends."""
    try:
        verb(*arguments, **options)
    except Refused as refused:
        return refused.status
    return Status.OK


class Client(Connection):
    """A client of the broker, for use by one thread.

    request() returns what the broker says, good or bad; the verbs after it raise Refused. Invokes
    and events that arrive meanwhile are kept for next_invoke().
    """

    def __init__(self, path, sock=None):
        """`sock`: an already connected socket to use, whose HELLO is still unread."""
        if sock is None:
            sock = socket.socket(socket.AF_UNIX)
            sock.connect(str(path))
        super().__init__(sock)
        hello = self.receive()
        if hello != Message(Type.HELLO, 0, hello.peer):
            raise WireError(f"{hello} is no HELLO")
        self.id = hello.peer
        self._seq = 0
        self._kept = []

    def post(self, kind, attributes=None, peer=0):
        """Sends a request without waiting; returns its seq."""
        self._seq = (self._seq + 1) & 0xFFFF
        self.send(Message(kind, self._seq, peer, attributes or {}))
        return self._seq

    def answer_to(self, seq, timeout_s=PATIENCE_S):
        """Waits for the STATUS to request `seq`; returns (DATA bodies before it, status)."""
        deadline = time.monotonic() + timeout_s
        bodies = []
        while True:
            message = self.receive(deadline - time.monotonic())
            if message.type == Type.INVOKE:
                self._kept.append(message)
            elif message.seq == seq and message.type == Type.DATA:
                bodies.append(message.body)
            elif message.seq == seq and message.type == Type.STATUS:
                return bodies, message.status
            else:
                raise WireError(f"{message} is no answer to request {seq}")

    def request(self, kind, attributes=None, peer=0, timeout_s=PATIENCE_S):
        return self.answer_to(self.post(kind, attributes, peer), timeout_s)

    def _must(self, kind, attributes=None, peer=0, timeout_s=PATIENCE_S):
        bodies, status = self.request(kind, attributes, peer, timeout_s)
        if status != Status.OK:
            raise Refused(status)
        return bodies

    def ping(self):
        """Proves that the broker serves this connection and has nothing else to say on it."""
        self._must(Type.PING)

    def lookup(self, path=None):
        """Objects at `path`, a prefix when it ends in "*"; all objects without."""
        bodies = self._must(Type.LOOKUP, {Attribute.OBJPATH: path} if path is not None else {})
        return [Object(body[Attribute.OBJPATH], body[Attribute.OBJID], body[Attribute.OBJTYPE],
                       body[Attribute.SIGNATURE]) for body in bodies]

    def lookup_id(self, path):
        return self.lookup(path)[0].id

    def add_object(self, path=None, signature=None, type_id=None):
        attributes = {}
        if path is not None:
            attributes[Attribute.OBJPATH] = path
        if signature is not None:
            attributes[Attribute.SIGNATURE] = signature
        if type_id is not None:
            attributes[Attribute.OBJTYPE] = type_id
        (body,) = self._must(Type.ADD_OBJECT, attributes)
        return Object(path, body[Attribute.OBJID], body.get(Attribute.OBJTYPE), signature)

    def remove_object(self, object_id):
        """Returns the body that confirms it."""
        (body,) = self._must(Type.REMOVE_OBJECT, {Attribute.OBJID: object_id})
        return body

    def post_invoke(self, object_id, method, data=None):
        attributes = {Attribute.OBJID: object_id, Attribute.METHOD: method,
                      Attribute.DATA: data or {}}
        return self.post(Type.INVOKE, attributes, object_id)

    def invoke(self, object_id, method, data=None, timeout_s=PATIENCE_S):
        """Calls a method; returns the tables that it replied with."""
        bodies, status = self.answer_to(self.post_invoke(object_id, method, data), timeout_s)
        if status != Status.OK:
            raise Refused(status)
        return [body[Attribute.DATA] for body in bodies]

    def register_events(self, pattern, object_id=None):
        """Has the broker send events of `pattern` to `object_id`, by default a new object."""
        if object_id is None:
            object_id = self.add_object().id
        self.invoke(EVENT_OBJECT, "register", {"object": signed_id(object_id), "pattern": pattern})
        return object_id

    def send_event(self, name, data):
        self.invoke(EVENT_OBJECT, "send", {"id": name, "data": data})

    def next_invoke(self, timeout_s=PATIENCE_S):
        """The next invoke of an object of ours, from a caller or (peer 0) an event."""
        if self._kept:
            return self._kept.pop(0)
        message = self.receive(timeout_s)
        if message.type != Type.INVOKE:
            raise WireError(f"{message} is no invoke")
        return message

    def next_event(self, timeout_s=PATIENCE_S):
        """The next event as (name, data)."""
        body = self.next_invoke(timeout_s).body
        return body[Attribute.METHOD], body[Attribute.DATA]

    def reply(self, invoke, data=None, status=Status.OK):
        """Answers an invoke the way a service does: DATA when there is some, then STATUS."""
        object_id = invoke.body[Attribute.OBJID]
        answer = b""
        if data is not None:
            answer = Message(Type.DATA, invoke.seq, invoke.peer,
                             {Attribute.OBJID: object_id, Attribute.DATA: data}).encode()
        answer += Message(Type.STATUS, invoke.seq, invoke.peer,
                          {Attribute.STATUS: status, Attribute.OBJID: object_id}).encode()
        self.send_bytes(answer)


_CONNECT_AND_HAND_OVER = """
import array, socket, sys
sock = socket.socket(socket.AF_UNIX)
sock.connect(sys.argv[1])
rights = array.array("i", [sock.fileno()]).tobytes()
socket.socket(fileno=int(sys.argv[2])).sendmsg(
    [b"."], [(socket.SOL_SOCKET, socket.SCM_RIGHTS, rights)])
"""


def connect_as(path, uid):
    """A Client that the broker takes for a process of user `uid`; needs root.

    A child of that user connects, which is when the kernel notes the peer's credentials, and hands
    the connected socket over.
    """
    ours, theirs = socket.socketpair()
    with ours, theirs:
        run_python_as(uid, _CONNECT_AND_HAND_OVER, str(path), str(theirs.fileno()),
                      pass_fds=[theirs.fileno()])
        _, descriptors, _, _ = socket.recv_fds(ours, 1, 1)
    return Client(path, socket.socket(fileno=descriptors[0]))


# --- the object owner -------------------------------------------------------------------------

_WEEK_S = 7 * 24 * 3600.0  # "for ever", and still a number that socket time-outs take

SILENT = object()
"""What a handler returns to leave its caller without any answer."""


@dataclass
class Call:
    """One invoke that an owner received."""
    method: str
    data: dict
    user: str
    group: str
    caller: int


@dataclass
class Method:
    """`handler`: called with the Call. It returns a table (sent, then status 0), a status (sent
    alone), a tuple of both, or SILENT. `arguments`: name to Blobmsg type, for the signature."""
    handler: object
    arguments: dict = field(default_factory=dict)


class ObjectOwner:
    """A service: one object whose methods are Python callables, served by a thread of its own.

        with ObjectOwner(socket_path, "svc", {"get": Method(lambda call: {"value": 1})}) as owner:
            ...
            assert owner.next_call().method == "get"
    """

    def __init__(self, path, name, methods):
        self._client = Client(path)
        self._methods = methods
        self._calls = queue.Queue()
        signature = {method: {name: int(kind) for name, kind in entry.arguments.items()}
                     for method, entry in methods.items()}
        self.object = self._client.add_object(name, signature)
        self._thread = threading.Thread(target=self._serve, daemon=True)
        self._thread.start()

    def next_call(self, timeout_s=PATIENCE_S):
        """Waits for a call; each is handed out once, in the order of arrival."""
        return self._calls.get(timeout=timeout_s)

    def call_count(self):
        """Number of calls that next_call() has not handed out."""
        return self._calls.qsize()

    def die(self):
        """Closes the connection at once, with whatever calls are under way."""
        try:
            self._client.sock.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass  # the broker was the first to go
        self._thread.join(PATIENCE_S)
        self._client.close()

    def _serve(self):
        while True:
            try:
                self._answer(self._client.next_invoke(timeout_s=_WEEK_S))
            except WireError:
                continue  # a caller may send anything for DATA; it gets no answer to nonsense
            except (Closed, OSError):
                return

    def _answer(self, invoke):
        body = invoke.body
        call = Call(body[Attribute.METHOD], body.get(Attribute.DATA, {}), body[Attribute.USER],
                    body[Attribute.GROUP], invoke.peer)
        entry = self._methods.get(call.method)
        self._calls.put(call)
        result = entry.handler(call) if entry else Status.METHOD_NOT_FOUND
        if result is SILENT:
            return
        data, status = result if isinstance(result, tuple) else (
            (result, Status.OK) if isinstance(result, dict) else (None, result))
        self._client.reply(invoke, data, status)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.die()
