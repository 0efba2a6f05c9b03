"""What the supervisor does about sessions that end, hang or never come about."""

import re
import time

import pytest

import namespaces
from daemon import slowness
from processes import wait_until
from relay_peer import Relay, refusing_port
from supervised import reloads, stays


# --- the plain road ---

def test_a_session_comes_about_by_itself(supervisor, daemon, relay):
    supervisor.configure(relay).start()
    relay.accept().welcome().expect_served()
    status = supervisor.wait_for("connected")
    assert status["server"] == f"{relay.address}:{relay.port}"
    assert status["attempts"] == 1 and status["next_try_ms"] == 0
    assert status["last_reason"] == f"{relay.address}:{relay.port}: connected"


@pytest.mark.lasts(12)
def test_a_session_that_is_up_is_never_reloaded(supervisor, daemon, relay):
    supervisor.configure(relay).start()
    session = relay.accept().welcome()
    supervisor.wait_for("connected")
    mark = daemon.log.mark()
    for _ in range(10):
        supervisor.must("connect")
        supervisor.must("connect", {"interface": "wan"})
        supervisor.must("reload")
        time.sleep(0.5)
    assert reloads(daemon, mark) == 0
    assert supervisor.wait_for("connected")["state"] == "connected"
    session.expect_served()


@pytest.mark.lasts(24)
def test_a_relay_that_is_restarted_twenty_times_is_found_again_each_time(
        supervisor, daemon, lasting_relay):
    supervisor.configure(lasting_relay).start()
    session = lasting_relay.accept().welcome()
    for _ in range(20):
        lasting_relay.stop()
        daemon.log.expect("[CRC:] CloudRelayClient task exit.")
        lasting_relay.start()
        session = lasting_relay.accept().welcome()
    session.expect_served()
    supervisor.wait_for("connected")
    assert daemon.log.count("[CRC:] begin cycle loop") == 21
    assert not daemon.log.find(re.compile("(?i)restart")), "it was reloaded during a session"


# --- what is no session, though it looks like one ---

def attempts_on(supervisor, relay, play, count):
    """Lets `relay` play the same game with that many attempts in a row."""
    for number in range(count):
        play(relay, number)
        assert supervisor.status()["state"] != "connected"


def refuse_hello(relay, number):
    session = relay.accept()
    session.expect_hello()
    session.answer_hello(err_code=number + 1)
    session.expect_closed()


def reset_after_one_packet(relay, _):
    session = relay.accept()
    session.expect_hello()
    session.answer_hello()
    session.reset()


def hang_up_before_tls(relay, _):
    relay.accept_tcp().close()


def answer_nonsense(relay, _):
    session = relay.accept()
    session.expect_hello()
    session.send(b"HTTP/1.0 400 Bad Request\r\n\r\n")
    session.expect_closed()


def failure_of(relay, most):
    server = re.escape(f"{relay.address}:{relay.port}")
    return re.compile(rf"{server}: (no connection came about|the session ended after \d+ s); "
                      rf"next attempt in \d+\.\d+ s \(at most {re.escape(most)} s\)$")


@pytest.mark.lasts(10)
@pytest.mark.parametrize("play", [refuse_hello, reset_after_one_packet, hang_up_before_tls,
                                  answer_nonsense], ids=lambda play: play.__name__)
def test_attempts_go_on_with_growing_pauses(supervisor, daemon, relay, play):
    supervisor.configure(relay, pause_min="0.1", pause_max="10").start().wait_for_object()
    attempts_on(supervisor, relay, play, 5)
    for most in ("0.100", "0.200", "0.400", "0.800"):
        supervisor.log.expect(failure_of(relay, most))
    relay.accept().welcome().expect_served()
    supervisor.wait_for("connected")


@pytest.mark.lasts(40)
def test_a_relay_that_accepts_and_hangs_is_no_session_and_the_next_server_is_taken(
        supervisor, daemon, relay, authority):
    with Relay(authority.certificate()) as good:
        supervisor.configure(relay, good, failures_per_server="1").start().wait_for_object()
        with relay.accept_tcp():
            stays(lambda: supervisor.status()["state"] == "connecting", "connecting", 30)
            good.accept(within=15 * slowness()).welcome().expect_served()
            assert supervisor.wait_for("connected")["server"] == f"{good.address}:{good.port}"


@pytest.mark.lasts(12)
def test_a_relay_that_never_answers_the_hello_is_no_session(supervisor, daemon, relay):
    supervisor.configure(relay).start().wait_for_object()
    session = relay.accept()
    session.expect_hello()
    stays(lambda: supervisor.status()["state"] == "connecting", "connecting", 4.5)
    session.expect_closed()
    relay.accept().welcome().expect_served()
    supervisor.wait_for("connected")


