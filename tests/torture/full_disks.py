"""Real small disks: room and inodes that run out step by step, and a volume that is read-only."""

import functools
import subprocess
from collections.abc import Iterable

from torture.case import Case, draw
from torture.workloads import WORKLOADS, Workload, trial

# In a mount namespace of its own: the directory on a tmpfs with so much left, then the host, then what it left copied out.
SCRIPT = """
data=$1 copy=$2 kind=$3 left=$4; shift 4
mount -t tmpfs tmpfs "$data" && cp -a "$copy/." "$data/"
case $kind in
  room) mount -o "remount,size=$(($(df --output=used -k "$data" | tail -1) + left))k" "$data" ;;
  inodes) mount -o "remount,nr_inodes=$(($(df --output=iused "$data" | tail -1) + left))" "$data" ;;
  read-only) mount -o remount,ro "$data" ;;
esac || exit 99
"$@"; code=$?
find "$copy" -mindepth 1 -delete && cp -a "$data/." "$copy/"
exit "$code"
"""


def mounts_are_allowed() -> bool:
    return subprocess.run(["unshare", "-m", "mount", "-t", "tmpfs", "tmpfs", "/mnt"], capture_output=True, check=False).returncode == 0


def run(workload: Workload, kind: str, left: int) -> None:
    with trial(workload) as made:
        copy = made.data.rename(made.folder / "fault/copy")
        made.data.mkdir()
        outcome = made.fault({}, ("unshare", "-m", "sh", "-c", SCRIPT, "sh", str(made.data), str(copy), kind, str(left)))
        made.data.rmdir()
        copy.rename(made.data)
        made.survive(outcome, {0, 1})


def cases(long: bool) -> Iterable[Case]:
    if not mounts_are_allowed():
        print("full_disks: left out, mounts are not allowed here")
        return
    growing = [workload for workload in WORKLOADS if workload.name in ("cold", "version", "transition", "superseded", "prefetch", "lost")]
    table = [(workload, "room", left) for workload in growing for left in range(0, 160, 16)]
    table += [(workload, "inodes", left) for workload in growing for left in range(0, 40, 5)]
    table += [(workload, "read-only", 0) for workload in WORKLOADS]
    for workload, kind, left in table if long else draw(table, 30):
        yield Case(f"{workload.name} {kind} left={left}", functools.partial(run, workload, kind, left))
