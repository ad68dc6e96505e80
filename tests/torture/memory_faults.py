"""One allocation fails, or a hundred from there on: whichever it is, on whichever thread."""

import functools
from collections.abc import Iterable

from torture.case import Case, draw
from torture.workloads import FIRST, LIVE, PARALLEL, VERSION, WORKLOADS, Environment, Workload, survive, undisturbed

HOLD = Workload("hold", FIRST, (VERSION,), ("holds", "1"))
WHOLE = {"cold", "transition", "hold"}  # of the others one allocation in twenty
WATCHERS = ("bf-poll", "bf-era")  # whose passes and transitions are those of the other rows
THREADS = (*WATCHERS, "torture_host", "bf-repair", "bf-sync", "bf-check", "brackenfen-sync")


def on(thread: str) -> Environment:
    return PARALLEL | {"FAULT_MEMORY_ON": thread} if thread else {}


def fail(workload: Workload, thread: str, at: int, lasts: bool) -> None:
    later = {"FAULT_LATER": "1"} if lasts else {}
    survive(workload, {"FAULT_MEMORY_AT": str(at)} | later | on(thread), {0, 1})


def cases(long: bool) -> Iterable[Case]:
    rows = [(workload, "", lasts, 1 if workload.name in WHOLE and not lasts else 20) for workload in (*WORKLOADS, HOLD) for lasts in (False, True)]
    rows += [(LIVE, thread, False, 20 if thread in WATCHERS else 1) for thread in THREADS]
    table = [(workload, thread, lasts, at) for workload, thread, lasts, step in rows
             for at in range(1, undisturbed(workload, **on(thread)).allocations + 1, step)]  # fmt: skip
    for workload, thread, lasts, at in table if long else draw(table, 150):
        text = f"{workload.name} allocation={at}{'+' * lasts}" + f" on={thread}" * (thread != "")
        yield Case(text, functools.partial(fail, workload, thread, at, lasts))
