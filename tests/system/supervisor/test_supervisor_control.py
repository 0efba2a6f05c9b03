"""The supervisor's methods, and a configuration that changes or is wrong."""

import re
import time

import pytest

from daemon import slowness
from processes import program, run, wait_until
from relay_peer import Relay, refusing_port
from router import BUS_SOCKET
from supervised import reloads, stays


def workers(daemon):
    return [name for name in daemon.threads() if name.startswith("cycleHnd_")]


@pytest.fixture
def connected(supervisor, daemon, relay):
    """The relay's side of a session that the supervisor has brought about."""
    supervisor.configure(relay).start()
    session = relay.accept().welcome()
    supervisor.wait_for("connected")
    return session


def test_the_object_has_its_methods_with_their_arguments(supervisor, daemon):
    supervisor.start().wait_for_object()
    listed = run(program("ubus"), "-s", BUS_SOCKET, "-v", "list", "cloud_relay").output
    assert listed.splitlines()[1:] == ['\t"status":{}', '\t"connect":{"interface":"String"}',
                                       '\t"disconnect":{}', '\t"reload":{}']


# --- connect and disconnect ---

@pytest.mark.lasts(5)
def test_disconnect_holds_until_somebody_connects(supervisor, daemon, relay, connected):
    supervisor.must("disconnect")
    connected.expect_closed()
    status = supervisor.wait_for("idle")
    assert status["next_try_ms"] == 0
    supervisor.log.expect_all("disconnect was called",
                              "the session has ended, as was asked for")
    supervisor.must("connect", {"interface": "wan"})
    supervisor.must("reload")
    assert not relay.is_called(within=1.5)
    assert supervisor.status()["state"] == "idle"
    supervisor.must("connect")
    relay.accept().welcome()
    supervisor.wait_for("connected")
    assert reloads(daemon) == 2  # the first session's, and the last connect's


@pytest.mark.lasts(9)
def test_disconnect_ends_an_attempt_too(supervisor, daemon, relay):
    supervisor.configure(relay).start().wait_for_object()
    session = relay.accept()
    session.expect_hello()
    supervisor.must("disconnect")
    session.answer_hello()  # the daemon forgets a stop that comes in the handshake
    wait_until(lambda: not workers(daemon), "the worker ends", 15 * slowness())
    stays(lambda: not workers(daemon), "no worker", 1)


@pytest.mark.lasts(5)
def test_somebody_elses_session_is_left_alone_while_disconnected(
        supervisor, daemon, relay, connected):
    supervisor.must("disconnect")
    connected.expect_closed()
    supervisor.log.expect("the session has ended, as was asked for")
    session = daemon.open_session(relay)
    session.expect_silence(1.5)
    session.expect_served()


@pytest.mark.lasts(8)
def test_connect_takes_effect_once_in_its_interval_and_is_put_off_otherwise(
        supervisor, daemon, relay):
    supervisor.configure(f"127.0.0.1:{refusing_port()}", pause_min="3600", pause_max="3600",
                         connect_interval="4").start().wait_for_object()
    wait_until(lambda: reloads(daemon) == 1, "the first attempt")
    supervisor.wait_for("waiting")
    begun = time.monotonic()
    supervisor.must("connect", {"interface": "wan"})
    wait_until(lambda: reloads(daemon) == 2, "the attempt that was asked for")
    assert time.monotonic() - begun < 1.5 * slowness()
    supervisor.wait_for("waiting")
    for _ in range(3):
        supervisor.must("connect", {"interface": "wan"})
    assert 1000 < supervisor.status()["next_try_ms"] <= 4000
    wait_until(lambda: reloads(daemon) == 3, "the attempt that was put off")
    assert 3.9 < time.monotonic() - begun < 4.5 + 1 * slowness()
    supervisor.wait_for("waiting")
    stays(lambda: reloads(daemon) == 3, "no further attempt", 1)


@pytest.mark.lasts(8)
def test_an_interface_that_comes_up_during_an_attempt_makes_the_next_one_follow_at_once(
        supervisor, daemon, relay):
    supervisor.configure(relay, pause_min="3600", pause_max="3600").start().wait_for_object()
    first = relay.accept()
    first.expect_hello()
    supervisor.must("connect", {"interface": "wan"})
    first.answer_hello(err_code=1)
    relay.accept(within=4 * slowness()).welcome()


@pytest.mark.parametrize("options, servers", [({"enabled": "0"}, 1), ({}, 0)],
                         ids=["disabled", "no server"])
