"""Messages of the ubus wire: numbers, blobs, blobmsg, and messages made of them.

A message is an 8-byte header (version, type, seq, peer) and one blob, the body, whose attributes
are keyed by `Attribute`. In Python a body is a dict:

    {Attribute.OBJPATH: "svc", Attribute.SIGNATURE: {"reload": {"port": Blobmsg.INT32}}}

Payloads of blobmsg (DATA, SIGNATURE) map to Python values:

    table   dict          string  str     bool    bool
    array   list          double  float   int32   int, when it fits, else int64

Encoding gives exactly the bytes that the stock peers send; decoding is strict and raises WireError
on anything that those would not send.
"""

import enum
import struct
from dataclasses import dataclass, field

HEADER_SIZE = 8
MAX_BODY = 1 << 20


class Type(enum.IntEnum):
    HELLO = 0
    STATUS = 1
    DATA = 2
    PING = 3
    LOOKUP = 4
    INVOKE = 5
    ADD_OBJECT = 6
    REMOVE_OBJECT = 7
    SUBSCRIBE = 8
    UNSUBSCRIBE = 9
    NOTIFY = 10
    MONITOR = 11


class Attribute(enum.IntEnum):
    STATUS = 1
    OBJPATH = 2
    OBJID = 3
    METHOD = 4
    OBJTYPE = 5
    SIGNATURE = 6
    DATA = 7
    TARGET = 8
    ACTIVE = 9
    NO_REPLY = 10
    SUBSCRIBERS = 11
    USER = 12
    GROUP = 13


class Status(enum.IntEnum):
    OK = 0
    INVALID_COMMAND = 1
    INVALID_ARGUMENT = 2
    METHOD_NOT_FOUND = 3
    NOT_FOUND = 4
    NO_DATA = 5
    PERMISSION_DENIED = 6
    TIMEOUT = 7
    NOT_SUPPORTED = 8
    UNKNOWN_ERROR = 9
    CONNECTION_FAILED = 10
    NO_MEMORY = 11
    PARSE_ERROR = 12
    SYSTEM_ERROR = 13


class Blobmsg(enum.IntEnum):
    ARRAY = 1
    TABLE = 2
    STRING = 3
    INT64 = 4
    INT32 = 5
    INT16 = 6
    INT8 = 7
    DOUBLE = 8


class WireError(Exception):
    """Bytes that are no well-formed message."""


# --- blobs ------------------------------------------------------------------------------------

_ATTRIBUTES = {int(attribute): attribute for attribute in Attribute}
_INT32_ATTRIBUTES = {Attribute.STATUS, Attribute.OBJID, Attribute.OBJTYPE, Attribute.TARGET}
_INT8_ATTRIBUTES = {Attribute.ACTIVE, Attribute.NO_REPLY}
_TABLE_ATTRIBUTES = {Attribute.SIGNATURE, Attribute.DATA, Attribute.SUBSCRIBERS}
_EXTENDED = 1 << 31
_LENGTH = (1 << 24) - 1


def _padded(data):
    return data + bytes(-len(data) % 4)


def blob(kind, payload, flags=0):
    """One attribute: a word of flags, id and length (its own 4 bytes included), then `payload`."""
    return _padded(struct.pack(">I", flags | kind << 24 | 4 + len(payload)) + payload)


def _split_blobs(data):
    """Yields (flags and id word, payload) of each attribute in `data`."""
    while data:
        if len(data) < 4:
            raise WireError(f"{len(data)} bytes are left after the last attribute")
        (word,) = struct.unpack_from(">I", data)
        length = word & _LENGTH
        if length < 4 or length > len(data):
            raise WireError(f"an attribute claims {length} of {len(data)} bytes")
        yield word & ~_LENGTH, data[4:length]
        data = data[length + -length % 4:]


def _text(payload):
    if payload[-1:] != b"\0" or b"\0" in payload[:-1]:
        raise WireError(f"{payload!r} is no terminated string")
    return payload[:-1].decode(errors="surrogateescape")


def _encode_text(value):
    return value.encode(errors="surrogateescape") + b"\0"


def encode_attribute(attribute, value):
    """One attribute of a body. A value given as bytes goes in as it stands."""
    if isinstance(value, bytes):
        payload = value
    elif attribute in _INT32_ATTRIBUTES:
        payload = struct.pack(">I", value & 0xFFFFFFFF)
    elif attribute in _INT8_ATTRIBUTES:
        payload = struct.pack(">B", value)
    elif attribute in _TABLE_ATTRIBUTES:
        payload = encode_table(value)
    else:
        payload = _encode_text(value)
    return blob(attribute, payload)


def _decode_attribute(attribute, payload):
    if attribute in _INT32_ATTRIBUTES:
        form = ">i" if attribute == Attribute.STATUS else ">I"
    elif attribute in _INT8_ATTRIBUTES:
        form = ">B"
    elif attribute in _TABLE_ATTRIBUTES:
        return decode_table(payload)
    else:
        return _text(payload)
    if len(payload) != struct.calcsize(form):
        raise WireError(f"{attribute!r} has {len(payload)} bytes")
    return struct.unpack(form, payload)[0]


