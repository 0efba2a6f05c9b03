"""The built bus programs: a broker of one's own, and runs of the command-line tool against it."""

import os
import shutil
import tempfile
from pathlib import Path

import ubus_wire
from processes import Process, program, run, run_on_terminal, wait_until


_CONNECTED = "03"  # column St of /proc/net/unix


def socket_folder():
    """A new folder for sockets: short, as socket paths must be, and open to every user."""
    folder = Path(tempfile.mkdtemp(prefix="bus.", dir="/tmp"))
    folder.chmod(0o755)
    return folder


class Broker:
    """A running broker on a socket of its own. Use it as a context manager, or call stop().

    Stopping it checks that it ends in order when asked to, and without sanitizer report.
    """

    def __init__(self, user=None):
        """`user`: the uid to run the broker as."""
        self._program = program("ubusd")
        self._folder = socket_folder()
        self._user = user
        if user is not None:
            # The tree may stand in a folder that is closed to that user.
            self._program = shutil.copy(self._program, self._folder)
            os.chown(self._folder, user, user)
        self.socket = self._folder / "ubus.sock"
        self.start()

    def start(self):
        self.process = Process(self._program, "-s", self.socket, user=self._user)
        try:
            wait_until(self._is_serving, "the broker serves its socket")
            wait_until(lambda: self.connection_count() == 0, "the broker is at rest")
        except AssertionError:
            self.process.put_away()
            raise

    def _is_serving(self):
        assert self.process.status is None, f"the broker ended:\n{self.process.errors.text}"
        try:
            ubus_wire.Client(self.socket).close()
        except (FileNotFoundError, ConnectionRefusedError):
            return False
        return True

    def connection_count(self):
        """How many clients the broker holds: the connected sockets that bear its path."""
        lines = Path("/proc/net/unix").read_text().splitlines()
        return sum(line.endswith(f" {self.socket}") and line.split()[5] == _CONNECTED
                   for line in lines)

    def kill(self):
        self.process.kill()

    def restart(self):
        """Kills the broker as a crash would and starts it again on the same socket."""
        self.kill()
        self.start()

    def stop(self):
        try:
            self.process.finish()
        finally:
            shutil.rmtree(self._folder)

    def client(self):
        return ubus_wire.Client(self.socket)

    def client_of(self, uid):
        return ubus_wire.connect_as(self.socket, uid)

    def owner(self, name, methods):
        return ubus_wire.ObjectOwner(self.socket, name, methods)

    def tool(self, *arguments, **options):
        """Runs the command-line tool to its end."""
        return run(program("ubus"), "-s", self.socket, *arguments, **options)

    def tool_on_terminal(self, *arguments):
        return run_on_terminal(program("ubus"), "-s", self.socket, *arguments)

    def start_tool(self, *arguments):
        return Process(program("ubus"), "-s", self.socket, *arguments)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.stop()
