"""What programs hold over time, and whether it stays flat.

Judged is the second half of the looks. It is cut into windows, of each window the median counts,
as heaps have their peaks and holes, and a straight line is laid through these.
"""

import statistics
from dataclasses import asdict, dataclass

# What the line may rise by from first to last window, of the mean. Memory comes in pages and heaps
# have holes, so that a program that holds little may rise by so many KiB.
MOST_RISE_PERCENT = 1
LEAST_RISE_KIB = 32
WINDOWS = 8
# A run too short for windows of three looks finds only large leaks of memory: whatever the C library
# keeps for the next large body, of 3 MB at most, may begin to be kept in its second half.
SHORT_RISE_KIB = 3072

MEMORY = ("resident_kib", "private_kib")
COUNTS = ("descriptors", "threads")

# It is restarted, and how many pages of its file a new process maps is the kernel's choice.
UNSTEADY = {("supervisor", "resident_kib")}


def middles(values):
    """The median of each window; the values themselves when there are too few."""
    if len(values) < 3 * WINDOWS:
        return values
    bounds = [number * len(values) // WINDOWS for number in range(WINDOWS + 1)]
    return [statistics.median(values[start:end]) for start, end in zip(bounds, bounds[1:])]


def rise(values):
    """By how much a straight line through the values, equally apart, rises from first to last."""
    if len(values) < 2:
        return 0.0
    return statistics.linear_regression(range(len(values)), values).slope * (len(values) - 1)


@dataclass
class Verdict:
    program: str
    measure: str
    mean: float
    rise: float
    percent: float
    is_flat: bool


class Samples:
    """Holdings of programs, taken while nothing was asked."""

    def __init__(self):
        self._rows = []  # holdings by program

    def add(self, census):
        self._rows.append({name: asdict(holding) for name, holding in census.items()})

    def __len__(self):
        return len(self._rows)

    def rows(self):
        return list(self._rows)

    def verdicts(self):
        """One for each program and measure."""
        half = self._rows[len(self._rows) // 2:]
        return [_judge(program, measure, [row[program][measure] for row in half])
                for program in self._rows[0] for measure in (*COUNTS, *MEMORY)
                if (program, measure) not in UNSTEADY]


def _judge(program, measure, values):
    settled = middles(values)
    mean, more = statistics.mean(settled), rise(settled)
    percent = 100 * more / mean
    least = SHORT_RISE_KIB if settled is values else LEAST_RISE_KIB
    is_flat = percent <= MOST_RISE_PERCENT or (measure in MEMORY and more <= least)
    return Verdict(program, measure, mean, more, percent, is_flat)
