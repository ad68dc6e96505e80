"""A reset at each request of each workload, every other one twice: what waits for it goes on, and tells of it once."""

import functools
from collections.abc import Iterable

from torture.case import Case, draw
from torture.workloads import FIRST, WORKLOADS, Workload, trial, undisturbed

OFTEN = Workload("often", FIRST, (FIRST,), ("passes", "12"))  # of one request each


def cut(workload: Workload, cuts: set[int]) -> None:
    with trial(workload) as made:
        made.site.cuts = cuts
        made.survive(made.fault({}), {0})


def cases(long: bool) -> Iterable[Case]:
    table = [(workload, {at, at + at % 2}) for workload in WORKLOADS for at in range(1, undisturbed(workload).requests + 1)]
    for workload, cuts in [(OFTEN, {*range(1, 24, 2)}), *(table if long else draw(table, 20))]:
        yield Case(f"{workload.name} requests={min(cuts)}-{max(cuts)}", functools.partial(cut, workload, cuts))
