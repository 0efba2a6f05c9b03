"""A systemd unit as a test reads it."""

import subprocess


class Unit:
    def __init__(self, path):
        self.path = path
        self._settings = {}
        for line in path.read_text().splitlines():
            name, equals, value = line.partition("=")
            if equals and not line.startswith("#"):
                self._settings.setdefault(name, []).append(value)

    def all(self, name):
        return self._settings.get(name, [])

    def one(self, name):
        values = self.all(name)
        assert len(values) == 1, f"{name}: {values}"
        return values[0]

    def seconds(self, name):
        value = self.one(name)
        assert value.endswith("s"), value
        return int(value[:-1])

    def system_calls(self):
        """The names that SystemCallFilter lets through."""
        allowed = set()
        for value in self.all("SystemCallFilter"):
            names = set()
            for word in value.lstrip("~").split():
                names |= _members(word)
            allowed = allowed - names if value.startswith("~") else allowed | names
        return allowed | _members("@default")


def _members(name):
    """The system calls behind a name, groups within groups followed."""
    if not name.startswith("@"):
        return {name}
    shown = subprocess.run(["systemd-analyze", "syscall-filter", name], check=True,
                           capture_output=True, text=True).stdout
    words = [line.strip() for line in shown.splitlines()[1:]]
    return set().union(*(_members(word) for word in words if word and not word.startswith("#")))
