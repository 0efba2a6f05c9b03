"""The supervisor: its start, up to a session that stands, and a session that is lost."""

import ubus_wire
from daemon import Daemon
from processes import wait_until
from router import BUS_SOCKET, CONFIGURATION, Router
from daemon_scenarios import ServingRelay, has_worker, heartbeat, hello
from scenario import ROUND_LIMIT_S, Scenario, State
from supervised import Supervisor

_OBJECT = "cloud_relay"


class SupervisorScenario(Scenario):
    """With a router, a daemon and a relay around it; none of those is made to fail."""

    program_name = "cloud_relay_supervisor"
    by_sites = True  # it reads /proc over and over while a session comes about
    files = (CONFIGURATION,)
    log_functions = {"print_line"}

    def begin(self):
        self.router = Router(self.authority)
        self.router.__enter__()
        self.relay = ServingRelay(self.authority.certificate(), (hello, heartbeat))
        self.router.name_hosts({"relay.test": [self.relay.address]})
        self.daemon = Daemon()
        self.daemon.start().wait_for_object()
        self.supervisor = Supervisor(self.router)
        self.supervisor.configure(f"relay.test:{self.relay.port}")

    def end(self):
        try:
            self.supervisor.finish()
            self.daemon.finish()
        finally:
            self.relay.close()
            self.router.__exit__(None, None, None)

    def start(self):
        self.control.renew()
        with self.program.preloaded():
            self.supervisor.start(seed=7)

    def process_id(self):
        return self.supervisor.pid

    def mark(self):
        return self.supervisor.log.mark() if self.supervisor.log else 0

    def errors_since(self, mark):
        return [entry.text for entry in self.supervisor.log.entries[mark:]]

    def shown_log(self):
        return self.supervisor.log.shown() if self.supervisor.log else ""

    def state_on_bus(self):
        """Its state; empty while it does not answer. By a new client each time: an answer that
        comes too late reaches no later call."""
        try:
            with ubus_wire.Client(BUS_SOCKET) as bus:
                (answer,) = bus.invoke(bus.lookup_id(_OBJECT), "status", timeout_s=5)
        except (ubus_wire.Refused, TimeoutError, ValueError):
            return ""
        return answer["state"]

    def wait_for_session(self):
        """Waits until a session stands, or it has none to bring about; its state then."""
        seen = []

        def is_settled():
            seen[:] = [self.state_on_bus()]
            return seen == ["idle"] or seen == ["connected"] and self.relay.has_finished

        self.wait_failing(is_settled, "a session stands")
        return seen[0]


class SupervisorStart(SupervisorScenario):
    """From main() to a session that stands, and to the end that SIGTERM asks for."""

    lasting = False

    def play(self):
        self.relay.begin()
        self.start()
        state = self.wait_for_session()
        self.supervisor.stop()
        self.relay.let_go()
        wait_until(lambda: not has_worker(self.daemon), "the daemon is idle", ROUND_LIMIT_S)
        return [state, *self.relay.history]

    def state(self):
        return State({}, [], [], self.control.blocks, self.control.bytes)

    def errors_since(self, mark):
        return [entry.text for entry in self.supervisor.log.entries]


class SupervisorWatch(SupervisorScenario):
    """A session that stands is lost; the next one comes."""

    def begin(self):
        super().begin()
        self.relay.begin()
        self.start()
        assert self.wait_for_session() == "connected", self.shown_log()

    def play(self):
        self.relay.let_go()
        self.relay.begin()
        self.wait_failing(lambda: self.relay.history, "the next session begins")
        return [self.wait_for_session(), *self.relay.history]


SCENARIOS = {
    "supervisor_start": SupervisorStart,
    "supervisor_watch": SupervisorWatch,
}
