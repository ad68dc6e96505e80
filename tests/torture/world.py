"""What a server publishes in a workload: versions and eras of one small data set. And that server, whose requests are logged.

12 data files, of which 3 have 3 chunks and 3 are features that rotate, and 5 documents. Content follows from path and
generation alone.
"""

import json
import pathlib
import time
from collections.abc import Callable, Iterable
from typing import Any

from torture import hostile_server
from torture.hostile_server import FUNCTIONS, INDEX, Exchange, Server, body_of, digest, entry

MANDATORY = [f"features/us/signal_is/{family}__close__w005__z0.arrow" for family in ("momentum", "quality", "volume")]
ROTATING = [f"features/eu/signal_is/{family}__open__w005__z0.arrow" for family in ("value", "carry", "flow")]
ROOM_BYTES = 5000  # for two of the three
PNL = {
    "found_signals/alpha/s1/signal_is/pnl.arrow": "found_signal_is_pnl",
    "found_signals/alpha/s2/signal_is/pnl.arrow": "found_signal_is_pnl",
    "found_strategies/beta/t1/strategy_is/pnl.arrow": "found_strategy_is_epoch_pnl",
    "useful_signals/beta/u1/signal_os/pnl.arrow": "useful_signal_os_pnl",
    "useful_signals/beta/u1/strategy_is/pnl.arrow": "useful_signal_strategy_is_pnl",
}
DATA = [*MANDATORY, *ROTATING, *PNL, "data/calendar.arrow"]
CHUNKED = {MANDATORY[0], "found_signals/alpha/s2/signal_is/pnl.arrow", "data/calendar.arrow"}
SETTINGS = {"feature_budget_gb": ROOM_BYTES / 2**30, "rotation_seed": 7}
VOCABULARIES = {universe: f"named_universes/{universe}/vocabulary.json" for universe in ("us", "eu")}
KINDS = PNL | {FUNCTIONS: "functions", INDEX: "signals_index"} | dict.fromkeys(VOCABULARIES.values(), "vocabulary")


def size_of(path: str) -> int:
    return 10_000 if path in CHUNKED else 2000 if path in ROTATING else 700 + 60 * (len(path) % 11)


class World(hostile_server.World):
    """One version of one era: what is listed, of which some may be lost."""

    def __init__(self, era: int, version: int, listed: dict[str, bytes], lost: Iterable[str]) -> None:
        self.era, self.version, self.fields, self.lost = era, version, {}, sorted(lost)
        self.seed = body_of("seed", era, 60)
        self.files = {path: body for path, body in listed.items() if path not in self.lost}
        self.entries = {path: entry(body, KINDS.get(path, path.split("/")[0].rstrip("s"))) for path, body in listed.items()}
        for path in self.entries.keys() & set(MANDATORY):
            self.entries[path]["mandatory"] = True

    @property
    def facts(self) -> dict[str, Any]:
        """What the checker is told of it."""
        digests = {path: known["sha256"] for path, known in self.entries.items()}
        return {"era": self.era, "version": self.version, "files": digests, "lost": self.lost, "seed": digest(self.seed)}


def world(era: int, version: int, generations: dict[str, int] | None = None, lost: Iterable[str] = ()) -> World:
    """Of the data set, with other generations than 0 of some files; a negative one leaves the file out, a new path is one more."""
    chosen = dict.fromkeys(DATA, 0) | (generations or {})
    files = {path: body_of(path, generation, size_of(path)) for path, generation in chosen.items() if generation >= 0}
    index: dict[str, Any] = {"era_number": era}
    for section in ("found_signals", "found_strategies", "useful_signals"):
        entities: dict[str, Any] = {}
        for path in files:
            if path.startswith(section + "/"):
                entities.setdefault(path.split("/")[2], {"pool": path.split("/")[1], "files": []})["files"].append(path)
        index[section] = entities
    documents: dict[str, Any] = {FUNCTIONS: {"era_number": era, "rotations": [{"name": "rot_weekly"}]}, INDEX: index}
    for universe, vocabulary in VOCABULARIES.items():
        names = {pathlib.Path(path).stem: {"family": "f"} for path in files if path.startswith(f"features/{universe}/")}
        about = {"named_universe": universe, "t_signal_is": 2520, "t_strategy_is": 1260, "n_instruments": 100 + era}
        documents[vocabulary] = {"era_number": era, "named_universe": universe, "metadata": about, "features": names}
    return World(era, version, files | {path: json.dumps(document).encode() for path, document in documents.items()}, lost)


class Site(Server):
    """A world at a time, a log of requests, and what else is to happen at a request."""

    def __init__(self, log: pathlib.Path, worlds: list[World]) -> None:
        self.log, self.published, self.later = log, worlds[:1], worlds[1:]
        self.cut = False  # every connection is reset
        self.cuts: set[int] = set()  # those of these requests, counted from 1
        self.asked = 0
        self.at_request: Callable[[Site, str], None] = lambda site, path: None
        super().__init__(worlds[0])

    def publish(self, *new: World) -> None:
        self.published += new
        self.world = self.published[-1]

    def settle(self) -> None:
        """From now on nothing moves."""
        self.at_request = lambda site, path: None
        self.cuts = set()
        self.publish(*self.later)
        self.later = []

    def usual(self, exchange: Exchange) -> None:
        """The log has it before anybody sees the answer; its status is 0 where the connection is reset."""
        request = {"ns": time.monotonic_ns(), "method": exchange.method, "path": exchange.path, "headers": exchange.headers}
        with self.lock:
            self.asked += 1
            cut = self.cut or self.asked in self.cuts
        if not cut:
            self.at_request(self, exchange.path)
        head, body = exchange.healthy()
        with self.lock, self.log.open("a") as file:
            file.write(json.dumps(request | {"status": 0 if cut else int(head.split()[1])}) + "\n")
        if cut:
            exchange.reset()
        else:
            exchange.send(head, body)
