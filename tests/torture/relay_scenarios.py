"""relay_server: its start and end, and a device with its owner."""

import contextlib
import http.client
import signal
import threading

from bus_scenarios import EndingProgram
from device_peer import DEVICE_ID, Device
from processes import wait_until
from relay_peer import Closed
from relay_server import RelayServer
from scenario import ROUND_LIMIT_S, Problem, Scenario

_ANSWER_S = 8.0
_LISTENERS = ("devices", "users", "operators")


class RelayStart(EndingProgram):
    """From main() to the ports, and to the end that SIGTERM asks for."""

    program_name = "relay_server"
    short = False
    by_sites = True  # it makes 12000 calls, most of them OpenSSL's

    def begin(self):
        self.relay = RelayServer(self.places.scratch / "relay", self.authority.certificate(),
                                 options={"drain_s": 1})
        self.files = (self.relay.configuration, self.relay.policy, self.relay.certificate)

    def play(self):
        relay = self.launch("--config", self.relay.configuration)
        self.wait_failing(
            lambda: relay.status is not None or relay.listener_count() == len(_LISTENERS),
            "the relay listens or ends")
        listened = "listened" if relay.status is None else "not listened"
        with self.failing_for_a_while():  # none obeys SIGTERM while every wait fails
            status = relay.stop(timeout_s=ROUND_LIMIT_S)
        return [listened, f"ended with {status}"]

    def errors_since(self, mark):
        return [line for line in super().errors_since(mark)
                if " error " in line or " warning " in line or line.startswith("relay_server:")]


class RelayServe(Scenario):
    """A device joins, a user asks it, the files are read again, the device goes."""

    program_name = "relay_server"
    by_sites = True  # 7000 calls, most of them OpenSSL's
    log_functions = {"write"}
    kept_blocks = 16  # texts of OpenSSL's last 16 errors

    def begin(self):
        self.control.renew()
        self.relay = RelayServer(self.places.scratch / "relay", self.authority.certificate(),
                                 options={"drain_s": 1})
        self.files = (self.relay.configuration, self.relay.policy, self.relay.certificate)
        with self.program.preloaded():
            self.relay.start()
        self.descriptors = self.relay.process.descriptor_count()  # without a connection

    def end(self):
        self.relay.stop()

    def process_id(self):
        return self.relay.pid

    def mark(self):
        return len(self.relay.log.text)

    def errors_since(self, mark):
        return [line for line in self.relay.log.text[mark:].splitlines() if line]

    def shown_log(self):
        return self.relay.log.text

    def play(self):
        outcome = []
        try:
            with self.failing_for_a_while(), Device(self.relay.device_port) as device:
                self._play(device, outcome)
        except (Closed, OSError, AssertionError, http.client.HTTPException) as failure:
            outcome.append(type(failure).__name__)
        if self.relay.has_ended:
            raise Problem("the relay has ended")
        self.control.disarm()
        self.relay.wait_for_no_device(DEVICE_ID)
        wait_until(lambda: self.relay.process.descriptor_count() <= self.descriptors,
                   "all connections are closed", ROUND_LIMIT_S)
        return outcome

    def _play(self, device, outcome):
        device.say_hello()
        outcome.append(f"hello {device.hello_reply(_ANSWER_S)}")
        device.beat()
        outcome.append("heartbeat")
        answers = []
        user = threading.Thread(target=self._ask, args=(answers,))
        user.start()
        try:
            request = device.expect_request(_ANSWER_S)
            outcome.append(request.line)
            device.answer(request)
        finally:
            user.join()
        outcome.extend(answers)
        start = len(self.relay.log.text)
        self.relay.signal(signal.SIGHUP)
        self.relay.log.wait_for(r"reloaded certificates|not reloaded", _ANSWER_S, start)
        outcome.append("reloaded" if "not reloaded" not in self.relay.log.text[start:]
                       else "not reloaded")

    def _ask(self, answers):
        with contextlib.suppress(OSError, http.client.HTTPException):
            response = self.relay.get(DEVICE_ID, "/index.html")
            answers.append(f"answer {response.status} {len(response.body)}")


SCENARIOS = {
    "relay_start": RelayStart,
    "relay_serve": RelayServe,
}
