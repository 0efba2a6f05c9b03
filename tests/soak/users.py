"""One user of the soak, asking as fast as the answers come; also what users and runner share.

    users.py BOARD SLOT PORT HOST SEED

A failure, that is anything but a right answer, is a line of JSON on standard output. Started by
run.py.
"""

import json
import mmap
import os
import random
import struct
import sys
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "support"))

from identified import COUNTED, FRAMINGS, RIGHT, Request, User  # noqa: E402

PATIENCE_S = 60
PAUSE_AFTER_FAILURE_S = 0.05

# Percent of all bodies, and the largest of them in bytes: 6 KB on the average.
SIZES = ((5, 0), (55, 1000), (30, 10_000), (9.5, 50_000), (0.45, 500_000), (0.05, 3_000_000))
LARGEST = SIZES[-1][1]
UPLOADS = 0.3   # of all requests
WARM_UP = 3     # of the largest requests
CLOSING = 0.05  # requests after which the connection does not stay


class Board:
    """A file in memory that tells users what to do, and in which each notes what it did."""

    GO, HOLD, STOP = range(3)
    _SLOT = struct.Struct("QQQ")  # right answers, body bytes both ways, held

    def __init__(self, path, slots=0):
        if slots:
            Path(path).write_bytes(bytes(8 + slots * self._SLOT.size))
        with open(path, "r+b") as file:
            self._memory = mmap.mmap(file.fileno(), 0)
        self.slots = (len(self._memory) - 8) // self._SLOT.size

    def order(self, what):
        self._memory[0] = what

    @property
    def orders(self):
        return self._memory[0]

    def note(self, slot, *what):
        self._SLOT.pack_into(self._memory, 8 + slot * self._SLOT.size, *what)

    def _notes(self):
        return [self._SLOT.unpack_from(self._memory, 8 + slot * self._SLOT.size)
                for slot in range(self.slots)]

    def totals(self):
        """Right answers, and bytes."""
        notes = self._notes()
        return sum(note[0] for note in notes), sum(note[1] for note in notes)

    def all_began(self):
        return all(note[0] > WARM_UP for note in self._notes())

    def all_held(self):
        return all(note[2] for note in self._notes())


def some_size(dice):
    kind = dice.random() * 100
    for share, largest in SIZES:
        kind -= share
        if kind < 0:
            return dice.randint(largest // 10, largest)
    return SIZES[0][1]


def requests(slot, seed):
    """Requests without end, the largest first: what they need is not to look like growth."""
    dice = random.Random(f"{seed} user {slot}")
    for number in range(WARM_UP):
        yield Request(f"warm{slot}-{number}", LARGEST, LARGEST), True
    number = 0
    while True:
        number += 1
        upload = some_size(dice) if dice.random() < UPLOADS else None
        framing = dice.choice(FRAMINGS) if dice.random() < 0.3 else COUNTED
        yield (Request(f"user{slot}-{number}", upload, some_size(dice), framing),
               dice.random() >= CLOSING)


def ask_until_stopped(board, slot, user, seed):
    right = size = 0
    for request, keeps in requests(slot, seed):
        while board.orders == Board.HOLD:
            user.close()  # the relay closes it on its own after a while
            board.note(slot, right, size, 1)
            time.sleep(0.01)
        if board.orders == Board.STOP:
            board.note(slot, right, size, 1)
            return
        began = time.monotonic()
        outcome = user.ask(request, keeps)
        if outcome.kind == RIGHT:
            right += 1
            size += (request.upload or 0) + request.answer
        else:
            print(json.dumps({"at": began, "until": time.monotonic(), "kind": outcome.kind,
                              "status": outcome.status, "why": outcome.why,
                              "request": request.name}), flush=True)
            time.sleep(PAUSE_AFTER_FAILURE_S)
        board.note(slot, right, size, 0)


def main():
    path, slot, port, host, seed = sys.argv[1:]
    board = Board(path)
    with User(("127.0.0.1", int(port)), host, PATIENCE_S) as user:
        ask_until_stopped(board, int(slot), user, seed)


if __name__ == "__main__":
    os.environ.setdefault("PYTHONDONTWRITEBYTECODE", "1")
    main()
