"""What simulated fleets ask of a server, in figures: their sizes and intervals, at the costs that the newest run has measured."""

from __future__ import annotations

import json
import math
import operator
import random
import statistics
from collections.abc import Callable, Sequence
from dataclasses import replace
from pathlib import Path
from typing import Any

from fleet import WEEK_HOURS, Costs, Fleet, Outcome, Publication, Simulation, Site, rotation_share, rotations
from measure import Ground, Samples
from polls import FLEETS, PATHS
from servers import NotPossibleHere

SIZES = (1_000, 10_000, 100_000, 1_000_000)
VERSION = Publication()
ERA = Publication(new_files=100, is_era=True)
HORIZON_S = 4 * 3600.0
CLIENTS_OF_A_CACHE = 20_000
CURVE_POINTS = 60


def newest(work: Path, row: str) -> dict[str, dict[str, list[Any]]]:
    """What the newest run that has a row saw there."""
    for path in sorted(work.glob("run-*.json"), reverse=True):
        for measured in json.loads(path.read_text())["measurements"]:
            if measured["name"] == row and measured["seen"]:
                seen: dict[str, dict[str, list[Any]]] = measured["seen"]
                return seen
    raise NotPossibleHere(f"no run has measured {row} yet")


def measured_costs(work: Path) -> Costs:
    polls = Samples(newest(work, "fleet-polls"))
    [idle] = [figures for name, figures in newest(work, "fleet-followers").items() if name == "idle"]
    sent, received = (statistics.median(map(operator.truediv, idle[way], idle["requests"])) for way in ("ip_sent", "ip_received"))
    return Costs(
        polls.median(f"TLS, new connections, {FLEETS[-1]} clients", "cpu_us_per_answer") / 1e6,
        polls.median("TLS, kept connections, flat out", "cpu_us_per_answer") / 1e6,
        polls.median("TLS, a file of 1 MiB", "cpu_ns_per_byte") / 1e9,
        sent,
        received,
    )


def idle(ground: Ground) -> Samples:
    """What fleets in step cost: requests, processors, servers of four cores that are half busy, and the line, by size and interval."""
    costs, samples = measured_costs(ground.work), Samples()
    for clients in SIZES:
        for poll_s in (5.0, 60.0):
            requests_per_s = clients * len(PATHS) / poll_s
            cores = requests_per_s * costs.answer_s
            figures = {
                "requests_per_s": requests_per_s,
                "cores": cores,
                "servers": math.ceil(cores / Site().cores / 0.5),
                "mbit_per_s_received": requests_per_s * costs.request_bytes * 8 / 1e6,
                "mbit_per_s_sent": requests_per_s * costs.overhead_bytes * 8 / 1e6,
            }
            samples.add(f"{clients} clients, {poll_s:g} s", figures)
    return samples


def told(outcome: Outcome) -> dict[str, Any]:
    """An outcome in figures, and its curve: the seconds after which shares of the clients were in step."""
    shares = [(point + 1) / CURVE_POINTS for point in range(CURVE_POINTS)]
    front, origin = outcome.front, outcome.origin
    every_second = [front.by_second[second] for second in range(min(600, max(front.by_second) + 1))]
    return {
        "half_s": outcome.seconds_until(0.5),
        "in_step_s": outcome.seconds_until(0.99),
        "peak_over_mean": outcome.peak_over_mean(),
        "busiest_second": max(front.by_second.values()),
        "sent_gb": front.bytes_sent / 1e9,
        "files_gb": outcome.fetched_bytes / 1e9,
        "origin_gb": origin.bytes_sent / 1e9,
        "origin_share": origin.bytes_sent / front.bytes_sent,
        "origin_busiest_second": max(origin.by_second.values()),
        "given_up": front.given_up / front.requests,
        "most_waiting": front.most_waiting,
        "curve": [outcome.seconds_until(share) for share in shares],
        "every_second": every_second,
    }


