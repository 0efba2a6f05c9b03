"""One round: a fault at a byte, users who ask meanwhile, and what all of them must have seen."""

import random
import threading
import time
from collections import Counter

from identified import CUT, FRAMINGS, REFUSED, RIGHT, WRONG, Request
from kinds import ANSWER, HANDSHAKE, HELLO, REQUEST, SIZES
from line import DOWN, UP, Fault

USERS = 5           # one more than the relay has out at once
LEAST_HEAD = 60     # bytes of the shortest head, of a request or an answer
STRIKE_S = 60       # until a byte of a new connection has passed
USER_S = 200        # a user's longest wait: the relay gives up a silent device after 160 s
PROBE_S = 40
PROBE_PAUSE_S = 0.1   # between two probes; ten times that later, as many lanes wait for minutes
IMPATIENT_S = 5
COME_BACK_S = 300   # the daemon's longest is 220 s: 100 s to its next heartbeat, 120 s for the reply


class Opening:
    """Where handshake and hello lie in the bytes of an undisturbed connection."""

    def __init__(self, road):
        handshake_up = _end_of_handshake(bytes(road.opening))
        first_flight = _record_end(road.opening, 0)
        counts = {UP: 0, DOWN: 0}
        server_flight = None
        for direction, size in road.history:
            if server_flight is None and counts[UP] >= first_flight and direction == UP:
                server_flight = counts[DOWN]
            counts[direction] += size
        self.ranges = {
            HANDSHAKE: {UP: (1, handshake_up), DOWN: (1, server_flight)},
            HELLO: {UP: (handshake_up + 1, counts[UP]), DOWN: (server_flight + 1, counts[DOWN])},
        }

    def pick(self, dice, stage):
        direction = dice.choice((UP, DOWN))
        first, last = self.ranges[stage][direction]
        # Signatures differ by some bytes from one handshake to the next.
        return direction, dice.randint(first, last - 8 if last - first > 16 else last)


def _record_end(data, start):
    """Where the TLS record ends that starts there."""
    return start + 5 + int.from_bytes(data[start + 3:start + 5], "big")


def _end_of_handshake(data):
    """Up to and with the router's Finished: in TLS 1.3 the first record that shows as data, in 1.2
    the handshake record behind ChangeCipherSpec."""
    start, changed = 0, False
    while True:
        kind, end = data[start], _record_end(data, start)
        if kind == 23 or (kind == 22 and changed):
            return end
        start, changed = end, changed or kind == 20


class Crowd:
    """Users who ask at the same time, a request each; join() brings request and outcome."""

    def __init__(self, requests, ask):
        self._outcomes = []
        self._threads = [threading.Thread(target=self._run, args=(request, ask), daemon=True)
                         for request in requests]
        for thread in self._threads:
            thread.start()

    def _run(self, request, ask):
        self._outcomes.append((request, ask(request)))

    def has_ended(self):
        return not any(thread.is_alive() for thread in self._threads)

    def join(self):
        for thread in self._threads:
            thread.join()
        return self._outcomes


