"""The package's scripts, as the router runs them."""

import os
import socket
import subprocess
from pathlib import Path

import pytest

from conftest import FILES, PACKAGE, HERE
from processes import wait_until

DAEMON, SUPERVISOR = "cloud_relay_client", "cloud_relay_supervisor"
BOTH = pytest.mark.parametrize("instance", [DAEMON, SUPERVISOR])
OLD, NEW = Path("/var/run/ubus.sock"), Path("/var/run/ubus/ubus.sock")


def listen(path):
    path.parent.mkdir(exist_ok=True)
    listener = socket.socket(socket.AF_UNIX)
    listener.bind(str(path))
    listener.listen()
    return listener


@pytest.mark.parametrize("script", [
    FILES / "cloud_relay.init", FILES / "cloud_relay.hotplug", PACKAGE / "test.sh",
    HERE / "router_functions.sh"], ids=lambda path: path.name)
def test_shellcheck_finds_nothing(script):
    finished = subprocess.run(["shellcheck", script], capture_output=True, text=True)
    assert (finished.returncode, finished.stdout) == (0, "")


# --- the init script: instances ---

def test_it_starts_the_daemon_and_then_the_supervisor(scripts):
    calls = scripts.init("start_service")
    assert calls.of("procd_open_instance") == [(DAEMON,), (SUPERVISOR,)]
    assert len(calls.of("procd_close_instance")) == 2


def test_it_leaves_the_service_to_procd(scripts):
    scripts.run(f'. {FILES}/cloud_relay.init\n[ "$USE_PROCD" = 1 ] && [ "$START" -gt 20 ]')


@BOTH
def test_an_instance_runs_its_program_for_ever_and_logs_to_syslog(scripts, instance):
    assert scripts.init("start_service").parameters(instance) == {
        "command": [f"/usr/sbin/{instance}"], "respawn": ["3600", "5", "0"],
        "term_timeout": ["1"], "stdout": ["1"], "stderr": ["1"]}


@BOTH
def test_the_numbers_come_from_uci(scripts, instance):
    scripts.configure("config service 'service'\n\toption respawn_threshold '60'\n"
                      "\toption respawn_timeout '7'\n\toption respawn_retry '3'\n"
                      "\toption term_timeout '2'\n")
    parameters = scripts.init("start_service").parameters(instance)
    assert parameters["respawn"] == ["60", "7", "3"]
    assert parameters["term_timeout"] == ["2"]


@pytest.mark.parametrize("text", ["", "config service 'service'\n", "config other 'x'\n"])
def test_what_uci_does_not_say_has_a_default(scripts, text):
    scripts.configure(text)
    calls = scripts.init("start_service")
    assert calls.parameters(DAEMON)["respawn"] == ["3600", "5", "0"]
    assert calls.of("logger") == []


def test_without_a_uci_file_both_start(scripts):
    (scripts.configuration / "cloud_relay").unlink()
    calls = scripts.init("start_service")
    assert calls.of("procd_open_instance") == [(DAEMON,), (SUPERVISOR,)]


@pytest.mark.parametrize("value", ["soon", "-1", "5s", "1 2"])
def test_a_wrong_number_is_named_once_an_instance_and_the_default_holds(scripts, value):
    scripts.configure(f"config service 'service'\n\toption respawn_timeout '{value}'\n"
                      "\toption respawn_retry '4'\n")
    calls = scripts.init("start_service")
    assert calls.parameters(SUPERVISOR)["respawn"] == ["3600", "5", "4"]
    assert calls.of("logger") == 2 * [("-t", "cloud_relay", "-p", "daemon.err",
        f"cloud_relay: option 'respawn_timeout' is '{value}', but must be a number; 5 is taken")]


# --- the init script: jail ---

def test_without_ujail_nobody_is_confined(scripts):
    calls = scripts.init("start_service")
    assert calls.of("procd_add_jail") == [] and calls.of("procd_add_jail_mount") == []


def test_with_ujail_the_daemon_alone_is_confined(scripts):
    scripts.have_jail()
    calls = scripts.init("start_service")
    assert calls.of("procd_add_jail") == [(DAEMON, "procfs", "ronly")]
    assert ("procd_add_jail", DAEMON, "procfs", "ronly") in calls.instance(DAEMON)
    assert calls.parameters(DAEMON)["capabilities"] == ["/etc/capabilities/cloud_relay.json"]
    assert calls.parameters(DAEMON)["no_new_privs"] == ["1"]
    assert not {"capabilities", "no_new_privs"} & set(calls.parameters(SUPERVISOR))


