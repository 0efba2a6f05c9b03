"""What running programs hold: memory, descriptors, threads."""

import os
import re
from dataclasses import dataclass
from pathlib import Path


@dataclass(frozen=True)
class Holding:
    """Of one program at one moment. `private`: memory it has written to and shares with nobody."""
    descriptors: int
    threads: int
    resident_kib: int
    private_kib: int


def holding_of(pid):
    process = Path(f"/proc/{pid}")
    memory = (process / "smaps_rollup").read_text()

    def kib(field):
        return int(re.search(rf"^{field}:\s+(\d+) kB", memory, re.MULTILINE)[1])

    return Holding(len(os.listdir(process / "fd")), len(os.listdir(process / "task")),
                   kib("Rss"), kib("Private_Dirty"))


def census(pids):
    """The holdings of programs, from their names to process ids."""
    return {name: holding_of(pid) for name, pid in pids.items()}
