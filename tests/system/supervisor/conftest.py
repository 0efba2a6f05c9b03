import socket

import pytest

from relay_peer import Relay
from supervised import Supervisor


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    outcome = yield
    supervisor = getattr(item, "funcargs", {}).get("supervisor")
    report = outcome.get_result()
    if report.failed and supervisor is not None and supervisor.log is not None:
        report.sections.append(("the supervisor's log", supervisor.log.shown()))


@pytest.fixture
def supervisor(router):
    """The router's supervisor, neither configured nor started."""
    supervised = Supervisor(router)
    yield supervised
    supervised.finish()


class RestartedRelay:
    """A relay that comes back on the port it had."""

    def __init__(self, certificate):
        self._certificate = certificate
        self._relay = Relay(certificate)
        self.address, self.port = self._relay.address, self._relay.port

    def stop(self):
        """Ends it and all its sessions, as a crash would."""
        self._relay.close()

    def start(self):
        listener = socket.create_server((self.address, self.port), backlog=128)
        self._relay = Relay(self._certificate, listener=listener)

    def __getattr__(self, verb):
        return getattr(self._relay, verb)


@pytest.fixture
def lasting_relay(places, authority):
    relay = RestartedRelay(authority.certificate())
    yield relay
    relay.stop()