@pytest.mark.lasts(8)
def test_a_session_that_lived_long_enough_makes_the_pause_short_again(supervisor, daemon, relay):
    supervisor.configure(relay, pause_min="0.1", pause_max="10", success_after="2").start()
    for number in range(3):
        refuse_hello(relay, number)
    session = relay.accept().welcome()
    since = supervisor.wait_for("connected")["since"]
    assert since <= 1 * slowness()
    wait_until(lambda: supervisor.status()["since"] >= 2, "the session has lived two seconds")
    session.close()
    supervisor.log.expect(failure_of(relay, "0.100"))
    wait_until(lambda: supervisor.status()["attempts"] == 1, "the attempts are counted anew")
    relay.accept().welcome()


# --- several servers ---

@pytest.mark.lasts(8)
def test_after_three_failures_the_second_server_is_taken_and_kept(supervisor, daemon, relay):
    dead = f"127.0.0.1:{refusing_port()}"
    supervisor.configure(dead, relay, success_after="1").start()
    session = relay.accept().welcome()
    assert reloads(daemon) == 4
    assert supervisor.wait_for("connected")["server"] == f"{relay.address}:{relay.port}"
    supervisor.log.expect(f"{dead}: 3 failures in a row; {relay.address}:{relay.port} is next")
    time.sleep(1.5)
    session.close()
    relay.accept().welcome()
    assert reloads(daemon) == 5


@pytest.mark.lasts(10)
def test_the_first_servers_turn_comes_again_after_the_last_one(supervisor, daemon, lasting_relay):
    lasting_relay.stop()
    dead = f"127.0.0.1:{refusing_port()}"
    here = f"{lasting_relay.address}:{lasting_relay.port}"
    supervisor.configure(lasting_relay, dead, failures_per_server="2").start()
    supervisor.log.expect_all(f"{here}: 2 failures in a row; {dead} is next",
                              f"{dead}: 2 failures in a row; {here} is next")
    lasting_relay.start()
    lasting_relay.accept().welcome().expect_served()


# --- roads to the relay ---

@pytest.fixture
def road(places):
    """Builds uplinks; what was built goes in the end."""
    built = []

    def build(*arguments):
        built.append(namespaces.Uplink(*arguments))
        built[-1].host("10.99.0.1")
        return built[-1]

    yield build
    for uplink in built:
        uplink.remove()


@pytest.mark.lasts(6)
def test_a_route_that_comes_late_is_found(supervisor, daemon, authority, road):
    supervisor.configure("10.99.0.1:8443").start()
    for _ in range(3):
        daemon.log.expect("[CRC:] CloudRelayClient task exit.")
    with Relay(authority.certificate(),
               listener=road("wan0", 1, 10).listen("10.99.0.1", 8443)) as relay:
        relay.accept().welcome().expect_served()
        supervisor.wait_for("connected")


@pytest.mark.lasts(6)
def test_an_interface_that_comes_up_is_tried_at_once(supervisor, daemon, authority, road):
    supervisor.configure("10.99.0.1:8443", pause_min="3600", pause_max="3600").start()
    daemon.log.expect("[CRC:] CloudRelayClient task exit.")
    supervisor.wait_for("waiting")
    with Relay(authority.certificate(),
               listener=road("wan0", 1, 10).listen("10.99.0.1", 8443)) as relay:
        asked = time.monotonic()
        supervisor.must("connect", {"interface": "wan0"})
        relay.accept().welcome().expect_served()
        assert time.monotonic() - asked < 2 * slowness()


@pytest.mark.lasts(20)
def test_a_session_whose_uplink_dies_is_taken_up_over_the_other_one(
        supervisor, daemon, authority, road):
    first, second = road("wan0", 1, 10), road("wan1", 2, 20)
    with Relay(authority.certificate(), listener=first.listen("10.99.0.1", 8443)) as near, \
            Relay(authority.certificate(), listener=second.listen("10.99.0.1", 8443)) as far:
        supervisor.configure("10.99.0.1:8443").start()
        near.accept().welcome().expect_served()
        supervisor.wait_for("connected")
        first.cut()
        far.accept(within=20 * slowness()).welcome().expect_served()
        supervisor.wait_for("connected")
    assert supervisor.log.find(re.compile(
        "10.99.0.1:8443: the session's own address is gone from the router, so it is given up"))


@pytest.mark.lasts(5)
def test_a_name_that_resolves_late_is_found(supervisor, daemon, relay, router):
    supervisor.configure(f"relay.example:{relay.port}").start()
    for _ in range(2):
        daemon.log.expect("[CRC:] CloudRelayClient task exit.")
    router.name_hosts({"relay.example": ["127.0.0.1"]})
    relay.accept().welcome().expect_served()
    assert supervisor.wait_for("connected")["server"] == f"relay.example:{relay.port}"
