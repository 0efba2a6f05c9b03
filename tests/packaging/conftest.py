import contextlib
import os
import shutil
import subprocess
import tempfile
from dataclasses import dataclass
from pathlib import Path

import pytest

import namespaces
from processes import program
from router import prepare
from suite_rules import shuffle_by_file

pytest_plugins = ["suite_rules"]

TREE = Path(__file__).resolve().parents[2]
PACKAGE = TREE / "packaging" / "cloud_relay_client"
FILES = PACKAGE / "files"
HERE = Path(__file__).resolve().parent

SHELLS = {"busybox": ["busybox", "sh"], "dash": ["dash"]}


def pytest_configure(config):
    # Here and not later: afterwards there are threads. Workers of xdist inherit it.
    if not hasattr(config, "workerinput"):
        namespaces.become_root()


def pytest_collection_modifyitems(items):
    shuffle_by_file(items)


@pytest.fixture(scope="session")
def places():
    """This process's private places for what the scripts and the daemon find at fixed paths."""
    return prepare()


@dataclass
class Calls:
    """What a script called of the router: each call a tuple of words, in order."""
    all: list

    def of(self, name):
        return [call[1:] for call in self.all if call[0] == name]

    def instance(self, name):
        """The calls from the opening of procd's instance to its closing, both left out."""
        start = self.all.index(("procd_open_instance", name)) + 1
        return self.all[start:self.all.index(("procd_close_instance",), start)]

    def parameters(self, name):
        """What procd was told of an instance: parameter to its values."""
        return {call[1]: list(call[2:]) for call in self.instance(name)
                if call[0] == "procd_set_param"}


class Scripts:
    """Runs the package's scripts in one of the shells, with the router's functions recorded."""

    def __init__(self, folder, shell):
        self._folder = folder
        self._shell = SHELLS[shell]
        self._record = folder / "record"
        self.configuration = folder / "config"
        self.configuration.mkdir()
        self.jail = folder / "ujail"
        self.configure((FILES / "cloud_relay.config").read_text())

    def configure(self, text):
        (self.configuration / "cloud_relay").write_text(text)

    def have_jail(self):
        """Gives the router the program that jails services."""
        self.jail.write_text("")
        self.jail.chmod(0o755)

    def run(self, text, **variables):
        """Runs `text`, the script's own variables and functions at hand; returns its Calls."""
        self._record.write_text("")
        finished = subprocess.run(
            [*self._shell, "-u", "-c", f". {HERE}/router_functions.sh\n{text}"],
            env={"PATH": os.environ["PATH"], "RECORD": str(self._record), "UCI": program("uci"),
                 "CONFIGURATION": str(self.configuration), **variables},
            capture_output=True, text=True, timeout=20)
        assert (finished.returncode, finished.stderr) == (0, ""), finished
        lines = self._record.read_text().splitlines()
        return Calls([tuple(line.split("\x1f")[:-1]) for line in lines])

    def init(self, action):
        return self.run(f". {FILES}/cloud_relay.init\nJAIL={self.jail}\n{action}")

    def hotplug(self, action, interface):
        return self.run(f"(. {FILES}/cloud_relay.hotplug)\nwait", ACTION=action,
                        INTERFACE=interface)


@contextlib.contextmanager
def new_folder():
    """A folder for the time being. Not pytest's own, which a user who is root in a namespace would
    look for among those of the real root."""
    with tempfile.TemporaryDirectory(prefix="packaging.", dir="/tmp") as folder:
        yield Path(folder)


@pytest.fixture
def folder():
    with new_folder() as path:
        yield path


@pytest.fixture(params=SHELLS)
def scripts(places, folder, request):
    for entry in ("ubus", "ubus.sock"):
        left = Path("/var/run", entry)
        if left.is_dir():
            shutil.rmtree(left)
        else:
            left.unlink(missing_ok=True)
    return Scripts(folder, request.param)
