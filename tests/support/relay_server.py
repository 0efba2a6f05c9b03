"""relay_server, running, and what it tells: its ports, its log, its admin interface.

    with RelayServer(folder, certificate) as relay:
        daemon.reload("127.0.0.1", relay.device_port)
        relay.wait_for_device(device_id)
        relay.get(device_id, "/index.html")
"""

import http.client
import json
import shutil
import signal
from pathlib import Path

from processes import PATIENCE_S, Process, program, wait_until

ADDRESS = "127.0.0.1"
BASE_DOMAIN = "localhost"


class RelayServer:
    """`options` are merged into the configuration, section by section. `front_certificate`: what
    users see, when they are to speak TLS. `environment` is added to ours."""

    def __init__(self, folder, certificate, policy=None, options=None, front_certificate=None,
                 environment=None):
        self._environment = environment
        self.folder = Path(folder)
        self.folder.mkdir(parents=True, exist_ok=True)
        self.certificate = self.folder / "relay.pem"
        self.key = self.folder / "relay.key"
        self.policy = self.folder / "policy.json"
        self.configuration = self.folder / "relay_server.json"
        self.access_log = self.folder / "access.log"
        self.process = None
        self.front_is_tls = front_certificate is not None
        self.use_certificate(certificate)
        if self.front_is_tls:
            self.use_front_certificate(front_certificate)
        self.write_policy(policy or {"admit": "all"})
        self.write_configuration(options or {})

    def use_certificate(self, certificate):
        shutil.copy(certificate.certificate, self.certificate)
        shutil.copy(certificate.key, self.key)

    def use_front_certificate(self, certificate):
        shutil.copy(certificate.certificate, self.folder / "front.pem")
        shutil.copy(certificate.key, self.folder / "front.key")

    def write_policy(self, policy):
        self.policy.write_text(json.dumps(policy))

    def write_configuration(self, options):
        configuration = {
            "devices": {"listen": f"{ADDRESS}:0", "certificate": "relay.pem", "key": "relay.key",
                        "policy": "policy.json"},
            "front": {"listen": f"{ADDRESS}:0"},
            "admin": {"listen": f"{ADDRESS}:0"},
            "access_log": str(self.access_log),
            "drain_s": 0,
        }
        if self.front_is_tls:
            configuration["front"] |= {"certificate": "front.pem", "key": "front.key"}
        for section, value in options.items():
            if isinstance(value, dict):
                configuration[section].update(value)
            else:
                configuration[section] = value
        self.configuration.write_text(json.dumps(configuration))

    # --- running ---

    def launch(self):
        """Starts the process, which dies with the tests, however those end."""
        self.process = Process(shutil.which("setpriv"), "--pdeathsig", "KILL", *self._command(),
                               environment=self._environment)
        return self.process

    def _command(self):
        return [program("relay_server"), "--config", self.configuration]

    def start(self):
        """Launches it and waits until it listens."""
        self.launch()
        ports = self.log.wait_for(r"devices connect to \S+ port (\d+)(?s:.*)users come to \S+ port "
                                  r"(\d+)(?s:.*)operators come to \S+ port (\d+)")
        self.device_port, self.front_port, self.admin_port = map(int, ports.groups())
        return self

    @property
    def has_ended(self):
        return self.process.status is not None

    def restart(self):
        """Starts it again on the ports it had, after it was killed from outside."""
        self.process.put_away()
        configuration = json.loads(self.configuration.read_text())
        for section, port in (("devices", self.device_port), ("front", self.front_port),
                              ("admin", self.admin_port)):
            configuration[section]["listen"] = f"{ADDRESS}:{port}"
        self.configuration.write_text(json.dumps(configuration))
        return self.start()

    def stop(self):
        """Ends it the way an operator does."""
        assert self.process.stop() == 0, self.log.text

    def reload(self):
        """SIGHUP; returns when the files have been read."""
        start = len(self.log.text)
        self.signal(signal.SIGHUP)
        self.log.wait_for(r"reloaded certificates|not reloaded", start=start)

    def signal(self, number):
        self.process.send_signal(number)

    @property
    def pid(self):
        return self.process.pid

    @property
    def log(self):
        return self.process.errors

    def accesses(self):
        """The access log's lines, parsed."""
        return [json.loads(line) for line in self.access_log.read_text().splitlines()]

    def __enter__(self):
        return self.start()

    def __exit__(self, kind, value, trace):
        self.process.__exit__(kind, value, trace)

    # --- users ---

    def host(self, device_id):
        """What stands in a URL between the slashes."""
        return f"{device_id.lower()}.{BASE_DOMAIN}:{self.front_port}"

    def get(self, device_id, target="/", headers=None, method="GET", body=None):
        """One request of a user on a connection of its own; the response, its body in `.body`."""
        connection = http.client.HTTPConnection(ADDRESS, self.front_port, timeout=PATIENCE_S)
        try:
            connection.request(method, target, body,
                               {"Host": self.host(device_id), **(headers or {})})
            response = connection.getresponse()
            response.body = response.read()
            return response
        finally:
            connection.close()

    # --- operators ---

    def admin(self, target, method="GET", headers=None):
        """One request to the admin interface; status and body."""
        connection = http.client.HTTPConnection(ADDRESS, self.admin_port, timeout=PATIENCE_S)
        try:
            connection.request(method, target, headers=headers or {})
            response = connection.getresponse()
            return response.status, response.read().decode()
        finally:
            connection.close()

    def devices(self):
        """What the relay knows of its devices, by id."""
        _, body = self.admin("/api/devices")
        return {device["id"]: device for device in json.loads(body)["devices"]}

    def wait_for_device(self, device_id):
        return wait_until(lambda: self.devices().get(device_id), f"{device_id} is connected")

    def wait_for_no_device(self, device_id):
        wait_until(lambda: device_id not in self.devices(), f"{device_id} is gone")

    def metric(self, name, headers=None):
        """A sample of /metrics, by name with its labels as they stand there."""
        _, body = self.admin("/metrics", headers=headers)
        for line in body.splitlines():
            if line.startswith(f"{name} "):
                return float(line.rpartition(" ")[2])
        raise AssertionError(f"no metric {name} in:\n{body}")
