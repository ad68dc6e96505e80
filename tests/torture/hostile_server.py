"""A small world of data, and a server on raw sockets that publishes it and misbehaves where it is told to."""

import collections
import contextlib
import dataclasses
import json
import socket
import ssl
import struct
import threading
import time
from collections.abc import Callable
from typing import Any

from torture.world import FUNCTIONS, INDEX, VOCABULARIES, World, body_of

SMALL, BIG = "features/us/signal_is/small.arrow", "features/us/signal_is/big.arrow"
PNL = "found_signals/alpha/s1/signal_is/pnl.arrow"
VOCABULARY = VOCABULARIES["us"]
NAMES = {"small": SMALL, "big": BIG, "pnl": PNL, "index": INDEX, "vocabulary": VOCABULARY, "functions": FUNCTIONS}
PLACES = {"version": "/data/manifest/version", "manifest": "/data/manifest", "seed": "/data/shuffle", "era": "/era/current"}
PLACES |= {name: f"/data/files/{path}" for name, path in NAMES.items()}
TOKEN = "canary-5f1d9c+/~="


def small_world(era: int = 7, version: int = 1) -> World:
    """Of one file of each sort; a case may change its `bodies` and its `manifest`, which states them as they were at first."""
    universe = {"named_universe": "us", "t_signal_is": 5, "t_strategy_is": 6, "n_instruments": 7}
    documents = {
        INDEX: {"era_number": era, "found_signals": {"e": {"files": [PNL]}}},
        VOCABULARY: {"era_number": era, "named_universe": "us", "features": {"small": {}, "big": {}}, "metadata": universe},
        FUNCTIONS: {"era_number": era, "rotations": ["weekly"]},
    }
    bodies = {path: json.dumps(document).encode() for path, document in documents.items()}
    bodies |= {SMALL: body_of(SMALL, 1000 * era + version)[:60], BIG: body_of(BIG, era) * 8}  # of which a chunk is less than a half
    bodies |= {PNL: b"pnl of era %d" % era, "plain.bin": b"plain"}
    return World(era, version, bodies)


@dataclasses.dataclass
class Exchange:
    """One connection after its request was read."""

    server: "Server"
    connection: socket.socket
    path: str = ""
    headers: dict[str, str] = dataclasses.field(default_factory=dict)
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

    def healthy(self, change: Callable[[bytes], bytes] = bytes) -> tuple[bytes, bytes]:
        """Head and body of the answer that belongs here; of a changed body the length is stated truly."""
        status, more, body = self.server.world.answer(self.path, self.headers.get("range"))
        body = change(body)
        return head(status, **more, Content_Length=len(body)), body


def head(status: object, **headers: object) -> bytes:
    lines = [f"{name.replace('_', '-')}: {value}\r\n" for name, value in headers.items()]
    return "".join([f"HTTP/1.1 {status} Odd\r\n", *lines, "\r\n"]).encode("latin-1")


Attack = Callable[[Exchange], None]


