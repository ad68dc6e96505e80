"""The torture campaign: every module beside this one that has `cases(long: bool) -> Iterable[Case]` is a piece of it.

usage: ./dev torture [--long] [NAME...] [--repeat LINE]

The short form takes a fixed sample. NAME is how a piece's name begins; LINE is what a failure printed, and with TORTURE_KEEP=1 its
folder stays to be looked at.
"""

import argparse
import concurrent.futures
import importlib
import os
import pathlib
import sys
import time
import traceback
from types import ModuleType

from torture.case import Case


def pieces(names: list[str]) -> list[ModuleType]:
    here = pathlib.Path(__file__).parent
    modules = [importlib.import_module(f"torture.{path.stem}") for path in sorted(here.glob("*.py")) if path.stem != "run"]
    return [module for module in modules if hasattr(module, "cases") and (not names or name_of(module).startswith(tuple(names)))]


def name_of(module: ModuleType) -> str:
    return module.__name__.removeprefix("torture.")


def outcome(module: ModuleType, case: Case) -> tuple[bool, str | None]:
    """Whether it held, and its figure; a failure is printed where it happens."""
    try:
        return True, case.run()
    except Exception as error:  # whatever it is, the other cases go on
        told = f"{error}" if isinstance(error, AssertionError) and f"{error}" else traceback.format_exc()
        print(f"FAILED ./dev torture --repeat '{name_of(module)} {case.text}'\n    " + told.strip().replace("\n", "\n    "), flush=True)
        return False, None


def run_piece(module: ModuleType, cases: list[Case]) -> bool:
    began = time.monotonic()
    with concurrent.futures.ThreadPoolExecutor(len(os.sched_getaffinity(0))) as pool:
        outcomes = list(pool.map(lambda case: outcome(module, case), [case for case in cases if not case.alone]))
    outcomes += [outcome(module, case) for case in cases if case.alone]
    failed = sum(not held for held, _ in outcomes)
    print(f"{name_of(module)}: {len(outcomes)} cases, {failed} failed, {time.monotonic() - began:.0f} s", flush=True)
    for figure in filter(None, (figure for _, figure in outcomes)):
        print(f"    {figure}", flush=True)
    return failed == 0 and bool(outcomes)


def repeat(line: str) -> bool:
    name, _, text = line.partition(" ")
    for module in pieces([name]):
        for long in (True, False):
            for case in module.cases(long):
                if case.text == text:
                    return run_piece(module, [case])
    print(f"no such case: {line}")
    return False


def main() -> int:
    parser = argparse.ArgumentParser(prog="./dev torture")
    parser.add_argument("--long", action="store_true", help="all cases instead of a sample")
    parser.add_argument("--repeat", metavar="LINE", help="one case, by the line that its failure printed")
    parser.add_argument("names", metavar="NAME", nargs="*", help="how the names of the wanted pieces begin")
    chosen = parser.parse_args()
    if chosen.repeat:
        return not repeat(chosen.repeat)
    wanted = pieces(chosen.names)
    return not (wanted and all([run_piece(module, list(module.cases(chosen.long))) for module in wanted]))


if __name__ == "__main__":
    sys.exit(main())
