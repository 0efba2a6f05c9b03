"""A bus that restarts, a daemon that dies, and one that is not on the bus."""

import re
import signal
import time

import pytest

from daemon import slowness
from processes import wait_until
from router import BUS_SOCKET
from supervised import reloads
from ubus_wire import Method, ObjectOwner, Status


def restart_bus(router, meanwhile=lambda: None):
    router.identity.stop()
    router.stop_bus()
    meanwhile()
    router.start_bus()
    router.identity.start()


@pytest.mark.lasts(8)
def test_a_restart_of_the_bus_costs_no_session(supervisor, router, daemon, relay):
    supervisor.configure(relay).start()
    session = relay.accept().welcome()
    supervisor.wait_for("connected")
    restart_bus(router, lambda: supervisor.log.expect("the bus is gone; waiting for it"))
    daemon.wait_for_object()
    supervisor.log.expect("cloud_relayc is on the bus")
    supervisor.wait_for_object().wait_for("connected")
    session.expect_served()
    assert reloads(daemon) == 1
    session.close()
    relay.accept().welcome().expect_served()


@pytest.mark.lasts(8)
def test_a_session_that_ends_while_the_bus_is_away_is_followed_by_another(
        supervisor, router, daemon, relay):
    supervisor.configure(relay).start()
    session = relay.accept().welcome()
    supervisor.wait_for("connected")
    restart_bus(router, session.close)
    relay.accept().welcome().expect_served()
    supervisor.wait_for_object().wait_for("connected")


@pytest.mark.lasts(12)
def test_three_restarts_of_the_bus_in_a_row_are_followed(supervisor, router, daemon, relay):
    supervisor.configure(relay).start()
    session = relay.accept().welcome()
    supervisor.wait_for("connected")
    for _ in range(3):
        restart_bus(router)
        daemon.wait_for_object()
        supervisor.wait_for_object().wait_for("connected")
    session.expect_served()
    assert reloads(daemon) == 1


@pytest.mark.lasts(6)
def test_a_daemon_that_died_and_was_started_again_gets_a_new_session(
        supervisor, daemon, relay):
    supervisor.configure(relay).start()
    session = relay.accept().welcome()
    supervisor.wait_for("connected")
    daemon.kill()
    session.expect_closed()
    supervisor.log.expect("waiting for cloud_relayc on the bus")
    supervisor.wait_for("waiting")
    daemon.start()
    relay.accept().welcome().expect_served()
    supervisor.wait_for("connected")


# --- missing on the bus ---

class Procd:
    """procd's object, as far as it is called."""

    def __enter__(self):
        self._object = ObjectOwner(BUS_SOCKET, "service", {
            "signal": Method(lambda call: Status.OK)})
        return self

    def __exit__(self, *_):
        self._object.die()

    def was_called(self):
        return self._object.call_count() > 0

    def next_signal(self, within):
        return self._object.next_call(within).data


@pytest.mark.lasts(8)
def test_a_daemon_that_is_missing_is_restarted_through_procd(
        supervisor, unstarted_daemon, relay):
    with Procd() as procd:
        supervisor.configure(relay, object_timeout="1").start().wait_for_object()
        supervisor.log.expect("cloud_relayc has been missing on the bus for 1 s")
        assert procd.next_signal(within=1 * slowness()) == {
            "name": "cloud_relay", "instance": "cloud_relay_client", "signal": signal.SIGKILL}
        supervisor.log.expect("procd was asked to restart cloud_relay_client")
        assert supervisor.status()["last_reason"] == "cloud_relayc is missing on the bus"
        began = time.monotonic()
        procd.next_signal(within=5 * slowness())  # after twice the time
        assert 1.5 < time.monotonic() - began < 2.5 * slowness()
        unstarted_daemon.start()
        relay.accept().welcome()
        supervisor.wait_for("connected")


@pytest.mark.lasts(3)
def test_without_procd_a_missing_daemon_is_reported(supervisor, unstarted_daemon, relay):
    supervisor.configure(relay, object_timeout="1").start()
    supervisor.log.expect_all("cloud_relayc has been missing on the bus for 1 s",
                              "no procd is on the bus that could restart cloud_relay_client")


@pytest.mark.lasts(6)
def test_a_live_session_is_not_given_up_for_a_daemon_that_left_the_bus(
        supervisor, router, daemon, relay):
    supervisor.configure(relay, object_timeout="1").start()
    session = relay.accept().welcome()
    supervisor.wait_for("connected")
    daemon.signal(signal.SIGTERM)  # ends its event loop; its session goes on
    supervisor.log.expect("waiting for cloud_relayc on the bus")
    with Procd() as procd:
        supervisor.log.expect(re.compile("cloud_relayc has been missing on the bus for [12] s"))
        assert supervisor.status()["state"] == "connected"
        session.expect_served()
        assert not procd.was_called()
        session.close()
        procd.next_signal(within=5 * slowness())
        wait_until(lambda: supervisor.status()["state"] == "waiting", "waiting")
