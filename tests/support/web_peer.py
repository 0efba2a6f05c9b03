"""The router's own web server, played by a test: a TCP server that does what it is told.

    exchange = web.accept()
    request = exchange.read_exactly(18)
    exchange.answer(b"HTTP/1.0 200 OK\\r\\n\\r\\nhello")    # and closes

Verbs run on the calling thread. serve() instead answers every connection from threads of its own,
for exchanges that are too large or too many to be taken step by step.
"""

import contextlib
import socket
import threading
import time
from pathlib import Path

from processes import PATIENCE_S, Process, wait_until
from relay_peer import is_readable, reset


class Exchange:
    """One connection of the daemon to the web server."""

    def __init__(self, connection):
        self._connection = connection
        connection.settimeout(PATIENCE_S)
        connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)

    def read_exactly(self, count):
        """The next `count` bytes of the request."""
        pieces = []
        while count > 0:
            piece = self._connection.recv(min(count, 262144))
            assert piece, f"the request ended {count} bytes early"
            pieces.append(piece)
            count -= len(piece)
        return b"".join(pieces)

    def expect_nothing_more(self, seconds=0.3):
        """No further request byte comes, and the daemon does not hang up, for that long."""
        assert not is_readable(self._connection, seconds), "there is more to read"

    def expect_closed(self, within=PATIENCE_S):
        """The daemon hangs up without another byte."""
        self._connection.settimeout(within)
        try:
            data = self._connection.recv(1)
        except ConnectionResetError:
            return
        except TimeoutError:
            raise AssertionError(f"the daemon did not hang up within {within} s") from None
        assert data == b"", f"the daemon sent {data!r} instead of hanging up"

    def send(self, data):
        """Sends a part of the answer."""
        self._connection.sendall(data)

    def dribble(self, data, size, pause):
        for start in range(0, len(data), size):
            self.send(data[start:start + size])
            time.sleep(pause)

    def answer(self, data):
        """Sends the answer, or the rest of it, and closes."""
        self.send(data)
        self.close()

    def close(self):
        with contextlib.suppress(OSError):
            self._connection.shutdown(socket.SHUT_WR)
        self._connection.close()

    def reset(self):
        reset(self._connection)


class WebServer:
    """A listening web server. Use it as a context manager, or call close()."""

    def __init__(self, port=0, address="127.0.0.1"):
        self._listener = socket.create_server((address, port), backlog=128)
        self.port = self._listener.getsockname()[1]
        self._exchanges = []
        self._failures = []

    def limit_receive_buffers(self, size):
        """Bounds what the kernel takes in unread on connections that come from now on."""
        self._listener.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, size)

    def accept(self, within=PATIENCE_S):
        """The daemon's next connection."""
        self._listener.settimeout(within)
        try:
            connection, _ = self._listener.accept()
        except TimeoutError:
            raise AssertionError(f"the daemon did not connect within {within} s") from None
        exchange = Exchange(connection)
        self._exchanges.append(exchange)
        return exchange

    def expect_nobody(self, seconds):
        """The daemon does not connect for that long."""
        assert not is_readable(self._listener, seconds), "the daemon connected"

    def serve(self, handler):
        """Hands every further connection to `handler(exchange)`, each on a thread of its own."""
        self._listener.settimeout(None)
        threading.Thread(target=self._serve, args=(handler,), daemon=True).start()

    def _serve(self, handler):
        while True:
            try:
                connection, _ = self._listener.accept()
            except OSError:
                return  # closed
            threading.Thread(target=self._handle, args=(handler, Exchange(connection)),
                             daemon=True).start()

    def _handle(self, handler, exchange):
        try:
            handler(exchange)
        except (OSError, AssertionError) as failure:
            self._failures.append(failure)

    def stop_listening(self):
        """Refuses connections from now on; those that stand stay."""
        with contextlib.suppress(OSError):
            self._listener.shutdown(socket.SHUT_RDWR)  # wakes an accept() under way
        self._listener.close()

    def close(self):
        self.stop_listening()
        for exchange in self._exchanges:
            exchange.close()

    def __enter__(self):
        return self

    def __exit__(self, kind, *_):
        self.close()
        if kind is None:
            assert not self._failures, f"a handler failed: {self._failures}"


class Lighttpd:
    """A real web server, serving the files of `folder`. Use it as a context manager."""

    def __init__(self, folder, state_folder):
        with socket.create_server(("127.0.0.1", 0)) as listener:
            self.port = listener.getsockname()[1]
        configuration = Path(state_folder) / "lighttpd.conf"
        configuration.write_text(
            f'server.document-root = "{folder}"\n'
            f"server.port = {self.port}\n"
            'server.bind = "127.0.0.1"\n'
            'mimetype.assign = ( ".html" => "text/html", ".css" => "text/css", '
            '".json" => "application/json", ".bin" => "application/octet-stream" )\n'
            'index-file.names = ( "index.html" )\n')
        # It dies with us, however we end.
        self._process = Process("setpriv", "--pdeathsig", "KILL", "lighttpd", "-D", "-f",
                                configuration)

    def fetch(self, request):
        """What the server answers to the bytes of `request`, asked directly."""
        with socket.create_connection(("127.0.0.1", self.port), PATIENCE_S) as connection:
            connection.sendall(request)
            pieces = []
            while piece := connection.recv(262144):
                pieces.append(piece)
            return b"".join(pieces)

    def _is_serving(self):
        assert self._process.status is None, self._process.errors.text
        with contextlib.suppress(ConnectionRefusedError):
            socket.create_connection(("127.0.0.1", self.port)).close()
            return True
        return False

    def __enter__(self):
        wait_until(self._is_serving, "lighttpd serves")
        return self

    def __exit__(self, kind, *_):
        if kind is not None:  # a Ctrl-C reaches it as well
            self._process.put_away()
            return
        assert self._process.status is None, f"lighttpd has ended:\n{self._process.errors.text}"
        # 1 when a connection is still open.
        assert self._process.stop() in (0, 1), self._process.errors.text
