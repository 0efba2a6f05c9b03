"""The ways to one web server that the benchmark measures: direct, through the relay, and ssh -R.

A route has a `url`, the `host` to name in requests, and the pid of the program on the device's side,
which is what a device pays for it.
"""

import os
import pwd
import shutil
import socket
import subprocess
import sys
import time
from pathlib import Path

from daemon import Daemon
from processes import Process, wait_until
from relay_server import ADDRESS, RelayServer

import loads

_free_ports = iter(range(28200, 28400))


def free_port():
    """A port that nobody listens on; each one is given once."""
    for port in _free_ports:
        with socket.socket() as probe:
            try:
                probe.bind((ADDRESS, port))
                return port
            except OSError:
                continue
    sys.exit("bench: no free port")


class Nginx:
    """The web server that all routes lead to."""

    def __init__(self, folder, sizes):
        self.port = free_port()
        state = Path(folder)
        pages = state / "pages"
        pages.mkdir(parents=True)
        loads.write_files(pages, sizes)
        temporary = "".join(f"{kind}_temp_path {state}/{kind}; " for kind in
                            ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
        configuration = state / "nginx.conf"
        configuration.write_text(
            f"user {pwd.getpwuid(os.geteuid()).pw_name}; daemon off; worker_processes 1;\n"
            f"pid {state}/nginx.pid; error_log {state}/error.log;\nevents {{}}\n"
            f"http {{ access_log off; sendfile on; {temporary}\n"
            f"server {{ listen {ADDRESS}:{self.port}; root {pages}; }} }}\n")
        self.process = Process("nginx", "-p", state, "-c", configuration)
        wait_until(lambda: loads.fetch_status(f"http://{ADDRESS}:{self.port}/1k", None) == 200,
                   "nginx serves")

    def stop(self):
        self.process.stop()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.stop()


class Direct:
    name = "nginx direct"
    pid = None

    def __init__(self, web):
        self.url, self.host = f"http://{ADDRESS}:{web.port}", None

    def stop(self):
        pass


class Relay:
    """wrk, relay_server, TLS, the daemon, nginx."""

    name = "relay"

    def __init__(self, folder, router, authority, web):
        router.set_web_port(web.port)
        self.server = RelayServer(folder, authority.certificate(), options={"access_log": ""}).start()
        self.device_id = router.identity.device_id
        self.url = f"http://{ADDRESS}:{self.server.front_port}"
        self.host = self.server.host(self.device_id)
        self.connect()

    def connect(self):
        """Seconds from the daemon's exec to the first relayed answer."""
        started = time.monotonic()
        self.daemon = Daemon().start().wait_for_object()
        self.daemon.reload(ADDRESS, self.server.device_port)
        wait_until(lambda: loads.fetch_status(f"{self.url}/1k", self.host) == 200, "the relay works")
        seconds = time.monotonic() - started
        self.daemon.dbg()
        self.daemon.dbg()  # the log now goes to the null device
        return seconds

    def reconnect(self):
        self.daemon.finish()
        self.server.wait_for_no_device(self.device_id)
        return self.connect()

    @property
    def pid(self):
        return self.daemon.pid

    def stop(self):
        self.daemon.finish()
        self.server.stop()


class SshReverse:
    """ssh -R: the tunnel that everybody has."""

    name = "ssh -R"

    def __init__(self, folder, web):
        self.folder, self.web = Path(folder), web
        self.folder.mkdir()
        self.port, public = free_port(), free_port()
        self.url, self.host, self.public = f"http://{ADDRESS}:{public}", None, public
        for key in ("host", "user"):
            subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", self.folder / key],
                           check=True)
        Path("/run/sshd").mkdir(exist_ok=True)
        configuration = self.folder / "sshd_config"
        configuration.write_text(
            f"ListenAddress {ADDRESS}:{self.port}\nHostKey {self.folder}/host\nUsePAM no\n"
            f"PidFile none\nStrictModes no\nAuthorizedKeysFile {self.folder}/user.pub\n"
            "PermitRootLogin yes\nAllowTcpForwarding yes\n")
        self.server = Process(shutil.which("sshd", path="/usr/sbin"), "-D", "-e",
                              "-f", configuration)
        self.server.errors.wait_for("Server listening")
        self.connect()

    def connect(self):
        started = time.monotonic()
        user = pwd.getpwuid(os.geteuid()).pw_name
        self.client = Process(
            "ssh", "-N", "-T", "-F", "none", "-p", self.port, "-i", self.folder / "user",
            "-o", "IdentitiesOnly=yes", "-o", "BatchMode=yes", "-o", "ExitOnForwardFailure=yes",
            "-o", "StrictHostKeyChecking=no", "-o", "UserKnownHostsFile=/dev/null",
            "-R", f"{ADDRESS}:{self.public}:{ADDRESS}:{self.web.port}", f"{user}@{ADDRESS}")
        wait_until(lambda: loads.fetch_status(f"{self.url}/1k", None) == 200, "the tunnel works")
        return time.monotonic() - started

    def reconnect(self):
        self.client.stop()
        wait_until(lambda: loads.fetch_status(f"{self.url}/1k", None) == 0, "the tunnel is down")
        return self.connect()

    @property
    def pid(self):
        return self.client.pid

    def stop(self):
        self.client.stop()
        self.server.stop()
