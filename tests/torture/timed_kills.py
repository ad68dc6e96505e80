"""A kill at a moment of its own, while four downloads run at once: what no list of calls names."""

import functools
import random
import signal
import time
from collections.abc import Iterable

from torture.case import Case, scratch
from torture.workloads import LIVE, PARALLEL, WORKLOADS, Trial, Workload

ROWS = [*(workload for workload in WORKLOADS if workload.name in ("cold", "warm", "version", "transition", "lost")), LIVE]


@functools.cache
def seconds_of(workload: Workload) -> float:
    with scratch() as folder:
        trial = Trial(workload, folder)
        began = time.monotonic()
        assert trial.fault(PARALLEL).code == 0, trial.told("fault")
        return time.monotonic() - began


def kill(workload: Workload, seed: int) -> None:
    after = random.Random(seed).random() * seconds_of(workload)
    with scratch() as folder:
        trial = Trial(workload, folder)
        trial.survive(trial.fault(PARALLEL, kill_after=after), {0, -signal.SIGKILL})


def cases(long: bool) -> Iterable[Case]:
    for seed in range(500 if long else 60):
        workload = ROWS[seed % len(ROWS)]
        yield Case(f"{workload.name} seed={seed}", functools.partial(kill, workload, seed))
