"""The daemon in the surroundings that the init script asks a jail for: the same mounts, read-only,
in a root of their own, and the same capabilities. What a jail adds by itself is played: /proc,
devices, and the libraries of what it mounts.
"""

import json
import os
import shutil
import subprocess
from pathlib import Path

import pytest

from certificates import Authority
from conftest import FILES, Scripts, new_folder
from daemon import Daemon
from exchanges import carry
from processes import Process, program, run, wait_until
from relay_peer import HELLO, WEB_TOKEN, Relay
from router import BUS_SOCKET, Router
from web_peer import WebServer

ROOT = Path("/mnt")
LIBRARIES = ["/lib", "/lib64", "/usr/lib"]
DEVICES = ["/dev/null", "/dev/urandom"]
SETPRIV = shutil.which("setpriv")


def mount(*arguments):
    subprocess.run(["mount", *map(str, arguments)], check=True)


def show_inside(path):
    """Has the jail's root show `path`, read-only, in the same place."""
    target = ROOT / str(path).lstrip("/")
    if target.exists():
        return
    if Path(path).is_dir():
        target.mkdir(parents=True)
    else:
        target.parent.mkdir(parents=True, exist_ok=True)
        target.touch()
    mount("--rbind", path, target)
    mount("-o", "remount,bind,ro", target)


@pytest.fixture(scope="module")
def jail(places):
    """The jail's root, made as the init script says."""
    with new_folder() as folder:
        scripts = Scripts(folder, "dash")
        scripts.have_jail()
        calls = scripts.init("start_service").of("procd_add_jail_mount")
    mounts = [path for call in calls for path in call]
    mount("-t", "tmpfs", "none", ROOT)
    (ROOT / "run").symlink_to("var/run")  # where this machine has what the router has there
    (ROOT / "proc").mkdir()
    mount("--rbind", "/proc", ROOT / "proc")
    theirs = [path for path in [*mounts, *LIBRARIES, *DEVICES] if Path(path).exists()]
    for path in [*theirs, Path(program("ubus")).parent, SETPRIV]:
        show_inside(path)


class JailedDaemon(Daemon):
    def _command(self):
        rights = json.loads((FILES / "cloud_relay.capabilities.json").read_text())
        words = {name: ",".join(["-all", *(f"+{right.removeprefix('CAP_').lower()}"
                                           for right in rights[name])]) for name in rights}
        return [shutil.which("chroot"), ROOT, SETPRIV, "--no-new-privs",
                "--bounding-set", words["bounding"], "--inh-caps", words["inheritable"],
                "--ambient-caps", words["ambient"], *super()._command()]


@pytest.fixture
def authority(jail, folder):
    return Authority(folder / "authority")


@pytest.fixture
def router(authority):
    with Router(authority) as running:
        yield running


@pytest.fixture
def relay(authority):
    with Relay(authority.certificate()) as listening:
        yield listening


@pytest.fixture
def daemon(router):
    daemon = JailedDaemon()
    daemon.start().wait_for_object()
    yield daemon
    daemon.finish()


def test_it_has_the_one_privilege_and_can_gain_none(daemon):
    status = dict(line.split(":\t") for line in
                  Path(f"/proc/{daemon.pid}/status").read_text().splitlines() if ":\t" in line)
    net_raw = f"{1 << 13:016x}"
    assert [status[name] for name in ("CapPrm", "CapEff", "CapBnd", "CapAmb")] == 4 * [net_raw]
    assert status["NoNewPrivs"] == "1"


def test_it_knows_who_it_is_and_opens_a_session(daemon, relay):
    assert daemon.reload(relay.address, relay.port).status == 0
    session = relay.accept()
    hello = session.expect_hello()
    assert hello.type == HELLO and json.loads(hello.body) == {
        "deviceId": "0123456789ABCDEF0123456789ABCDEF01234567", "deviceMac": "AABBCCDDEEFF",
        "firmwareId": "FW0123456789ABCDEF", "token": "0f1e2d3c4b5a69788796a5b4c3d2e1f00123456789"}


def test_it_relays_to_the_port_of_the_configuration_even_when_that_has_changed(
        daemon, relay, router):
    session = daemon.open_session(relay)
    for _ in range(2):
        with WebServer() as web:
            router.set_web_port(web.port)
            carry(session, web)


def test_it_runs_the_script_for_web_tokens(daemon, relay):
    session = daemon.open_session(relay)
    session.send_packet(WEB_TOKEN, 1, b"{}")
    assert session.read_packet().body == b'{"err_code": 0,"webToken":"0123456789abcdef"}'


def test_a_name_that_is_known_only_later_resolves(daemon, relay, router):
    replaced = Path("/etc/hosts.new")
    replaced.write_text(f"{relay.address} late.test\n")
    os.rename(replaced, "/etc/hosts")
    daemon.open_session(relay, "late.test")


def test_a_bus_that_restarts_finds_it_again(daemon, router):
    router.identity.stop()
    router.stop_bus()
    router.start_bus()
    wait_until(daemon._object_listed, "the daemon is on the new bus")


def test_it_can_write_to_nothing(daemon):
    mounted = [line.split() for line in
               Path(f"/proc/{daemon.pid}/mountinfo").read_text().splitlines()]
    rights = {words[4]: words[5].split(",")[0] for words in mounted}
    assert {rights[place] for place in ("/etc", "/tmp", "/var/run", "/bin/sh", "/bin/busybox")} == {
        "ro"}


# --- the supervisor, which is outside ---

def status_of_supervisor():
    answer = run(program("ubus"), "-s", BUS_SOCKET, "call", "cloud_relay", "status")
    return json.loads(answer.output) if answer.status == 0 else {}


def test_the_supervisor_reads_the_package_configuration_and_sees_into_the_jail(
        daemon, relay, router):
    text = (FILES / "cloud_relay.config").read_text()
    text = text.replace("#\tlist server 'relay1.example.net:8443'",
                        f"\tlist server '{relay.address}:{relay.port}'")
    router.configure("cloud_relay", text.replace("boot_delay '10'", "boot_delay '0'"))
    with Process(program("cloud_relay_supervisor")) as supervisor:
        relay.accept().welcome()
        wait_until(lambda: status_of_supervisor().get("state") == "connected",
                   "the supervisor sees the session")
        assert supervisor.errors.text == ""
