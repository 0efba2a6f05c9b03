"""The whole chain: relay_server and users out there; bus, daemon, supervisor and web server on the
router. A process has one.
"""

import contextlib
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import namespaces
from census import census
from certificates import Authority
from daemon import Daemon
from processes import wait_until
from relay_server import ADDRESS, RelayServer
from router import Router, prepare
from supervised import Supervisor

# Where the router finds the relay behind its uplink.
RELAY_ADDRESS, RELAY_PORT = "198.51.100.7", 443
UPLINK = "wan"

# relay_server's, so that a leak of some 100 KiB shows: by itself the C library keeps up to twice the
# largest body that the program ever held.
TIGHT_HEAP = {"MALLOC_MMAP_THRESHOLD_": "131072", "MALLOC_TRIM_THRESHOLD_": "131072"}


class Outside:
    """The network that the relay is in. Make it before the process leaves that network."""

    def __init__(self):
        self._dweller = ThreadPoolExecutor(max_workers=1)
        self.run(int)  # now it lives there

    def run(self, action, *arguments):
        """What `action` returns, done out there; what it starts stays there."""
        return self._dweller.submit(action, *arguments).result()


class Chain:
    """start() wants the web server, which must be made after the chain. Use it as a context
    manager.

    `apart`: the router has a network of its own, with an uplink that ends at `listener`; the line
    from there to the relay is the caller's. Else they share one.
    """

    def __init__(self, apart):
        self.places = prepare()
        self.outside = Outside()
        self._is_apart = apart
        if apart:
            namespaces.leave_network()
        authority = Authority(self.places.scratch / "authority")
        self.relay = RelayServer(self.places.scratch / "relay", authority.certificate(),
                                 environment=TIGHT_HEAP)
        self.router = Router(authority)
        self.daemon = Daemon()
        self.supervisor = Supervisor(self.router)
        self._running = contextlib.ExitStack()

    def start(self, web_port):
        """Everything but the supervisor: connect() starts that."""
        self._running.push(self.outside.run(self.relay.start))
        self._running.enter_context(self.router)
        self.router.set_web_port(web_port)
        self.server = ADDRESS, self.relay.device_port
        if self._is_apart:
            self.server = RELAY_ADDRESS, RELAY_PORT
            uplink = namespaces.Uplink(UPLINK, 1, metric=10, hosts=[RELAY_ADDRESS])
            self.listener = uplink.listen(*self.server)
        self._running.callback(self.daemon.finish)
        self.daemon.start().wait_for_object()
        self._running.callback(self.supervisor.finish)

    def connect(self):
        self.supervisor.configure("%s:%d" % self.server).start()
        wait_until(self._has_heartbeat, "the daemon's session is established")

    def _has_heartbeat(self):
        """One follows the hello's answer."""
        device = self.outside.run(self.relay.devices).get(self.device_id)
        return device and device["last_heartbeat"]

    @property
    def device_id(self):
        return self.router.identity.device_id

    @property
    def front(self):
        return ADDRESS, self.relay.front_port

    @property
    def host(self):
        """What users name the router."""
        return self.relay.host(self.device_id)

    def census(self):
        return census({"daemon": self.daemon.pid, "supervisor": self.supervisor.pid,
                       "bus": self.router.bus.pid, "relay": self.relay.pid})

    def save_logs(self, folder):
        Path(folder).mkdir(parents=True, exist_ok=True)
        for name, log in (("daemon", self.daemon.log), ("supervisor", self.supervisor.log)):
            if log:
                Path(folder, f"{name}.log").write_text(log.shown())
        if self.relay.process:
            Path(folder, "relay.log").write_text(self.relay.log.text)

    def __enter__(self):
        return self

    def __exit__(self, kind, value, trace):
        return self._running.__exit__(kind, value, trace)
