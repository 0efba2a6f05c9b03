"""The bus object: reload, stop and dbg, in every state that a session can be in."""

import re
import threading
import time

import pytest

from daemon import slowness
from exchanges import carry, send_request
from processes import wait_until
from relay_peer import RELAY_REQUEST, DeafListener, Relay, header

RESTART_PAUSE_S = 3


# --- arguments ---

@pytest.mark.parametrize("message", [
    {}, {"address": "127.0.0.1"}, {"port": 443}, {"address": 127, "port": 443},
    {"address": "127.0.0.1", "port": "443"}, {"Address": "127.0.0.1", "Port": 443},
], ids=str)
def test_a_reload_that_lacks_an_argument_is_refused_with_minus_one(daemon, message):
    answer = daemon.call("reload", message)
    assert answer.status == -1
    assert "(Unknown error: -1)" in answer.output
    entry = daemon.log.expect("g_para is NULL.")
    assert (entry.function, entry.thread, entry.level) == ("reload_handle", "main", "error")
    assert entry.raw.endswith(b"g_para is NULL.\n\x1b[0m\r\n")


@pytest.mark.parametrize("port", [65536, 70000, -1, 2147483647])
def test_a_port_out_of_range_is_refused_with_100(daemon, port):
    answer = daemon.reload("127.0.0.1", port)
    assert answer.status == 100
    daemon.log.expect_all("Ensure NULL != ipaddr && port <= 65535 && port >= 0 failed.",
                          "E - 100 call swCloudRelayClientTaskStart(addrStr, port) failed.")
    assert daemon.threads().count("cycleHnd_0") == 0


@pytest.mark.parametrize("port", [1, 65535])
def test_the_first_and_the_last_port_are_within_range(daemon, port):
    assert daemon.reload("127.0.0.1", port).status == 0
    daemon.log.expect(f"[CRC:] begin to connect the socket, ip:127.0.0.1, port:{port}")
    daemon.log.expect("[CRC:] CloudRelayClient task exit.")


def test_port_0_while_idle_is_a_disconnect_that_touches_nothing(daemon):
    mark = daemon.log.mark()
    answer = daemon.reload("127.0.0.1", 0)
    assert answer.status == 0
    entry = daemon.log.expect("[CRC_SLP] Disconnect relay-server ok.")
    assert (entry.function, entry.level) == ("cloudRelayClientReload", "info")
    assert len(daemon.log.entries) == mark + 1


def test_further_arguments_are_ignored(daemon, relay):
    answer = daemon.call("reload", {"address": relay.address, "port": relay.port, "more": [1]})
    assert answer.status == 0
    relay.accept().welcome()


def test_a_method_that_is_not_there_is_not_found(daemon):
    assert daemon.call("restart").status == 3


def test_a_start_is_logged_and_names_its_thread(daemon, relay):
    daemon.open_session(relay)
    assert daemon.threads() == sorted(["cycleHnd_0", *daemon_threads_at_rest(daemon)])
    entries = daemon.log.find(re.compile(r"^\[CRC:\] (Start|Create) cloudRelayClient|^\[CRC_SLP\]"))
    assert [entry.text for entry in entries] == [
        "[CRC:] Start cloudRelayClient task.", "[CRC:] Create cloudRelayClient task ok",
        f"[CRC_SLP] Connect relay-server({relay.address}:{relay.port}) ok."]


def daemon_threads_at_rest(daemon):
    return [name for name in daemon.threads() if not name.startswith("cycleHnd")]


# --- stop ---

def test_a_stop_while_idle_succeeds_without_a_word(daemon):
    mark = daemon.log.mark()
    assert daemon.stop().status == 0
    assert len(daemon.log.entries) == mark


@pytest.mark.parametrize("how", ["stop", "port 0"])
def test_a_stop_ends_the_session_within_a_turn(daemon, session, how):
    before = daemon.log.mark()
    answer = daemon.stop() if how == "stop" else daemon.reload("127.0.0.1", 0)
    assert answer.status == 0 and answer.seconds < 1 * slowness()
    asked, closing, ended = daemon.log.expect_all(
        "[CRC:] Stop cloudRelayClient-task", "[CRC:] Close cloud-cycle by client.",
        "[CRC:] This connection is closed by relay-server/client.")
    assert ended.at - asked.at < 0.5 * slowness()
    assert (asked.thread, closing.function, ended.thread) == (
        "main", "cloud_cycle_stop", "cycleHnd_0")
    daemon.log.expect_all("[CRC:] Destroy cloud-cycle end.", "[CRC:] CloudRelayClient task exit.")
    assert session.expect_closed() == "in order"
    assert not daemon.log.errors(before)


