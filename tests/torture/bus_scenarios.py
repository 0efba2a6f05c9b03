"""The bus: its broker, and its client library in the command-line tool."""

import contextlib
import signal
import socket
import tempfile
from pathlib import Path

import ubus_wire
from processes import Process, program, wait_until
from relay_peer import is_readable
from scenario import ROUND_LIMIT_S, Scenario, State
from ubus_programs import Broker
from ubus_wire import Method, Status

_CALL_S = 3.0


class EndingProgram(Scenario):
    """A program that ends in each round; what it still holds then is compared with a clean end."""

    lasting = False
    short = True
    process = None

    def launch(self, *arguments):
        self.control.renew()
        with self.program.preloaded():
            self.process = Process(program(self.program_name), *arguments)
        return self.process

    def process_id(self):
        return self.process.pid

    def state(self):
        return State({}, [], [], self.control.blocks, self.control.bytes)

    def errors_since(self, mark):
        return [line for line in self.process.errors.lines if line]

    def shown_log(self):
        return self.process.output.text + self.process.errors.text if self.process else ""

    def end(self):
        if self.process and not self.process.is_finished:
            self.process.put_away()


class BrokerStart(EndingProgram):
    """From main() to a socket that is served, and to the end that SIGTERM asks for."""

    program_name = "ubusd"

    def begin(self):
        self.folder = Path(tempfile.mkdtemp(prefix="bus.", dir="/tmp"))
        self.socket = self.folder / "ubus.sock"

    def _serves(self):
        """Whether a client is greeted."""
        with socket.socket(socket.AF_UNIX) as client:
            try:
                client.connect(str(self.socket))
                return is_readable(client, 0.3) and client.recv(1) != b""
            except OSError:
                return False

    def play(self):
        broker = self.launch("-s", self.socket)
        self.wait_failing(lambda: broker.status is not None or self._serves(), "served, or ended")
        served = "not served" if broker.status is not None else "served"
        status = broker.stop(timeout_s=ROUND_LIMIT_S)
        left = [entry.name for entry in self.folder.iterdir()]
        for name in left:  # what a broker that could not start has left
            (self.folder / name).unlink()
        return [served, f"ended with {status}", f"files {left}"]


class HastyClient(ubus_wire.Client):
    """Waits for any message _CALL_S at most."""

    def receive_raw(self, timeout_s=_CALL_S):
        return super().receive_raw(min(timeout_s, _CALL_S))


class BrokerServe(Scenario):
    """Two clients: an object, a call, an event, and a client that goes."""

    program_name = "ubusd"

    def begin(self):
        self.control.renew()
        with self.program.preloaded():
            self.broker = Broker()

    def end(self):
        self.broker.stop()

    def process_id(self):
        return self.broker.process.pid

    def errors_since(self, mark):
        return [line for line in self.broker.process.errors.lines if line]

    def excuse(self, hit, round_):
        """The broker keeps no log: clients see a status, or their connection end."""
        if (round_.outcome[-1] == "TimeoutError" and hit.name == "realloc" and
                "request_send_status" in hit.functions()):
            return None
        return "clients see it"

    def play(self):
        outcome = []
        try:
            with self.failing_for_a_while():
                self._play(outcome)
        except ubus_wire.Refused as refused:
            outcome.append(f"refused {refused.status}")
        except (ubus_wire.Closed, ubus_wire.WireError, OSError, IndexError) as failure:
            outcome.append(type(failure).__name__)
        wait_until(lambda: self.broker.connection_count() == 0, "all clients are gone",
                   ROUND_LIMIT_S)
        return outcome

    def _play(self, outcome):
        with contextlib.ExitStack() as clients:
            owner = clients.enter_context(HastyClient(self.broker.socket))
            caller = clients.enter_context(HastyClient(self.broker.socket))
            own = owner.add_object("torture", {"echo": {"text": 3}})
            outcome.append("added")
            found = caller.lookup("torture")[0]
            outcome.append(f"found {found.path} {found.signature}")
            seq = caller.post_invoke(own.id, "echo", {"text": "x" * 300})
            invoke = owner.next_invoke(_CALL_S)
            owner.reply(invoke, {"text": "answer"})
            outcome.append(f"called {caller.answer_to(seq, _CALL_S)[1]}")
            caller.register_events("torture.*")
            owner.send_event("torture.now", {"number": 7})
            outcome.append(f"event {caller.next_event(_CALL_S)}")
            owner.remove_object(own.id)
            outcome.append(f"removed {ubus_wire.status_of(caller.lookup, 'torture')}")


class ToolCall(EndingProgram):
    """The tool calls a method: the client library's connect, lookup and request."""

    program_name = "ubus"
    arguments = ("call", "torture", "echo", '{"text":"hello"}')

    def state(self):
        """One whose time is up, or that is asked to end, does so at once, with what it holds."""
        if self.process.status in (Status.TIMEOUT, -signal.SIGTERM):
            return State({}, [], [], 0, 0)
        return super().state()

    def begin(self):
        self.broker = Broker()
        self.owner = self.broker.owner("torture", {
            "echo": Method(lambda call: {"text": "answer", "list": [1, 2, 3]}, {"text": 3})})

    def end(self):
        super().end()
        self.owner.die()
        self.broker.stop()

    def play(self):
        tool = self.launch("-s", self.broker.socket, "-t", 5, *self.arguments)
        status = tool.wait(ROUND_LIMIT_S)
        return [f"ended with {status}", tool.output.text]


class ToolList(ToolCall):
    """The tool lists all objects with their methods."""

    arguments = ("-v", "list")


class ToolListen(ToolCall):
    """The tool waits for an event, prints it, and ends when it is asked to."""

    arguments = ("listen", "torture.*")

    def state(self):
        """Other than a clean end by signal, one by itself after an event leaves the buffer of
        standard output."""
        state = super().state()
        if self._has_printed() and state.blocks:
            state.blocks -= 1
        return state

    def _has_printed(self):
        return "torture.now" in self.process.output.text

    def begin(self):
        super().begin()
        self.sender = self.broker.client()

    def end(self):
        self.sender.close()
        super().end()

    def play(self):
        tool = self.launch("-s", self.broker.socket, *self.arguments)

        def has_printed():
            self.sender.send_event("torture.now", {"number": 7})
            return tool.status is not None or self._has_printed()

        self.wait_failing(has_printed, "the event is printed")
        printed = self._has_printed()
        status = tool.stop(signal.SIGTERM, ROUND_LIMIT_S)
        return [f"ended with {status}", f"printed {printed}"]


SCENARIOS = {
    "broker_start": BrokerStart,
    "broker_serve": BrokerServe,
    "tool_call": ToolCall,
    "tool_list": ToolList,
    "tool_listen": ToolListen,
}
