"""How a figure comes about: contenders that run in turn as whole processes, what their samples say, and what is asked of them."""

from __future__ import annotations

import json
import os
import shutil
import statistics
import subprocess
import time
from collections.abc import Callable, Mapping, Sequence
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any, Literal


Word = str | Path  # of a command


class RunFailed(Exception):
    """A contender ended with an error or has not done its work."""


@dataclass(frozen=True)
class Contender:
    """A command that does the work of a measurement as a whole process.

    What it prints as one JSON object joins its sample. Programs that are not installed leave it out, by name.
    """

    name: str
    command: Sequence[Word]
    environment: Mapping[str, str] = field(default_factory=dict)
    needs: Sequence[str] = ()
    before: Callable[[], None] = lambda: None  # not timed
    check: Callable[[], None] = lambda: None  # raises RunFailed where a run has not done the work; not timed


def run_once(contender: Contender) -> dict[str, Any]:
    contender.before()
    began = time.monotonic()
    process = subprocess.Popen(
        [str(word) for word in contender.command],
        env={**os.environ, **contender.environment},
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        text=True,
    )
    assert process.stdout is not None
    printed = process.stdout.read()
    _, status, usage = os.wait4(process.pid, 0)
    seconds = time.monotonic() - began
    process.returncode = os.waitstatus_to_exitcode(status)
    if process.returncode != 0:
        raise RunFailed(f"ended with {process.returncode}")
    contender.check()
    own: dict[str, Any] = json.loads(printed) if printed.startswith("{") else {}
    return {"seconds": seconds, "cpu_seconds": usage.ru_utime + usage.ru_stime, **own}


@dataclass
class Samples:
    """What the rounds of one measurement saw, round by round: `seen[contender][figure][round]`."""

    seen: dict[str, dict[str, list[Any]]] = field(default_factory=dict)
    left_out: dict[str, str] = field(default_factory=dict)
    failed: dict[str, str] = field(default_factory=dict)

    def add(self, contender: str, sample: Mapping[str, Any]) -> None:
        figures = self.seen.setdefault(contender, {})
        for figure, value in sample.items():
            figures.setdefault(figure, []).append(value)

    def median(self, contender: str, figure: str = "seconds") -> float:
        return float(statistics.median(self.seen[contender][figure]))


def race(contenders: Sequence[Contender], rounds: int, into: Samples | None = None) -> Samples:
    """All contenders once in each round, each round begun by another, so that all of them see the same machine.

    One that fails takes no further part, and what it did before does not count.
    """
    samples = Samples() if into is None else into
    present = []
    for contender in contenders:
        missing = [program for program in contender.needs if shutil.which(program) is None]
        if missing:
            samples.left_out[contender.name] = f"not installed: {', '.join(missing)}"
        else:
            present.append(contender)
    for number in range(rounds):
        first = number % len(present)
        for contender in present[first:] + present[:first]:
            if contender.name not in samples.failed:
                try:
                    samples.add(contender.name, run_once(contender))
                except RunFailed as reason:
                    samples.failed[contender.name] = str(reason)
                    samples.seen.pop(contender.name, None)
    return samples


# --- what is asked of the samples ------------------------------------------------------------------------------------

Figure = Callable[[Samples], float]
INTERPRETER = "an interpreter's start"


def median(contender: str, figure: str = "seconds", less: str | None = None) -> Figure:
    """The median of a figure; of the differences to the same figure of the contender `less` in the same rounds."""

    def value(samples: Samples) -> float:
        if less is None:
            return samples.median(contender, figure)
        pairs = zip(samples.seen[contender][figure], samples.seen[less][figure], strict=True)
        return float(statistics.median(mine - theirs for mine, theirs in pairs))

    return value


def ratio(contender: str, other: str, figure: str = "seconds", other_figure: str | None = None, whole: bool = False) -> Figure:
    """The median over the rounds of one contender's figure divided by the other's.

    Where an interpreter's start was measured too, processes of Python count without it unless they are to count `whole`.
    """

    def of_the_work(samples: Samples, name: str, wanted: str) -> list[float]:
        values: list[float] = samples.seen[name][wanted]
        is_process = wanted in ("seconds", "cpu_seconds")
        if whole or not is_process or not runs_in_python(name) or INTERPRETER not in samples.seen:
            return values
        return [value - start for value, start in zip(values, samples.seen[INTERPRETER][wanted], strict=True)]

    def value(samples: Samples) -> float:
        mine = of_the_work(samples, contender, figure)
        theirs = of_the_work(samples, other, other_figure or figure)
        return statistics.median(one / two for one, two in zip(mine, theirs, strict=True))

    return value


def runs_in_python(contender: str) -> bool:
    return contender.startswith(("brackenfen-sync", "Python"))


@dataclass(frozen=True)
class Check:
    """A figure and the bound that it must keep. One whose contenders were left out, or failed, is not checked."""

    what: str
    figure: Figure
    bound: float
    unit: str = "x"
    at_least: bool = False

    def outcome(self, samples: Samples) -> dict[str, Any] | None:
        try:
            value = self.figure(samples)
        except KeyError:
            return None
        met = value >= self.bound if self.at_least else value <= self.bound
        return {"what": self.what, "value": value, "bound": self.bound, "unit": self.unit, "at_least": self.at_least, "met": met}


@dataclass(frozen=True)
class Ground:
    """Where and how thoroughly a run measures."""

    root: Path
    work: Path  # data sets, servers and runs; kept from run to run
    landing: Path  # where downloads land: in memory where there is room, so that a disk's write-back does not decide
    rounds: int
    scale: float  # the share of each set's files that is used
    quick: bool  # the library and the limits alone, without the peers

    def program(self, name: str) -> Path:
        return self.root / "build" / "release" / "bin" / name

    def host(self, name: str) -> list[Word]:
        """The command that runs a host of the library in Python."""
        return [self.root / ".venv" / "bin" / "python", self.root / "bench" / "hosts" / f"{name}.py"]

    @property
    def module(self) -> dict[str, str]:
        """The environment in which a host finds the library."""
        return {"PYTHONPATH": str(self.root / "build" / "release" / "python")}


@dataclass(frozen=True)
class Measurement:
    """One row of the table: what is measured, and what is asked of it."""

    name: str
    title: str
    measure: Callable[[Ground], Samples]
    checks: Sequence[Check] = ()
    quick: bool = False  # is part of a quick run
    plot: Literal["", "processes", "growth", "flame", "followers", "in-step", "herd", "rotation"] = ""
    show: Callable[[Samples], str] | None = None  # what else there is to see
