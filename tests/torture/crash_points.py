"""A kill at each call that changes files, in all workloads."""

import functools
import signal
from collections.abc import Iterable

from torture.case import Case, draw
from torture.workloads import WORKLOADS, Workload, survive, undisturbed


def kill(workload: Workload, at: int) -> None:
    survive(workload, {"FAULT_AT": str(at), "FAULT_ACTION": "KILL"}, {-signal.SIGKILL})


def cases(long: bool) -> Iterable[Case]:
    table = [(workload, at) for workload in WORKLOADS for at in range(1, len(undisturbed(workload).points) + 1)]
    for workload, at in table if long else draw(table, 120):
        yield Case(f"{workload.name} point={at} KILL", functools.partial(kill, workload, at))
