"""Recordings of connections that never were, byte by byte as a test wants them: a pcap file."""

import ssl
import struct

DEVICE, RELAY = ("10.0.0.2", 50000), ("10.0.0.1", 51000)
"""Ports that Wireshark has given to nobody."""

_SYN, _ACK, _PUSH = 0x02, 0x10, 0x08
_ETHERNET = bytes(12) + b"\x08\x00"
_MILLISECOND_US = 1000


def _address(text):
    return bytes(map(int, text.split(".")))


class Connection:
    """One connection of the device to the relay; each segment is a frame, a millisecond apart."""

    def __init__(self, recording, device=DEVICE, relay=RELAY):
        self._recording = recording
        self._ends = {"device": device, "relay": relay}
        self._next = {"device": 1000, "relay": 2000}
        self._segment("device", b"", _SYN)
        self._segment("relay", b"", _SYN | _ACK)
        self._segment("device", b"", _ACK)

    def _segment(self, sender, data, flags):
        receiver = "relay" if sender == "device" else "device"
        (source, source_port), (target, target_port) = self._ends[sender], self._ends[receiver]
        acknowledged = 0 if flags == _SYN else self._next[receiver]
        tcp = struct.pack(">HHIIBBHHH", source_port, target_port, self._next[sender], acknowledged,
                          5 << 4, flags, 65535, 0, 0)
        ip = struct.pack(">BBHHHBBH4s4s", 0x45, 0, 40 + len(data), 0, 0, 64, 6, 0,
                         _address(source), _address(target))
        self._recording.add(_ETHERNET + ip + tcp + data)
        self._next[sender] += len(data) + bool(flags & _SYN)

    def device(self, *segments):
        """The device sends these; each argument is a segment of its own."""
        for data in segments:
            self._segment("device", data, _PUSH | _ACK)

    def relay(self, *segments):
        for data in segments:
            self._segment("relay", data, _PUSH | _ACK)


class TlsConnection:
    """TLS over such a connection, with keys that go to the file `secrets`."""

    def __init__(self, connection, certificate, secrets):
        self._connection = connection
        self._ends = {"device": self._end(ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT), False),
                      "relay": self._end(ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER), True,
                                         certificate, secrets)}
        for sender in ("device", "relay", "device", "relay"):
            self._shake_hands(sender)

    @staticmethod
    def _end(context, server_side, certificate=None, secrets=None):
        if server_side:
            context.load_cert_chain(certificate.certificate, certificate.key)
            context.keylog_filename = str(secrets)
        else:
            context.check_hostname = False
            context.verify_mode = ssl.CERT_NONE
        arrived, leaving = ssl.MemoryBIO(), ssl.MemoryBIO()
        return context.wrap_bio(arrived, leaving, server_side), arrived, leaving

    def _shake_hands(self, sender):
        try:
            self._ends[sender][0].do_handshake()
        except ssl.SSLWantReadError:
            pass
        self._flush(sender)

    def _flush(self, sender, largest=1460):
        _, _, leaving = self._ends[sender]
        _, arrived, _ = self._ends["relay" if sender == "device" else "device"]
        data = leaving.read()
        arrived.write(data)
        getattr(self._connection, sender)(
            *(data[at:at + largest] for at in range(0, len(data), largest)))

    def _send(self, sender, records, largest):
        for record in records:
            self._ends[sender][0].write(record)
            self._flush(sender, largest)

    def device(self, *records, largest=1460):
        """The device sends these; each argument is a TLS record, cut into segments of `largest`."""
        self._send("device", records, largest)

    def relay(self, *records, largest=1460):
        self._send("relay", records, largest)


class Recording:
    """A pcap file in the making."""

    def __init__(self):
        self._frames = []

    def add(self, frame):
        self._frames.append((frame, len(frame)))

    def forget_behind(self, kept):
        """Keeps the first `kept` bytes of the last frame, as a recording with a limit does."""
        frame, size = self._frames[-1]
        self._frames[-1] = (frame[:kept], size)

    def connection(self, **ends):
        return Connection(self, **ends)

    def write(self, path):
        with open(path, "wb") as file:
            file.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 262144, 1))
            for number, (frame, size) in enumerate(self._frames):
                time = (1_000_000, number * _MILLISECOND_US)
                file.write(struct.pack("<IIII", *time, len(frame), size) + frame)