def publications(publication: Publication) -> Callable[[Ground], Samples]:
    """All sizes and two intervals: from one server, and with a cache in front that grows with the fleet."""

    def measure(ground: Ground) -> Samples:
        costs, samples = measured_costs(ground.work), Samples()
        for clients in SIZES:
            for poll_s in (5.0, 60.0):
                for way, front in (("one server", None), ("caches in front", Site(servers=math.ceil(clients / CLIENTS_OF_A_CACHE)))):
                    outcome = Simulation(Fleet(clients, poll_s), publication, Site(), costs, front).run(HORIZON_S)
                    samples.add(f"{clients} clients, {poll_s:g} s, {way}", told(outcome))
        return samples

    return measure


def herds(ground: Ground) -> Samples:
    """10,000 clients that a deployment started within one second, an hour before: as they are, and what spreads them."""
    costs, samples = measured_costs(ground.work), Samples()
    together = Fleet(10_000, poll_s=60.0, started_within_s=1.0)
    fleets = {
        "started over a day": replace(together, started_within_s=None),
        "started within a second": together,
        "started within a second, 2 workers": replace(together, workers=2),
        "started within a second, connections kept": replace(together, keeps_connections=True),
        "started within a second, poll_interval_s 60 ± 10 %": replace(together, poll_variation=0.1),
        "started within an interval": replace(together, started_within_s=60.0),
    }
    for name, fleet in fleets.items():
        samples.add(name, told(Simulation(fleet, Publication(file_bytes=25_000), Site(), costs, None).run(HORIZON_S)))
    return samples


def rotation(ground: Ground) -> Samples:
    """What caches leave to the origin of a version and of rotations, and when clients that began together rotate."""
    costs, samples = measured_costs(ground.work), Samples()
    for clients in SIZES:
        fleet, front = Fleet(clients, poll_s=60.0, share=0.2), Site(servers=math.ceil(clients / CLIENTS_OF_A_CACHE))
        samples.add(f"a version to {clients} clients", told(Simulation(fleet, VERSION, Site(), costs, front).run(HORIZON_S)))
    for seeds, one_seed in (("a seed each", False), ("one seed", True)):
        for cached in (0.1, 0.2, 0.5, 1.0):
            for clients in (10, 30, 100, 300, 1_000):
                share = rotation_share(clients, 0.2, 300, cached, one_seed)
                samples.add(f"{seeds}, caches for {cached:.0%} of the features, {clients} clients", {"origin_share": share})
    ways: dict[str, tuple[float, Callable[[random.Random], float]]] = {
        "begun in one hour, weekly": (1, lambda draw: WEEK_HOURS),
        "begun in one hour, PT132H to PT204H": (1, lambda draw: draw.randint(WEEK_HOURS - 36, WEEK_HOURS + 36)),
        "begun in a day, PT132H to PT204H": (24, lambda draw: draw.randint(WEEK_HOURS - 36, WEEK_HOURS + 36)),
    }
    for name, (begun_within_h, hours) in ways.items():
        by_hour = rotations(10_000, begun_within_h, hours, weeks=6)
        busiest = max(by_hour[WEEK_HOURS // 2 :])  # the first fill is none
        samples.add(f"rotating: {name}", {"busiest_hour": busiest, "peak_over_mean": busiest * WEEK_HOURS, "by_hour": by_hour})
    return samples


def like(seconds: Sequence[float], fleet: Fleet, publication: Publication, line_bits_per_s: float) -> dict[str, Any]:
    """The same as a real fleet did, simulated: its curve has a point for each client."""
    outcome = Simulation(fleet, publication, Site(cores=1000, line_bits_per_s=line_bits_per_s), Costs(0, 0, 0, 1_250), None).run(HORIZON_S)
    curve = [outcome.seconds_until((number + 1) / len(seconds)) for number in range(len(seconds))]
    return {"in_step": curve, "requests": outcome.front.requests, "ip_sent": outcome.front.bytes_sent}
