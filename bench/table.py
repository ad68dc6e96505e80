"""What `./dev bench` measures: one row for each measurement, with what is asked of it."""

from __future__ import annotations

from collections.abc import Callable, Sequence

import fetch
import flame
import fleet_figures
import followers
import polls
import servers
import unchanged
from fetch import LIBRARY, LIBRARY_KEPT, LIMIT, LIMIT_KEPT, VERIFIED_HTTP_PEERS, WORKERS, workers_name
from measure import Check, Contender, Figure, Ground, Measurement, Samples, median, race, ratio
from sets import SETS
from transitions import transitions
from unchanged import CONSTRUCT, IMPORTED, NEEDS_SYNC, PASS, RSYNC, SIMDJSON, STATX, UNIMPORTED, gil_name

MIB = 2**20
CHUNKS_HELD_MIB = 8 * 8  # as many chunks as workers, at the defaults


def program(name: str) -> Callable[[Ground], Samples]:
    """A program of the core's own, which takes the best or the median of its rounds by itself and prints its figures."""
    return lambda ground: race([Contender(name, [ground.program(name), ground.work])], 1)


def within(name: str, figure: str, other: str) -> Figure:
    """One figure of a program divided by another of the same run."""
    return ratio(name, name, figure, other)


def over_limit(bound: float, contender: str = LIBRARY, limit: str = LIMIT) -> list[Check]:
    return [
        Check(f"{contender} over the {limit}", ratio(contender, limit), bound),
        Check(f"{contender} over the {limit}: processor time", ratio(contender, limit, "cpu_seconds"), 1.5),
    ]


def ahead(contender: str, peers: Sequence[str]) -> list[Check]:
    return [Check(f"{contender} over {peer}", ratio(contender, peer), 1) for peer in peers]


def best_workers(samples: Samples) -> float:
    return samples.median(LIBRARY) / min(samples.median(workers_name(count)) for count in WORKERS)


def coverage(samples: Samples) -> str:
    """What docs/rotation.md shows: the share of all features that an average client has held by some weeks."""
    [figures] = samples.seen.values()
    [seen] = figures["seen"]
    weeks = [week for week in (1, 2, 4, 8, 12, 16, 20, 26, 39, 52) if week <= len(seen)]
    shares = f"of 1,000 clients, {figures['least_share'][0]:.1%} hold the least held feature, {figures['most_share'][0]:.1%} the most held"
    return "\n".join([shares, *(f"week {week:2} |{'#' * round(50 * seen[week - 1]):50}| {seen[week - 1]:8.3%}" for week in weeks)])


