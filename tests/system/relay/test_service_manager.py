"""The relay reports its state to a service manager that listens at NOTIFY_SOCKET."""

import signal
import socket

import pytest

from device_peer import Device
from http_user import User
from service_manager import ServiceManager


@pytest.fixture
def manager(places):
    path = places.scratch / "notify"
    path.unlink(missing_ok=True)
    with ServiceManager(path) as listening:
        yield listening


@pytest.fixture
def relay(request, make_relay, manager):
    """Started by the manager; marked relay(watchdog_s=...), it is to beat."""
    marker = request.node.get_closest_marker("relay")
    wishes = dict(marker.kwargs) if marker else {}
    environment = manager.environment(wishes.pop("watchdog_s", None))
    return make_relay(environment=environment, **wishes).start()


def states(manager):
    """What was reported of the process's life, without counts and beats."""
    return [name for name in manager.names() if name in ("READY", "RELOADING", "STOPPING")]


def test_it_is_ready_when_every_port_takes_connections(relay, manager):
    manager.expect("READY", "1")
    for port in (relay.device_port, relay.front_port, relay.admin_port):
        socket.create_connection(("127.0.0.1", port)).close()
    assert states(manager) == ["READY"]


def test_it_is_not_ready_when_one_port_cannot_be_had(make_relay, manager):
    """The operators' listener is the last one."""
    with socket.create_server(("127.0.0.1", 0)) as taken:
        relay = make_relay(options={"admin": {"listen": "127.0.0.1:%d" % taken.getsockname()[1]}},
                           environment=manager.environment())
        assert relay.launch().wait() == 2
    assert manager.read_all() == []


def test_its_status_counts_devices_and_users(relay, manager, connect, open_user):
    manager.expect("STATUS", "0 devices, 0 user connections")
    connect().join()
    manager.expect("STATUS", "1 device, 0 user connections")
    connect("other").join()
    open_user()
    manager.expect("STATUS", "2 devices, 1 user connection")


@pytest.mark.lasts(8)
@pytest.mark.relay(watchdog_s=6)
def test_it_beats_within_the_watchdogs_limit(relay, manager):
    beats = [manager.expect("WATCHDOG", "1").time for _ in range(4)]
    assert all(later - earlier < 6 for earlier, later in zip(beats, beats[1:]))
    assert beats[-1] - beats[0] > 4, "more beats than the manager needs"


def test_without_a_watchdog_it_does_not_beat(relay, manager, connect):
    for number in range(2):
        connect(f"device{number}").join()
        manager.expect("STATUS")  # of a later sweep of the event loop
    assert "WATCHDOG" not in manager.names()


def test_a_reload_begins_and_ends(relay, manager):
    manager.expect("READY")
    relay.reload()
    reloading = manager.expect("RELOADING", "1")
    assert int(reloading.values["MONOTONIC_USEC"]) <= reloading.time * 1e6
    manager.expect("READY", "1")
    assert states(manager) == ["READY", "RELOADING", "READY"]


def test_a_reload_of_a_broken_file_ends_too(relay, manager):
    manager.expect("READY")
    relay.policy.write_text("nonsense")
    relay.reload()
    relay.log.wait_for("not reloaded: ")
    manager.expect("RELOADING", "1")
    manager.expect("READY", "1")


@pytest.mark.lasts(4)
@pytest.mark.relay(options={"drain_s": 6}, watchdog_s=3)
def test_a_drain_asks_for_its_time_and_beats_on(relay, manager, device, user):
    user.ask()
    device.expect_request()
    manager.expect("STATUS", "1 device, 1 user connection")
    relay.signal(signal.SIGTERM)
    stopping = manager.expect("STOPPING", "1")
    assert int(stopping.values["EXTEND_TIMEOUT_USEC"]) > 6e6
    manager.expect("STATUS", "draining: 1 device, 1 user connection")
    relay.log.wait_for("draining: nobody comes in any more")
    manager.read_all()
    manager.expect("WATCHDOG", "1")
    assert relay.process.wait() == 0


def test_a_manager_that_has_gone_is_logged_once_and_disturbs_nobody(make_relay, places):
    relay = make_relay(environment={"NOTIFY_SOCKET": str(places.scratch / "nobody"),
                                    "WATCHDOG_USEC": "1000"}).start()
    relay.log.wait_for("warning the service manager takes no report at NOTIFY_SOCKET: No such")
    relay.reload()
    relay.reload()
    assert relay.log.text.count("NOTIFY_SOCKET") == 1


def test_it_serves_on_when_the_manager_reads_nothing(make_relay, manager):
    manager.fill()
    relay = make_relay(environment=manager.environment(watchdog_s=0.1)).start()
    relay.log.wait_for("warning the service manager takes no report at NOTIFY_SOCKET: Resource")
    with Device(relay.device_port) as device, User(relay) as user:
        device.join()
        user.ask()
        device.answer(device.expect_request())
        assert user.read().status == 200
        relay.reload()
        manager.expect("READY", "1")  # it reads again
        manager.expect("STATUS", "1 device, 1 user connection")
