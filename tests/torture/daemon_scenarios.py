"""The daemon: its start, sessions of several kinds, a restart, a bus that goes."""

import contextlib
import threading
import time

import namespaces
import ubus_wire
from daemon import DAEMON, OBJECT, Daemon, slowness
from processes import wait_until
from relay_peer import RELAY_REQUEST, WEB_TOKEN, Closed, NothingCame, Relay
from router import BUS_SOCKET, CONFIGURATION, ROOT_CERTIFICATE, TOKEN_SCRIPT, Router
from scenario import ROUND_LIMIT_S, Scenario
from web_peer import WebServer

_ANSWER_S = 8.0  # how long the relay waits for what may not come

REQUEST = b"GET / HTTP/1.0\r\n\r\n"


class ServingRelay:
    """Takes each connection through a session, on a thread of its own, and writes down how far it
    got. A failure on the daemon's side ends the connection, not the relay."""

    def __init__(self, certificate, steps, **options):
        self._relay = Relay(certificate, **options)
        self.address, self.port = self._relay.address, self._relay.port
        self._steps = steps
        self._changed = threading.Condition()
        self._history = []
        self._finished = False
        self._gave_up = False
        self._is_serving = False
        self._may_end = threading.Event()
        self._closed = False
        self._thread = threading.Thread(target=self._serve, daemon=True)
        self._thread.start()

    def begin(self):
        with self._changed:
            self._history = []
            self._finished = self._gave_up = False
        self._may_end.clear()

    @property
    def history(self):
        with self._changed:
            return list(self._history)

    @property
    def has_finished(self):
        """Whether a session has gone through all steps."""
        with self._changed:
            return self._finished

    @property
    def has_given_up(self):
        """Whether a session, or a connection, has ended before all steps."""
        with self._changed:
            return self._gave_up

    def let_go(self):
        """Has the relay end its session; returns when that is done."""
        self._may_end.set()
        wait_until(lambda: not self._is_serving and not self._relay.is_called(0),
                   "the relay is at rest", ROUND_LIMIT_S)

    def _note(self, what):
        with self._changed:
            self._history.append(what)

    def _give_up(self, what):
        with self._changed:
            self._history.append(what)
            self._gave_up = True

    def _serve(self):
        while not self._closed:
            if self._relay.is_called(0.2):
                self._is_serving = True
                with contextlib.suppress(OSError):
                    self._serve_one()
                self._is_serving = False

    def _serve_one(self):
        try:
            session = self._relay.accept(_ANSWER_S)
        except (AssertionError, OSError):
            self._give_up("no TLS")
            return
        try:
            self._note("TLS")
            for step in self._steps:
                self._note(step(session))
            with self._changed:
                self._finished = True
            self._stay(session)
        except Closed:
            self._give_up("closed")
        except (AssertionError, OSError) as failure:
            self._give_up(type(failure).__name__)
        finally:
            session.close()

    def _stay(self, session):
        """Until the relay is let go, or the daemon has gone."""
        deadline = time.monotonic() + ROUND_LIMIT_S
        while not self._may_end.is_set() and time.monotonic() < deadline:
            try:
                session.read_some(0.05)
            except NothingCame:
                pass
            except Closed:
                return

    def close(self):
        self._closed = True
        self._may_end.set()
        self._thread.join()
        self._relay.close()


def hello(session):
    body = session.expect_hello(_ANSWER_S).body
    session.answer_hello()
    return f"hello {body.decode(errors='backslashreplace')}"


def heartbeat(session):
    session.answer_heartbeat(session.expect_heartbeat(_ANSWER_S))
    return "heartbeat"


def request(session):
    session.send_packet(RELAY_REQUEST, 7, REQUEST)
    answer = session.read_packet(_ANSWER_S)
    return f"answer {answer.type} {answer.id} {len(answer.body)}"


def token(session):
    session.send_packet(WEB_TOKEN, 8, b'{"name":"owner"}')
    return f"token {session.read_packet(_ANSWER_S).body.decode(errors='backslashreplace')}"


def has_worker(daemon):
    """Whether a session's thread exists; it takes its name a moment after it began."""
    own = [name for name in daemon.threads() if not name.startswith("leak looks")]
    return len(own) > 1


class DaemonScenario(Scenario):
    """With a router around the daemon: its bus, its services, its web server."""

    program_name = DAEMON
    files = (CONFIGURATION, ROOT_CERTIFICATE.parent, TOKEN_SCRIPT.parent)
    answer = b"HTTP/1.0 200 OK\r\n\r\n" + b"a" * 1000

    def begin(self):
        self.router = Router(self.authority)
        self.router.__enter__()
        self.web = WebServer()
        self.router.set_web_port(self.web.port)
        self.web.serve(self._answer_request)
        self.daemon = None
        self._last_log = ""  # of the daemon that was put away last

    def _answer_request(self, exchange):
        with contextlib.suppress(AssertionError, OSError):
            exchange.read_exactly(len(REQUEST))
            exchange.answer(self.answer)

    def end(self):
        try:
            self.finish_daemon()
        finally:
            self.web.close()
            self.router.__exit__(None, None, None)

    def start_daemon(self):
        self.control.renew()
        self.daemon = Daemon()
        with self.program.preloaded():
            self.daemon.start()

    def finish_daemon(self):
        """Ends the daemon and removes its files; shown_log() still has what it wrote."""
        self._last_log = self.shown_log()
        daemon, self.daemon = self.daemon, None
        if daemon:
            daemon.finish()

    def process_id(self):
        return self.daemon.pid

    def mark(self):
        return self.daemon.log.mark() if self.daemon else 0

    def errors_since(self, mark):
        return self.daemon.log.errors(mark)

    def shown_log(self):
        if not self.daemon:
            return self._last_log
        return self.daemon.log.shown() + "\n" + self.daemon.errors

    def call(self, method, message=None):
        """Calls the daemon, by a new client each time; the status, or how the call failed."""
        try:
            with ubus_wire.Client(BUS_SOCKET) as bus:
                bus.invoke(bus.lookup_id(OBJECT), method, message, _ANSWER_S)
        except ubus_wire.Refused as refused:
            return refused.status
        except (TimeoutError, OSError, ubus_wire.Closed) as failure:
            return type(failure).__name__
        return 0

    def serves(self):
        """Whether the daemon obeys calls; ends a session."""
        return self.call("stop") == 0