def test_the_jail_holds_what_the_daemon_needs_and_nothing_to_write_to(scripts):
    scripts.have_jail()
    calls = scripts.init("start_service")
    mounts = {path for call in calls.of("procd_add_jail_mount") for path in call}
    # The folders of /etc/cloud-sdk, /etc/config, /etc/resolv.conf, what the latter leads to, and
    # the bus; the shell, the tool and the interpreter that the daemon runs.
    assert mounts == {"/etc", "/tmp", "/var/run", "/bin/busybox", "/bin/sh", "/bin/ubus",
                      "/usr/bin/lua", "/usr/lib/lua"}
    assert calls.of("procd_add_jail_mount_rw") == []


def test_more_can_be_had_in_the_jail(scripts):
    scripts.have_jail()
    scripts.configure("config service 'service'\n\tlist jail_mount '/usr/share/token'\n"
                      "\tlist jail_mount '/dev/mtd1'\n")
    calls = scripts.init("start_service").of("procd_add_jail_mount")
    assert ("/usr/share/token",) in calls and ("/dev/mtd1",) in calls


def test_the_jail_can_be_done_without(scripts):
    scripts.have_jail()
    scripts.configure("config service 'service'\n\toption jail '0'\n")
    calls = scripts.init("start_service")
    assert calls.of("procd_add_jail") == []
    assert "capabilities" not in calls.parameters(DAEMON)


# --- the init script: the bus's socket ---

def test_where_the_bus_has_moved_its_old_place_leads_to_the_new_one(scripts):
    with listen(NEW):
        scripts.init("start_service")
        assert os.readlink(OLD) == "ubus/ubus.sock"
        with socket.socket(socket.AF_UNIX) as client:
            client.connect(str(OLD))


def test_the_link_is_there_before_the_bus_is(scripts):
    NEW.parent.mkdir()
    scripts.init("start_service")
    with listen(NEW), socket.socket(socket.AF_UNIX) as client:
        client.connect(str(OLD))


def test_a_wrong_link_is_put_right(scripts):
    OLD.symlink_to("/nowhere")
    with listen(NEW):
        scripts.init("start_service")
        assert OLD.resolve() == NEW.resolve()


def test_a_socket_at_the_old_place_is_left_alone(scripts):
    NEW.parent.mkdir()
    with listen(OLD):
        scripts.init("start_service")
        assert OLD.is_socket() and not OLD.is_symlink()


def test_an_older_system_gets_no_link(scripts):
    scripts.init("start_service")
    assert not OLD.is_symlink()


# --- the init script: reload ---

def test_a_changed_uci_file_triggers_a_reload(scripts):
    assert scripts.init("service_triggers").of("procd_add_reload_trigger") == [("cloud_relay",)]


def test_a_reload_tells_procd_and_then_the_supervisor(scripts):
    calls = scripts.init("reload_service")
    assert calls.of("procd_open_instance") == [(DAEMON,), (SUPERVISOR,)]
    assert calls.all[-1] == ("ubus", "-t", "5", "call", "cloud_relay", "reload")


def test_a_reload_asks_for_the_same_instances_again(scripts):
    def instances():
        calls = scripts.init("reload_service")
        return calls.parameters(DAEMON), calls.parameters(SUPERVISOR)

    assert instances() == instances()


# --- the hotplug script ---

def test_an_interface_that_comes_up_is_told_to_the_supervisor(scripts):
    assert scripts.hotplug("ifup", "wan").all == [
        ("ubus", "-t", "5", "call", "cloud_relay", "connect", '{"interface":"wan"}')]


@pytest.mark.parametrize("action, interface", [
    ("ifdown", "wan"), ("ifupdate", "wan"), ("ifup-failed", "wan"), ("ifup", "loopback")])
def test_nothing_else_is(scripts, action, interface):
    assert scripts.hotplug(action, interface).all == []


def test_a_supervisor_that_does_not_answer_holds_nobody_up(scripts, folder):
    done = folder / "done"
    os.mkfifo(folder / "answer")
    scripts.run(f"ubus() {{ cat {folder}/answer; }}\n"
                f"(. {FILES}/cloud_relay.hotplug)\n: >{done}\n: >{folder}/answer\nwait",
                ACTION="ifup", INTERFACE="wan")
    wait_until(done.exists, "the script after it has run")
