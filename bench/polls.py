"""What clients cost a server that have nothing to fetch: wrk asks nginx what they ask, and nginx's processor time is counted."""

from __future__ import annotations

import os
import shutil
import subprocess
import tempfile
import time
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from dataclasses import dataclass
from pathlib import Path

import servers
from measure import Ground, Samples, Word
from sets import FileSet, publish
from servers import Nginx, NotPossibleHere

POLL_SECONDS = 5.0  # between two polls of a manager, unless its host says otherwise
PATHS = ("/data/manifest/version", "/era/current")  # each once in every interval
FLEETS = (1_000, 3_000, 10_000)
FLAT_OUT = 64  # connections that ask again as soon as they are answered
WINDOW_SECONDS = 5.0
BULK, BULK_BYTES = "bulk.bin", 1 << 20
SMALL = FileSet("fleet", 20, 1_000, 1_000)
ONE_WORKER = {"worker_processes auto;": "worker_processes 1;"}
HELD = {"new": "close", "kept": "keep"}


@dataclass(frozen=True)
class Load:
    """What wrk does, and how long until it does it evenly."""

    connections: int
    interval_ms: float  # between two requests of a connection; 0: none
    held: str  # "keep" or "close"
    paths: tuple[str, ...]
    settling: float  # seconds


@contextmanager
def one_worker(ground: Ground, tree: Path, encrypted: bool) -> Iterator[Nginx]:
    """One worker process, which is what one core serves, with room for ten thousand connections; the rest as the examples have it."""
    changes = ONE_WORKER | {"worker_connections 1024;": "worker_connections 19000;"}
    with tempfile.TemporaryDirectory() as folder:
        certificate = servers.make_certificate(Path(folder)) if encrypted else None
        with servers.started_nginx(ground, tree, certificate, changes=changes) as server:
            yield server


def processor_seconds(server: Nginx) -> float:
    """What all processes of the server have had of the processors, to the nanosecond."""
    return sum(int(Path(f"/proc/{process}/schedstat").read_text().split()[0]) for process in server.processes()) / 1e9


def memory_mib(server: Nginx) -> float:
    """What the processes hold, pages that they share counted once."""
    lines = [line for process in server.processes() for line in Path(f"/proc/{process}/smaps_rollup").read_text().splitlines()]
    return sum(int(line.split()[1]) for line in lines if line.startswith("Pss:")) / 1024


def lines_in(log: Path, beyond: int = 0) -> tuple[int, int]:
    """How many lines a log has gained beyond an offset, and where it ends."""
    with log.open("rb") as file:
        file.seek(beyond)
        text = file.read()
    return text.count(b"\n"), beyond + len(text)


def under(load: Load, server: Nginx, ground: Ground) -> dict[str, float]:
    """What the server spends and answers in a window of the load."""
    script = ground.root / "bench" / "limits" / "polls.lua"
    command: list[Word] = [
        *("wrk", "--threads", "1", "--connections", str(load.connections), "--timeout", "30s"),
        *("--duration", f"{round(load.settling + WINDOW_SECONDS + 2)}s", "--script", script, server.url),
        *("--", str(load.interval_ms), str(load.connections), load.held, *load.paths),
    ]
    process = subprocess.Popen([str(word) for word in command], stdout=subprocess.DEVNULL)
    try:
        time.sleep(load.settling)
        _, offset = lines_in(server.log)
        spent, began = processor_seconds(server), time.monotonic()
        time.sleep(WINDOW_SECONDS)
        spent, seconds = processor_seconds(server) - spent, time.monotonic() - began
        answered, _ = lines_in(server.log, offset)
        held = memory_mib(server)
    finally:
        process.terminate()
        process.wait()
    if answered == 0:
        raise SystemExit("nothing was answered")
    return {"answers_per_s": answered / seconds, "cpu_us_per_answer": spent / answered * 1e6, "cores": spent / seconds, "memory_mib": held}


def idle_fleet(fleet: int, held: str) -> Load:
    return Load(fleet, POLL_SECONDS * 1000 / len(PATHS), HELD[held], PATHS, settling=3 + fleet / 1500)


def measure(fleets: tuple[int, ...] = FLEETS) -> Callable[[Ground], Samples]:
    """Fleets of some sizes, and as much as one core can answer; plain and with TLS, with new connections and with kept ones."""

    def measure_all(ground: Ground) -> Samples:
        if shutil.which("wrk") is None:
            raise NotPossibleHere("not installed: wrk")
        published = publish(ground, SMALL)
        (published.source / BULK).write_bytes(os.urandom(BULK_BYTES))
        samples = Samples()
        for _ in range(ground.rounds):
            for way, encrypted in (("TLS", True), ("plain", False)):
                for held in HELD:
                    loads = {f"{fleet} clients": idle_fleet(fleet, held) for fleet in fleets}
                    loads["flat out"] = Load(FLAT_OUT, 0, HELD[held], PATHS, settling=2)
                    for what, load in loads.items():
                        with one_worker(ground, published.tree, encrypted) as server:
                            samples.add(f"{way}, {held} connections, {what}", under(load, server, ground))
                bulk = Load(8, 0, "keep", (f"/data/files/{BULK}",), settling=1)
                with one_worker(ground, published.tree, encrypted) as server:
                    seen = under(bulk, server, ground)
                samples.add(f"{way}, a file of 1 MiB", {**seen, "cpu_ns_per_byte": seen["cpu_us_per_answer"] * 1e3 / BULK_BYTES})
        return samples

    return measure_all


def cached(ground: Ground) -> Samples:
    """One core of the examples' cache, beside one of a server, as fast as each can."""
    if shutil.which("wrk") is None:
        raise NotPossibleHere("not installed: wrk")
    published = publish(ground, SMALL)
    samples = Samples()
    with tempfile.TemporaryDirectory() as folder:
        certificate = servers.make_certificate(Path(folder))
        for _ in range(ground.rounds):
            for held in HELD:
                load = Load(FLAT_OUT, 0, HELD[held], PATHS, settling=2)
                with one_worker(ground, published.tree, True) as server:
                    samples.add(f"a server, {held} connections", under(load, server, ground))
                with one_worker(ground, published.tree, False) as origin, servers.cache(ground, origin, certificate, ONE_WORKER) as cache:
                    seen = under(load, cache, ground)
                    samples.add(f"a cache, {held} connections", {**seen, "asked_of_the_origin": lines_in(origin.log)[0]})
    return samples
