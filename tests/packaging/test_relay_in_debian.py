"""The Debian package of relay_server in a fresh Debian: installed, used, upgraded, purged.

`make package-test` runs this; it wants the machine's root, and minutes when it runs first.
"""

import contextlib
import json
import shutil
import signal

import pytest

from certificates import Authority
from conftest import new_folder
from debian_machine import Machine, fresh_system
from device_peer import DEVICE_ID, Device, http_answer
from processes import can_change_user, wait_until
from relay_server import RelayServer
from service_manager import ServiceManager
from test_relay_package import PACKAGE, UNIT, build_package

pytestmark = pytest.mark.debian

ETC = "/etc/cloud_relay"
USER = "_relay_server"
ACCESS_LOG = "/var/log/relay_server/access.log"


@pytest.fixture(scope="module")
def package():
    with new_folder() as folder:
        yield build_package(folder)


@pytest.fixture
def machine(places, folder):
    """A fresh Debian. Behind `places`, its network is ours alone."""
    assert can_change_user(), "debootstrap and users of the package want the machine's root"
    with contextlib.closing(Machine(fresh_system(), folder)) as ours:
        yield ours


@pytest.fixture
def installed(machine, package):
    machine.install(package)
    return machine


class InstalledRelay(RelayServer):
    """relay_server as the package has it, started as the unit says."""

    def __init__(self, machine, environment=None):
        self._environment = environment
        self._start_command = machine.service_command(UNIT)
        self.folder = machine.path(ETC)
        self.policy = self.folder / "policy.json"
        self.access_log = machine.path(ACCESS_LOG)
        self.front_is_tls = False
        self.process = None

    def _command(self):
        return self._start_command


def complete(machine, authority):
    """Does what docs/relay.md asks of the administrator; users come to port 80."""
    certificate = authority.certificate()
    for name, path in (("relay.pem", certificate.certificate), ("relay.key", certificate.key)):
        shutil.copy(path, machine.path(f"{ETC}/{name}"))
        machine.run("chown", f"root:{USER}", f"{ETC}/{name}")
        machine.run("chmod", "0640", f"{ETC}/{name}")
    machine.path(f"{ETC}/policy.json").write_text('{ "devices": [ { "device_id": "%s" } ] }'
                                                  % DEVICE_ID)
    path = machine.path(f"{ETC}/relay_server.json")
    assert '"0.0.0.0:8080"' in path.read_text()
    path.write_text(path.read_text().replace('"0.0.0.0:8080"', '"0.0.0.0:80"'))


def owner_and_rights(machine, path):
    return machine.run("stat", "-c", "%U:%G %a", path).strip()


def test_installed_it_has_a_user_of_its_own_and_hides_its_keys(installed):
    assert installed.run("dpkg-query", "-W", "-f", "${Status}", PACKAGE) == "install ok installed"
    name, _, _, _, _, home, shell = installed.run("getent", "passwd", USER).strip().split(":")
    assert (name, home, shell) == (USER, "/nonexistent", "/usr/sbin/nologin")
    assert owner_and_rights(installed, ETC) == f"root:{USER} 750"
    installed.run("dpkg", "--verify", PACKAGE)


def test_it_relays_a_page_as_the_unit_starts_it(installed, folder):
    complete(installed, Authority(folder / "authority"))
    with ServiceManager(installed.path("/run/notify")) as manager:
        installed.path("/run/notify").chmod(0o777)
        environment = manager.environment() | {"NOTIFY_SOCKET": "/run/notify"}
        with InstalledRelay(installed, environment) as relay:
            manager.expect("READY", "1")
            assert relay.front_port == 80
            check_rights(relay.pid)
            with Device(relay.device_port) as device:
                device.join().serve(lambda request: http_answer(b"the router's page"))
                assert relay.get(DEVICE_ID).body == b"the router's page"
                check_rotation(installed, relay)
            relay.signal(signal.SIGTERM)
            manager.expect("STOPPING", "1")
            assert relay.process.wait() == 0


def check_rights(pid):
    status = dict(line.split(":\t", 1) for line in
                  open(f"/proc/{pid}/status", encoding="ascii").read().splitlines())
    bind_low_ports = f"{1 << 10:016x}"
    assert [status[name] for name in ("CapPrm", "CapEff", "CapBnd", "CapAmb")] == (
        4 * [bind_low_ports])
    assert status["NoNewPrivs"] == "1" and "0" not in status["Uid"].split()


def check_rotation(machine, relay):
    """logrotate moves the access log away, and after a reload the next line is in a new one."""
    wait_until(lambda: len(relay.accesses()) == 1, "the request is in the access log")
    machine.run("logrotate", "--force", "/etc/logrotate.d/relay_server")
    assert owner_and_rights(machine, ACCESS_LOG) == f"{USER}:{USER} 640"
    relay.reload()
    assert relay.get(DEVICE_ID, "/second").status == 200
    wait_until(lambda: len(relay.accesses()) == 1, "the next one is in a new file")
    rotated = machine.path(f"{ACCESS_LOG}.1").read_text()
    assert [json.loads(text)["target"] for text in (rotated, relay.access_log.read_text())] == [
        "/", "/second"]


def test_a_check_by_the_services_user_passes_before_the_first_start(installed, folder):
    complete(installed, Authority(folder / "authority"))
    said = installed.run("runuser", "-u", USER, "--", *UNIT.one("ExecStart").split(), "--check")
    assert said == "relay_server: the configuration and the files it names are in order\n"


def test_an_upgrade_keeps_what_the_administrator_changed(installed, package, folder):
    complete(installed, Authority(folder / "authority"))
    installed.run("chmod", "0700", ETC)
    before = {path.name: path.read_bytes() for path in installed.path(ETC).iterdir()}
    installed.install(package)
    assert {path.name: path.read_bytes() for path in installed.path(ETC).iterdir()} == before
    assert owner_and_rights(installed, ETC) == f"root:{USER} 700"


def test_removed_it_leaves_its_configuration(installed):
    installed.run("dpkg", "--remove", PACKAGE)
    assert not installed.path("/usr/sbin/relay_server").exists()
    assert sorted(path.name for path in installed.path(ETC).iterdir()) == [
        "policy.json", "relay_server.json"]


# What Debian writes with any package, and the user: files elsewhere may belong to its number.
DEBIANS_OWN = ("/var/lib/dpkg/", "/var/cache/", "/var/log/dpkg.log", "/etc/passwd", "/etc/group",
               "/etc/shadow", "/etc/gshadow", "/etc/subuid", "/etc/subgid", "/etc/.pwd.lock",
               "/var/lib/systemd/deb-systemd-helper", "/tmp", "/run")


def test_purged_it_leaves_what_the_administrator_brought(machine, package, folder):
    before = machine.files()
    machine.install(package)
    complete(machine, Authority(folder / "authority"))
    with InstalledRelay(machine):
        pass
    assert machine.path(ACCESS_LOG).exists()
    machine.run("dpkg", "--purge", PACKAGE)
    after = machine.files()
    changed = {path for path in before.keys() | after.keys()
               if before.get(path) != after.get(path) and not path.startswith(DEBIANS_OWN)}
    assert changed == {ETC, f"{ETC}/relay.pem", f"{ETC}/relay.key"}


def test_purged_without_certificates_it_leaves_no_folder(machine, package):
    machine.install(package)
    machine.run("dpkg", "--purge", PACKAGE)
    assert not machine.path(ETC).exists()
    left = machine.run("dpkg-query", "-W", "-f", "${Package} ")
    assert PACKAGE not in left.split()
