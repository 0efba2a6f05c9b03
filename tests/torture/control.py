"""Orders to the interposer and its answers, in the file that interpose.h lays out."""

import ctypes
import functools
import mmap
import os
import subprocess
from dataclasses import dataclass
from pathlib import Path

FRAMES = 14
_BLOCK_SLOTS = 1 << 16
_CALL_RECORDS = 1 << 15
_MAPS_SIZE = 64 * 1024
_NAME_SIZE = 24

# Which calls fail, see order_mode.
COUNT_ONLY, ONCE, FROM, SITE = range(4)


class _Place(ctypes.Structure):
    _fields_ = [("name", ctypes.c_char * _NAME_SIZE), ("site", ctypes.c_uint64),
                ("count", ctypes.c_uint64), ("frames", ctypes.c_uint64 * FRAMES)]


class _Block(ctypes.Structure):
    _fields_ = [("address", ctypes.c_uint64), ("size", ctypes.c_uint64),
                ("number", ctypes.c_uint64), ("place", _Place)]


class _State(ctypes.Structure):
    _fields_ = [
        *((name, ctypes.c_uint64) for name in (
            "armed", "onMain", "onOthers", "mode", "wanted", "occurrence", "error", "records",
            "process", "calls", "failures", "seen", "blocks", "bytes", "allocations",
            "overflows")),
        ("hit", _Place), ("maps", ctypes.c_char * _MAPS_SIZE), ("record", _Place * _CALL_RECORDS),
        ("block", _Block * _BLOCK_SLOTS)]


@dataclass(frozen=True)
class Order:
    """Which call fails: `wanted` is a number from 1, or with SITE a site, of which that occurrence.
    `error` is an errno in place of the call's own."""
    mode: int = COUNT_ONLY
    wanted: int = 0
    occurrence: int = 1
    error: int = 0


class Control:
    """The file of one program. A new start of the program goes on with the same one."""

    def __init__(self, path):
        self.path = path
        with open(path, "w+b") as file:
            file.truncate(ctypes.sizeof(_State))
            self._memory = mmap.mmap(file.fileno(), 0)
        self.last_hit = None  # of the last order
        self._state = _State.from_buffer(self._memory)

    def renew(self):
        """Forgets all blocks: for the next start of the program."""
        state = self._state
        if state.allocations:
            ctypes.memset(ctypes.addressof(state.block), 0, ctypes.sizeof(state.block))
        for name in ("process", "blocks", "bytes", "allocations"):
            setattr(state, name, 0)

    def arm(self, order, on_main, on_others, records=False):
        """From now on calls count, and fail as ordered, until disarm()."""
        state = self._state
        state.armed = 0
        if order.mode != COUNT_ONLY:
            self.last_hit = None
        state.calls = state.failures = state.seen = 0
        state.onMain, state.onOthers = on_main, on_others
        state.mode, state.wanted, state.occurrence = order.mode, order.wanted, order.occurrence
        state.error, state.records = order.error, records
        state.hit = _Place()
        state.armed = 1

    def disarm(self):
        self._state.armed = 0
        if self._state.failures:
            self.last_hit = self.hit

    def keep_stacks(self, keeps):
        """Whether blocks keep the stack of their allocation from now on."""
        self._state.records = keeps

    @property
    def process(self):
        return self._state.process

    @property
    def calls(self):
        return self._state.calls

    @property
    def failures(self):
        return self._state.failures

    @property
    def hit(self):
        """The first call that failed."""
        return Place(self._state.hit, self._modules())

    def records(self):
        """The counted calls, as far as there was room."""
        modules = self._modules()
        count = min(self._state.calls, _CALL_RECORDS)
        return [Place(self._state.record[number], modules) for number in range(count)]

    @property
    def blocks(self):
        return self._state.blocks

    @property
    def bytes(self):
        return self._state.bytes

    @property
    def allocations(self):
        return self._state.allocations

    def live_since(self, allocation):
        """The live blocks that are younger than that allocation: sizes and places."""
        assert self._state.overflows == 0, "the table of blocks is too small"
        modules = self._modules()
        return [(block.size, Place(block.place, modules)) for block in self._state.block
                if block.address and block.number > allocation]

    def _modules(self):
        return _modules(self._state.maps)


