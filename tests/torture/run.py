"""The torture campaign: every module beside this one that has `cases(long: bool) -> Iterable[Case]` is a piece of it.

usage: ./dev torture [--long] [NAME...] [--repeat LINE]

The short form takes a sample, drawn by TORTURE_SEED. NAME is how a piece's name begins; LINE is what a failure printed, and with
TORTURE_KEEP=1 its folder stays to be looked at. At the end stands a table of figures; the exit status is 0 where all held.
"""

import argparse
import concurrent.futures
import dataclasses
import importlib
import os
import pathlib
import shlex
import signal
import sys
import time
import traceback
from collections.abc import Iterable
from types import FrameType, ModuleType

from torture.case import BUILD, SANITIZED, Case, chosen_seed

_interrupted = False


def pieces(names: list[str]) -> list[ModuleType]:
    here = pathlib.Path(__file__).parent
    stems = [path.stem for path in sorted(here.glob("*.py")) if "\ndef cases(" in path.read_text() and path.stem.startswith(tuple(names or [""]))]
    return [importlib.import_module(f"torture.{stem}") for stem in stems]


def name_of(module: ModuleType) -> str:
    return module.__name__.removeprefix("torture.")


def again(module: ModuleType, case: Case) -> str:
    """The line for a shell that repeats a case alone, on the build and among the cases that it came from."""
    where = f"TORTURE_BUILD={BUILD.name} " * SANITIZED + f"TORTURE_SEED={chosen_seed()} " * ("TORTURE_SEED" in os.environ)
    return f"{where}./dev torture --repeat {shlex.quote(f'{name_of(module)} {case.text}')}"


def outcome(module: ModuleType, case: Case) -> tuple[bool, str | None]:
    """Whether it held, and its figure; a failure is printed where it happens."""
    try:
        return True, case.run()
    except Exception as error:  # whatever it is, the other cases go on
        if _interrupted:
            return False, None  # the host of the case heard the Ctrl-C too
        told = f"{error}" if isinstance(error, AssertionError) and f"{error}" else traceback.format_exc()
        print(f"FAILED {again(module, case)}\n    " + told.strip().replace("\n", "\n    "), flush=True)
        return False, None


@dataclasses.dataclass(frozen=True)
class Row:
    name: str
    cases: int
    failed: int
    seconds: float

    def __str__(self) -> str:
        return f"{self.name:<16}{self.cases:>8}{self.failed:>8}{self.seconds:>9.0f}"


def run_piece(module: ModuleType, cases: Iterable[Case]) -> Row:
    began, cases = time.monotonic(), list(cases)
    with concurrent.futures.ThreadPoolExecutor(len(os.sched_getaffinity(0))) as pool:
        outcomes = list(pool.map(lambda case: outcome(module, case), [case for case in cases if not case.alone]))
    outcomes += [outcome(module, case) for case in cases if case.alone]
    failed = sum(not held for held, _ in outcomes)
    row = Row(name_of(module), len(outcomes), failed, time.monotonic() - began)
    print(row, flush=True)
    for figure in filter(None, (figure for _, figure in outcomes)):
        print(f"    {figure}", flush=True)
    return row


def tell(rows: list[Row], form: str) -> bool:
    """The table; whether all held, of which there was something."""
    total = Row("total", sum(row.cases for row in rows), sum(row.failed for row in rows), sum(row.seconds for row in rows))
    print(f"\n{form}, seed {chosen_seed()}\n{'piece':<16}{'cases':>8}{'failed':>8}{'seconds':>9}", *rows, total, sep="\n", flush=True)
    return total.failed == 0 and total.cases > 0


def repeat(line: str) -> Row:
    name, _, text = line.partition(" ")
    for module in [module for module in pieces([name]) if name_of(module) == name]:
        for long in (True, False):
            for case in module.cases(long):
                if case.text == text:
                    return run_piece(module, [case])
    sys.exit(f"no such case: {line}")


def interrupt(_signal: int, _frame: FrameType | None) -> None:
    global _interrupted
    _interrupted = True
    raise KeyboardInterrupt


def main() -> int:
    parser = argparse.ArgumentParser(prog="./dev torture")
    parser.add_argument("--long", action="store_true", help="all cases instead of a sample")
    parser.add_argument("--repeat", metavar="LINE", help="one case, by the line that its failure printed")
    parser.add_argument("names", metavar="NAME", nargs="*", help="how the names of the wanted pieces begin")
    chosen = parser.parse_args()
    try:
        chosen_seed()
    except ValueError:
        parser.error(f"TORTURE_SEED must be a whole number, not {os.environ['TORTURE_SEED']!r}")
    if unknown := [name for name in chosen.names if not pieces([name])]:
        parser.error(f"no piece's name begins with {unknown[0]!r}; there are {', '.join(map(name_of, pieces([])))}")
    signal.signal(signal.SIGINT, interrupt)  # a shell has its background work ignore Ctrl-C, and that is inherited
    if chosen.repeat is not None:
        return repeat(chosen.repeat).failed
    rows = [run_piece(module, module.cases(chosen.long)) for module in pieces(chosen.names)]
    return not tell(rows, "long form" if chosen.long else "short form")


if __name__ == "__main__":
    try:
        sys.exit(main())
    except KeyboardInterrupt:
        print("interrupted", file=sys.stderr)
        sys.exit(130)
