"""The daemon beside another build of it: ratios of what both cost.

The machine's speed changes from hour to hour and from second to second, so only measurements that
follow each other at once are compared. Both programs run at the same time, as two devices of one
relay_server before one nginx, and take short turns, A B A B .... Each pair of turns gives a ratio,
and the median of the ratios counts.
"""

import statistics
from collections.abc import Callable
from dataclasses import dataclass

from certificates import Authority
from daemon import DAEMON, Daemon
from processes import program
from relay_server import ADDRESS, RelayServer
from router import BUS_SOCKET, Identity, Router

import loads
from figures import Figure
from routes import Nginx

MIB = 1024 * 1024
SIZES = {"1k": 1024, "1m": MIB, "100m": 100 * MIB}
OTHER_DEVICE = "F" * 40


@dataclass(frozen=True)
class Measure:
    """A turn is `requests` requests for `page`. The ratio of the values has the target."""
    name: str
    unit: str
    value: Callable  # of a request's seconds, and of its seconds of processor time
    page: str
    requests: int
    pairs: int
    target: float | None = None
    at_least: bool = False


MEASURES = (
    Measure("processor time for 1000 requests", "s", lambda time, used: used * 1000,
            "1k", 200, 60, target=0.85),
    Measure("answers of 1 MiB", "/s", lambda time, used: 1 / time,
            "1m", 20, 40, target=1.20, at_least=True),
    Measure("time of an answer of 100 MiB", "s", lambda time, used: time, "100m", 1, 15),
)


class OtherDaemon(Daemon):
    """The daemon, of a given program."""

    def __init__(self, path):
        super().__init__()
        self._path = path

    def _command(self):
        return [self._path]


class Device:
    """A daemon that is connected to the relay."""

    def __init__(self, daemon, device_id, relay):
        self.daemon = daemon.start().wait_for_object()
        daemon.dbg()
        daemon.dbg()  # the log now goes to the null device
        assert daemon.reload(ADDRESS, relay.device_port).status == 0
        relay.wait_for_device(device_id)
        self._port, self._host = relay.front_port, relay.host(device_id)

    def turn(self, measure):
        """The measure's value over one turn."""
        before = self.daemon.cpu_seconds()
        seconds = loads.fetch(self._port, measure.page, self._host, SIZES[measure.page],
                              measure.requests)
        used = self.daemon.cpu_seconds() - before
        return measure.value(seconds / measure.requests, used / measure.requests)


class SecondBus:
    """A bus in the place of the router's, with a device of another identity. Daemons that are on
    the first bus stay there. Use it as a context manager."""

    def __init__(self, router):
        self._router = router
        self._first = (router.bus, router.identity)

    def __enter__(self):
        BUS_SOCKET.rename(BUS_SOCKET.with_suffix(".first"))
        self._router.identity = Identity()
        self._router.identity.answers["get_device_id"] = {"device_id": OTHER_DEVICE}
        self._router.start_bus()
        self._router.identity.start()

    def __exit__(self, *_):
        bus, identity = self._first
        identity.stop()
        bus.stop()


def take_turns(ours, other):
    """Pairs of values for each measure, by its name."""
    pairs = {}
    for measure in MEASURES:
        for device in (ours, other):
            device.turn(measure)  # touches memory for the first time; not counted
        pairs[measure.name] = [(ours.turn(measure), other.turn(measure))
                               for _ in range(measure.pairs)]
    return pairs


def compare(scratch, path):
    """Pairs of values, the built daemon's and that of the program at `path`, by measure."""
    authority = Authority(scratch / "authority_of_pairs")
    with Router(authority) as router, Nginx(scratch / "nginx", SIZES) as web, \
            RelayServer(scratch / "relay", authority.certificate(),
                        options={"access_log": ""}) as relay:
        router.set_web_port(web.port)
        ours = Device(Daemon(), router.identity.device_id, relay)
        with SecondBus(router):
            other = Device(OtherDaemon(path), OTHER_DEVICE, relay)
            pairs = take_turns(ours, other)
            for device in (ours, other):
                device.daemon.finish()
    return pairs


def _ratios(pairs):
    return [ours / other for ours, other in pairs]


def figures_of(pairs):
    return [Figure(f"{measure.name}, ratio", statistics.median(_ratios(pairs[measure.name])), "",
                   measure.target, measure.at_least) for measure in MEASURES]


def print_pairs(pairs, path):
    """The values themselves, and how far the ratios lie apart."""
    print(f"\n{program(DAEMON)}\nin turns with {path}:")
    for measure in MEASURES:
        ours, other = (statistics.median(values) for values in zip(*pairs[measure.name]))
        low, _, high = statistics.quantiles(_ratios(pairs[measure.name]))
        print(f"{measure.name:40} {ours:10.3f} {measure.unit:2} other {other:10.3f} "
              f"{measure.unit:2} half of {measure.pairs} ratios in {low:.2f} to {high:.2f}")
