"""What the Debian package of relay_server contains, and what its unit lets the relay do."""

import gzip
import re
import shutil
import signal
import subprocess
from pathlib import Path

import pytest

from certificates import Authority
from conftest import TREE, new_folder
from device_peer import DEVICE_ID, Device, http_answer
from processes import program, run
from relay_server import RelayServer
from service_manager import ServiceManager
from unit_file import Unit

FOLDER = TREE / "packaging" / "relay_server"
UNIT = Unit(FOLDER / "relay_server.service")
PACKAGE = "relay-server"

INSTALLED = {
    "etc/cloud_relay/policy.json",
    "etc/cloud_relay/relay_server.json",
    "etc/logrotate.d/relay_server",
    "lib/systemd/system/relay_server.service",
    "usr/sbin/relay_server",
    "usr/share/doc/relay-server/changelog.Debian.gz",
    "usr/share/doc/relay-server/changelog.gz",
    "usr/share/doc/relay-server/copyright",
    "usr/share/doc/relay-server/relay.md",
    "usr/share/man/man8/relay_server.8.gz",
}


def build_package(folder):
    """Has CPack make the package of the programs that are built; its path."""
    made = subprocess.run(["cpack", "-B", folder], cwd=Path(program("relay_server")).parents[1],
                          capture_output=True, text=True)
    assert made.returncode == 0, made.stdout + made.stderr
    packages = list(folder.glob("*.deb"))
    assert len(packages) == 1
    return packages[0]


@pytest.fixture(scope="module")
def package():
    with new_folder() as folder:
        yield build_package(folder)


@pytest.fixture(scope="module")
def root(package):
    """The package's files, unpacked."""
    with new_folder() as folder:
        subprocess.run(["dpkg-deb", "--extract", package, folder], check=True)
        yield folder


@pytest.fixture(scope="module")
def control(package):
    """The package's control files, unpacked."""
    with new_folder() as folder:
        subprocess.run(["dpkg-deb", "--control", package, folder], check=True)
        yield folder


def field(control, name):
    text = (control / "control").read_text()
    return re.search(rf"^{name}: (.*(?:\n .*)*)", text, re.MULTILINE).group(1)


# --- files ---

def test_it_holds_these_files_and_no_other(root):
    files = {str(path.relative_to(root)) for path in root.rglob("*") if not path.is_dir()}
    assert files == INSTALLED


def test_everything_is_roots_and_written_by_root_alone(package):
    listing = subprocess.run(["dpkg-deb", "--contents", package], check=True, capture_output=True,
                             text=True).stdout.splitlines()
    assert listing and all(line.split()[1] == "root/root" for line in listing), listing
    rights = {line.split()[5].lstrip("./"): line[:10] for line in listing}
    expected = {name: "-rw-r--r--" for name in INSTALLED} | {"usr/sbin/relay_server": "-rwxr-xr-x"}
    assert {name: rights[name] for name in INSTALLED} == expected
    assert {right for name, right in rights.items() if name not in INSTALLED} == {"drwxr-xr-x"}


def test_files_in_etc_are_the_administrators(root, control):
    conffiles = set((control / "conffiles").read_text().split())
    assert conffiles == {f"/{name}" for name in INSTALLED if name.startswith("etc/")}


def test_the_program_is_the_stripped_one_of_this_build(root):
    installed = root / "usr/sbin/relay_server"
    assert run(installed, "--version").output == run(program("relay_server"), "--version").output
    sections = subprocess.run(["readelf", "-SW", installed], check=True, capture_output=True,
                              text=True).stdout
    assert ".symtab" not in sections and ".debug_info" not in sections


def test_it_depends_on_what_program_and_scripts_use(control):
    depends = {words.split()[0] for words in field(control, "Depends").split(", ")}
    assert {"adduser", "init-system-helpers", "libc6", "libssl3", "libstdc++6",
            "libsystemd0"} <= depends


def test_versions_agree(root, control):
    version = run(root / "usr/sbin/relay_server", "--version").output.split()[1]
    assert field(control, "Version") == f"{version}-1"
    changes = gzip.decompress(
        (root / "usr/share/doc/relay-server/changelog.Debian.gz").read_bytes()).decode()
    assert changes.startswith(f"{PACKAGE} ({version}-1) ")
    assert (FOLDER / "changelog").read_text() == changes


def test_the_licence_is_the_trees(root):
    text = (root / "usr/share/doc/relay-server/copyright").read_text()
    terms = (TREE / "LICENSE").read_text().partition("\n\nPermission")[2]
    assert " ".join(terms.split()) in " ".join(text.replace("\n .\n", "\n").split())


@pytest.mark.parametrize("name", ["postinst", "prerm", "postrm"])
def test_a_maintainer_script_is_sound(control, name):
    script = control / name
    assert script.stat().st_mode & 0o777 == 0o755
    assert script.read_text() == (FOLDER / name).read_text()
    subprocess.run(["shellcheck", script], check=True)


# --- the configuration as installed ---

