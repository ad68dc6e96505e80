"""Runs the benchmarks and prints each figure beside its limit and beside what it is measured against.

    ./dev bench [NAME ...] [--rounds N]

Names: pass, checks, lifecycle, rotation, manifest, hash, download, serve, transition. Data and servers live in
build/bench; nothing leaves this machine.
"""

from __future__ import annotations

import argparse
import json
import statistics
import subprocess
import sys
from collections.abc import Callable
from pathlib import Path
from typing import Any

from downloads import measure_downloads, measure_idle_round, measure_servers
from transitions import measure_transitions

ROOT = Path(__file__).resolve().parent.parent
BINARIES = ROOT / "build" / "release" / "bin"
WORK = ROOT / "build" / "bench"


def run_binary(name: str, *arguments: str) -> dict[str, Any]:
    """The figures that a benchmark program prints as one JSON object."""
    done = subprocess.run([str(BINARIES / name), *arguments], check=True, capture_output=True, text=True)
    figures: dict[str, Any] = json.loads(done.stdout)
    return figures


def report(name: str, figure: str, limit: str, met: bool) -> bool:
    print(f"{name:<28} {figure:<58} limit: {limit:<34} {'met' if met else 'NOT MET'}", flush=True)
    return met


def bench_pass() -> bool:
    seen = run_binary("bench_pass", str(WORK))
    met = report(
        "pass, 100,000 files: walk",
        f"{seen['stages_ms']['walk']:.0f} ms = {seen['walk_ratio']:.2f} x statx loop ({seen['bare_statx_ms']:.0f} ms)",
        "2.00 x the loop",
        seen["walk_ratio"] <= 2,
    )
    met &= report(
        "pass, 100,000 files: whole",
        f"{seen['pass_ms']:.0f} ms = {seen['pass_ratio']:.2f} x statx loop",
        "6.00 x the loop",
        seen["pass_ratio"] <= 6,
    )
    print("    by stage: " + ", ".join(f"{stage} {ms:.0f} ms" for stage, ms in seen["stages_ms"].items()))
    return met


def bench_checks() -> bool:
    seen = run_binary("bench_checks", str(WORK))
    met = report(
        "needs_sync, 100,000 files",
        f"{seen['needs_sync_ms']:.0f} ms = {seen['needs_sync_ratio']:.2f} x statx loop ({seen['bare_statx_ms']:.0f} ms)",
        "2.50 x the loop",
        seen["needs_sync_ratio"] <= 2.5,
    )
    met &= report(
        "verify, 120 files of 8 MiB",
        f"{seen['verify_mib_per_s']} MiB/s = {seen['verify_ratio']:.3f} x bare loop ({seen['bare_mib_per_s']} MiB/s)",
        "0.900 x the loop",
        seen["verify_ratio"] >= 0.9,
    )
    small = f"{seen['verify_small_ms']} ms = {seen['verify_small_ratio']:.3f} x bare loop ({seen['bare_small_ms']} ms)"
    print(f"    100,000 files of 64 bytes, where the system's calls are all the work: verify {small}")
    return met


def bench_lifecycle() -> bool:
    seen = run_binary("bench_lifecycle", str(WORK))
    met = report(
        "acquire, release, stopped",
        f"{seen['acquire_ms']:.1f} ms, {seen['release_ms']:.1f} ms (longest of 50)",
        "50 ms each",
        max(seen["acquire_ms"], seen["release_ms"]) <= 50,
    )
    met &= report(
        "idle round, 100,000 files",
        f"{seen['poll_ms']:.1f} ms; needs_sync {seen['needs_sync_ms']:.1f} ms",
        "2% of a 5 s interval beyond it",
        seen["poll_ms"] - seen["needs_sync_ms"] <= 100,
    )
    idle_ms = measure_idle_round(ROOT, WORK)
    return met & report("idle round, in a host", f"{idle_ms:.2f} ms of processor time, the GIL's included", "1 ms with the GIL", idle_ms < 1)


def coverage_plot(seen: list[float]) -> str:
    """What docs/rotation.md shows: the share of all features that an average client has held by some weeks."""
    weeks = [week for week in (1, 2, 4, 8, 12, 16, 20, 26, 39, 52) if week <= len(seen)]
    return "\n".join(f"week {week:2} |{'#' * round(50 * seen[week - 1]):50}| {seen[week - 1]:8.3%}" for week in weeks)


