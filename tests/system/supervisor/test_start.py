"""How the supervisor begins: what it waits for, and what it finds already there."""

import re
import socket
import time

import pytest

from daemon import slowness
from processes import PATIENCE_S, program, run
from relay_peer import Relay, is_readable
from router import BUS_SOCKET
from supervised import Pauses, Supervisor, reloads, stays


def test_it_waits_for_the_daemon(supervisor, unstarted_daemon, relay):
    supervisor.configure(relay).start()
    supervisor.log.expect("waiting for cloud_relayc on the bus")
    assert supervisor.wait_for("waiting")["next_try_ms"] == 0
    unstarted_daemon.start()
    relay.accept().welcome()
    supervisor.wait_for("connected")


@pytest.mark.lasts(4)
def test_it_waits_for_the_bus(supervisor, router, unstarted_daemon, relay):
    router.identity.stop()
    router.stop_bus()
    supervisor.configure(relay).start()
    time.sleep(1.5)
    router.start_bus()
    router.identity.start()
    unstarted_daemon.start()
    relay.accept().welcome()
    supervisor.wait_for("connected")


@pytest.mark.lasts(5)
def test_the_first_attempt_waits_a_random_time(supervisor, daemon, relay):
    delay = Pauses(seed=7).draw(4000)
    supervisor.configure(relay, boot_delay="4").start(seed=7)
    planned = supervisor.log.expect(
        f"first attempt in {delay / 1000:.3f} s (at most 4.000 s)")
    relay.accept()
    assert delay / 1000 - 0.05 < time.monotonic() - planned.at < delay / 1000 + 1 * slowness()


def test_without_a_configuration_nothing_is_connected_to_until_there_is_one(
        supervisor, daemon, relay):
    supervisor.start()
    supervisor.log.expect("cloud_relay: the configuration cannot be read: Entry not found")
    status = supervisor.wait_for_object().wait_for("idle")
    assert status["server"] == "" and status["next_try_ms"] == 0
    supervisor.configure(relay).must("reload")
    relay.accept().welcome()
    supervisor.wait_for("connected")


def test_arguments_are_refused(supervisor, daemon):
    finished = run(program("cloud_relay_supervisor"), "--help")
    assert finished.status == 2 and finished.errors.startswith("usage: cloud_relay_supervisor")


@pytest.mark.lasts(6)
def test_a_bus_that_says_nothing_does_not_keep_it_from_ending(supervisor, router):
    router.identity.stop()
    router.stop_bus()
    with socket.socket(socket.AF_UNIX) as silent:
        silent.bind(str(BUS_SOCKET))
        silent.listen()
        supervisor.start()
        assert is_readable(silent, within=PATIENCE_S)
        supervisor.stop()
    BUS_SOCKET.unlink()


@pytest.mark.plain_build
def test_the_c_plus_plus_library_is_not_needed_at_run_time():
    listed = run("/usr/bin/readelf", "-d", program("cloud_relay_supervisor")).output
    needed = re.findall(r"\(NEEDED\).*\[(.*)\]", listed)
    assert needed and not [name for name in needed if name.startswith("libstdc++")]


@pytest.mark.lasts(4)
def test_a_second_supervisor_says_why_it_does_nothing(supervisor, router, daemon, relay):
    supervisor.configure(relay).start().wait_for_object()
    second = Supervisor(router).start()
    try:
        second.log.expect("the bus refuses the object 'cloud_relay': Invalid argument")
    finally:
        second.finish()
    assert reloads(daemon) == 1


# --- sessions that are there already ---

@pytest.mark.lasts(5)
def test_a_restarted_supervisor_leaves_the_session_alone(supervisor, daemon, relay):
    supervisor.configure(relay).start()
    session = relay.accept().welcome()
    supervisor.wait_for("connected")
    supervisor.stop()
    session.expect_served()
    supervisor.start()
    assert supervisor.wait_for_object().wait_for("connected")["attempts"] == 0
    session.expect_served()
    assert reloads(daemon) == 1


@pytest.mark.lasts(5)
def test_a_session_to_a_listed_name_is_left_alone(supervisor, router, daemon, relay):
    router.name_hosts({"relay.example": ["127.0.0.9", "127.0.0.1"], "other.example": ["127.0.0.8"]})
    session = daemon.open_session(relay)
    here = f"relay.example:{relay.port}"
    supervisor.configure(f"other.example:{relay.port}", here).start().wait_for_object()
    assert supervisor.wait_for("connected")["server"] == here
    session.expect_served()
    assert reloads(daemon) == 1


@pytest.mark.lasts(6)
def test_a_session_whose_server_cannot_be_told_is_left_alone(supervisor, router, daemon, relay):
    session = daemon.open_session(relay)
    supervisor.configure(f"relay.example:{relay.port}").start()
    supervisor.log.expect("a session is up, but the listed names do not resolve, so that it cannot "
                          "be told whether it leads to one; it is left alone")
    stays(lambda: supervisor.status()["state"] == "connecting", "connecting", 3)
    session.expect_served()
    assert reloads(daemon) == 1


@pytest.mark.lasts(9)
@pytest.mark.parametrize("listed", ["another port", "another address", "another name"])
def test_a_session_that_leads_elsewhere_is_replaced(
        supervisor, router, daemon, relay, authority, listed):
    router.name_hosts({"relay.example": ["127.0.0.2"]})
    daemon.open_session(relay)
    host, port = {"another port": ("127.0.0.1", 0), "another address": ("127.0.0.2", relay.port),
                  "another name": ("127.0.0.2", relay.port)}[listed]
    with Relay(authority.certificate(), listener=socket.create_server((host, port))) as right:
        name = "relay.example" if listed == "another name" else right.address
        supervisor.configure(f"{name}:{right.port}").start()
        supervisor.log.expect("the session leads to a server that is not listed; it is replaced")
        right.accept().welcome().expect_served()
        assert supervisor.wait_for("connected")["server"] == f"{name}:{right.port}"
    assert reloads(daemon) == 2