def test_what_a_session_holds_is_released_in_order(daemon, session):
    daemon.stop()
    daemon.log.expect_all(
        "[CRC:] begin to disconnect the socket", "[CRC:] Shut down and free the SSL.",
        "[CRC:] Free the CTX.", "[CRC:] Close the socket.", "[CRC:] Disconnect the socket ok.",
        "[CRC:] This connection is closed by relay-server/client.",
        "[CRC:] End cloud socket destroy",
        "[CRC:] begin cloud mq destroy", "[CRC:] free 1 request string, 1 response string",
        "[CRC:] end cloud mq destroy", "[CRC:] The remote requests list is empty.",
        "[CRC:] Destroy cloud-cycle end.", "[CRC:] CloudRelayClient task exit.")


def test_two_stops_in_a_row_are_one(daemon, session):
    assert daemon.stop().status == 0
    assert daemon.stop().status == 0
    session.expect_closed()
    daemon.log.expect("[CRC:] CloudRelayClient task exit.")


@pytest.mark.lasts(7)
def test_a_stop_while_connecting_is_answered_at_once(daemon, places, relay):
    with DeafListener() as deaf:
        daemon.reload(deaf.address, deaf.port)
        daemon.log.expect(
            f"[CRC:] begin to connect the socket, ip:{deaf.address}, port:{deaf.port}")
        answer = daemon.stop()
        assert answer.status == 0 and answer.seconds < 1 * slowness()
        daemon.log.expect("[CRC:] CloudRelayClient task exit.", within=8 * slowness())
    daemon.open_session(relay)


def test_a_stop_during_the_handshake_is_forgotten_when_the_relay_accepts(daemon, relay):
    daemon.reload(relay.address, relay.port)
    session = relay.accept()
    session.expect_hello()
    assert daemon.stop().status == 0
    session.answer_hello()
    session.answer_heartbeat(session.expect_heartbeat())
    session.expect_served()
    assert daemon.stop().status == 0
    session.expect_closed()


@pytest.mark.lasts(7)
def test_a_stop_during_a_stalled_body_takes_effect_when_the_body_is_given_up(
        daemon, session, web):
    session.send(header(RELAY_REQUEST, 1, 1000) + bytes(10))
    web.accept()
    answer = daemon.stop()
    assert answer.status == 0 and answer.seconds < 1 * slowness()
    daemon.log.expect("[CRC:] CloudRelayClient task exit.", within=8 * slowness())
    session.expect_closed()


# --- reload while a session runs ---

def expect_restart(daemon, relay, old=0):
    """A reload takes the restart path, and leads to a session on a new worker."""
    answer = daemon.reload(relay.address, relay.port)
    assert answer.status == 0
    assert RESTART_PAUSE_S <= answer.seconds < (RESTART_PAUSE_S + 1.5) * slowness()
    session = relay.accept().welcome()
    daemon.log.expect_all(
        f"[CRC:] Restart cloudRelayClient-task on cfg [{relay.address}:{relay.port}].",
        "[CRC:] Stop cloudRelayClient-task",
        "[CRC:] Start cloudRelayClient task.", "[CRC:] ReStart cloudRelayClient-task ok",
        f"[CRC_SLP] Connect relay-server({relay.address}:{relay.port}) ok.")
    wait_until(lambda: f"cycleHnd_{old + 1}" in daemon.threads(), "the new worker runs")
    return session


@pytest.mark.lasts(5)
def test_a_reload_while_connected_restarts_on_a_new_worker(daemon, session, authority):
    with Relay(authority.certificate()) as other:
        second = expect_restart(daemon, other)
        assert session.expect_closed() == "in order"
        assert "cycleHnd_0" not in daemon.threads()
        second.expect_served()


@pytest.mark.lasts(5)
def test_the_old_session_ends_before_the_new_one_begins(daemon, session, relay):
    expect_restart(daemon, relay)
    wait_until(lambda: daemon.log.count("[CRC:] begin cycle loop") == 2, "both begins are logged")
    (exit_entry,) = daemon.log.find("[CRC:] CloudRelayClient task exit.")
    begin = daemon.log.find("[CRC:] begin cycle loop")[1]
    assert exit_entry.at < begin.at
    assert (exit_entry.thread, begin.thread) == ("cycleHnd_0", "cycleHnd_1")


@pytest.mark.lasts(12)
def test_workers_are_counted_on(daemon, relay):
    daemon.open_session(relay)
    for old in range(3):
        expect_restart(daemon, relay, old)


