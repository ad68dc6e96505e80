"""A reset at each request of each workload, every other one twice: what waits for it goes on, and tells of it once."""

import functools
from collections.abc import Iterable

from torture.case import Case, draw, scratch
from torture.workloads import FIRST, WORKLOADS, Trial, Workload

OFTEN = Workload("often", FIRST, (FIRST,), ("passes", "12"))  # of one request each


@functools.cache
def requests_of(workload: Workload) -> int:
    with scratch() as folder:
        trial = Trial(workload, folder)
        assert trial.fault({}).code == 0, trial.told("fault")
        return trial.site.asked


def cut(workload: Workload, cuts: set[int]) -> None:
    with scratch() as folder:
        trial = Trial(workload, folder)
        trial.site.cuts = cuts
        trial.survive(trial.fault({}), {0})


def cases(long: bool) -> Iterable[Case]:
    table = [(workload, {at, at + at % 2}) for workload in WORKLOADS for at in range(1, requests_of(workload) + 1)]
    for workload, cuts in [(OFTEN, {*range(1, 24, 2)}), *(table if long else draw(table, 20))]:
        yield Case(f"{workload.name} requests={min(cuts)}-{max(cuts)}", functools.partial(cut, workload, cuts))
