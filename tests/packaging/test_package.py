"""What the package's Makefile makes: built by it, for this machine, and installed into a folder."""

import json
import re
import shutil
import stat
import subprocess
from pathlib import Path

import pytest

from conftest import FILES, HERE, PACKAGE, TREE, new_folder
from daemon import OBJECT
from processes import program, run

INSTALLED = {
    "usr/sbin/cloud_relay_client": 0o755,
    "usr/sbin/cloud_relay_supervisor": 0o755,
    "etc/init.d/cloud_relay": 0o755,
    "etc/config/cloud_relay": 0o600,
    "etc/hotplug.d/iface/95-cloud_relay": 0o644,
    "etc/capabilities/cloud_relay.json": 0o644,
    "usr/share/acl.d/cloud_relay.json": 0o644,
    "lib/upgrade/keep.d/cloud_relay": 0o644,
}


class Feed:
    """The package's Makefile in a small copy of the router's build system."""

    def __init__(self, output):
        self.output = output
        self.root = output / "root"

    def make(self, *targets):
        finished = subprocess.run(
            ["make", "-s", "--no-print-directory", "-C", PACKAGE, f"TOPDIR={HERE}/build_system",
             f"OUTPUT={self.output}", f"SDK={self.output}/sdk", *targets],
            capture_output=True, text=True)
        assert finished.returncode == 0, finished.stdout + finished.stderr
        return finished.stdout

    def variable(self, name):
        """The words of a variable, whether of the Makefile or of the package's definition."""
        target = f"show-{name}" if re.match("PKG_|CMAKE_", name) else f"definition-{name}"
        return self.make(target).partition("=")[2].split()

    def make_sdk(self):
        """A prefix that holds the router's libraries, as an SDK has them."""
        bus = Path(program("ubusd")).parents[1] / "bus"
        sdk = self.output / "sdk"
        subprocess.run(["cp", "-r", TREE / "build" / "deps" / "prefix", sdk], check=True)
        subprocess.run(["cp", TREE / "bus" / "libubus.h", sdk / "include"], check=True)
        merge = (f"create {sdk}/lib/libubus.a\naddlib {bus}/libubus.a\n"
                 f"addlib {bus}/libbus_wire.a\nsave\nend\n")
        subprocess.run(["ar", "-M"], input=merge, text=True, check=True)


@pytest.fixture(scope="module")
def feed():
    with new_folder() as folder:
        yield Feed(folder)


@pytest.fixture(scope="module")
def root(feed):
    """The folder that the package is installed into."""
    feed.make_sdk()
    feed.make("compile")
    feed.make("install")
    return feed.root


# --- what the Makefile says ---

def test_the_licence_is_the_trees(feed):
    assert feed.variable("PKG_LICENSE") == ["MIT"]
    assert feed.variable("PKG_LICENSE_FILES") == ["LICENSE"]
    assert "MIT License" in (TREE / "LICENSE").read_text()
    assert (PACKAGE / "Makefile").read_text().startswith("# SPDX-License-Identifier: MIT\n")


def test_the_version_is_the_trees(feed):
    project = re.search(r"VERSION (\d+\.\d+\.\d+)", (TREE / "CMakeLists.txt").read_text())
    assert feed.variable("PKG_VERSION") == [project[1]]


def test_dependencies_are_the_libraries_and_programs_that_are_used(feed):
    assert set(feed.variable("DEPENDS")) == {
        "+libubox", "+libubus", "+libuci", "+libblobmsg-json", "+libjson-c", "+cJSON",
        "+libwolfssl", "+libpthread", "+ubus", "+lua"}


def test_it_is_built_small_and_position_independent(feed):
    assert set(feed.variable("PKG_BUILD_FLAGS")) == {"gc-sections", "lto"}
    assert feed.variable("PKG_ASLR_PIE_REGULAR") == ["1"]


def test_it_is_built_from_this_tree_with_the_systems_libraries_and_without_tests(feed):
    assert {"-DCRC_USERLAND=system", "-DBUILD_TESTING=OFF"} <= set(feed.variable("CMAKE_OPTIONS"))


