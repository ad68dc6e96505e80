"""Runs the benchmarks, prints each figure beside its bound and beside what it is measured against, and leaves the run as JSON.

    ./dev bench [--quick] [--rounds N] [--scale F] [NAME ...]

NAME is a row of bench/table.py or the beginning of some: `fetch` runs all that fetch. Data sets and runs live in build/bench;
nothing leaves this machine. The exit code tells whether every bound was kept.
"""

from __future__ import annotations

import argparse
import json
import os
import platform
import shutil
import subprocess
import sys
import tempfile
import time
from pathlib import Path
from typing import Any

from measure import Ground, Measurement, Samples
from servers import NotPossibleHere
from table import TABLE

ROOT = Path(__file__).resolve().parent.parent
WORK = ROOT / "build" / "bench"
SPACE_WANTED = 8 << 30  # bytes, for what lands in memory
QUICK_SCALE = 0.2


def machine() -> dict[str, Any]:
    """What a reader of the figures must know of where they come from."""
    processor = [line.split(": ")[1] for line in Path("/proc/cpuinfo").read_text().splitlines() if line.startswith("model name")]
    commit = subprocess.run(["git", "-C", ROOT, "describe", "--always", "--dirty"], capture_output=True, text=True)
    return {
        "processor": processor[0] if processor else platform.machine(),
        "cores": os.cpu_count(),
        "system": platform.platform(),
        "python": platform.python_version(),
        "commit": commit.stdout.strip(),
        "began": time.strftime("%Y-%m-%d %H:%M:%S"),
        "load": os.getloadavg()[0],
    }


def show_samples(samples: Samples) -> None:
    for name, figures in samples.seen.items():
        told = []
        for figure, values in figures.items():
            if isinstance(values[0], (int, float)):
                told.append(f"{figure} {samples.median(name, figure):.5g}")
        print(f"    {name:<60} {', '.join(told)}")
    for name, reason in samples.left_out.items():
        print(f"    {name:<60} left out, {reason}")
    for name, reason in samples.failed.items():
        print(f"    {name:<60} FAILED: {reason}")


def show_check(check: dict[str, Any]) -> None:
    figure = f"{check['value']:.3g} {check['unit']}"
    bound = f"{'at least' if check['at_least'] else 'at most'} {check['bound']:.3g} {check['unit']}"
    print(f"  {'met    ' if check['met'] else 'NOT MET'} {check['what']:<60} {figure:>12}   {bound}", flush=True)


def run(measurement: Measurement, ground: Ground) -> dict[str, Any]:
    print(f"{measurement.name}: {measurement.title}", flush=True)
    try:
        samples = measurement.measure(ground)
    except NotPossibleHere as reason:
        samples = Samples(left_out={"all": str(reason)})
    show_samples(samples)
    if measurement.show is not None and samples.seen:
        print(measurement.show(samples))
    checks = [outcome for check in measurement.checks if (outcome := check.outcome(samples))]
    for outcome in checks:
        show_check(outcome)
    return {
        "name": measurement.name,
        "title": measurement.title,
        "plot": measurement.plot,
        "seen": samples.seen,
        "left_out": samples.left_out,
        "failed": samples.failed,
        "checks": checks,
    }


def chosen(names: list[str], quick: bool) -> list[Measurement]:
    if not names:
        return [measurement for measurement in TABLE if measurement.quick or not quick]
    exact = {measurement.name for measurement in TABLE}.intersection(names)
    wanted = [row for row in TABLE if row.name in exact or any(row.name.startswith(f"{name}-") for name in set(names) - exact)]
    unknown = [name for name in names if not any(row.name == name or row.name.startswith(f"{name}-") for row in wanted)]
    if unknown:
        raise SystemExit(f"no such benchmark: {', '.join(unknown)}; there are {', '.join(row.name for row in TABLE)}")
    return wanted


def landing_folder() -> Path:
    shared = Path("/dev/shm")
    in_memory = shared.is_dir() and shutil.disk_usage(shared).free > SPACE_WANTED
    return Path(tempfile.mkdtemp(prefix="brackenfen-bench-", dir=shared if in_memory else WORK))


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("names", nargs="*", metavar="NAME")
    parser.add_argument("--quick", action="store_true", help="a fifth of each set, the library and the limits alone; under three minutes")
    parser.add_argument("--rounds", type=int, help="interleaved rounds (5; 3 where it is quick)")
    parser.add_argument("--scale", type=float, help="the share of each set's files that is used (1; a fifth where it is quick)")
    options = parser.parse_args()
    measurements = chosen(options.names, options.quick)
    WORK.mkdir(parents=True, exist_ok=True)
    landing = landing_folder()
    ground = Ground(
        root=ROOT,
        work=WORK,
        landing=landing,
        rounds=options.rounds or (3 if options.quick else 5),
        scale=options.scale or (QUICK_SCALE if options.quick else 1),
        quick=options.quick,
    )
    record: dict[str, Any] = {"machine": machine(), "rounds": ground.rounds, "scale": ground.scale, "measurements": []}
    path = WORK / f"run-{time.strftime('%Y%m%d-%H%M%S')}.json"
    try:
        for measurement in measurements:
            record["measurements"].append(run(measurement, ground))
            path.write_text(json.dumps(record, indent=1))
    finally:
        shutil.rmtree(landing, ignore_errors=True)
    print(f"the run: {path.relative_to(ROOT)}")
    met = all(check["met"] for measurement in record["measurements"] for check in measurement["checks"])
    return 0 if met and not any(measurement["failed"] for measurement in record["measurements"]) else 1


if __name__ == "__main__":
    sys.exit(main())
