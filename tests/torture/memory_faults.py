"""One allocation fails, whichever it is and on whichever thread."""

import functools
import struct
from collections.abc import Iterable

from torture.case import Case, draw, scratch
from torture.workloads import FIRST, LIVE, PARALLEL, VERSION, WORKLOADS, Trial, Workload, survive

HOLD = Workload("hold", FIRST, (VERSION,), ("holds", "1"))
WHOLE = {"cold", "transition", "hold"}  # of the others one allocation in ten
THREADS = ("torture_host", "bf-poll", "bf-era", "bf-repair", "bf-sync", "bf-check", "brackenfen-sync")


@functools.cache
def allocations_of(workload: Workload, thread: str) -> int:
    with scratch() as folder:
        trial = Trial(workload, folder)
        (folder / "shared").write_bytes(bytes(40))
        counting = {"FAULT_BELOW": "", "FAULT_SHARED": f"{folder}/shared"}
        assert trial.fault(counting | on(thread)).code == 0, trial.told("fault")
        return int(struct.unpack("5q", (folder / "shared").read_bytes())[4])


def on(thread: str) -> dict[str, str]:
    return PARALLEL | {"FAULT_MEMORY_ON": thread} if thread else {}


def fail(workload: Workload, thread: str, at: int) -> None:
    survive(workload, {"FAULT_MEMORY_AT": str(at)} | on(thread), {0, 1})


def cases(long: bool) -> Iterable[Case]:
    rows = [(workload, "", 1 if workload.name in WHOLE else 10) for workload in (*WORKLOADS, HOLD)]
    rows += [(LIVE, thread, 1) for thread in THREADS]
    table = [(workload, thread, at) for workload, thread, step in rows for at in range(1, allocations_of(workload, thread) + 1, step)]
    for workload, thread, at in table if long else draw(table, 150):
        yield Case(f"{workload.name} allocation={at}" + f" on={thread}" * (thread != ""), functools.partial(fail, workload, thread, at))
