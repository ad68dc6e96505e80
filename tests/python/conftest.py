"""A data server of this process, directories to sync into, and fresh interpreters."""

import hashlib
import json
import logging
import pathlib
import signal
import subprocess
import sys
import threading
import time
import types
from collections.abc import Callable, Iterator
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from typing import Any

import brackenfen.sync as sync
import pytest

# A run in the background of a shell ignores Ctrl-C, and so would every process that the tests start.
signal.signal(signal.SIGINT, signal.default_int_handler)

VOCABULARY, FUNCTIONS = "named_universes/us/vocabulary.json", "functions.json"


class Server:
    """Serves a manifest, its files and the documents of the era; `answers` overrides a path with a status and a body,
    or a function."""

    token = "canary-5f1d9c"

    def __init__(self) -> None:
        self.files: dict[str, bytes] = {}
        self.entries: dict[str, dict[str, Any]] = {}
        self.version, self.era_number = 1, 7
        self.answers: dict[str, Any] = {}
        self.requests: list[tuple[str, dict[str, str]]] = []
        self.released = threading.Event()  # ends every stalled answer
        owner = self

        class Handler(BaseHTTPRequestHandler):
            def do_GET(self) -> None:
                owner.requests.append((self.path, dict(self.headers)))
                try:
                    owner.answer(self)
                except (BrokenPipeError, ConnectionResetError):
                    pass

            def log_message(self, *_: object) -> None:
                pass

        self.http = ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        self.http.daemon_threads = True
        self.url = f"http://127.0.0.1:{self.http.server_port}"
        self.thread = threading.Thread(target=self.http.serve_forever, kwargs={"poll_interval": 0.01}, daemon=True)
        self.thread.start()

    def add(self, path: str, body: bytes, kind: str = "feature", **changes: Any) -> None:
        self.files[path] = body
        self.entries[path] = self.entry(body, kind, **changes)

    @staticmethod
    def entry(body: bytes, kind: str, **changes: Any) -> dict[str, Any]:
        return {"kind": kind, "size_bytes": len(body), "sha256": hashlib.sha256(body).hexdigest(), **changes}

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
        kinds = {VOCABULARY: "vocabulary", FUNCTIONS: "functions"}
        entries = {path: self.entry(body, kinds[path]) for path, body in self.documents.items()}
        return {
            "era_number": self.era_number, "version": self.version, "pnl_column_count": 4, "functions": FUNCTIONS,
            "files": self.entries | {path: entry for path, entry in entries.items() if path not in self.entries},
        }  # fmt: skip

    def answer(self, handler: BaseHTTPRequestHandler) -> None:
        path = handler.path
        override = self.answers.get(path)
        if callable(override):
            override(handler)
        elif override is not None:
            self.send(handler, *override)
        elif path == "/data/manifest/version":
            self.send(handler, 200, json.dumps({"version": self.version, "era_number": self.era_number}).encode())
        elif path == "/data/manifest":
            self.send(handler, 200, json.dumps(self.manifest()).encode())
        elif path == "/data/shuffle":
            self.send(handler, 200, b"s" * 60, {"X-Era-Id": str(self.era_number)})
        elif (body := (self.documents | self.files).get(path.removeprefix("/data/files/"))) is not None:
            self.send_file(handler, body)
        else:
            self.send(handler, 404, b"{}")

    def send_file(self, handler: BaseHTTPRequestHandler, body: bytes) -> None:
        wanted = handler.headers.get("Range")
        if wanted is None:
            return self.send(handler, 200, body)
        first, last = wanted.removeprefix("bytes=").split("-")
        if int(first) >= len(body):
            return self.send(handler, 416, b"")
        self.send(handler, 206, body[int(first) : int(last) + 1 if last else len(body)])

    def stall(self, handler: BaseHTTPRequestHandler) -> None:
        """Promises a body and sends none of it until the test is over."""
        handler.send_response(200)
        handler.send_header("Content-Length", "1000")
        handler.end_headers()
        handler.wfile.flush()
        self.released.wait(30)

    @staticmethod
    def send(handler: BaseHTTPRequestHandler, status: int, body: bytes, headers: dict[str, str] | None = None) -> None:
        handler.send_response(status)
        for name, value in (headers or {}).items():
            handler.send_header(name, value)
        handler.send_header("Content-Length", str(len(body)))
        handler.end_headers()
        handler.wfile.write(body)

    def close(self) -> None:
        self.released.set()
        self.http.shutdown()
        self.http.server_close()
        self.thread.join()


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
