"""Private surroundings for the tests: mounts and a network of the calling process's own.

The daemon's paths and its default web-server port are fixed. Behind enter() every process that
starts from here sees a /var/run, an /etc and a /dev/console of its own and a network with nothing
in it but loopback, so that several test processes run side by side and the machine keeps nothing.

A process enters once, before it has started anything else. Mounts are written to by the calling
thread and the threads and processes that it starts afterwards.
"""

import contextlib
import ctypes
import fcntl
import getpass
import os
import socket
import struct
import subprocess
import threading
from pathlib import Path

_CLONE_NEWNS = 0x00020000
_CLONE_NEWUTS = 0x04000000
_CLONE_NEWIPC = 0x08000000
_CLONE_NEWUSER = 0x10000000
_CLONE_NEWNET = 0x40000000

_MS_BIND = 0x1000
_MS_REC = 0x4000
_MS_PRIVATE = 0x40000
_MNT_DETACH = 2

_SIOCGIFFLAGS = 0x8913
_SIOCSIFFLAGS = 0x8914
_IFF_UP = 1

_libc = ctypes.CDLL(None, use_errno=True)


def _check(result, what):
    if result != 0:
        number = ctypes.get_errno()
        raise OSError(number, f"{what}: {os.strerror(number)}")


def _unshare(flags):
    _check(_libc.unshare(flags), f"unshare {flags:#x}")


def _mount(source, target, kind=None, flags=0):
    names = [None if name is None else os.fsencode(name) for name in (source, target, kind)]
    _check(_libc.mount(*names, ctypes.c_ulong(flags), None), f"mount {source} on {target}")


def bind(source, target):
    """Lets `target` show `source`; both exist, both are files or both are folders."""
    _mount(source, target, flags=_MS_BIND)


def unmount(target):
    _check(_libc.umount2(os.fsencode(target), _MNT_DETACH), f"unmount {target}")


def become_root():
    """Makes an ordinary user root of a user namespace, which the steps of enter() need.

    Only a process with a single thread can do this. Root stays what it is.
    """
    if os.geteuid() == 0:
        return
    user, group = os.geteuid(), os.getegid()
    with contextlib.suppress(KeyError):  # one without a name
        # Or else pytest looks for its folder under root's name, and finds that of the real root.
        os.environ.setdefault("LOGNAME", getpass.getuser())
    _unshare(_CLONE_NEWUSER)
    Path("/proc/self/setgroups").write_text("deny")
    Path("/proc/self/uid_map").write_text(f"0 {user} 1")
    Path("/proc/self/gid_map").write_text(f"0 {group} 1")


def enter(private_network=True):
    """Moves the calling thread into namespaces of its own; returns a Places for them.

    Without a private network the machine's own loopback stays, for a browser outside.
    """
    become_root()
    _unshare(_CLONE_NEWNS | _CLONE_NEWUTS | _CLONE_NEWIPC)
    _mount("none", "/", flags=_MS_REC | _MS_PRIVATE)
    if private_network:
        leave_network()
    return Places()


def leave_network():
    """Moves the calling thread, and none other that runs already, into a network of its own."""
    _unshare(_CLONE_NEWNET)
    _bring_up("lo")


def mounts_of_now():
    """A descriptor of the mounts as they are before enter(), for what must not run behind it."""
    become_root()
    _unshare(_CLONE_NEWNS)  # the machine's own are closed to an ordinary user
    _mount("none", "/", flags=_MS_REC | _MS_PRIVATE)
    return os.open("/proc/self/ns/mnt", os.O_RDONLY)


def _bring_up(interface):
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as control:
        request = struct.pack("16sH14x", interface.encode(), 0)
        flags = struct.unpack_from("16sH", fcntl.ioctl(control, _SIOCGIFFLAGS, request))[1]
        request = struct.pack("16sH14x", interface.encode(), flags | _IFF_UP)
        fcntl.ioctl(control, _SIOCSIFFLAGS, request)


class Places:
    """The folders and files that this process has for itself. They go when it ends."""

    def __init__(self):
        # Covers what stood in /var/run, which every machine has and no test wants.
        run = Path("/var/run").resolve()
        _mount("tmpfs", run, "tmpfs")
        self.scratch = run / "scratch"
        self.scratch.mkdir()

    def shadow(self, folder, own):
        """Covers `folder` with links to all it holds except the names in `own`, which are free.

        Needs neither write access below `folder` nor that any of `own` exists there.
        """
        folder = Path(folder)
        behind = self.scratch / "behind" / folder.relative_to("/")
        behind.mkdir(parents=True)
        bind(folder, behind)
        _mount("tmpfs", folder, "tmpfs")
        for entry in os.listdir(behind):
            if entry not in own:
                (folder / entry).symlink_to(behind / entry)


# --- networks behind uplinks ------------------------------------------------------------------


def _ip(*arguments):
    subprocess.run(["ip", *map(str, arguments)], check=True, capture_output=True, text=True)


class Uplink:
    """A network device that leads to a gateway in a network of its own.

    `network` is the third byte of the addresses on the line: ours is 10.7.NETWORK.2, the gateway's
    10.7.NETWORK.1. The route over it has the given metric; the smallest is the one that the kernel
    takes for a socket bound to no device. `hosts` are there before the route is, see host().
    """

    def __init__(self, device, network, metric, hosts=()):
        self.device = device
        self.gateway = f"10.7.{network}.1"
        self.address = f"10.7.{network}.2"
        self._inside = f"behind-{device}"
        _ip("netns", "add", self._inside)
        _ip("link", "add", device, "type", "veth", "peer", "name", "line", "netns", self._inside)
        _ip("address", "add", f"{self.address}/24", "dev", device)
        _ip("link", "set", device, "up")
        self._ip_inside("address", "add", f"{self.gateway}/24", "dev", "line")
        self._ip_inside("link", "set", "line", "up")
        self._ip_inside("link", "set", "lo", "up")
        for address in hosts:
            self.host(address)
        _ip("route", "add", "default", "via", self.gateway, "dev", device, "metric", metric)

    def _ip_inside(self, *arguments):
        _ip("-n", self._inside, *arguments)

    def host(self, address):
        """Gives the network behind this uplink a machine at `address`."""
        self._ip_inside("address", "add", f"{address}/32", "dev", "lo")

    def refuse(self, address):
        """Has the gateway refuse connections to `address` at once."""
        self._ip_inside("route", "add", "unreachable", f"{address}/32")
        self._set_inside("ip_forward", 1)
        self._set_inside("icmp_ratelimit", 0)  # every refusal is sent, not one a second

    def listen(self, address, port=0):
        """A listening socket at `address` inside that network, for a peer in this process."""
        return self._run_inside(lambda: socket.create_server((address, port)))

    def _set_inside(self, setting, value):
        self._run_inside(lambda: Path("/proc/sys/net/ipv4", setting).write_text(str(value)))

    def _run_inside(self, action):
        """Runs `action` in a thread that lives in that network; what it opens stays there."""
        outcome = []

        def run():
            with open(f"/var/run/netns/{self._inside}", "rb") as network:
                _check(_libc.setns(network.fileno(), _CLONE_NEWNET), "setns")
            outcome.append(action())

        thread = threading.Thread(target=run)
        thread.start()
        thread.join()
        return outcome[0]

    def cut(self):
        """Takes the line away, as when a modem is pulled out."""
        _ip("link", "delete", self.device)

    def remove(self):
        with contextlib.suppress(subprocess.CalledProcessError):
            _ip("link", "delete", self.device)
        _ip("netns", "delete", self._inside)
