"""What a server publishes: versions and eras of one small data set.

12 data files, of which 3 have 3 chunks and 3 are features that rotate, and 5 documents. Content follows from path and
generation alone.
"""

import dataclasses
import functools
import hashlib
import json
import pathlib
import random
from collections.abc import Iterable
from typing import Any

CHUNK_BYTES = 4096
INDEX, FUNCTIONS = "signals_index.json", "functions.json"
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


def digest(body: bytes) -> str:
    return hashlib.sha256(body).hexdigest()


def body_of(path: str, generation: int) -> bytes:
    size = 10_000 if path in CHUNKED else 2000 if path in ROTATING else 700 + 60 * (len(path) % 11)
    return random.Random(f"{path} {generation}").randbytes(size)


@dataclasses.dataclass(frozen=True, eq=False)
class World:
    """One version of one era."""

    era: int
    version: int
    bodies: dict[str, bytes]
    lost: frozenset[str] = frozenset()  # listed, but 404

    @functools.cached_property
    def manifest(self) -> dict[str, Any]:
        def entry(path: str, body: bytes) -> dict[str, Any]:
            kind = KINDS.get(path) or ("feature" if path.startswith("features/") else "data")
            return {"kind": kind, "size_bytes": len(body), "sha256": digest(body)} | ({"mandatory": True} if path in MANDATORY else {})

        files = {path: entry(path, body) for path, body in self.bodies.items()}
        return {"era_number": self.era, "version": self.version, "pnl_column_count": 4, "functions": FUNCTIONS, "files": files}

    @functools.cached_property
    def seed(self) -> bytes:
        return random.Random(self.era).randbytes(60)

    @property
    def facts(self) -> dict[str, Any]:
        """What the checker is told of it."""
        digests = {path: digest(body) for path, body in self.bodies.items()}
        return {"era": self.era, "version": self.version, "files": digests, "lost": sorted(self.lost), "seed": digest(self.seed)}

    def answer(self, path: str, wanted: str | None = None) -> tuple[int, dict[str, str], bytes]:
        """To a request for that path, or for the range that is wanted of it: status, headers and body."""
        documents = {
            "/era/current": {"era_number": self.era, "state": "active", "min_library_version": "0.0.0"},
            "/data/manifest/version": {"version": self.version, "era_number": self.era},
            "/data/manifest": self.manifest,
        }
        if path in documents:
            return 200, {}, json.dumps(documents[path]).encode()
        if path == "/data/shuffle":
            return 200, {"X-Era-Id": str(self.era)}, self.seed
        file = path.removeprefix("/data/files/")
        body = self.bodies.get(file)
        if body is None or file in self.lost:
            return 404, {}, b"{}"
        if wanted is None:
            return 200, {}, body
        first, last = wanted.removeprefix("bytes=").split("-")
        if int(first) >= len(body):
            return 416, {}, b"{}"
        part = body[int(first) : int(last) + 1 if last else len(body)]
        return 206, {"Content-Range": f"bytes {first}-{int(first) + len(part) - 1}/{len(body)}"}, part


def world(era: int, version: int, generations: dict[str, int] | None = None, lost: Iterable[str] = ()) -> World:
    """Of the data set, with other generations than 0 of some files; a negative one leaves the file out, a new path is one more."""
    chosen = dict.fromkeys(DATA, 0) | (generations or {})
    files = {path: body_of(path, generation) for path, generation in chosen.items() if generation >= 0}
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
    return World(era, version, files | {path: json.dumps(document).encode() for path, document in documents.items()}, frozenset(lost))