@pytest.mark.lasts(5)
def test_a_refused_port_leaves_the_running_session_alone(daemon, session):
    assert daemon.reload("127.0.0.1", 70000).status == 100
    session.expect_served()


@pytest.mark.lasts(5)
def test_calls_wait_behind_a_restart(daemon, session, relay):
    restarts = []
    first = threading.Thread(
        target=lambda: restarts.append(daemon.reload(relay.address, relay.port)))
    first.start()
    daemon.log.expect("[CRC:] Stop cloudRelayClient-task")
    answer = daemon.call("reload", {})
    assert answer.status == -1
    assert answer.seconds > 2
    first.join()
    assert [restart.status for restart in restarts] == [0]
    relay.accept().welcome()


@pytest.mark.lasts(9)
def test_a_reload_while_connecting_restarts(daemon, places, relay):
    with DeafListener() as deaf:
        daemon.reload(deaf.address, deaf.port)
        daemon.log.expect(
            f"[CRC:] begin to connect the socket, ip:{deaf.address}, port:{deaf.port}")
        session = expect_restart(daemon, relay)
        wait_until(lambda: "cycleHnd_0" not in daemon.threads(), "the old worker gives up")
    session.expect_served()
    wait_until(lambda: daemon.log.count("[CRC:] CloudRelayClient task exit.") == 1,
               "the old worker says goodbye")
    session.expect_served()


@pytest.mark.lasts(7)
def test_a_reload_during_the_handshake_restarts(daemon, relay, authority):
    daemon.reload(relay.address, relay.port)
    with Relay(authority.certificate()) as other:
        stuck = relay.accept()
        stuck.expect_hello()
        session = expect_restart(daemon, other)
        stuck.expect_closed(within=10 * slowness())
        wait_until(lambda: "cycleHnd_0" not in daemon.threads(), "the old worker gives up")
        session.expect_served()


@pytest.mark.lasts(9)
def test_a_reload_during_a_stalled_body_restarts(daemon, session, web, authority):
    session.send(header(RELAY_REQUEST, 1, 1000) + bytes(10))
    web.accept()
    with Relay(authority.certificate()) as other:
        second = expect_restart(daemon, other)
        session.expect_closed(within=10 * slowness())
        wait_until(lambda: "cycleHnd_0" not in daemon.threads(), "the old worker gives up")
        second.expect_served()
        carry(second, web, 2, answer=b"fresh")


@pytest.mark.lasts(40)
def test_an_old_worker_stuck_in_tls_never_disturbs_the_new_session(daemon, relay, web, authority):
    daemon.reload(relay.address, relay.port)
    with relay.accept_tcp(), Relay(authority.certificate()) as other:
        begin = daemon.log.expect("[CRC:] socket connect select device successfully")
        session = expect_restart(daemon, other)
        while "cycleHnd_0" in daemon.threads():
            assert time.monotonic() - begin.at < 36 + 5 * slowness(), "the old worker stays"
            session.expect_served()
            session.expect_silence(1)
        old_end = daemon.log.expect("[CRC:] CloudRelayClient task exit.")
        assert old_end.thread == "cycleHnd_0"
        carry(session, web, 2, answer=b"undisturbed")
        assert daemon.stop().status == 0
        session.expect_closed()
        assert daemon.log.expect("[CRC:] CloudRelayClient task exit.").thread == "cycleHnd_1"
        begin_again = daemon.reload(other.address, other.port)
        assert begin_again.seconds < 2 * slowness()  # a first start: the controller is idle
        other.accept().welcome()


@pytest.mark.lasts(8)
def test_answers_of_an_old_session_never_reach_the_new_one(daemon, session, web, authority):
    # The old worker is held in a body while its first exchange waits for the web server.
    exchange = send_request(session, web)
    session.send(header(RELAY_REQUEST, 2, 1000) + bytes(10))
    web.accept()
    with Relay(authority.certificate()) as other:
        second = expect_restart(daemon, other)
        exchange.answer(b"for the old one")
        second.expect_silence(3)
        second.expect_served()


def test_a_session_that_ended_by_itself_makes_the_next_reload_a_first_start(
        daemon, session, relay):
    session.close()
    daemon.log.expect("[CRC:] CloudRelayClient task exit.")
    mark = daemon.log.mark()
    answer = daemon.reload(relay.address, relay.port)
    assert answer.status == 0 and answer.seconds < 2 * slowness()
    relay.accept().welcome().expect_served()
    assert daemon.log.count(re.compile("Restart"), mark) == 0


