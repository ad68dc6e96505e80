"""A small world of data, and a server on raw sockets that publishes it and misbehaves where it is told to."""

import collections
import contextlib
import dataclasses
import json
import pathlib
import socket
import ssl
import struct
import threading
import time
from collections.abc import Callable
from typing import Any

from torture.world import CHUNK_BYTES, body_of, digest

FEATURES = "features/us/signal_is"
SMALL, BIG, PNL = f"{FEATURES}/small.arrow", f"{FEATURES}/big.arrow", "found_signals/p/e/signal_is/pnl.arrow"
INDEX, VOCABULARY, FUNCTIONS = "signals_index.json", "named_universes/us/vocabulary.json", "functions.json"
KINDS = {SMALL: "feature", BIG: "feature", PNL: "found_signal_is_pnl", INDEX: "signals_index", VOCABULARY: "vocabulary", FUNCTIONS: "functions"}
FILES = "/data/files/"
PLACES = {"version": "/data/manifest/version", "manifest": "/data/manifest", "seed": "/data/shuffle", "era": "/era/current"} | {
    name: FILES + path for name, path in dict(small=SMALL, big=BIG, pnl=PNL, index=INDEX, vocabulary=VOCABULARY, functions=FUNCTIONS).items()
}
TOKEN = "canary-5f1d9c+/~="
CHUNK = CHUNK_BYTES  # which BIG has three of


class World:
    """All that is published at one version of one era; `files` and `entries` may be changed by a case."""

    def __init__(self, era: int = 7, version: int = 1) -> None:
        self.era, self.version = era, version
        universe = {"named_universe": "us", "t_signal_is": 5, "t_strategy_is": 6, "n_instruments": 7}
        documents = {
            INDEX: {"era_number": era, "found_signals": {"e": {"files": [PNL]}}},
            VOCABULARY: {"era_number": era, "named_universe": "us", "features": {"small": {}, "big": {}}, "metadata": universe},
            FUNCTIONS: {"era_number": era, "rotations": ["weekly"]},
        }
        self.files = {SMALL: body_of(SMALL, 1000 * era + version)[:60], BIG: (body_of(BIG, era) * 9)[:9600], PNL: b"pnl of era %d" % era, "plain.bin": b"plain"}
        self.files |= {path: json.dumps(document).encode() for path, document in documents.items()}
        self.entries = {path: entry(body, KINDS.get(path, "data")) for path, body in self.files.items()}
        self.seed = body_of("seed", era)[:60]
        self.fields: dict[str, Any] = {}

    def manifest(self) -> dict[str, Any]:
        fields = {"era_number": self.era, "version": self.version, "pnl_column_count": 4, "functions": FUNCTIONS, "files": self.entries}
        return fields | self.fields

    def body(self, path: str) -> bytes | None:
        """What lies at that path of the server, whole."""
        documents = {
            "version": {"version": self.version, "era_number": self.era},
            "manifest": self.manifest(),
            "era": {"era_number": self.era, "state": "active"},
        }
        for name, document in documents.items():
            if path == PLACES[name]:
                return json.dumps(document).encode()
        return self.seed if path == PLACES["seed"] else self.files.get(path.removeprefix(FILES))


def entry(body: bytes, kind: str = "data") -> dict[str, Any]:
    return {"kind": kind, "size_bytes": len(body), "sha256": digest(body)}


@dataclasses.dataclass
class Exchange:
    """One connection after its request was read."""

    server: "Server"
    connection: socket.socket
    path: str
    headers: dict[str, str]
    count: int = 0  # of requests for that path before

    def send(self, *parts: bytes) -> None:
        for part in parts:
            self.connection.sendall(part)

    def reset(self) -> None:
        self.connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))

    def hold(self) -> None:
        """Says nothing more until the client goes."""
        self.connection.settimeout(60)
        while self.connection.recv(1000):
            pass

    def healthy(self, world: World | None = None) -> tuple[bytes, bytes]:
        """Head and body of the answer that belongs here."""
        world = world or self.server.world
        whole, headers, status = world.body(self.path), {}, 200
        if whole is None:
            status, whole = 404, b"{}"
        elif (wanted := self.headers.get("Range")) is not None:
            first, last = wanted.removeprefix("bytes=").split("-")
            status, whole = (416, b"") if int(first) >= len(whole) else (206, whole[int(first) : int(last) + 1 if last else len(whole)])
        if self.path == PLACES["seed"]:
            headers["X-Era-Id"] = str(world.era)
        return head(status, {**headers, "Content-Length": str(len(whole))}), whole


def head(status: object, headers: dict[str, str]) -> bytes:
    return "".join([f"HTTP/1.1 {status} Odd\r\n", *(f"{name}: {value}\r\n" for name, value in headers.items()), "\r\n"]).encode("latin-1")


Attack = Callable[[Exchange], None]


