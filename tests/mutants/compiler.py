"""Compiles and links mutants beside the build of the preset `mutants`, which stays as it is.

A mutant's objects stand in front of the daemon's library in the link of its room's test program, so
that nothing of the same names is taken from there.
"""

import collections
import json
import re
import shlex
import subprocess
from pathlib import Path

from candidates import read_lines

# As shipped: the optimizer makes one object of two texts that do the same.
_SHIPPED = ("-Os", "-fno-sanitize=all", "-fno-asynchronous-unwind-tables", "-fno-unwind-tables")


class DoesNotCompile(Exception):
    pass


def _run(command, cwd):
    return subprocess.run(command, cwd=cwd, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, check=False)


class Compiler:
    """Every path is absolute, or relative to the build's folder."""

    def __init__(self, tree, build):
        self._src = tree / "src"
        self._build = build
        commands = json.loads((build / "compile_commands.json").read_text())
        self._commands = {}  # object: its compiler command, with the source's name last
        for entry in commands:
            words = shlex.split(entry["command"])
            self._commands[words[words.index("-o") + 1]] = words
        self._depends = self._read_dependencies()
        self._headers = self._precompile(build / "run" / "headers.h")
        self._unchanged = {}  # (path, whether as shipped): object: its bytes

    def _precompile(self, path):
        """A header of the library headers that most sources name: they are a mutant's main cost."""
        users = collections.Counter()
        for source in self._src.rglob("*.cpp"):
            users.update(set(re.findall(r"^#include <\S+>", source.read_text(), re.MULTILINE)))
        path.parent.mkdir(exist_ok=True)
        path.write_text("".join(f"{line}\n" for line, count in sorted(users.items()) if count > 2))
        target = self._objects_of("core/json.cpp", "src/")[0]
        words = list(self._commands[target])
        words[words.index("-o") + 1] = f"{path}.gch"
        done = _run([*words[:words.index("-c")], "-w", "-g0", "-x", "c++-header", str(path)],
                    self._build)
        assert done.returncode == 0, done.stdout
        return path

    def _read_dependencies(self):
        depends = {}
        target = None
        for line in self._ninja("-t", "deps").splitlines():
            if line.startswith(" "):
                depends[target].add(str((self._build / line.strip()).resolve()))
            elif line:
                target = line.split(":")[0]
                depends[target] = set()
        return depends

    def _ninja(self, *arguments):
        done = _run(["ninja", "-C", str(self._build), *arguments], self._build)
        assert done.returncode == 0, done.stdout
        return done.stdout

    def _objects_of(self, path, folder):
        """The objects below `folder` of the build that are made of src/`path`."""
        source = str(self._src / path)
        return sorted(target for target, sources in self._depends.items()
                      if target.startswith(folder) and source in sources)

    def _compile(self, target, into, candidate, flags=()):
        """Compiles the object `target` with a changed source tree `into`/src in front."""
        words = list(self._commands[target])
        source = words[-1]
        if source == str(self._src / candidate.path):
            source = str(into / "src" / candidate.path)
        output = into / "objects" / target
        output.parent.mkdir(parents=True, exist_ok=True)
        words[words.index("-o") + 1] = str(output)
        # The sources name their headers from src/ on; the changed one is found first.
        words[1:1] = ["-I", str(into / "src")]
        if target.startswith("src/"):
            words[1:1] = ["-include", str(self._headers)]
        done = _run([*words[:-1], "-w", "-g0", *flags, source], self._build)
        if done.returncode != 0:
            raise DoesNotCompile(done.stdout)
        return output

    def _objects(self, candidate, into, flags):
        return {target: self._compile(target, into, candidate, flags).read_bytes()
                for target in self._objects_of(candidate.path, "src/")}

    def changes_objects(self, candidate, into, shipped=False):
        """The mutant's objects, None when they are the same as the unchanged source's.

        Leaves the mutant in `into`.
        """
        flags = _SHIPPED if shipped else ()
        lines = read_lines(self._src / candidate.path)
        changed = into / "src" / candidate.path
        changed.parent.mkdir(parents=True, exist_ok=True)
        key = candidate.path, shipped
        if key not in self._unchanged:
            changed.write_text("".join(lines))
            self._unchanged[key] = self._objects(candidate, into, flags)
        changed.write_text(candidate.applied_to(lines))
        objects = self._objects(candidate, into, flags)
        return None if objects == self._unchanged[key] else objects

    def link(self, candidate, into):
        """The room's test program with the objects that changes_objects() has left in `into`."""
        tests = f"tests/unit/{candidate.room}/CMakeFiles/{candidate.room}_tests.dir/"
        ours = [str(into / "objects" / target)
                for target in self._objects_of(candidate.path, "src/")]
        theirs = {target: str(self._compile(target, into, candidate))
                  for target in self._objects_of(candidate.path, tests)
                  if candidate.path.endswith(".h")}
        program = into / f"{candidate.room}_tests"
        words = self._link_command(candidate.room)
        words[words.index("-o") + 1] = str(program)
        first = next(at for at, word in enumerate(words) if word.startswith(tests))
        words = [theirs.get(word, word) for word in words]
        words[first:first] = ours
        done = _run([*words, "-fuse-ld=gold"], self._build)  # in half the time
        assert done.returncode == 0, done.stdout
        return program

    def _link_command(self, room):
        line = self._ninja("-t", "commands", "-s", f"bin/{room}_tests")
        command = next(part for part in line.splitlines() if f"-o bin/{room}_tests" in part)
        return shlex.split(command.split("&&")[1])

    def clean_program(self, room):
        return self._build / "bin" / f"{room}_tests"


def suites_of(tree, path):
    """The suites in the files of tests that bear the name of the module src/`path`."""
    room, stem = Path(path).parent.name, Path(path).stem
    words = ("TEST(", "TEST_F(", "TEST_P(")
    suites = set()
    for file in (tree / "tests" / "unit" / room).glob(f"{stem}*_test.cpp"):
        for line in file.read_text().splitlines():
            if line.startswith(words):
                suites.add(line.split("(")[1].split(",")[0])
    return suites
