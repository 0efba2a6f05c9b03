"""The kinds of faults, and the stages of a session at which they strike."""

from dataclasses import dataclass
from typing import Callable

from line import DOWN, UP, Road
from packets import BOTH

HANDSHAKE, HELLO, REQUEST, ANSWER = "handshake", "hello", "request", "answer"
STAGES = (HANDSHAKE, HELLO, REQUEST, ANSWER)

SIZES = (0, 1, 100, 1000, 5000, 16384, 40_000, 150_000, 600_000)  # of bodies

# The daemon waits 5 s for the next 16384 bytes; a shorter pause must do no harm.
LONGEST_PAUSE_S = 3
LOSS_PERCENT = 20
# Each is a packet and costs as much, and a request has but 10 s on the router.
SINGLE_BYTES = 3000
OUTAGE_S = (1, 15)


@dataclass(frozen=True)
class Blow:
    """What is going to happen at the byte. `is_gentle`: nothing may fail of it. `is_lasting`: one
    end has nothing but its own limits to notice by."""
    what: str
    act: Callable[[Road], None]
    is_gentle: bool = False
    is_lasting: bool = False


def _reset(*_):
    return Blow("both ends reset", Road.reset)


def _close(*_):
    return Blow("both ends closed", Road.close)


def _half_open(dice, cycle, line, packets):
    if cycle % 2 == 0:
        return Blow("the router's end reset, the relay's silent", Road.lose_device)
    if dice.random() < 0.5:
        return Blow("the relay's end reset, the router's silent", Road.lose_relay, is_lasting=True)
    return Blow("both ends silent", Road.silence, is_lasting=True)


def _hole(dice, cycle, line, packets, directions):
    if cycle % 2:
        return Blow("this connection's packets lost for good",
                    lambda road: packets.swallow(road, directions), is_lasting=True)
    seconds = dice.uniform(*OUTAGE_S)

    def act(road):
        packets.cut(road, directions)
        line.later(seconds, packets.mend)
    return Blow(f"all packets lost for {seconds:.1f} s", act)


def _blackhole(*surroundings):
    return _hole(*surroundings, BOTH)


def _one_way(dice, *surroundings):
    direction = dice.choice((UP, DOWN))
    blow = _hole(dice, *surroundings, (direction,))
    return Blow(f"{direction}: {blow.what}", blow.act, is_lasting=blow.is_lasting)


def _loss(dice, cycle, line, packets):
    return Blow(f"{LOSS_PERCENT} % of the packets lost", lambda road: packets.lose(LOSS_PERCENT))


def _byte_by_byte(*_):
    def act(road):
        road.single_bytes = SINGLE_BYTES
    return Blow(f"{SINGLE_BYTES} bytes by themselves", act, is_gentle=True)


def _stall(dice, *_):
    seconds = dice.uniform(0.1, LONGEST_PAUSE_S)
    return Blow(f"a pause of {seconds:.1f} s", lambda road: road.pause(seconds), is_gentle=True)


KINDS = {
    "reset": _reset,
    "close": _close,
    "half-open": _half_open,
    "blackhole": _blackhole,
    "one-way": _one_way,
    "byte-by-byte": _byte_by_byte,
    "stall": _stall,
    "loss": _loss,
}


@dataclass(frozen=True)
class Job:
    """One round: the `number`th of its kind."""
    kind: str
    number: int

    @property
    def stage(self):
        return STAGES[self.number % len(STAGES)]

    @property
    def cycle(self):
        """How often the kind has been through all stages."""
        return self.number // len(STAGES)

    def is_long(self):
        return self.kind in ("half-open", "blackhole", "one-way") and self.cycle % 2 == 1

    def blow(self, dice, line, packets):
        return KINDS[self.kind](dice, self.cycle, line, packets)