def test_the_configuration_survives_upgrades_and_so_does_the_certificate(feed):
    assert feed.make("conffiles").split() == ["/etc/config/cloud_relay"]
    assert (FILES / "cloud_relay.keep").read_text() == "/etc/cloud-sdk/\n"


# --- what it installs ---

def test_every_file_is_where_it_belongs_with_the_right_mode(root):
    found = {str(path.relative_to(root)): stat.S_IMODE(path.stat().st_mode)
             for path in root.rglob("*") if not path.is_dir()}
    assert found == INSTALLED


def test_the_certificates_folder_is_made(root):
    assert (root / "etc/cloud-sdk").is_dir() and not list((root / "etc/cloud-sdk").iterdir())


@pytest.mark.parametrize("name", ["cloud_relay_client", "cloud_relay_supervisor"])
def test_a_program_is_position_independent_and_needs_no_cxx_library(root, name):
    file = root / "usr/sbin" / name
    dump = subprocess.run(["readelf", "-hd", file], check=True, capture_output=True, text=True)
    assert "Position-Independent Executable" in dump.stdout
    needed = re.findall(r"NEEDED.*\[(\S+?)\.so", dump.stdout)
    assert set(needed) <= {"libc", "libjson-c", "libcjson", "libwolfssl", "ld-linux-x86-64"}


def test_the_installed_package_passes_its_own_test(root):
    finished = subprocess.run(["sh", PACKAGE / "test.sh", "cloud_relay_client", "0.1.0"],
                              env={"IPKG_INSTROOT": str(root), "PATH": "/usr/bin:/bin"},
                              capture_output=True, text=True)
    assert (finished.returncode, finished.stderr) == (0, "")


@pytest.mark.parametrize("missing", sorted(INSTALLED))
def test_a_package_without_one_of_its_files_does_not_pass(root, folder, missing):
    broken = folder / "root"
    subprocess.run(["cp", "-r", root, broken], check=True)
    (broken / missing).unlink()
    finished = subprocess.run(["sh", PACKAGE / "test.sh", "cloud_relay_client", "0.1.0"],
                              env={"IPKG_INSTROOT": str(broken), "PATH": "/usr/bin:/bin"},
                              capture_output=True, text=True)
    assert finished.returncode == 1 or "cannot open" in finished.stderr.lower(), finished


# --- the files themselves ---

def test_the_daemon_may_bind_to_an_uplink_and_nothing_else():
    sets = json.loads((FILES / "cloud_relay.capabilities.json").read_text())
    assert sets == {name: ["CAP_NET_RAW"] for name in (
        "bounding", "effective", "ambient", "permitted", "inheritable")}


def test_the_group_may_call_the_supervisor_and_not_the_daemon():
    rules = json.loads((FILES / "cloud_relay.acl.json").read_text())
    assert rules == {"group": "cloud_relay", "access": {
        "cloud_relay": {"methods": ["status", "connect", "disconnect"]}}}
    assert OBJECT not in rules["access"]


def test_the_methods_that_the_group_may_call_are_the_supervisors():
    rules = json.loads((FILES / "cloud_relay.acl.json").read_text())
    source = "".join(path.read_text() for path in (TREE / "supervisor").glob("*.cpp"))
    methods = set(re.findall(r'UBUS_METHOD\w*\(\s*"(\w+)"', source))
    assert set(rules["access"]["cloud_relay"]["methods"]) < methods


def test_the_defaults_are_valid_uci(folder):
    shutil.copy(FILES / "cloud_relay.config", folder / "cloud_relay")
    shown = run(program("uci"), "-q", "-c", folder, "show", "cloud_relay")
    assert shown.status == 0
    assert shown.output.splitlines() == [
        "cloud_relay.supervisor=supervisor", "cloud_relay.supervisor.enabled='1'",
        "cloud_relay.supervisor.boot_delay='10'", "cloud_relay.supervisor.pause_min='1'",
        "cloud_relay.supervisor.pause_max='300'",
        "cloud_relay.service=service", "cloud_relay.service.respawn_threshold='3600'",
        "cloud_relay.service.respawn_timeout='5'", "cloud_relay.service.respawn_retry='0'",
        "cloud_relay.service.term_timeout='1'", "cloud_relay.service.jail='1'"]
