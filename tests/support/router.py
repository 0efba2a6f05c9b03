"""The router around the daemon: its files, its bus and the services on it.

prepare() has given the process private places for the daemon's fixed paths (see namespaces); a
Router fills them anew for each test, so that a test starts from a router in working order and
breaks what it wants broken.
"""

import os
import pty
import shutil
import socket
import termios
from pathlib import Path

import namespaces
from daemon_log import Log
from processes import Process, program, wait_until
from ubus_wire import Method, ObjectOwner

BUS_SOCKET = Path("/var/run/ubus.sock")
CONFIGURATION = Path("/etc/config")
ROOT_CERTIFICATE = Path("/etc/cloud-sdk/velmora-root-CA.pem")
TOKEN_SCRIPT = Path("/usr/lib/lua/cloud_relay_client/cloud_relay_client_helper.lua")
CONSOLE = Path("/dev/console")
STAGED_CHANGES = Path("/tmp/.uci")

DEVICE_INFO = """
config info 'info'
\toption hw_version '1.20.300'
\toption sw_version '4.50.600'
\toption device_model 'RT-2100'
"""


def prepare(private_network=True):
    """Gives this process the private places that the daemon's paths lead to."""
    places = namespaces.enter(private_network)
    places.shadow("/etc", {"config", "cloud-sdk", "hosts", "host.conf", "nsswitch.conf"})
    places.shadow("/usr/lib", {"lua"})
    for folder in (CONFIGURATION, ROOT_CERTIFICATE.parent, TOKEN_SCRIPT.parent):
        folder.mkdir(parents=True)
    Path("/etc/nsswitch.conf").write_text("hosts: files\n")
    Path("/etc/host.conf").write_text("multi on\n")
    Path("/etc/hosts").write_text("127.0.0.1 localhost\n")
    return places


class Identity:
    """The services that know who the device is. Change `answers` to change what they say.

    A value is what a handler of ubus_wire returns: a table, a status, SILENT.
    """

    def __init__(self):
        self.answers = {
            "get_device_id": {"device_id": "0123456789ABCDEF0123456789ABCDEF01234567"},
            "get_device_token": {"device_token": "0f1e2d3c4b5a69788796a5b4c3d2e1f00123456789"},
            "getInfo": {"mac": "AA-BB-CC-DD-EE-FF", "fw_cur_id": "FW0123456789ABCDEF"},
        }
        self.services = []

    @property
    def device_id(self):
        return self.answers["get_device_id"]["device_id"]

    def _method(self, name, arguments=None):
        return Method(lambda call: self.answers[name], arguments or {})

    def start(self):
        self.cloud_client = ObjectOwner(BUS_SOCKET, "cloudclient", {
            name: self._method(name) for name in ("get_device_id", "get_device_token")})
        self.factory = ObjectOwner(BUS_SOCKET, "quorServer", {"getInfo": self._method("getInfo")})
        self.services = [self.cloud_client, self.factory]

    def stop(self):
        for service in self.services:
            service.die()
        self.services = []


class Router:
    """Everything around the daemon, in working order. Use it as a context manager."""

    def __init__(self, authority):
        self.identity = Identity()
        self.bus = None
        for folder in (CONFIGURATION, ROOT_CERTIFICATE.parent, TOKEN_SCRIPT.parent):
            for entry in folder.iterdir():
                entry.unlink()
        self.configure("device_info", DEVICE_INFO)
        self.trust(authority)
        self.name_hosts({})
        self.write_token_script('io.write("0123456789abcdef")')

    def configure(self, package, text):
        """Writes one UCI file."""
        (CONFIGURATION / package).write_text(text)

    def unconfigure(self, package):
        (CONFIGURATION / package).unlink()

    def take_staged_changes(self, folder):
        """Has the router's staged changes stand in `folder`, for stage() and unstage()."""
        STAGED_CHANGES.mkdir(exist_ok=True)
        namespaces.bind(folder, STAGED_CHANGES)

    def stage(self, package, change):
        """Stages a change of a UCI file, as `uci set` does; `uci commit` would follow."""
        with open(STAGED_CHANGES / package, "a") as staged:
            staged.write(change + "\n")

    def unstage(self, package):
        """Takes all staged changes of a UCI file back, as `uci revert` does."""
        (STAGED_CHANGES / package).unlink()

    def set_web_port(self, value):
        """Writes the option that says where the web server listens."""
        self.configure("system", f"config service 'service_port'\n\toption http_port '{value}'\n")

    def trust(self, authority):
        """Installs the root certificate that the daemon checks the relay against."""
        shutil.copy(authority.root, ROOT_CERTIFICATE)

    def trust_nobody(self):
        ROOT_CERTIFICATE.unlink()

    def name_hosts(self, names):
        """Makes names resolve: name to its addresses, in that order. No other name resolves."""
        lines = [f"{address} {name}" for name, addresses in names.items() for address in addresses]
        Path("/etc/hosts").write_text("\n".join(["127.0.0.1 localhost", *lines, ""]))

    def write_token_script(self, code):
        """Writes the lua script that prints web tokens."""
        TOKEN_SCRIPT.write_text(code)

    def remove_token_script(self):
        TOKEN_SCRIPT.unlink()

    def start_bus(self):
        # It dies with us, however we end.
        self.bus = Process(shutil.which("setpriv"), "--pdeathsig", "KILL",
                           program("ubusd"), "-s", BUS_SOCKET)
        wait_until(self._bus_serves, "the bus serves its socket")

    def _bus_serves(self):
        with socket.socket(socket.AF_UNIX) as probe:
            try:
                probe.connect(str(BUS_SOCKET))
            except (FileNotFoundError, ConnectionRefusedError):
                return False
            return True

    def stop_bus(self):
        bus, self.bus = self.bus, None
        try:
            bus.finish()
        finally:
            BUS_SOCKET.unlink(missing_ok=True)

    @property
    def bus_has_ended(self):
        return self.bus.status is not None

    def restart_bus(self):
        """Brings the bus back, with its services, after it was killed from outside."""
        self.identity.stop()
        self.bus.put_away()
        BUS_SOCKET.unlink(missing_ok=True)
        self.start_bus()
        self.identity.start()

    def __enter__(self):
        self.console = Console()
        self.start_bus()
        self.identity.start()
        return self

    def __exit__(self, kind, *_):
        try:
            self.identity.stop()
            if self.bus and kind is not None:  # a Ctrl-C reaches it as well
                self.bus.put_away()
            elif self.bus:
                self.stop_bus()
        finally:
            self.console.close()


class Console(Log):
    """A terminal in place of the router's console: what is printed there."""

    def __init__(self):
        master, self._terminal = pty.openpty()
        modes = termios.tcgetattr(self._terminal)
        modes[1] &= ~termios.OPOST  # show the very bytes, "\n" not turned into "\r\n"
        termios.tcsetattr(self._terminal, termios.TCSANOW, modes)
        namespaces.bind(os.ttyname(self._terminal), CONSOLE)
        super().__init__(master)

    def close(self):
        namespaces.unmount(CONSOLE)
        os.close(self._terminal)
        super().close()
