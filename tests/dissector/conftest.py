import csv
import io
import os
import shutil
import tempfile
from pathlib import Path

import pytest

from processes import Process
from recording import Recording
from suite_rules import shuffle_by_file

pytest_plugins = ["suite_rules"]

TREE = Path(__file__).resolve().parents[2]
DATA = Path(__file__).resolve().parent / "data"
NOBODY = 65534


def pytest_collection_modifyitems(items):
    shuffle_by_file(items)


class Tshark:
    """tshark with the dissector, on recordings in a folder that everybody may read.

    Wireshark's programs refuse Lua scripts to root, so root has them run by somebody else.
    """

    def __init__(self, folder):
        self._folder = folder
        shutil.copy(TREE / "dissector" / "cloud_relay.lua", folder)

    def _run(self, recording, *arguments):
        with Process("tshark", "-X", f"lua_script:{self._folder}/cloud_relay.lua", "-n",
                     "-r", recording, *arguments, environment={"HOME": self._folder},
                     user=NOBODY if os.geteuid() == 0 else None) as tshark:
            assert tshark.wait() == 0, tshark.errors.text
        assert "Lua" not in tshark.errors.text, tshark.errors.text
        return tshark.output.text

    def lent(self, file):
        """A copy of the file, where tshark may read it."""
        copy = Path(shutil.copy(file, self._folder))
        copy.chmod(0o644)
        return copy

    def recorded(self, name):
        """The path of a recording that is kept beside the tests."""
        return self.lent(DATA / name)

    def written(self, recording):
        path = self._folder / "recording.pcap"
        recording.write(path)
        return path

    def fields(self, recording, names, *arguments, only="cloud_relay"):
        """Of each frame that `only` lets through, the values of the fields, several with commas."""
        separator = ["-E", "separator=/t", "-E", "quote=d"]
        wanted = [word for name in names for word in ("-e", name)]
        text = self._run(recording, "-Y", only, "-T", "fields", *separator, *wanted, *arguments)
        rows = csv.reader(io.StringIO(text), delimiter="\t")
        return [tuple(row or [""]) for row in rows]  # one field without value is an empty line

    def summary(self, recording, *arguments, only="cloud_relay"):
        """The Info column of each frame that `only` lets through, as a window would show it."""
        text = self._run(recording, "-Y", only, "-o", 'gui.column.format:"Info","%i"', *arguments)
        return [line.strip() for line in text.splitlines()]

    def errors(self, recording, *arguments):
        """What the dissector complains of: (frame, message) in order."""
        rows = self.fields(recording, ["frame.number", "_ws.expert.message"], *arguments,
                           only="cloud_relay && _ws.expert")
        return [(int(frame), message) for frame, message in rows]


@pytest.fixture
def tshark():
    with tempfile.TemporaryDirectory(prefix="dissector.", dir="/tmp") as folder:
        os.chmod(folder, 0o755)
        yield Tshark(Path(folder))


@pytest.fixture
def recording():
    return Recording()


@pytest.fixture
def connection(recording):
    return recording.connection()
