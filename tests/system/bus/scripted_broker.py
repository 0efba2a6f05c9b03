"""A socket on which a test plays the broker towards the real command-line tool."""

import shutil
import socket

from processes import PATIENCE_S, Process, program
from ubus_programs import socket_folder
from ubus_wire import Connection, Message, Type

CLIENT_ID = 0x12345678


class ScriptedBroker:
    def __init__(self):
        self._folder = socket_folder()
        self.socket = self._folder / "ubus.sock"
        self._listener = socket.socket(socket.AF_UNIX)
        self._listener.bind(str(self.socket))
        self._listener.listen()
        self._listener.settimeout(PATIENCE_S)

    def start_tool(self, *arguments):
        return Process(program("ubus"), "-s", self.socket, *arguments)

    def accept(self):
        """The tool's connection, nothing sent on it yet."""
        return Connection(self._listener.accept()[0])

    def greet(self):
        """The tool's connection after HELLO."""
        connection = self.accept()
        connection.send(Message(Type.HELLO, peer=CLIENT_ID))
        return connection

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._listener.close()
        shutil.rmtree(self._folder)
