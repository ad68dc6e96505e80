"""What a server publishes, and the server itself: versions and eras of one small data set, on a port of this process.

12 data files, of which 3 have 3 chunks and 3 are features that rotate, and 5 documents. Content follows from path and
generation alone.
"""

import dataclasses
import functools
import hashlib
import json
import pathlib
import random
import socketserver
import struct
import threading
import time
from collections.abc import Callable, Iterable
from socket import SO_LINGER, SOL_SOCKET
from typing import Any

CHUNK_BYTES = 4096
TOKEN = "canary+5f1d9c/41=="
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
DOCUMENT_KINDS = {
    "named_universes/us/vocabulary.json": "vocabulary", "named_universes/eu/vocabulary.json": "vocabulary",
    "functions.json": "functions", "signals_index.json": "signals_index",
}  # fmt: skip


def digest(body: bytes) -> str:
    return hashlib.sha256(body).hexdigest()


def body_of(path: str, generation: int) -> bytes:
    size = 10_000 if path in CHUNKED else 2000 if path in ROTATING else 700 + 60 * (len(path) % 11)
    return random.Random(f"{path} {generation}").randbytes(size)


def kind_of(path: str) -> str:
    return DOCUMENT_KINDS.get(path) or PNL.get(path) or ("feature" if path.startswith("features/") else "data")


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
            must = {"mandatory": True} if path in MANDATORY else {}
            return {"kind": kind_of(path), "size_bytes": len(body), "sha256": digest(body), **must}

        files = {path: entry(path, body) for path, body in self.bodies.items()}
        return {"era_number": self.era, "version": self.version, "pnl_column_count": 4, "functions": "functions.json", "files": files}

    @property
    def seed(self) -> bytes:
        return random.Random(self.era).randbytes(60)

    @property
    def facts(self) -> dict[str, Any]:
        """What the checker is told of it."""
        digests = {path: digest(body) for path, body in self.bodies.items()}
        return {"era": self.era, "version": self.version, "files": digests, "lost": sorted(self.lost), "seed": digest(self.seed)}


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
    documents: dict[str, Any] = {"functions.json": {"era_number": era, "rotations": [{"name": "rot_weekly"}]}, "signals_index.json": index}
    for universe in ("us", "eu"):
        names = {pathlib.Path(path).stem: {"family": "f"} for path in files if path.startswith(f"features/{universe}/")}
        about = {"named_universe": universe, "t_signal_is": 2520, "t_strategy_is": 1260, "n_instruments": 100 + era}
        documents[f"named_universes/{universe}/vocabulary.json"] = {"era_number": era, "named_universe": universe, "metadata": about, "features": names}
    return World(era, version, files | {path: json.dumps(document).encode() for path, document in documents.items()}, frozenset(lost))


Answer = tuple[int, dict[str, str], bytes]


class Site:
    """One directory's server: a world at a time, a log of requests, and what else is to happen at a request."""

    def __init__(self, url: str, log: pathlib.Path, worlds: list[World]) -> None:
        self.url, self.log, self.published = url, log, [worlds[0]]
        self.later = worlds[1:]
        self.cut = False  # every connection is reset
        self.cuts: set[int] = set()  # those of these requests, counted from 1
        self.asked = 0
        self.at_request: Callable[[Site, str], None] = lambda site, path: None
        self.lock = threading.Lock()

    @property
    def now(self) -> World:
        return self.published[-1]

    def publish(self, new: World) -> None:
        self.published.append(new)

    def settle(self) -> None:
        """From now on nothing moves."""
        self.at_request = lambda site, path: None
        self.cuts = set()
        self.published += self.later
        self.later = []

    def handle(self, method: str, path: str, headers: dict[str, str]) -> Answer | None:
        """Absent where the connection is to be reset. The log has it before anybody sees the answer."""
        request = {"ns": time.monotonic_ns(), "method": method, "path": path, "headers": headers}
        with self.lock:
            self.asked += 1
            cut = self.cut or self.asked in self.cuts
        answer = None if cut else self.answer(path, headers)
        with self.lock, self.log.open("a") as file:
            file.write(json.dumps(request | {"status": answer[0] if answer else 0}) + "\n")
        return answer

    def answer(self, path: str, headers: dict[str, str]) -> Answer:
        self.at_request(self, path)
        now = self.now
        if path == "/era/current":
            return 200, {}, json.dumps({"era_number": now.era, "state": "active", "min_library_version": "0.0.0"}).encode()
        if path == "/data/manifest/version":
            return 200, {}, json.dumps({"version": now.version, "era_number": now.era}).encode()
        if path == "/data/manifest":
            return 200, {}, json.dumps(now.manifest).encode()
        if path == "/data/shuffle":
            return 200, {"X-Era-Id": str(now.era)}, now.seed
        file = path.removeprefix("/data/files/")
        body = now.bodies.get(file)
        if body is None or file in now.lost:
            return 404, {}, b"{}"
        if "range" not in headers:
            return 200, {}, body
        first, last = headers["range"].removeprefix("bytes=").split("-")
        if int(first) >= len(body):
            return 416, {}, b"{}"
        part = body[int(first) : int(last) + 1 if last else len(body)]
        return 206, {"Content-Range": f"bytes {first}-{int(first) + len(part) - 1}/{len(body)}"}, part


class Handler(socketserver.StreamRequestHandler):
    """One request of one connection."""

    def handle(self) -> None:
        words = self.rfile.readline().decode().split(" ")
        rows = iter(lambda: self.rfile.readline().strip().decode(), "")
        headers = {name.lower(): value for name, _, value in (row.partition(": ") for row in rows)}
        if len(words) != 3:
            return
        _, number, path = words[1].split("/", 2)
        site = Server.sites[int(number)]
        answer = site.handle(words[0], "/" + path, headers)
        if answer is None:
            self.connection.setsockopt(SOL_SOCKET, SO_LINGER, struct.pack("ii", 1, 0))
            return
        status, more, body = answer
        head = "".join(f"{name}: {value}\r\n" for name, value in {**more, "Content-Length": str(len(body)), "Connection": "close"}.items())
        self.wfile.write(f"HTTP/1.1 {status} -\r\n{head}\r\n".encode() + body)


class Server(socketserver.ThreadingTCPServer):
    """All sites, each below a number of its own."""

    request_queue_size = 128
    daemon_threads = True
    block_on_close = False
    sites: list[Site] = []

    def handle_error(self, request: Any, client_address: Any) -> None:
        """A killed client hangs up."""


@functools.cache
def server() -> Server:
    made = Server(("127.0.0.1", 0), Handler)
    threading.Thread(target=made.serve_forever, daemon=True).start()
    return made


def open_site(log: pathlib.Path, worlds: list[World]) -> Site:
    made = Site("", log, worlds)
    Server.sites.append(made)
    made.url = f"http://127.0.0.1:{server().server_address[1]}/{Server.sites.index(made)}"
    return made