class Round:
    """Plays a job on a chain that stands, and leaves it standing."""

    def __init__(self, job, seed, lane):
        self._job, self._lane = job, lane
        self._dice = random.Random(f"{seed} {job.kind} {job.number}")
        self._names = (f"{job.kind}-{job.number}-{count}" for count in range(1_000_000))
        self._asked = []
        self._problems = []
        self._is_late = False

    def play(self):
        """The report of the round."""
        blow = self._job.blow(self._dice, self._lane.line, self._lane.packets)
        started = time.monotonic()
        fault = self._strike(blow)
        struck = time.monotonic()
        back_s = self._come_back(struck)
        self._asked += self._crowd.join()
        self._lane.line.lift()
        self._lane.line.do(self._lane.packets.mend)
        self._judge(blow, fault)
        return {"kind": self._job.kind, "stage": self._job.stage, "number": self._job.number,
                "what": f"{blow.what}, at byte {fault.at} {fault.direction}",
                "lasting": blow.is_lasting, "late": self._is_late, "back_s": round(back_s, 2),
                "seconds": round(time.monotonic() - started, 2),
                "outcomes": Counter(outcome.kind for _, outcome in self._asked),
                "problems": self._problems}

    # --- asking ---

    def _request(self, upload=None, answer=0):
        return Request(next(self._names), upload, answer, self._dice.choice(FRAMINGS))

    def _requests(self):
        """Mixed ones, the last of which carries some bytes either way."""
        mixed = [self._request(self._dice.choice((None, *SIZES)), self._dice.choice(SIZES))
                 for _ in range(USERS - 1)]
        return [*mixed, self._request(self._dice.choice(SIZES[3:]), self._dice.choice(SIZES[3:]))]

    def _strike(self, blow):
        """Returns the fault when it has struck, with users asking."""
        line, requests = self._lane.line, self._requests()
        if self._job.stage in (HANDSHAKE, HELLO):
            direction, at = self._lane.opening.pick(self._dice, self._job.stage)
            fault = line.arm(Fault(direction, at, blow.act), on_next=True)
            line.sever()
            self._wait_for(fault)
            self._crowd = self._lane.outside.run(Crowd, requests[-2:], self._lane.ask)
            return fault
        direction = DOWN if self._job.stage == REQUEST else UP
        sizes = [each.answer if direction == UP else each.upload or 0 for each in requests]
        at = self._dice.randint(1, sum(sizes) + LEAST_HEAD * len(sizes))
        fault = line.arm(Fault(direction, at, blow.act))
        self._crowd = self._lane.outside.run(Crowd, requests, self._lane.ask)
        self._wait_while_asked(fault)
        return fault

    def _wait_for(self, fault):
        assert fault.struck.wait(STRIKE_S), (
            f"byte {fault.at} {fault.direction} has not come in {STRIKE_S} s")

    def _wait_while_asked(self, fault):
        """On a machine so slow that requests run out of time the byte may never come; the fault
        then strikes behind the last one that did."""
        while not fault.struck.wait(0.1):
            if self._crowd.has_ended():
                self._is_late = self._lane.line.strike_now(fault)

    def _come_back(self, struck):
        """Asks until the router answers; the seconds since the fault."""
        while self._probe(answer=100).kind in (REFUSED, CUT):
            waited = time.monotonic() - struck
            assert waited < COME_BACK_S, f"the session has not come back in {COME_BACK_S} s"
            time.sleep(PROBE_PAUSE_S if waited < IMPATIENT_S else 10 * PROBE_PAUSE_S)
        back_s = time.monotonic() - struck
        for upload in (None, 20_000):
            self._probe(upload, answer=20_000)
        return back_s

    def _probe(self, upload=None, answer=0):
        request = self._request(upload, answer)
        outcome = self._lane.outside.run(self._lane.ask, request, PROBE_S)
        self._asked.append((request, outcome))
        return outcome

    # --- judging ---

    def _judge(self, blow, fault):
        for request, outcome in self._asked:
            times = self._lane.ledger.times(request.name)
            if outcome.kind == WRONG:
                self._problems.append(f"{request}: {outcome.why}")
            elif outcome.kind == RIGHT and times != 1:
                self._problems.append(f"{request} was answered and executed {times} times")
            elif times > 1:
                self._problems.append(f"{request} failed and was executed {times} times")
            elif outcome.kind == REFUSED and outcome.status not in (404, 502, 503, 504):
                self._problems.append(f"{request} got status {outcome.status}")
        self._problems += self._lane.ledger.take_wrongs()
        if self._is_late and all(outcome.kind == RIGHT for _, outcome in self._crowd.join()):
            self._problems.append("every request was answered, and the fault's byte never came")
        if blow.is_gentle:
            self._judge_gentle(blow, fault)

    def _judge_gentle(self, blow, fault):
        if self._lane.line.last is not fault.road or not fault.road.stands:
            self._problems.append(f"the connection did not outlive {blow.what}")
        if self._job.stage in (REQUEST, ANSWER):
            self._problems += [f"{request} came to {outcome} by {blow.what}"
                               for request, outcome in self._asked if outcome.kind != RIGHT]