def encode_body(attributes):
    return blob(0, b"".join(encode_attribute(*item) for item in attributes.items()))


def decode_body(data):
    """`data`: the body with its own 4-byte header."""
    bodies = list(_split_blobs(data))
    if len(bodies) != 1 or bodies[0][0] != 0:
        raise WireError(f"{data[:4].hex()} begins no body")
    attributes = {}
    for word, payload in _split_blobs(bodies[0][1]):
        attribute = _ATTRIBUTES.get(word >> 24)
        if attribute is None or attribute in attributes:
            raise WireError(f"attribute {word >> 24} is unknown or there twice")
        attributes[attribute] = _decode_attribute(attribute, payload)
    return attributes


# --- blobmsg ----------------------------------------------------------------------------------

def _field(kind, name, payload):
    raw_name = name.encode(errors="surrogateescape")
    header = _padded(struct.pack(">H", len(raw_name)) + raw_name + b"\0")
    return blob(kind, header + payload, _EXTENDED)


def encode_field(name, value):
    """One named blobmsg field; array elements have the name ""."""
    if isinstance(value, bool):
        return _field(Blobmsg.INT8, name, struct.pack(">B", value))
    if isinstance(value, int):
        if -1 << 31 <= value < 1 << 31:
            return _field(Blobmsg.INT32, name, struct.pack(">i", value))
        return _field(Blobmsg.INT64, name, struct.pack(">q", value))
    if isinstance(value, float):
        return _field(Blobmsg.DOUBLE, name, struct.pack(">d", value))
    if isinstance(value, str):
        return _field(Blobmsg.STRING, name, _encode_text(value))
    if isinstance(value, dict):
        return _field(Blobmsg.TABLE, name, encode_table(value))
    return _field(Blobmsg.ARRAY, name, b"".join(encode_field("", item) for item in value))


def encode_table(table):
    return b"".join(encode_field(name, value) for name, value in table.items())


_NUMBER_FORMS = {Blobmsg.INT64: ">q", Blobmsg.INT32: ">i", Blobmsg.INT16: ">h",
                 Blobmsg.INT8: ">?", Blobmsg.DOUBLE: ">d"}


def _decode_value(kind, payload):
    if kind == Blobmsg.STRING:
        return _text(payload)
    if kind == Blobmsg.TABLE:
        return decode_table(payload)
    if kind == Blobmsg.ARRAY:
        return [value for _, value in _decode_fields(payload)]
    form = _NUMBER_FORMS.get(kind)
    if form is None or len(payload) != struct.calcsize(form):
        raise WireError(f"a field of blobmsg type {kind} has {len(payload)} bytes")
    return struct.unpack(form, payload)[0]


def _decode_fields(data):
    for word, payload in _split_blobs(data):
        if not word & _EXTENDED or len(payload) < 3:
            raise WireError("a field has no name")
        (name_length,) = struct.unpack_from(">H", payload)
        value_at = 2 + name_length + 1
        value_at += -value_at % 4
        if value_at > len(payload):
            raise WireError("a field's name goes beyond the field")
        name = _text(payload[2:2 + name_length + 1])
        yield name, _decode_value((word & ~_EXTENDED) >> 24, payload[value_at:])


def decode_table(data):
    return dict(_decode_fields(data))


def signed_id(object_id):
    """An object id as blobmsg carries it: a 32-bit number like any other, that is, signed."""
    return object_id - (object_id >> 31 << 32)


# --- messages ---------------------------------------------------------------------------------

@dataclass
class Message:
    type: int
    seq: int = 0
    peer: int = 0
    body: dict = field(default_factory=dict)
    version: int = 0

    def encode(self):
        header = struct.pack(">BBHI", self.version, self.type, self.seq, self.peer)
        return header + encode_body(self.body)

    @property
    def status(self):
        """The status that a STATUS message carries."""
        return self.body[Attribute.STATUS]


def decode(data):
    """The message that `data` holds, whole and alone."""
    version, kind, seq, peer = struct.unpack_from(">BBHI", data)
    if version != 0:
        raise WireError(f"version {version}")
    return Message(kind, seq, peer, decode_body(data[HEADER_SIZE:]))


def message_size(data):
    """Bytes that the message at the start of `data` takes; None while its size is not there yet."""
    if len(data) < HEADER_SIZE + 4:
        return None
    (word,) = struct.unpack_from(">I", data, HEADER_SIZE)
    if not 4 <= word <= MAX_BODY:
        raise WireError(f"{bytes(data[:HEADER_SIZE + 4]).hex()} begins no message")
    return HEADER_SIZE + word


def split_messages(data):
    """Cuts a stream into whole messages, as bytes, and what is left of an unfinished one."""
    messages = []
    while (size := message_size(data)) is not None and len(data) >= size:
        messages.append(data[:size])
        data = data[size:]
    return messages, data
