import contextlib
import itertools

import pytest

from device_peer import Device
from http_user import User
from relay_server import RelayServer

_numbers = itertools.count()


def pytest_configure(config):
    config.addinivalue_line("markers", "relay(policy, options, front_tls): how the test's "
                                       "relay_server is set up, where the defaults do not do")


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    outcome = yield
    report = outcome.get_result()
    for relay in getattr(item, "started_relays", []):
        if report.failed and relay.process:
            report.sections.append(("the relay's log", relay.log.text))


@pytest.fixture
def make_relay(request, places, authority):
    """Makes a relay_server that is not started yet; it ends with the test."""
    request.node.started_relays = []
    with contextlib.ExitStack() as running:
        def make(policy=None, options=None, front_tls=False, environment=None):
            folder = places.scratch / f"relay-{next(_numbers)}"
            relay = RelayServer(folder, authority.certificate(), policy, options,
                                authority.certificate("front.test") if front_tls else None,
                                environment)
            request.node.started_relays.append(relay)
            running.callback(lambda: relay.process and relay.__exit__(None, None, None))
            return relay
        yield make


@pytest.fixture
def relay(request, make_relay):
    """relay_server in place of the daemon tests' scripted relay."""
    marker = request.node.get_closest_marker("relay")
    return make_relay(**(marker.kwargs if marker else {})).start()


@pytest.fixture
def connect(relay):
    """Lets a device connect, TLS and no more; it is gone after the test."""
    with contextlib.ExitStack() as connected:
        yield lambda *args, **named: connected.enter_context(
            Device(relay.device_port, *args, **named))


@pytest.fixture
def device(connect):
    """An admitted device."""
    return connect().join()


@pytest.fixture
def open_user(relay):
    """Opens further users' connections; they end with the test."""
    with contextlib.ExitStack() as connected:
        yield lambda *args, **named: connected.enter_context(User(relay, *args, **named))


@pytest.fixture
def user(open_user):
    """A user's connection for the device."""
    return open_user()
