"""1,000 passes, of which every second fetches something, and 1,000 acquire/release: descriptors, threads and memory stay where they were."""

import functools
import itertools
from collections.abc import Callable, Iterable

from torture.case import SANITIZED, Case
from torture.hostile_server import PLACES
from torture.site import Site
from torture.workloads import FIRST, Workload, trial
from torture.world import world

KILOBYTES_FOR_EACH = 1


def flap() -> Callable[[Site, str], None]:
    """Each pass finds a new version and a file with other bytes than before, which it keeps or, every second time, fetches."""
    numbers = itertools.count(2)

    def at_request(site: Site, path: str) -> None:
        if path == PLACES["version"]:
            number = next(numbers)
            site.published[:] = [world(1, number, {"data/new.arrow": number})]

    return at_request


def measure(command: str, times: int) -> str:
    with trial(Workload(command, FIRST, (FIRST,), (command, str(times)))) as made:
        if command == "passes":
            made.site.at_request = flap()
        outcome = made.fault({"FAULT_BELOW": ""})
        used = [tuple(map(int, line.split()[1:])) for line in outcome.out.splitlines() if line.startswith("used")]
        assert outcome.code == 0 and len(used) == 2 and "threads stay" not in outcome.out, f"{outcome}" + made.told("fault")
        (descriptors, threads, memory), (descriptors_after, threads_after, memory_after) = used
        assert (descriptors_after, threads_after) == (descriptors, threads), f"descriptors and threads: {used}"
        assert SANITIZED or memory_after - memory <= KILOBYTES_FOR_EACH * times * 4 / 5, f"memory in KB: {used}"
        return f"{times} {command}: {descriptors_after} descriptors, {threads_after} threads, {memory_after - memory:+} KB of {memory}"


def cases(long: bool) -> Iterable[Case]:
    for command in ("passes", "holds"):
        times = 1000 if long else 200
        yield Case(f"{command} times={times}", functools.partial(measure, command, times), alone=True)