TABLE = [
    # fetching: plain, encrypted, far away
    Measurement(
        "fetch-S",
        "10,000 files of 4 to 64 KiB from nginx on loopback",
        fetch.fetch("S", servers.plain),
        [*over_limit(1.3), *over_limit(1.3, LIBRARY_KEPT, LIMIT_KEPT), *ahead(LIBRARY, VERIFIED_HTTP_PEERS)],
        quick=True,
        plot="processes",
    ),
    Measurement(
        "fetch-N",
        "100,000 files of 100 to 2,000 bytes from nginx on loopback",
        fetch.fetch("N", servers.plain),
        [*over_limit(1.6), *over_limit(1.3, LIBRARY_KEPT, LIMIT_KEPT), *ahead(LIBRARY_KEPT, ["wget2 + sha256sum"])],
        quick=True,
        plot="processes",
    ),
    Measurement(
        "fetch-P",
        "120 files of 1 to 16 MiB from nginx on loopback",
        fetch.fetch("P", servers.plain),
        [*over_limit(1.1), *ahead(LIBRARY, VERIFIED_HTTP_PEERS)],
        quick=True,
        plot="processes",
    ),
    Measurement(
        "fetch-L",
        "4 files of 512 MiB from nginx on loopback",
        fetch.fetch("L", servers.plain),
        [
            *over_limit(1.1),
            *ahead(LIBRARY, VERIFIED_HTTP_PEERS),
            Check("resident memory: 8 chunks and 30 MB", median(LIBRARY, "peak_mib"), CHUNKS_HELD_MIB + 30e6 / MIB, "MiB"),
        ],
        quick=True,
        plot="processes",
    ),
    *(
        Measurement(
            f"fetch-{name}-tls",
            f"the set {name} with TLS on loopback",
            fetch.fetch(name, servers.encrypted),
            [] if name == "N" else ahead(LIBRARY, VERIFIED_HTTP_PEERS),
            plot="processes",
        )
        for name in SETS
    ),
    *(
        Measurement(
            f"fetch-{name}-delayed",
            f"the set {name} with TLS over {servers.ROUND_TRIP_MS} ms of round trip",
            fetch.fetch(name, servers.delayed),
            [Check(f"{LIBRARY_KEPT} over the {LIMIT_KEPT}", ratio(LIBRARY_KEPT, LIMIT_KEPT), 1.2)],
            plot="processes",
        )
        for name in ("S", "L")
    ),
    *(
        Measurement(
            f"workers-{name}",
            f"the set {name} with other numbers of workers than the default",
            fetch.workers(name),
            [Check("the default over the best number of workers", best_workers, 1.1)],
            plot="processes",
        )
        for name in SETS
    ),
    # nothing to do
    Measurement(
        "pass",
        "a living process, 100,000 files that all match: passes",
        program("bench_pass"),
        [
            Check("the walk over a loop of statx", within("bench_pass", "walk_ms", "statx_ms"), 1.3),
            Check("a pass at an unchanged version over the loop", within("bench_pass", "same_version_ms", "statx_ms"), 1.5),
            Check("a full pass, the manifest unchanged, over the loop", within("bench_pass", "same_manifest_ms", "statx_ms"), 4),
            Check("a full pass at a new version over the loop", within("bench_pass", "pass_ms", "statx_ms"), 4),
        ],
        quick=True,
    ),
    Measurement(
        "checks",
        "a living process: needs_sync over 100,000 files, verify of 1 GB",
        program("bench_checks"),
        [
            Check("needs_sync over a loop of statx", within("bench_checks", "needs_sync_ms", "bare_statx_ms"), 1.2),
            Check("verify over a bare loop, bytes per second", median("bench_checks", "verify_ratio"), 0.9, at_least=True),
        ],
        quick=True,
    ),
    Measurement(
        "new-process",
        "new processes over 100,000 files that all match",
        unchanged.new_process,
        [
            Check("needs_sync over rsync -an, whole processes", ratio(NEEDS_SYNC, RSYNC, whole=True), 1),
            Check("resident memory with 100,000 files held", median(NEEDS_SYNC, "held_mib"), 90e6 / MIB, "MiB"),
        ],
        quick=True,
        plot="processes",
    ),
    Measurement(
        "construction",
        "construction over 100,000 files, beside a parser that reads the same documents one after the other",
        unchanged.construction,
        [Check("construction over simdjson", ratio(CONSTRUCT, SIMDJSON, "construct_ms", "parse_ms"), 1)],
        quick=True,
    ),
    Measurement("growth", "new processes over ever more small files", unchanged.growth, plot="growth"),
    # in a host
    Measurement(
        "import",
        "import, beside an interpreter that has logging, json and dataclasses",
        unchanged.importing,
        [Check("import: seconds more", median(IMPORTED, less=UNIMPORTED), 0.020, "s")],
        quick=True,
        plot="processes",
    ),
    Measurement(
        "gil",
        "a thread that computes in Python while the set S is fetched",
        unchanged.gil,
        [
            Check(
                "the share kept beside a pass",
                ratio(gil_name("same", "share"), gil_name("other", "share"), "rounds_per_s"),
                0.95,
                at_least=True,
            ),
            Check("99.9 % of the waits for the GIL", median(gil_name("same", "waits"), "wait_ms_999"), 5, "ms"),
        ],
    ),
    Measurement(
        "idle",
        "an idle round of the poll thread in a host",
        unchanged.idle_round,
        [Check("processor time, the GIL's included", median("idle round", "idle_round_ms"), 1, "ms")],
    ),
    # where the time goes
    *(
        Measurement(f"flame-{name}", f"the processor time of a host that fetches the set {name}", flame.fetching(name), plot="flame")
        for name in ("S", "N", "P")
    ),
    Measurement("flame-pass", "the processor time of a new process whose pass finds nothing to do", flame.nothing_to_do, plot="flame"),
    # parts
    Measurement(
        "lifecycle",
        "starting and stopping the background work, 100,000 files",
        program("bench_lifecycle"),
        [
            Check("acquire, the longest of 50", median("bench_lifecycle", "acquire_ms"), 50, "ms"),
            Check("release, the longest of 50", median("bench_lifecycle", "release_ms"), 50, "ms"),
            Check(
                "an idle round beyond needs_sync: 2 % of the interval",
                lambda samples: samples.median("bench_lifecycle", "poll_ms") - samples.median("bench_lifecycle", "needs_sync_ms"),
                100,
                "ms",
            ),
        ],
    ),
    Measurement(
        "rotation",
        "planning over 100,000 artifacts, and the clean-up walk",
        program("bench_rotation"),
        [
            Check("a plan where all fits", median("bench_rotation", "plan_ms"), 150, "ms"),
            Check("a plan with a budget of 20 %", median("bench_rotation", "budget_plan_ms"), 150, "ms"),
            Check("the clean-up walk over find", within("bench_rotation", "walk_ms", "find_ms"), 2),
        ],
        show=coverage,
    ),
    Measurement(
        "manifest",
        "loading a manifest of 100,000 entries",
        program("bench_manifest"),
        [
            Check("parse, sanitise, record", median("bench_manifest", "load_ms"), 100, "ms"),
            Check("resident memory of the process, its text included", median("bench_manifest", "peak_resident_mib"), 150e6 / MIB, "MiB"),
        ],
    ),
    Measurement(
        "hash",
        "hashing one file of 512 MiB",
        program("bench_hash"),
        [Check("a bare loop, bytes per second", median("bench_hash", "ratio"), 0.95, at_least=True)],
    ),
    Measurement(
        "serve",
        "the set P from nginx and from the embedded server",
        fetch.serve,
        [Check("the embedded server over nginx", ratio("embedded server", "nginx"), 1.25)],
        plot="processes",
    ),
    Measurement(
        "transition",
        "transitions of 10,000 files, 5 % of them new",
        transitions,
        [
            Check("a transition over its parts", within("transition", "transition_s", "parts_s"), 1.3),
            Check("live files missing or torn", median("reader", "wrong"), 0, "files"),
        ],
    ),
    # fleets
    Measurement("fleet-polls", "what clients cost a server that have nothing to fetch", polls.measure()),
    Measurement("fleet-cache", "the same from the examples' cache, beside a server, with TLS", polls.cached),
    Measurement(
        "fleet-followers",
        f"{followers.CLIENTS} real clients behind {servers.ROUND_TRIP_MS} ms and 100 Mbit/s, beside as many simulated ones",
        followers.measure,
        [
            Check("99 % in step with a new version, simulated over real", followers.simulated_over_real("new version"), 1.25),
            Check("99 % in step with a new era, simulated over real", followers.simulated_over_real("new era"), 1.25),
        ],
        plot="followers",
    ),
    Measurement("fleet-idle", "what fleets in step cost by these figures, with TLS and new connections", fleet_figures.idle),
    Measurement("fleet-version", "simulated: a new version of 40 files, 10 MB", fleet_figures.publications(fleet_figures.VERSION), plot="in-step"),
    Measurement("fleet-era", "simulated: a new era of 2,000 files, of which 100 are new", fleet_figures.publications(fleet_figures.ERA), plot="in-step"),
    Measurement("fleet-herd", "simulated: 10,000 clients that were started together meet a new version", fleet_figures.herds, plot="herd"),
    Measurement("fleet-rotation", "simulated: a rotating selection of 20 % of 300 features", fleet_figures.rotation, plot="rotation"),
]
