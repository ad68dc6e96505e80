"""Each call that changes files fails in the ways that such a call can, once or from there on."""

import functools
from collections.abc import Iterable

from torture.case import Case, draw
from torture.workloads import WORKLOADS, Workload, survive, undisturbed

ACTIONS = {
    "create": ("ENOSPC", "ENOSPC+", "EIO", "EACCES", "EMFILE", "EINTR", "EROFS+"),
    "mkdir": ("ENOSPC", "ENOSPC+", "EIO", "EACCES", "EROFS+"),
    "write": ("ENOSPC", "ENOSPC+", "EIO", "SHORT", "EINTR", "EIO+"),
    "truncate": ("EIO", "EINTR", "ENOSPC+"),
    "rename": ("ENOSPC", "EIO", "EACCES", "EROFS+"),
    "unlink": ("EIO", "EACCES", "EROFS+"),
    "fsync": ("EIO", "ENOSPC", "EINTR"),
}


def fail(workload: Workload, at: int, action: str) -> None:
    later = {"FAULT_LATER": "1"} if action.endswith("+") else {}
    survive(workload, {"FAULT_AT": str(at), "FAULT_ACTION": action.removesuffix("+"), **later}, {0, 1})


def cases(long: bool) -> Iterable[Case]:
    points = [(workload, at, call) for workload in WORKLOADS for at, call in enumerate(undisturbed(workload).points, 1)]
    table = [(workload, at, action) for workload, at, call in points for action in ACTIONS[call]]
    for workload, at, action in table if long else draw(table, 240):
        yield Case(f"{workload.name} point={at} {action}", functools.partial(fail, workload, at, action))
