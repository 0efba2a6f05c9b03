"""What the daemon does before anybody asks it for anything, and how it writes its log."""

import re
import signal

import pytest

from daemon import OBJECT, slowness
from processes import program, run, wait_until
from router import BUS_SOCKET
from ubus_wire import Client, ObjectOwner

INFO_LINE = (rb"\x1b\[33;49m\[<cloud_relay_client/%s>:<cloud_relay_client/%s\(\)/[1-9]\d*>\] %s"
             rb"\x1b\[0m\r\n")
ERROR_LINE = INFO_LINE.replace(b"33;49m", b"31;49m")


def test_a_router_in_order_yields_one_line_and_nothing_on_standard_error(daemon):
    assert re.fullmatch(INFO_LINE % (b"main", b"adSysApiInit", rb"Init OK\."), daemon.log.raw)
    assert daemon.errors == ""


def test_the_only_thread_at_the_start_is_named_main(daemon):
    names = daemon.threads()
    assert "main" in names
    assert not [name for name in names if name.startswith("cycleHnd")]


def test_nobody_is_connected_to_until_a_reload_says_so(daemon, relay, web):
    assert not relay.is_called(within=1)
    web.expect_nobody(0)
    assert daemon.stop().status == 0
    assert not relay.is_called(within=0.5)


def test_the_object_has_its_three_methods_with_their_arguments(daemon):
    listed = run(program("ubus"), "-s", BUS_SOCKET, "-v", "list", OBJECT)
    assert re.fullmatch(r"'cloud_relayc' @[0-9a-f]{8}\n"
                        r'\t"reload":\{"address":"String","port":"Integer"\}\n'
                        r'\t"stop":\{\}\n'
                        r'\t"dbg":\{\}\n', listed.output)


def test_an_error_line_is_red_and_ends_like_any_other(unstarted_daemon, router):
    router.unconfigure("device_info")
    unstarted_daemon.start().wait_for_object()
    call = rb'E - -1 call readUCI\("device_info\.info\.hw_version", gDevInfo\.hwVer\) failed\.'
    assert re.fullmatch(ERROR_LINE % (b"main", b"adSysApiInit", call), unstarted_daemon.log.raw)


@pytest.mark.parametrize("option, call", [
    ("hw_version", 'readUCI("device_info.info.hw_version", gDevInfo.hwVer)'),
    ("sw_version", 'readUCI("device_info.info.sw_version", gDevInfo.swVer)'),
    ("device_model", 'readUCI("device_info.info.device_model", gDevInfo.model)'),
])
def test_a_missing_version_option_ends_the_gathering_but_not_the_start(
        unstarted_daemon, router, option, call):
    options = {"hw_version": "1.0", "sw_version": "2.0", "device_model": "RT"}
    del options[option]
    router.configure("device_info", "config info 'info'\n" + "".join(
        f"\toption {name} '{value}'\n" for name, value in options.items()))
    unstarted_daemon.start().wait_for_object()
    unstarted_daemon.log.expect(f"E - -1 call {call} failed.")
    assert "do not find the option" in unstarted_daemon.errors
    assert not unstarted_daemon.log.find("Init OK.")
    assert router.identity.factory.call_count() == 0


def test_a_missing_configuration_file_is_reported_as_a_read_error(unstarted_daemon, router):
    router.unconfigure("device_info")
    unstarted_daemon.start().wait_for_object()
    assert "read UCI file error" in unstarted_daemon.errors


def test_the_factory_service_is_asked_once_for_the_two_facts(daemon, router):
    call = router.identity.factory.next_call()
    assert (call.method, call.data) == ("getInfo", {"infoMask": 33})
    assert router.identity.factory.call_count() == 0


def test_an_absent_factory_service_is_logged_step_by_step(unstarted_daemon, router):
    router.identity.factory.die()
    unstarted_daemon.start().wait_for_object()
    unstarted_daemon.log.expect_all("Parse buf failed,.", "get jsonrpc obj failed.",
                                    "E - -1 call getFacinfoByUbus() failed.")
    assert not unstarted_daemon.log.find("Init OK.")


def test_without_a_bus_the_daemon_says_so_and_only_sleeps(unstarted_daemon, router):
    router.identity.stop()
    router.stop_bus()
    unstarted_daemon.start()
    connect, init = unstarted_daemon.log.expect_all(
        "static struct ubus_context *l_ubus_common_ctx = NULL;", "E - -1 call ubus_init() failed.")
    assert (connect.function, init.function) == ("ubus_init", "swCloudRelayClientInit")
    assert "main" in unstarted_daemon.threads()


def test_a_name_taken_on_the_bus_is_an_error_with_the_buss_own_status(unstarted_daemon):
    with ObjectOwner(BUS_SOCKET, OBJECT, {}):
        unstarted_daemon.start()
        entry = unstarted_daemon.log.expect("add object(cloud_relayc) failed ret:2.")
        assert entry.raw.endswith(b"failed ret:2.\n\x1b[0m\r\n")
        unstarted_daemon.log.expect("E - -1 call ubus_init() failed.")


def test_every_log_line_leaves_in_one_write(unstarted_daemon, relay):
    daemon = unstarted_daemon.start(keeps_writes=True).wait_for_object()
    daemon.open_session(relay)
    daemon.log.expect("[CRC:] cloud heartbeat recv")
    prefix = re.compile(rb"\x1b\[3[13];49m")
    with_prefix = [write for write in daemon.log.writes if prefix.search(write)]
    assert len(with_prefix) > 20
    for write in with_prefix:
        assert len(prefix.findall(write)) == 1 and prefix.match(write)
        assert write.endswith(b"\x1b[0m\r\n") and write.count(b"\x1b[0m") == 1


def test_a_line_is_in_the_pipe_as_soon_as_it_is_printed(daemon):
    before = daemon.log.mark()
    daemon.call("reload", {"address": "nowhere"})
    # The method's answer follows the line; nothing holds the line back until more comes.
    wait_until(lambda: daemon.log.count("g_para is NULL.", before) == 1, "the line arrives",
               1 * slowness())


def test_text_from_outside_is_never_taken_for_a_format(daemon):
    name = "%s%n%d%1000000d"
    daemon.reload(name, 443)
    daemon.log.expect(f"[CRC:] Connect relay-server use [{name}:443]")
    daemon.log.expect("[CRC:] Fail to connect the defaultSvr, result:9")


def test_only_the_template_is_bounded_and_a_long_address_is_printed_whole(daemon):
    name = "a" * 3000
    daemon.reload(name, 443)
    daemon.log.expect(f"[CRC:] Connect relay-server use [{name}:443]")


def test_the_termination_signal_ends_the_bus_side_and_leaves_the_session_alone(
        daemon, session, router):
    daemon.signal(signal.SIGTERM)
    with Client(BUS_SOCKET) as client:
        wait_until(lambda: OBJECT not in [found.path for found in client.lookup()],
                   "the object leaves the bus")
    session.expect_served()
    assert daemon.alive


def test_a_vanished_reader_of_the_log_kills_nothing(daemon, session, relay):
    daemon.log.close()
    session.expect_served()
    assert daemon.stop().status == 0
    session.expect_closed()
    daemon.open_session(relay)
    assert daemon.alive


def test_a_log_that_nobody_reads_from_the_start_kills_nothing(unstarted_daemon, relay):
    unstarted_daemon.start().log.close()  # long before the device's identity is known
    unstarted_daemon.wait_for_object().open_session(relay).expect_served()
