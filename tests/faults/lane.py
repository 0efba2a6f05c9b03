"""One lane of the faults: a chain of its own, on which rounds are played one after the other.

    lane.py NUMBER SEED FOLDER SABOTAGE

Reads a job a line from standard input and answers each with a line of JSON; after the last one
looks at what the programs hold and prints that. Started by run.py.
"""

import dataclasses
import json
import sys
import time
import traceback
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "support"))

from chain import UPLINK, Chain  # noqa: E402
from identified import RIGHT, IdentifiedWeb, Request, User  # noqa: E402
from kinds import SIZES, Job  # noqa: E402
from line import DOWN, Line  # noqa: E402
from packets import Packets  # noqa: E402
from processes import wait_until  # noqa: E402
from rounds import USER_S, USERS, Crowd, Opening, Round  # noqa: E402
from sabotage import Sabotage  # noqa: E402

WARM_UP_SESSIONS = 4
SETTLE_S = 120  # the longest that a program keeps a connection whose other end is gone
REST_S = 1.5    # afterwards, for memory that goes back


class Lane:
    """What a round is played with."""

    def __init__(self, sabotage):
        self.sabotage = sabotage
        self.ledger = sabotage.ledger()
        self.chain = Chain(apart=True)
        self.outside = self.chain.outside

    def start(self, web):
        self.chain.start(web.port)
        self.front, self.host = self.chain.front, self.chain.host
        self.packets = Packets(f"behind-{UPLINK}")
        self.line = Line(self.chain.listener, ("127.0.0.1", self.chain.relay.device_port))
        self.outside.run(self.line.start)
        self.chain.connect()
        wait_until(lambda: self.line.last.history[-1][0] == DOWN, "the heartbeat is answered")
        self.opening = Opening(self.line.last)
        self._warm_up()

    def _warm_up(self):
        """Some sessions, and the largest of all requests on each as often as they can meet."""
        for number in range(WARM_UP_SESSIONS):
            before = self.line.count
            self.line.sever()
            wait_until(lambda: self.line.count > before, "the daemon connects")
            wait_until(lambda: self.outside.run(self.ask, Request(f"warm-{number}")).kind == RIGHT,
                       "the router is served")
            largest = [Request(f"warm-{number}-{user}", SIZES[-1], SIZES[-1])
                       for user in range(USERS)]
            self.outside.run(Crowd, largest, self.ask).join()

    def ask(self, request, patience_s=USER_S):
        """For a thread that lives outside."""
        with User(self.front, self.host, patience_s) as user:
            return user.ask(request)

    def holdings(self):
        time.sleep(REST_S)
        return self.chain.census() | self.sabotage.census()


def settled(lane, before):
    """What the programs hold, once they hold no descriptor and thread more than before."""
    def is_settled():
        now = lane.chain.census() | lane.sabotage.census()
        return all((now[name].descriptors, now[name].threads) ==
                   (before[name].descriptors, before[name].threads) for name in before)
    try:
        wait_until(is_settled, "", SETTLE_S)
    except AssertionError:
        pass  # the figures tell
    return lane.holdings()


def play_all(lane, seed):
    before = lane.holdings()
    rounds = 0
    for text in sys.stdin:
        job = Job(**json.loads(text))
        try:
            report = Round(job, seed, lane).play()
        except (AssertionError, OSError) as failure:
            report = dataclasses.asdict(job) | {"stage": job.stage, "problems": [
                f"{type(failure).__name__}: {failure}", traceback.format_exc()], "ended": True}
        rounds += 1
        lane.sabotage.after_round(lane.chain)
        print(json.dumps(report), flush=True)
        if report.get("ended"):
            return
    after = settled(lane, before)
    print(json.dumps({"rounds": rounds, "repeated": lane.ledger.repeated(), "holdings": {
        name: [dataclasses.asdict(each[name]) for each in (before, after)] for name in before}}),
          flush=True)


def main():
    seed, folder = sys.argv[2], Path(sys.argv[3])
    sabotage = Sabotage(sys.argv[4])
    lane = Lane(sabotage)
    with lane.chain, IdentifiedWeb(lane.ledger, sabotage.spoil) as web:
        try:
            lane.start(web)
            play_all(lane, seed)
        finally:
            lane.chain.save_logs(folder / f"lane-{sys.argv[1]}")


if __name__ == "__main__":
    main()