def bench_rotation() -> bool:
    seen = run_binary("bench_rotation", str(WORK))
    slowest = max(seen["plan_ms"], seen["budget_plan_ms"])
    met = report(
        "rotation plan, 100,000 files",
        f"{seen['budget_plan_ms']:.0f} ms with a budget of 20 %, {seen['plan_ms']:.0f} ms where all fits",
        "150 ms",
        slowest <= 150,
    )
    met &= report(
        "clean-up walk, 100,000 files",
        f"{seen['walk_ms']:.0f} ms = {seen['walk_ratio']:.2f} x find ({seen['find_ms']:.0f} ms)",
        "2.00 x find",
        seen["walk_ratio"] <= 2,
    )
    print(
        f"    1,000 clients over 52 rotations in {seen['fleet_seconds']:.1f} s: the least held feature is held by "
        f"{seen['least_share']:.1%} of them, the most held by {seen['most_share']:.1%}"
    )
    print(coverage_plot(seen["seen"]))
    return met


def bench_manifest() -> bool:
    seen = run_binary("bench_manifest")
    print(
        f"    {seen['manifest_bytes'] / 1e6:.1f} MB of JSON: parse {seen['parse_ms']:.0f} ms, write {seen['write_ms']:.0f} ms"
    )
    met = report("manifest, 100,000 entries", f"{seen['load_ms']:.0f} ms", "100 ms", seen["load_ms"] <= 100)
    return met & report(
        "manifest, resident memory",
        f"{seen['peak_resident_mib']:.0f} MiB for the whole process, its text included",
        "150 MB",
        seen["peak_resident_mib"] <= 150e6 / 2**20,
    )


def bench_hash() -> bool:
    seen = run_binary("bench_hash", str(WORK))
    return report(
        "hashing one file",
        f"{seen['ours_mib_per_s']} MiB/s = {seen['ratio']:.3f} x bare loop ({seen['bare_mib_per_s']} MiB/s)",
        "0.950 x the loop",
        seen["ratio"] >= 0.95,
    )


def bench_download(rounds: int) -> bool:
    seen = measure_downloads(ROOT, WORK, rounds)
    met = True
    ours = seen["brackenfen-sync"]
    mib = seen["bytes"] / 2**20
    for peer in ("python threads", "aria2c"):
        mine, theirs = statistics.median(ours["seconds"]), statistics.median(seen[peer]["seconds"])
        met &= report(
            f"download, 120 files: {peer}",
            f"{mib / mine:.0f} MiB/s against {mib / theirs:.0f} MiB/s (medians of {rounds})",
            "ahead",
            mine < theirs,
        )
    limit_mib = (8 * 8 * 2**20 + 40e6) / 2**20
    return met & report(
        "download, resident memory",
        f"{ours['peak_resident_mib']:.0f} MiB for the whole process",
        f"{limit_mib:.0f} MiB (8 chunks + 40 MB)",
        ours["peak_resident_mib"] <= limit_mib,
    )


def bench_serve(rounds: int) -> bool:
    seen = measure_servers(ROOT, WORK, rounds)
    ours, nginx = statistics.median(seen["embedded"]), statistics.median(seen["nginx"])
    mib = seen["bytes"] / 2**20
    return report(
        "embedded server",
        f"{mib / ours:.0f} MiB/s = {nginx / ours:.2f} x nginx ({mib / nginx:.0f} MiB/s)",
        "0.80 x nginx",
        nginx / ours >= 0.8,
    )


def bench_transition(rounds: int) -> bool:
    seen = measure_transitions(ROOT, WORK, min(rounds, 3))
    parts = seen["requests_s"] + seen["hash_s"] + seen["download_s"]
    ratio = seen["transition_s"] / parts
    met = report(
        "transition, 10,000 files",
        f"{seen['transition_s']:.1f} s = {ratio:.2f} x its parts ({parts:.1f} s)",
        "1.30 x the parts",
        ratio <= 1.3,
    )
    print(
        f"    parts: {seen['requests_s']:.1f} s for as many requests, {seen['hash_s']:.1f} s to hash what stays,"
        f" {seen['download_s']:.1f} s to fetch {seen['changed']:.0f} files"
    )
    return met & report("transition, seen by a reader", f"{seen['wrong']:.0f} live files missing or torn", "none", seen["wrong"] == 0)


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("names", nargs="*", metavar="NAME")
    parser.add_argument("--rounds", type=int, default=7, help="interleaved rounds of the network benchmarks")
    options = parser.parse_args()
    benches: dict[str, Callable[[], bool]] = {
        "pass": bench_pass,
        "checks": bench_checks,
        "lifecycle": bench_lifecycle,
        "rotation": bench_rotation,
        "manifest": bench_manifest,
        "hash": bench_hash,
        "download": lambda: bench_download(options.rounds),
        "serve": lambda: bench_serve(options.rounds),
        "transition": lambda: bench_transition(options.rounds),
    }
    unknown = set(options.names) - set(benches)
    if unknown:
        parser.error(f"no such benchmark: {', '.join(sorted(unknown))}")
    WORK.mkdir(parents=True, exist_ok=True)
    outcomes = [benches[name]() for name in options.names or benches]
    return 0 if all(outcomes) else 1


if __name__ == "__main__":
    sys.exit(main())