class Server:
    """Publishes `world`. `attacks` has what happens at a path instead, and how often."""

    stranger: "Server"  # of another origin, for those who are sent there

    def __init__(self, world: World | None = None, tls: ssl.SSLContext | None = None) -> None:
        self.world, self.tls = world or World(), tls
        self.handshakes: list[Attack | ssl.SSLContext] = []  # what the next connections get instead
        self.attacks: dict[str, tuple[Attack, float]] = {}
        self.requests: list[tuple[str, dict[str, str]]] = []
        self.counts: collections.Counter[str] = collections.Counter()  # of requests, by path
        self.odd: list[bytes] = []  # requests that are no GET
        self.lock = threading.Lock()
        self.listener = socket.create_server(("127.0.0.1", 0), backlog=200)
        self.port = self.listener.getsockname()[1]
        self.url = f"{'https' if tls else 'http'}://{'localhost' if tls else '127.0.0.1'}:{self.port}"
        threading.Thread(target=self._accept, args=(self.listener,), daemon=True).start()

    def usual(self, exchange: Exchange) -> None:
        """What happens where nothing is attacked."""
        exchange.send(*exchange.healthy())

    def down(self, seconds: float) -> None:
        """Refuses connections for a while."""
        self.close()

        def up() -> None:
            time.sleep(seconds)
            self.listener = socket.create_server(("127.0.0.1", self.port), backlog=200)
            self._accept(self.listener)

        threading.Thread(target=up, daemon=True).start()

    def heal(self, world: World | None = None) -> None:
        with self.lock:
            self.attacks = {}
            self.world = world or self.world
            self.requests, self.odd, self.counts = [], [], collections.Counter()

    def _accept(self, listener: socket.socket) -> None:
        while True:
            try:
                connection, _ = listener.accept()
            except OSError:
                return
            threading.Thread(target=self._serve, args=(connection,), daemon=True).start()

    def _serve(self, plain: socket.socket) -> None:
        connection = plain
        try:
            connection.settimeout(20)
            context = self.handshakes.pop() if self.handshakes else self.tls
            if callable(context):
                context(Exchange(self, connection, "", {}))
                return
            if context:
                connection = context.wrap_socket(connection, server_side=True)
            received = b""
            while b"\r\n\r\n" not in received:
                more = connection.recv(65536)
                if not more:
                    return
                received += more
            lines = received.decode("latin-1").split("\r\n\r\n")[0].split("\r\n")
            method, path, *_ = lines[0].split(" ")
            exchange = Exchange(self, connection, path if method == "GET" else lines[0], dict(line.split(": ", 1) for line in lines[1:]))
            with self.lock:
                exchange.count = self.counts[path]
                self.counts[path] += 1
                self.requests.append((path, exchange.headers))
                if method != "GET" or not received.endswith(b"\r\n\r\n"):
                    self.odd.append(received)
                attack, times = self.attacks.get(path, (None, 0))
                if times <= 0:
                    attack = None
                elif attack:
                    self.attacks[path] = attack, times - 1
            (attack or self.usual)(exchange)
        except (OSError, ValueError):  # ValueError: of a closed TLS connection
            pass
        finally:
            connection.close()

    def close(self) -> None:
        with contextlib.suppress(OSError):  # which is closed already
            self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()


# ---- what can be done to an answer ----------------------------------------------------------------------------------


def raw(*parts: bytes, reset: bool = False, hold: bool = False, pause: float = 0) -> Attack:
    """These bytes; then the end, a reset, or silence. With a pause, byte by byte."""

    def attack(exchange: Exchange) -> None:
        for part in b"".join(parts) if pause else ():
            exchange.send(bytes([part]))
            time.sleep(pause)
        if not pause:
            exchange.send(*parts)
        if hold:
            exchange.hold()
        if reset:
            exchange.reset()

    return attack


def answer(status: object, body: bytes = b"", **headers: str) -> Attack:
    named = {name.replace("_", "-"): value for name, value in headers.items()}
    return raw(head(status, {"Content-Length": str(len(body)), **named}), body)


def changed(change: Callable[[bytes], bytes], **options: Any) -> Attack:
    """The healthy answer with its body changed, its length stated truly."""

    def attack(exchange: Exchange) -> None:
        start, body = exchange.healthy()
        body = change(body)
        lines = [line for line in start.decode("latin-1").split("\r\n") if not line.startswith("Content-Length")]
        lines.insert(1, f"Content-Length: {len(body)}")
        raw("\r\n".join(lines).encode("latin-1"), body, **options)(exchange)

    return attack


def cut(at: int, of_body: bool = False, **options: Any) -> Attack:
    """Only that many bytes of the healthy answer, or of its body."""

    def attack(exchange: Exchange) -> None:
        start, body = exchange.healthy()
        raw((start + body)[: at + len(start) * of_body], **options)(exchange)

    return attack


def endless(block: bytes, status: int = 200, pause: float = 0, **headers: str) -> Attack:
    def attack(exchange: Exchange) -> None:
        exchange.send(head(status, {name.replace("_", "-"): value for name, value in headers.items()}))
        until = time.monotonic() + 20
        while time.monotonic() < until:
            exchange.send(block)
            time.sleep(pause)

    return attack


def document(change: Callable[[dict[str, Any]], Any]) -> Attack:
    """The healthy document changed in place, or another one in its stead where `change` returns one."""

    def altered(body: bytes) -> bytes:
        data = json.loads(body)
        result = change(data)
        return result if isinstance(result, bytes) else json.dumps(data if result is None else result).encode()

    return changed(altered)


def digest_of(path: pathlib.Path) -> str:
    return digest(path.read_bytes())