class DaemonStart(DaemonScenario):
    """From main() to the object on the bus."""

    lasting = False
    short = True

    def play(self):
        self.start_daemon()
        log = self.daemon.log

        def has_started():
            assert self.daemon.alive, self.daemon.errors
            self.obeys = self.serves()
            return self.obeys or self._logged_by("swCloudRelayClientInit")

        self.wait_failing(has_started, "the daemon has started")
        with contextlib.suppress(AssertionError):  # the line itself may be what failed
            wait_until(lambda: self._logged_by("adSysApiInit"), "the identity is logged", 0.5)
        return ["on the bus" if self.obeys else "not on the bus",
                "identity" if log.count("Init OK.") else "no identity"]

    def _logged_by(self, function):
        return any(entry.function == function for entry in self.daemon.log.entries)

    def leave(self):
        self.finish_daemon()


class DaemonSession(DaemonScenario):
    """A worker's whole life: connect, hello, heartbeat, request, token, stop."""

    on_main, on_others = False, True
    steps = (hello, heartbeat, request, token)

    def begin(self):
        super().begin()
        self.relay = self.make_relay()
        self.start_daemon()
        self.daemon.wait_for_object()

    def make_relay(self, **options):
        return ServingRelay(self.authority.certificate(), self.steps, **options)

    def end(self):
        self.relay.close()
        super().end()

    def _worker_has_ended(self):
        return not has_worker(self.daemon)

    def _is_settled(self):
        """Whether the session has come to its end, or cannot get farther."""
        return (self.relay.has_finished or self.relay.has_given_up or self._worker_has_ended())

    def play(self):
        with self.failing_for_a_while():
            begun = self.begin_session()
        return begun + self.end_session()

    def begin_session(self):
        """Begins a session and lets it come as far as it does; what happened."""
        self.relay.begin()
        status = self.call("reload", {"address": self.relay.address, "port": self.relay.port})
        wait_until(self._is_settled, "served, or ended", ROUND_LIMIT_S)
        return [f"reload {status}", *self.relay.history]

    def end_session(self):
        stopped = self.call("stop")
        try:
            wait_until(self._worker_has_ended, "the worker ends", ROUND_LIMIT_S)
        finally:
            self.relay.let_go()
        return [f"stop {stopped}"]


class DaemonLargeAnswer(DaemonSession):
    """An answer that takes many reads and many TLS records."""

    by_sites = True
    steps = (hello, heartbeat, request)
    answer = b"HTTP/1.0 200 OK\r\n\r\n" + b"a" * 300_000


class DaemonRestart(DaemonSession):
    """A reload while a session stands ends it and begins the next one."""

    on_main = True
    by_sites = True
    steps = (hello, heartbeat)  # a stop before the session stands is forgotten

    def play(self):
        with self.failing_for_a_while():
            begun = self.begin_session() + self.begin_session()
        return begun + self.end_session()


class DaemonUplinks(DaemonSession):
    """A relay behind the second of two uplinks: the first session looks for the way, the next one
    takes the way that worked."""

    lasting = False
    by_sites = True
    steps = (hello, heartbeat)  # a stop before the session stands is forgotten

    def begin(self):
        self.uplinks = [namespaces.Uplink("wan0", 1, 10), namespaces.Uplink("wan1", 2, 20)]
        self.uplinks[0].refuse("10.99.0.1")
        self.uplinks[1].host("10.99.0.1")
        DaemonScenario.begin(self)
        self.relay = self.make_relay(listener=self.uplinks[1].listen("10.99.0.1"))

    def end(self):
        try:
            super().end()
        finally:
            for uplink in self.uplinks:
                uplink.remove()

    def play(self):
        self.start_daemon()
        self.daemon.wait_for_object()
        with self.failing_for_a_while():
            found = self.begin_session()
            found += self.end_session()
            taken = self.begin_session()
        return found + taken + self.end_session()

    def leave(self):
        self.finish_daemon()


class DaemonBusLoss(DaemonScenario):
    """The bus ends and comes back; the daemon is there again."""

    def begin(self):
        super().begin()
        self.start_daemon()
        self.daemon.wait_for_object()

    def play(self):
        with self.failing_for_a_while():
            self.router.restart_bus()
            wait_until(self.serves, "the daemon serves its object", ROUND_LIMIT_S)
        return ["serves"]


SCENARIOS = {
    "daemon_start": DaemonStart,
    "daemon_session": DaemonSession,
    "daemon_large_answer": DaemonLargeAnswer,
    "daemon_restart": DaemonRestart,
    "daemon_uplinks": DaemonUplinks,
    "daemon_bus_loss": DaemonBusLoss,
}
