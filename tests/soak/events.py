"""What happens to the chain while its users go on asking."""

import signal
import subprocess
import time
from dataclasses import dataclass
from typing import Callable

from processes import wait_until

OUTAGE_S = 2
LOSS_PERCENT = 20
RESETS_S = 0.1
# While a reload waits its 3 s the supervisor misses the session, and then its own reload follows.
RELOAD_ECHO_S = 8

_TABLE = """table ip line {{
    chain in {{ type filter hook input priority 0; {rules} }}
}}
"""


@dataclass(frozen=True)
class Event:
    """`is_harmless`: no request may fail of it. `echo_s`: how long after it they may."""
    name: str
    happen: Callable[[], None]
    is_harmless: bool = False
    echo_s: float = 1.0


class Events:
    """The events of a chain whose router and relay share a network."""

    def __init__(self, chain):
        self._chain = chain
        self._port = chain.relay.device_port
        self.all = (
            Event("connection reset", self._reset),
            Event(f"{OUTAGE_S} s without a packet", self._outage),
            Event(f"{LOSS_PERCENT} % lost for {OUTAGE_S} s", self._loss),
            Event("daemon reload", self._reload, echo_s=RELOAD_ECHO_S),
            Event("supervisor restart", self._restart_supervisor, is_harmless=True),
            Event("relay SIGHUP", self._hang_up, is_harmless=True),
        )

    def _filter(self, verdict, seconds):
        rules = " ".join(f"tcp {end} {self._port} {verdict};" for end in ("sport", "dport"))
        _nft(_TABLE.format(rules=rules))
        time.sleep(seconds)
        _nft("delete table ip line")

    def _reset(self):
        """The resets themselves must pass."""
        self._filter("tcp flags & rst != rst reject with tcp reset", RESETS_S)

    def _outage(self):
        self._filter("drop", OUTAGE_S)

    def _loss(self):
        self._filter(f"numgen random mod 100 < {LOSS_PERCENT} drop", OUTAGE_S)

    def _reload(self):
        """The daemon ends its session and, 3 s later, begins another."""
        before = self._session()
        assert self._chain.daemon.reload(*self._chain.server).status == 0
        wait_until(lambda: self._session() not in (None, before), "the daemon has a new session")

    def _session(self):
        """When it began."""
        return self._chain.relay.devices().get(self._chain.device_id, {}).get("since")

    def _restart_supervisor(self):
        """The session stays."""
        self._chain.supervisor.stop()
        self._chain.supervisor.start().wait_for_object()

    def _hang_up(self):
        """As after the logs were rotated."""
        self._chain.relay.access_log.unlink()
        self._chain.relay.signal(signal.SIGHUP)


def _nft(text):
    subprocess.run(["nft", "-f", "-"], input=text, check=True, capture_output=True, text=True)