def test_reloads_in_quick_succession_end_with_the_last_one(daemon, relay, authority):
    with Relay(authority.certificate()) as other:
        daemon.reload(relay.address, relay.port)
        daemon.open_session(other).expect_served()


def test_a_worker_that_fails_at_once_can_be_restarted_at_once(daemon):
    for _ in range(10):
        mark = daemon.log.mark()
        assert daemon.reload("nowhere.example", 443).status == 0
        daemon.log.expect("[CRC:] CloudRelayClient task exit.")
        assert daemon.log.count("[CRC:] Fail to connect the defaultSvr, result:9", mark) == 1
    assert daemon.stop().status == 0


@pytest.mark.lasts(8)
def test_reloads_that_meet_a_worker_on_its_way_out_kill_nothing(daemon):
    for _ in range(4):
        daemon.reload("nowhere.example", 443)
        daemon.reload("nowhere.example", 443)
        daemon.stop()
    wait_until(lambda: not [name for name in daemon.threads() if name.startswith("cycleHnd")],
               "all workers have ended")
    assert daemon.alive


# --- dbg ---

def test_dbg_sends_the_log_to_the_console_and_again_to_nowhere(daemon, router):
    log_before = daemon.log.mark()
    assert daemon.dbg().status == 0
    router.console.expect("Enable debug!")
    daemon.call("reload", {})
    router.console.expect("g_para is NULL.")
    assert daemon.dbg().status == 0
    router.console.expect("Disable debug!")
    daemon.call("reload", {})
    assert daemon.stop().status == 0
    assert re.fullmatch(
        rb"Enable debug!\n"
        rb"\x1b\[31;49m\[<cloud_relay_client/main>:<cloud_relay_client/reload_handle\(\)/\d+>\] "
        rb"g_para is NULL\.\n\x1b\[0m\r\n"
        rb"Disable debug!\n", router.console.raw)
    assert len(daemon.log.entries) == log_before


def test_dbg_can_be_switched_any_number_of_times(daemon, router):
    before = daemon.descriptors()
    for _ in range(5):
        daemon.dbg()
        router.console.expect("Enable debug!")
        daemon.dbg()
        router.console.expect("Disable debug!")
    after = daemon.descriptors()
    assert after.keys() == before.keys()
    assert after[1] == after[2] == "/dev/null"


def test_dbg_shows_a_session_under_way_and_does_not_disturb_it(daemon, session, router):
    daemon.dbg()
    session.expect_served()
    router.console.expect("[CRC:] Recv request pkt for webToken from relay server.")
    daemon.dbg()
    session.expect_served()


# --- the bus ---

@pytest.mark.lasts(8)
def test_a_bus_that_restarts_is_joined_again_and_the_session_does_not_notice(
        daemon, session, router, relay):
    router.identity.stop()
    router.stop_bus()
    first = daemon.log.expect("failed to reconnect, trying again in 2 seconds")
    assert first.raw.endswith(b"in 2 seconds\n\x1b[0m\r\n")
    assert (first.function, first.thread) == ("ubus_connection_lost", "main")
    retries = [first, *daemon.log.expect_all(
        *["failed to reconnect, trying again in 2 seconds"] * 2)]
    for earlier, later in zip(retries, retries[1:]):
        assert 1.9 < later.at - earlier.at < 2.5 * slowness()
    session.expect_served()
    router.start_bus()
    router.identity.start()
    daemon.wait_for_object()
    session.expect_served()
    assert daemon.stop().status == 0
    session.expect_closed()
    daemon.log.expect("[CRC:] CloudRelayClient task exit.")
    daemon.open_session(relay).expect_served()


def test_a_bus_that_is_back_at_once_is_joined_at_the_first_or_second_try(daemon, router):
    for _ in range(3):
        router.identity.stop()
        router.stop_bus()
        router.start_bus()
        router.identity.start()
        daemon.wait_for_object()
        assert daemon.stop().status == 0


@pytest.mark.lasts(6)
def test_a_bus_that_is_lost_during_a_restart_does_no_harm(daemon, session, router, relay):
    def reload_in_vain():
        try:
            daemon.reload(relay.address, relay.port)
        except AssertionError:
            pass  # the tool lost the bus before the answer came

    caller = threading.Thread(target=reload_in_vain)
    caller.start()
    daemon.log.expect("[CRC:] Stop cloudRelayClient-task")
    router.identity.stop()
    router.stop_bus()
    caller.join()
    router.start_bus()
    router.identity.start()
    relay.accept().welcome().expect_served()
    daemon.wait_for_object()
