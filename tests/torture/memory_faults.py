"""One allocation fails, whichever it is and on whichever thread."""

import functools
import struct
from collections.abc import Iterable

from torture.case import Case, draw, scratch
from torture.workloads import FIRST, VERSION, WORKLOADS, Trial, Workload, survive


@functools.cache
def allocations_of(workload: Workload) -> int:
    with scratch() as folder:
        trial = Trial(workload, folder)
        (folder / "shared").write_bytes(bytes(40))
        assert trial.fault({"FAULT_BELOW": "", "FAULT_SHARED": f"{folder}/shared"}).code == 0, trial.told("fault")
        return int(struct.unpack("5q", (folder / "shared").read_bytes())[4])


def fail(workload: Workload, at: int) -> None:
    survive(workload, {"FAULT_MEMORY_AT": str(at)}, {0, 1})


def cases(long: bool) -> Iterable[Case]:
    """All of a pass, a transition and a manager that starts its threads and stops; of the others one in ten."""
    whole = ("cold", "transition", "hold")
    rows = [*WORKLOADS, Workload("hold", FIRST, (VERSION,), ("holds", "1"))]
    table = [(row, at) for row in rows for at in range(1, allocations_of(row) + 1, 1 if row.name in whole else 10)]
    for workload, at in table if long else draw(table, 150):
        yield Case(f"{workload.name} allocation={at}", functools.partial(fail, workload, at))