class Server:
    """Publishes `world`. `attacks` has what happens at a path instead, and how often."""

    stranger: "Server"  # of another origin, for those who are sent there

    def __init__(self, world: World | None = None, tls: ssl.SSLContext | None = None) -> None:
        self.world, self.tls = world or small_world(), tls
        self.handshakes: list[Attack | ssl.SSLContext] = []  # what the next connections get instead
        self.attacks: dict[str, tuple[Attack, float]] = {}
        self.requests: list[tuple[str, dict[str, str]]] = []
        self.counts: collections.Counter[str] = collections.Counter()  # of requests, by path
        self.lock = threading.Lock()
        self.port = 0
        self._listen()
        self.url = f"https://localhost:{self.port}" if tls else f"http://127.0.0.1:{self.port}"

    def usual(self, exchange: Exchange) -> None:
        """What happens where nothing is attacked."""
        WELL(exchange)

    def down(self, seconds: float) -> None:
        """Refuses connections for a while."""
        self.close()
        threading.Timer(seconds, self._listen).start()

    def heal(self) -> None:
        with self.lock:
            self.attacks, self.requests, self.counts = {}, [], collections.Counter()

    def _listen(self) -> None:
        self.listener = socket.create_server(("127.0.0.1", self.port), backlog=200)
        self.port = self.listener.getsockname()[1]
        threading.Thread(target=self._accept, args=(self.listener,), daemon=True).start()

    def _accept(self, listener: socket.socket) -> None:
        with contextlib.suppress(OSError):  # it was closed
            while True:
                threading.Thread(target=self._serve, args=listener.accept()[:1], daemon=True).start()

    def _serve(self, connection: socket.socket) -> None:
        with contextlib.ExitStack() as stack:
            stack.callback(lambda: connection.close())
            stack.enter_context(contextlib.suppress(OSError, ValueError))  # ValueError: of a closed TLS connection
            connection.settimeout(20)
            context = self.handshakes.pop() if self.handshakes else self.tls
            if callable(context):
                context(Exchange(self, connection))
                return
            if context:
                connection = context.wrap_socket(connection, server_side=True)
            lines = stack.enter_context(connection.makefile("rb"))
            words = lines.readline().decode("latin-1").split(" ")
            if words[-1].startswith("HTTP/1.1"):  # and no greeting of TLS
                rows = iter(lambda: lines.readline().decode("latin-1").strip(), "")
                self._answer(connection, words, {name.lower(): value for name, _, value in (row.partition(": ") for row in rows)})

    def _answer(self, connection: socket.socket, words: list[str], headers: dict[str, str]) -> None:
        path = words[1] if words[0] == "GET" else " ".join(words)  # which stands out
        exchange = Exchange(self, connection, path, headers)
        with self.lock:
            exchange.count = self.counts[path]
            self.counts[path] += 1
            self.requests.append((path, headers))
            attack, times = self.attacks.get(path, (raw(), 0))
            self.attacks[path] = attack, times - 1
        (attack if times > 0 else self.usual)(exchange)

    def close(self) -> None:
        with contextlib.suppress(OSError):  # which is closed already
            self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()


# ---- what can be done to an answer ----------------------------------------------------------------------------------


def raw(*parts: bytes, reset: bool = False, hold: bool = False, pause: float = 0) -> Attack:
    """These bytes; then the end, a reset, or silence. With a pause, byte by byte."""

    def attack(exchange: Exchange) -> None:
        for part in (bytes([byte]) for byte in b"".join(parts)) if pause else parts:
            exchange.send(part)
            time.sleep(pause)
        if hold:
            exchange.hold()
        if reset:
            exchange.reset()

    return attack


def answer(status: object, body: bytes = b"", **headers: object) -> Attack:
    return raw(head(status, **{"Content_Length": len(body), **headers}), body)


def changed(change: Callable[[bytes], bytes], **options: Any) -> Attack:
    """The healthy answer with its body changed."""
    return lambda exchange: raw(*exchange.healthy(change), **options)(exchange)


WELL = changed(bytes)


def cut(at: int, of_body: bool = False, **options: Any) -> Attack:
    """Only that many bytes of the healthy answer, or of its body."""

    def attack(exchange: Exchange) -> None:
        start, body = exchange.healthy()
        raw((start + body)[: at + len(start) * of_body], **options)(exchange)

    return attack


def endless(status: int = 200, pause: float = 0, **headers: object) -> Attack:
    def attack(exchange: Exchange) -> None:
        exchange.send(head(status, **headers))
        until = time.monotonic() + 20
        while time.monotonic() < until:
            exchange.send(b" " * (1 << 20))
            time.sleep(pause)

    return attack


def document(change: Callable[[dict[str, Any]], Any]) -> Attack:
    """The healthy document changed in place, or another one in its stead where `change` returns one."""

    def altered(body: bytes) -> bytes:
        data = json.loads(body)
        result = change(data)
        return result if isinstance(result, bytes) else json.dumps(data).encode()

    return changed(altered)
