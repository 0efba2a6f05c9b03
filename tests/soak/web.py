"""The router's web server in the soak: one of several processes that accept from one listener.

    web.py DESCRIPTOR SABOTAGE

Ends when its standard input does. A request that did not come as it was sent is a line on standard
output. Started by run.py: a thread for each connection, as IdentifiedWeb has, takes three times as
long.
"""

import contextlib
import socket
import sys
import threading
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "support"))

from identified import take_request  # noqa: E402
from sabotage import Sabotage  # noqa: E402

PATIENCE_S = 30


class Remarks:
    """In place of a ledger, which would grow."""

    halves = 0

    def execute(self, name):
        pass

    def note_wrong(self, what):
        print(what, flush=True)


def serve(listener, sabotage):
    remarks = Remarks()
    while True:
        connection, _ = listener.accept()
        connection.settimeout(PATIENCE_S)
        with connection, contextlib.suppress(OSError):  # the daemon gave the request up
            answer = take_request(connection, remarks)
            if answer:
                sabotage.spoil(answer)
                connection.sendall(answer.encode())


def main():
    listener = socket.socket(fileno=int(sys.argv[1]))
    listener.setblocking(True)
    threading.Thread(target=serve, args=(listener, Sabotage(sys.argv[2])), daemon=True).start()
    sys.stdin.read()


if __name__ == "__main__":
    main()
