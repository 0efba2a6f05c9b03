"""The relay as one more client in peers.py, a measure of general reverse tunnels.

    CRC_BIN=build/release/bin python3 peers.py --plugin bench/peers_plugin.py --peers relay,ssh

The daemon is the client that is judged; relay_server is the tunnel's server.
"""

import subprocess
import sys
import time
from pathlib import Path
from types import SimpleNamespace

sys.path.insert(0, str(Path(__file__).resolve().parent.parent / "tests" / "support"))

from peers import HOST, Peer  # noqa: E402

from daemon import DAEMON, OBJECT, SYSTEM_PATH  # noqa: E402
from processes import program  # noqa: E402
from relay_server import RelayServer  # noqa: E402
from router import BUS_SOCKET, Identity, Router, prepare  # noqa: E402


class Relay(Peer):
    name = "relay"
    encryption = "TLS 1.3, CA checked"
    link = "all requests as packets of one connection"

    def __init__(self, ctx):
        super().__init__(ctx)
        self.headers = {"Host": f"{Identity().device_id.lower()}.localhost:{self.public_port}"}

    def setup(self):
        prepare(private_network=False)
        self.client_binary = program(DAEMON)
        certs = self.ctx.certs()
        self.router = Router(SimpleNamespace(root=certs["ca"]))
        self.router.set_web_port(self.ctx.web_port)
        self.router.__enter__()
        self.server = RelayServer(
            self.dir / "relay", SimpleNamespace(certificate=certs["crt"], key=certs["key"]),
            options={"devices": {"listen": f"{HOST}:{self.server_port}"},
                     "front": {"listen": f"{HOST}:{self.public_port}"}, "access_log": ""})

    def start_server(self):
        self.spawn_server([program("relay_server"), "--config", self.server.configuration])

    def start_client(self):
        folder = Path(self.client_binary).parent
        self.spawn_client([self.client_binary], env={"PATH": f"{folder}:{SYSTEM_PATH}"})
        reload = [program("ubus"), "-s", str(BUS_SOCKET), "call", OBJECT, "reload",
                  f'{{"address":"{HOST}","port":{self.connect_port}}}']
        while subprocess.run(reload, capture_output=True, check=False).returncode != 0:
            time.sleep(0.002)
