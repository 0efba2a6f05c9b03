import pytest

import namespaces
from certificates import Authority
from daemon import Daemon, build
from longest_first import LongestFirst, duration_of
from relay_peer import Relay
from router import Router, prepare
from suite_rules import of_this_build, shuffle
from web_peer import WebServer

pytest_plugins = ["suite_rules"]


def pytest_configure(config):
    # Here and not later: afterwards there are threads. Workers of xdist inherit it.
    if not hasattr(config, "workerinput"):
        namespaces.become_root()


def pytest_collection_modifyitems(items):
    shuffle(items)
    items.sort(key=duration_of, reverse=True)


@pytest.hookimpl(optionalhook=True)
def pytest_xdist_make_scheduler(config, log):
    return LongestFirst(config, log)


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    outcome = yield
    daemon = getattr(item, "funcargs", {}).get("unstarted_daemon")
    report = outcome.get_result()
    if report.failed and daemon is not None and daemon.log is not None:
        report.sections.append(("the daemon's log", daemon.log.shown()))


def pytest_runtest_setup(item):
    if item.get_closest_marker("plain_build") and build() != "plain":
        pytest.skip(of_this_build(f"{build()}, and the test is about the daemon as shipped"))


@pytest.fixture(scope="session")
def places():
    """This process's private places; whatever listens must be made after it."""
    return prepare()


@pytest.fixture(scope="session")
def authority(places):
    """The certificate authority that the router trusts."""
    return Authority(places.scratch / "authority")


@pytest.fixture(scope="session")
def impostor(places, authority):
    """Another authority under the same name, with a key of its own."""
    return Authority(places.scratch / "impostor")


@pytest.fixture
def router(places, authority):
    """A router in working order: configuration, certificate, bus, identity services."""
    with Router(authority) as running:
        yield running


@pytest.fixture
def relay(places, authority):
    with Relay(authority.certificate()) as listening:
        yield listening


@pytest.fixture
def web(router):
    """The router's web server, on the port that the configuration names."""
    with WebServer() as listening:
        router.set_web_port(listening.port)
        yield listening


@pytest.fixture
def unstarted_daemon(router):
    """For tests that change the router before they start the daemon."""
    daemon = Daemon()
    yield daemon
    daemon.finish()


@pytest.fixture
def daemon(unstarted_daemon):
    """The daemon, started and on the bus."""
    unstarted_daemon.start().wait_for_object()
    unstarted_daemon.log.mark()
    return unstarted_daemon


@pytest.fixture
def session(daemon, relay):
    """The relay's side of an established, idle session."""
    assert daemon.reload(relay.address, relay.port).status == 0
    established = relay.accept().welcome()
    daemon.log.expect("[CRC:] begin cycle loop")
    daemon.log.expect("[CRC:] cloud heartbeat recv")
    daemon.log.mark()
    return established
