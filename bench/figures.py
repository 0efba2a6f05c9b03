"""Figures with their targets: a table line each, with a verdict where there is a target."""

from dataclasses import dataclass


@dataclass(frozen=True)
class Figure:
    """A value, and the target that it must not exceed, or with `at_least` must reach."""
    name: str
    value: float
    unit: str
    target: float | None = None
    at_least: bool = False

    @property
    def missed(self):
        if self.target is None:
            return False
        return self.value < self.target if self.at_least else self.value > self.target

    def line(self):
        shown = f"{self.name:40} {self.value:10.3f} {self.unit:5}"
        if self.target is None:
            return shown.rstrip()
        bound = f"{'at least' if self.at_least else 'at most'} {self.target:g} {self.unit}"
        return f"{shown} {bound:18} {'MISSED' if self.missed else 'ok'}"


def print_figures(figures):
    for figure in figures:
        print(figure.line())


def by_name(figures):
    """For JSON."""
    return {figure.name: round(figure.value, 4) for figure in figures}


def any_missed(figures):
    return any(figure.missed for figure in figures)
