"""Throw-away certificate authorities and server certificates, made with the openssl program."""

import subprocess
from dataclasses import dataclass
from pathlib import Path

_DAYS = "2"
_EC = ["ec", "-pkeyopt", "ec_paramgen_curve:P-256"]
_RSA = ["rsa:2048"]


def _openssl(*arguments):
    subprocess.run(["openssl", *map(str, arguments)], check=True, capture_output=True)


@dataclass
class Certificate:
    """A certificate and its private key, as PEM files."""
    certificate: Path
    key: Path


class Authority:
    """A certificate authority. Two of the same name share nothing but the name."""

    def __init__(self, folder, name="Relay Test Root"):
        self._folder = Path(folder)
        self._folder.mkdir(parents=True)
        self.root = self._folder / "root.pem"
        self._key = self._folder / "root.key"
        self._issued = {}
        _openssl("req", "-x509", "-newkey", *_EC, "-nodes", "-days", _DAYS, "-subj", f"/CN={name}",
                 "-addext", "basicConstraints=critical,CA:TRUE",
                 "-addext", "keyUsage=critical,keyCertSign,cRLSign",
                 "-keyout", self._key, "-out", self.root)

    def certificate(self, name="relay.test", kind="ec"):
        """A server certificate for `name`, with a key of `kind` "ec" or "rsa"; made once each."""
        if (name, kind) not in self._issued:
            self._issued[name, kind] = self._issue(name, kind)
        return self._issued[name, kind]

    def _issue(self, name, kind):
        key, request, certificate = (
            self._folder / f"{name}-{kind}.{suffix}" for suffix in ("key", "csr", "pem"))
        extensions = self._folder / "server.ext"
        extensions.write_text(f"basicConstraints=CA:FALSE\nsubjectAltName=DNS:{name}\n")
        _openssl("req", "-newkey", *(_RSA if kind == "rsa" else _EC), "-nodes",
                 "-subj", f"/CN={name}", "-keyout", key, "-out", request)
        _openssl("x509", "-req", "-in", request, "-CA", self.root, "-CAkey", self._key,
                 "-CAcreateserial", "-days", _DAYS, "-extfile", extensions, "-out", certificate)
        return Certificate(certificate, key)