@pytest.fixture
def configured(root, folder):
    """A copy of /etc/cloud_relay with a certificate, as an administrator completes it."""
    etc = folder / "cloud_relay"
    shutil.copytree(root / "etc/cloud_relay", etc)
    certificate = Authority(folder / "authority").certificate()
    shutil.copy(certificate.certificate, etc / "relay.pem")
    shutil.copy(certificate.key, etc / "relay.key")
    path = etc / "relay_server.json"
    log = '"access_log": "/var/log/relay_server/access.log"'
    assert log in path.read_text()
    path.write_text(path.read_text().replace(log, f'"access_log": "{folder}/access.log"'))
    return path


def test_it_is_in_order_and_the_unit_gives_descriptors_enough(configured):
    checked = run("prlimit", "--nofile=1024", program("relay_server"), "--config", configured,
                  "--check")
    assert checked.status == 0
    needed = int(re.search(r"need (\d+) descriptors", checked.errors).group(1))
    assert 20000 < needed < int(UNIT.one("LimitNOFILE"))


def test_it_differs_from_the_example_in_the_access_log_alone(root):
    example = (TREE / "relay" / "relay_server.json").read_text().splitlines()
    installed = (root / "etc/cloud_relay/relay_server.json").read_text().splitlines()
    changed = [new for old, new in zip(example, installed, strict=True) if old != new]
    assert len(changed) == 1 and '"access_log"' in changed[0]


def test_no_device_is_admitted_until_the_administrator_lists_it(configured, folder):
    with RelayServer(folder / "relay", Authority(folder / "another").certificate()) as relay:
        shutil.copy(configured.parent / "policy.json", relay.policy)
        relay.reload()
        relay.log.wait_for("reloaded certificates, policy")
        with Device(relay.device_port) as device:
            device.say_hello()
            assert device.hello_reply() == 2


# --- the unit ---

def test_the_unit_starts_what_is_installed():
    command, option, configuration = UNIT.one("ExecStart").split()
    assert option == "--config"
    assert {command.lstrip("/"), configuration.lstrip("/")} <= INSTALLED
    assert UNIT.one("Type") == "notify" and UNIT.seconds("WatchdogSec") > 0


def test_the_unit_gives_a_drain_its_time():
    example = (TREE / "relay" / "relay_server.json").read_text()
    drain_s = int(re.search(r'"drain_s": (\d+)', example).group(1))
    assert UNIT.seconds("TimeoutStopSec") > drain_s + 10


def test_the_unit_exposes_little():
    shown = subprocess.run(["systemd-analyze", "security", "--offline=true", UNIT.path],
                           check=True, capture_output=True, text=True).stdout
    assert float(re.search(r"exposure level for \S+: ([\d.]+)", shown).group(1)) < 2.0, shown


class TracedRelay(RelayServer):
    """With each of its system calls in a file."""

    @property
    def trace(self):
        return self.folder / "trace"

    def _command(self):
        # -D: the relay itself is our child, and strace goes with it.
        return ["strace", "-D", "-f", "-qq", "-o", self.trace, *super()._command()]


@pytest.fixture(scope="module")
def trace():
    """The system calls, line by line, of a relay that was used in every way the unit is for."""
    with new_folder() as folder:
        authority = Authority(folder / "authority")
        with ServiceManager(folder / "notify") as manager:
            relay = TracedRelay(folder / "relay", authority.certificate(), options={"drain_s": 1},
                                front_certificate=authority.certificate("front.test"),
                                environment=manager.environment(watchdog_s=1))
            with relay:
                use(relay, manager)
        yield relay.trace.read_text().splitlines()


def use(relay, manager):
    manager.expect("READY")
    with Device(relay.device_port) as device:
        device.join().serve(lambda request: http_answer(b"x" * (4 << 20)))
        assert ask(relay) == 4 << 20
        relay.reload()
        manager.expect("WATCHDOG")
        relay.metric("relay_devices_connected")
    relay.signal(signal.SIGTERM)
    assert relay.process.wait() == 0


def ask(relay):
    """One request of a user by HTTPS; the length of the body that comes."""
    finished = run("curl", "-sk", "--output", "-", "-H", f"Host: {relay.host(DEVICE_ID)}",
                   f"https://127.0.0.1:{relay.front_port}/")
    return len(finished.output)


def test_the_unit_allows_each_system_call_of_the_relay(trace):
    made = set(re.findall(r"^\d+ +([a-z_0-9]+)\(", "\n".join(trace), re.MULTILINE))
    assert {"accept", "sendto", "epoll_wait"} <= made
    # The soft limit is raised to the hard one: the unit sets both.
    assert made - UNIT.system_calls() <= {"prlimit64", "setrlimit"}


def test_the_unit_allows_each_family_of_sockets(trace):
    made = set(re.findall(r" socket\((AF_\w+),", "\n".join(trace)))
    assert {"AF_INET", "AF_UNIX"} <= made <= set(UNIT.one("RestrictAddressFamilies").split())


def test_the_relay_makes_no_memory_that_is_written_and_executed(trace):
    assert not [line for line in trace if "PROT_WRITE|PROT_EXEC" in line]
    assert not [line for line in trace if " mprotect(" in line and "PROT_EXEC" in line]


def test_the_relay_opens_nothing_that_the_unit_hides(trace):
    opened = re.findall(r' openat\(\w+, "([^"]+)"', "\n".join(trace))
    hidden = ("/proc/sys", "/sys", "/home", "/root", "/boot", "/dev/")
    assert opened and not [path for path in opened if path.startswith(hidden)]