@functools.lru_cache(maxsize=8)
def _modules(maps):
    """What is mapped: (begin, end, base, path); a file's base is where its first byte is."""
    found, bases = [], {}
    for line in maps.decode().splitlines():
        fields = line.split(maxsplit=5)
        if len(fields) == 6 and fields[5].startswith("/"):
            begin, end = (int(part, 16) for part in fields[0].split("-"))
            bases.setdefault(fields[5], begin)
            found.append((begin, end, bases[fields[5]], fields[5]))
    return found


class Place:
    """A call, by the function that was called and the frames it was called from."""

    def __init__(self, raw, modules):
        self.name = raw.name.decode()
        self.site = raw.site
        self.frames = [_located(frame, modules) for frame in raw.frames[:raw.count]]

    def __str__(self):
        names = [self.name]
        for name in filter(None, map(_named, self.frames)):
            if name != names[-1]:
                names.append(name)
        return " < ".join(names)

    def functions(self):
        """The names of the frames' functions, innermost first, inlined ones included."""
        return [name for frame in self.frames for name, _ in _symbols(*frame)]

    def libraries(self):
        """The names of the libraries that the frames are in."""
        return {Path(path).name.split(".so")[0] for path, _ in self.frames if ".so" in path}

    def place_in_program(self):
        """The call, and the frames of the program itself, which is mapped lowest."""
        return self.name, tuple(frame for frame in self.frames if ".so" not in frame[0])

    def lines(self):
        """A stack, one line a frame."""
        shown = [f"    {self.name}"]
        for path, offset in self.frames:
            for function, place in _symbols(path, offset) or [("?", "")]:
                shown.append(f"      {function:40} {place or f'{Path(path).name}+{offset:#x}'}")
        return "\n".join(shown)


def _located(frame, modules):
    for begin, end, base, path in modules:
        if begin <= frame < end:
            return path, frame - 1 - base  # within the call, not behind it
    return "?", frame


def _named(frame):
    """A short name of a frame: its functions, or its library's name; empty for the C library's."""
    path, offset = frame
    names = [name for name, place in _symbols(path, offset) if not place.startswith("??")]
    if names:
        return " < ".join(names)
    library = Path(path).name.split(".so")[0]
    return "" if library in ("libc", "libasan", "ld-linux-x86-64", "?") else library


_cache = {}


def _symbols(path, offset):
    """(function, file:line) of that place, the innermost inlined function first."""
    if (path, offset) not in _cache:
        _look_up(path, [offset])
    return _cache[path, offset]


def name_all(places):
    """Looks all their frames up at once; looking up a frame alone takes a tenth of a second."""
    wanted = {}
    for place in places:
        for path, offset in place.frames:
            if (path, offset) not in _cache:
                wanted.setdefault(path, set()).add(offset)
    for path, offsets in wanted.items():
        _look_up(path, sorted(offsets))


def _look_up(path, offsets):
    _cache.update({(path, offset): [] for offset in offsets})
    if not os.path.isfile(path):
        return
    text = subprocess.run(
        ["addr2line", "-a", "-f", "-i", "-C", "-e", path], check=False, capture_output=True,
        text=True, input="".join(f"{offset:#x}\n" for offset in offsets)).stdout
    offset, lines = None, []
    for line in [*text.splitlines(), "0x0"]:
        if not line.startswith("0x"):
            lines.append(line)
            continue
        if offset is not None:
            pairs = zip(lines[::2], lines[1::2])
            _cache[path, offset] = [(_short(name), _from_here(place)) for name, place in pairs
                                    if name != "??"]
        offset, lines = int(line, 16), []


def _from_here(place):
    place = place.split(" (")[0]
    return os.path.relpath(place) if place.startswith("/") else place


def _short(name):
    """A function's name without its arguments and namespaces that say nothing."""
    return name.replace("(anonymous namespace)::", "").split("(")[0].split("::")[-1] or name


def without_randomized_addresses():
    """For this process and all it starts, so that a site is the same in each."""
    no_randomize = 0x0040000
    libc = ctypes.CDLL(None)
    assert libc.personality(ctypes.c_ulong(no_randomize)) >= 0, "addresses stay randomized"
