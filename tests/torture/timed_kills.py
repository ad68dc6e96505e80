"""A kill at a moment of its own, while four downloads run at once: what no list of calls names."""

import functools
import random
import signal
from collections.abc import Iterable

from torture.case import Case
from torture.workloads import LIVE, PARALLEL, WORKLOADS, Workload, trial, undisturbed

ROWS = [*(workload for workload in WORKLOADS if workload.name in ("cold", "warm", "version", "transition", "lost")), LIVE]


def kill(workload: Workload, seed: int) -> None:
    after = random.Random(seed).random() * undisturbed(workload, **PARALLEL).seconds
    with trial(workload) as made:
        made.survive(made.fault(PARALLEL, kill_after=after), {0, -signal.SIGKILL})


def cases(long: bool) -> Iterable[Case]:
    for seed in range(500 if long else 60):
        workload = ROWS[seed % len(ROWS)]
        yield Case(f"{workload.name} seed={seed}", functools.partial(kill, workload, seed))