def test_connect_is_refused_where_no_session_is_allowed(
        supervisor, daemon, relay, options, servers):
    supervisor.configure(*[relay][:servers], **options).start().wait_for_object()
    refused = supervisor.call("connect")
    assert refused.status != 0 and "Operation not supported" in refused.errors
    supervisor.must("connect", {"interface": "wan"})
    assert supervisor.status()["state"] == ("disabled" if options else "idle")
    assert not relay.is_called(within=0.5)


# --- another configuration ---

@pytest.mark.lasts(5)
def test_a_change_that_keeps_the_server_keeps_the_session(
        supervisor, daemon, relay, connected):
    supervisor.configure(f"127.0.0.1:{refusing_port()}", relay, pause_max="30").must("reload")
    supervisor.log.expect("the configuration was read anew")
    stays(lambda: supervisor.status()["state"] == "connected", "connected", 2.5)
    assert supervisor.status()["server"] == f"{relay.address}:{relay.port}"
    connected.expect_served()
    assert reloads(daemon) == 1


@pytest.mark.lasts(7)
def test_a_change_that_drops_the_server_replaces_the_session(
        supervisor, daemon, connected, authority):
    with Relay(authority.certificate()) as other:
        supervisor.configure(other).must("reload")
        connected.expect_closed()
        other.accept().welcome()
        assert supervisor.wait_for("connected")["server"] == f"{other.address}:{other.port}"
    assert reloads(daemon) == 2


@pytest.mark.lasts(5)
def test_disabling_ends_the_session_and_enabling_brings_one_back(
        supervisor, daemon, relay, connected):
    supervisor.configure(relay, enabled="0").must("reload")
    connected.expect_closed()
    assert supervisor.wait_for("disabled")["next_try_ms"] == 0
    assert not relay.is_called(within=1.5)
    supervisor.configure(relay, enabled="1").must("reload")
    relay.accept().welcome()
    supervisor.wait_for("connected")
    assert reloads(daemon) == 2


def test_a_file_that_cannot_be_parsed_changes_nothing(
        supervisor, router, daemon, relay, connected):
    router.configure("cloud_relay", "config supervisor 'supervisor\n\tlist\n")
    supervisor.must("reload")
    supervisor.log.expect(re.compile("cloud_relay: the configuration cannot be read: Parse error"))
    assert supervisor.status()["state"] == "connected"
    connected.expect_served()


def test_new_servers_are_tried_at_once(supervisor, daemon, relay):
    supervisor.configure(f"127.0.0.1:{refusing_port()}", pause_min="3600",
                         pause_max="3600").start().wait_for_object()
    wait_until(lambda: reloads(daemon) == 1, "the first attempt")
    supervisor.wait_for("waiting")
    supervisor.configure(relay).must("reload")
    relay.accept(within=3 * slowness()).welcome()


@pytest.mark.lasts(3)
def test_each_mistake_costs_a_line_and_the_rest_is_used(supervisor, router, daemon, relay):
    router.configure("cloud_relay", f"""
config supervisor 'supervisor'
	option enabled 'perhaps'
	option boot_delay '0'
	option pause_min '-1'
	option pause_mox '3'
	option failures_per_server '0'
	list connect_interval '5'
	list server 'relay.example'
	list server '{relay.address}:{relay.port}'
	list server '{relay.address}:{relay.port}'
config supervisor 'another'
""")
    supervisor.start()
    relay.accept().welcome()
    supervisor.wait_for("connected")
    here = f"{relay.address}:{relay.port}"
    mistakes = [entry.text for entry in supervisor.log.entries
                if entry.text.startswith("cloud_relay: ")]
    assert sorted(mistakes) == sorted(f"cloud_relay: {text}" for text in [
        "section 'another' is a second one of type 'supervisor'; it is ignored",
        "option 'enabled' is 'perhaps', which is neither 1 nor 0; 1 is taken",
        "option 'pause_min' is '-1', but must be seconds from 0.01 to 3600; 1 is taken",
        "option 'pause_mox' is not known; it is ignored",
        "option 'failures_per_server' is '0', but must be a number from 1 to 1000; 3 is taken",
        "option 'connect_interval' is a list, but must be a single value; it is ignored",
        "server 'relay.example' is no host:port with a name or an IPv4 address and a port from 1 "
        "to 65535; it is left out",
        f"server '{here}' is listed twice; its first place holds",
    ])
