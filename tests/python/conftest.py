"""A data server of this process, directories to sync into, and fresh interpreters."""

import json
import logging
import pathlib
import signal
import subprocess
import sys
import time
import types
from collections.abc import Callable, Iterator
from typing import Any

import brackenfen.sync as sync
import pytest
import torture.hostile_server
from torture.hostile_server import FUNCTIONS, VOCABULARY, Exchange, answer, head, raw
from torture.world import KINDS, World, digest

# A run in the background of a shell ignores Ctrl-C, and so would every process that the tests start.
signal.signal(signal.SIGINT, signal.default_int_handler)


def entry(body: bytes, kind: str) -> dict[str, Any]:
    return {"kind": kind, "size_bytes": len(body), "sha256": digest(body)}


class Server(torture.hostile_server.Server):
    """Serves a manifest, its files and the documents of the era; `answers` overrides a path with a status and a body,
    or with what happens there."""

    token = "canary-5f1d9c"
    stall = staticmethod(raw(head(200, Content_Length=1000), hold=True))  # promises a body and sends none of it

    def __init__(self) -> None:
        self.files: dict[str, bytes] = {}
        self.entries: dict[str, dict[str, Any]] = {}
        self.version, self.era_number = 1, 7
        self.answers: dict[str, Any] = {"/era/current": (404, b"{}")}
        super().__init__()

    def add(self, path: str, body: bytes, kind: str = "feature", **changes: Any) -> None:
        self.files[path] = body
        self.entries[path] = entry(body, kind) | changes

    @property
    def documents(self) -> dict[str, bytes]:
        """What every era has besides its data: the vocabulary of one universe, and the catalogue of functions."""
        vocabulary = {
            "era_number": self.era_number, "named_universe": "us", "features": {},
            "metadata": {"named_universe": "us", "t_signal_is": 5, "t_strategy_is": 6, "n_instruments": 7},
        }  # fmt: skip
        functions = {"era_number": self.era_number, "rotations": ["weekly"]}
        return {VOCABULARY: json.dumps(vocabulary).encode(), FUNCTIONS: json.dumps(functions).encode()}

    def manifest(self) -> dict[str, Any]:
        entries = {path: entry(body, KINDS[path]) for path, body in self.documents.items()}
        return {
            "era_number": self.era_number, "version": self.version, "pnl_column_count": 4, "functions": FUNCTIONS,
            "files": self.entries | {path: entry for path, entry in entries.items() if path not in self.entries},
        }  # fmt: skip

    def usual(self, exchange: Exchange) -> None:
        override = self.answers.get(exchange.path)
        if override is None:
            world = World(self.era_number, self.version, self.documents | self.files)
            vars(world).update(manifest=self.manifest(), seed=b"s" * 60)
            status, more, body = world.answer(exchange.path, exchange.headers.get("range"))
            exchange.send(head(status, **more, Content_Length=len(body)), body)
        else:
            (override if callable(override) else answer(*override))(exchange)


@pytest.fixture
def server() -> Iterator[Server]:
    running = Server()
    yield running
    running.close()


@pytest.fixture
def manager(tmp_path: pathlib.Path, server: Server) -> sync.SyncManager:
    directory = tmp_path / "data"
    directory.mkdir()
    return sync.SyncManager.get_or_create(directory, server.url, lambda: server.token)


@pytest.fixture
def records(caplog: pytest.LogCaptureFixture) -> pytest.LogCaptureFixture:
    caplog.set_level(logging.DEBUG, logger="brackenfen.sync")
    return caplog


@pytest.fixture
def neighbour(monkeypatch: pytest.MonkeyPatch) -> Callable[..., types.ModuleType]:
    """Puts a module `brackenfen.<name>` of the given attributes where the library looks for it."""

    def install(name: str, **attributes: Any) -> types.ModuleType:
        module = types.ModuleType(f"brackenfen.{name}")
        module.__dict__.update(attributes)
        monkeypatch.setitem(sys.modules, module.__name__, module)
        return module

    return install


class Program:
    """A fresh interpreter running a program; what it prints, how it ends and how long that takes. Its input stays open until finish()."""

    def __init__(self, source: str, *arguments: str) -> None:
        self.process = subprocess.Popen(
            [sys.executable, "-c", source, *arguments],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
        )  # fmt: skip

    def wait_for(self, line: str) -> None:
        assert self.process.stdout is not None
        got = self.process.stdout.readline()
        assert got.strip() == line, got + (self.process.communicate()[1] if not got else "")

    def finish(self, timeout: float = 20) -> tuple[int, str, str, float]:
        started = time.monotonic()
        try:
            out, err = self.process.communicate(timeout=timeout)
        finally:
            self.process.kill()
        return self.process.returncode, out, err, time.monotonic() - started


@pytest.fixture
def program() -> type[Program]:
    return Program
