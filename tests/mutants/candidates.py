"""Every change of one line that universalmutator's rules make of the daemon's sources."""

import collections
import contextlib
import hashlib
import io
import os
from dataclasses import dataclass
from pathlib import Path

from universalmutator.mutator import mutants_regexp

_RULES = ["universal.rules", "c_like.rules", "cpp.rules"]

# Lines without code of their own.
_NO_CODE = [r"^\s*#\s*(include|pragma)", r"^\s*//", r"^\s*(static_assert|using|namespace)\b"]

_LEAVES_LOOP = ("break;\n", "continue;\n")

# The program's start is seen by the black-box suites alone. The TLS names of compat/ are those of
# a library that this machine's build does not need.
_NOT_UNIT_TESTED = ("main.cpp", "transport/compat/")


@dataclass(frozen=True)
class Candidate:
    path: str  # below src/
    line: int
    was: str
    becomes: str

    @property
    def room(self):
        return self.path.split("/")[0]

    def applied_to(self, lines):
        """The whole file. The lines below keep their numbers, which the log prints."""
        return "".join([*lines[:self.line - 1], self.becomes, f"#line {self.line + 1}\n",
                        *lines[self.line:]])

    def shown(self):
        """Two lines of a diff, under the place."""
        return (f"src/{self.path}:{self.line}\n"
                f"-{self.was.rstrip()}\n"
                + "\n".join(f"+{line.rstrip()}" for line in self.becomes.splitlines()))


def read_lines(path):
    return path.read_text().splitlines(keepends=True)


def all_candidates(src):
    """All, in the order of files and lines."""
    candidates = []
    for file in sorted([*src.rglob("*.cpp"), *src.rglob("*.h")]):
        path = str(file.relative_to(src))
        if not path.startswith(_NOT_UNIT_TESTED):
            candidates += _candidates_of(path, read_lines(file))
    return candidates


def _candidates_of(path, lines):
    with contextlib.redirect_stdout(io.StringIO()):
        changes = mutants_regexp(lines, _RULES, ignorePatterns=_NO_CODE, ignoreStringOnly=True)
    return [Candidate(path, line, lines[line - 1], becomes)
            for line, becomes, _, _ in changes
            if _may_compile(path, lines[line - 1], becomes)
            and not (becomes.endswith(_LEAVES_LOOP) and not _is_in_loop(lines, line - 1))]


def _is_in_loop(lines, at):
    """Whether a loop or a switch encloses the line, by clang-format's indentation."""
    indent = _indent(lines[at])
    for line in reversed(lines[:at + 1]):
        if line.strip() and (_indent(line) < indent or line is lines[at]):
            indent = _indent(line)
            if line.lstrip().startswith(("for (", "while (", "do {", "switch (")):
                return True
            if indent == 0:
                return False
    return False


def _indent(line):
    return len(line) - len(line.lstrip())


def _may_compile(path, was, becomes):
    """Leaves out most of what does not compile, which saves the compiler half of its work."""
    if was.rstrip().endswith("\\") and not becomes.rstrip().endswith("\\"):
        return False  # a macro's line, cut off from the next
    if path.endswith(".h") and not was.startswith((" ", "#", "inline")):
        return False  # a declaration
    at = len(os.path.commonprefix([was, becomes]))
    before, replaced = was[at - 1:at], was[at:at + 1]
    if replaced.isdigit() and (before.isalpha() or before == "_"):
        return False  # int32_t
    # clang-format sets spaces around an operator of two operands, and around no template's bracket
    # or pointer's star.
    if becomes[at:at + 1] == "=":
        at -= 1  # `<` became `<=`
    if was[at:at + 1] in ("<", ">", "*", "&"):
        return was[at - 1] == " " and was[at + 1] in " ="
    return True


def sample(src, seed):
    """All candidates in the order that `seed` gives. A changed line moves no other's candidates, so
    a later sample of the same seed tries almost the same ones."""
    seen = collections.Counter()
    places = {}
    for candidate in all_candidates(Path(src)):
        text = candidate.path, candidate.was, candidate.becomes
        seen[text] += 1  # a file may have a line several times
        places[candidate] = hashlib.sha256(repr((seed, *text, seen[text])).encode()).digest()
    return sorted(places, key=places.get)
