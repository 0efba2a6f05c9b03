"""Packets that are lost on the way: nftables rules in the networks on both sides of the proxy.

The router's packets reach the proxy in the network behind the uplink, the proxy's reach the relay
over loopback. A blackhole swallows both: neither router nor relay gets an answer from the other's
TCP, and no address changes.
"""

import subprocess

from line import DOWN, UP

_TABLE = """
table ip line {{
    chain in  {{ type filter hook input priority 0;  {coming} }}
    chain out {{ type filter hook output priority 0; {leaving} }}
}}
"""
BOTH = (UP, DOWN)


class Packets:
    """`network`: the name of the network behind the uplink. Verbs run on the line's thread, which
    lives in the relay's network."""

    def __init__(self, network):
        self._enter = ["nsenter", f"--net=/var/run/netns/{network}"]

    def _load(self, enter, coming, leaving):
        _run([*enter, "nft", "-f", "-"], _TABLE.format(coming=coming, leaving=leaving))

    def _swallow_towards_relay(self, road, directions):
        # Both ports: a user's connection may have one of them, too.
        ours, theirs = road.relay.getsockname()[1], road.relay.getpeername()[1]
        rules = {UP: f"tcp sport {ours} tcp dport {theirs} drop;",
                 DOWN: f"tcp sport {theirs} tcp dport {ours} drop;"}
        self._load([], "", "".join(rules[each] for each in directions))

    def swallow(self, road, directions=BOTH):
        """One connection's packets, for good, as a router does that forgot it."""
        port = road.device.getpeername()[1]
        self._load(self._enter, f"tcp sport {port} drop;" if UP in directions else "",
                   f"tcp dport {port} drop;" if DOWN in directions else "")
        self._swallow_towards_relay(road, directions)

    def cut(self, road, directions=BOTH):
        """All packets on the line, as when nobody carries them; until mend()."""
        self._load(self._enter, "drop;" if UP in directions else "",
                   "drop;" if DOWN in directions else "")
        self._swallow_towards_relay(road, directions)

    def lose(self, percent):
        """That many packets of a hundred, either way; until mend()."""
        rule = f"numgen random mod 100 < {percent} drop;"
        self._load(self._enter, rule, rule)

    def mend(self):
        for enter in (self._enter, []):
            _run([*enter, "nft", "-f", "-"], "table ip line\ndelete table ip line\n")


def _run(command, text):
    subprocess.run(command, input=text, check=True, capture_output=True, text=True)
