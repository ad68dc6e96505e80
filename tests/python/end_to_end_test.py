"""Whole passes against real servers, through a kill and a restart. After each test the token must be found nowhere."""

import dataclasses
import hashlib
import json
import logging
import os
import pathlib
import re
from collections.abc import Callable, Iterator
from concurrent.futures import ThreadPoolExecutor
from typing import Any

import brackenfen.sync as sync
import pytest

TOKEN = "canary-77c0b1"
CHUNK_BYTES = 65536
DRIP = "/data/files/*:drip=150000"  # bytes per second and connection: slow enough to be caught in the middle of files
VOCABULARIES = "named_universes/"


@dataclasses.dataclass
class DataSet:
    tree: pathlib.Path
    entries: dict[str, dict[str, Any]]

    @property
    def counted_bytes(self) -> int:
        """What a pass reports: everything but the vocabularies."""
        return sum(entry["size_bytes"] for path, entry in self.entries.items() if not path.startswith(VOCABULARIES))

    def landed(self, directory: pathlib.Path) -> set[str]:
        return {path for path in self.entries if (directory / path).exists()}

    def staged(self, directory: pathlib.Path) -> dict[str, int]:
        """Bytes of the staging files that hold any; vocabularies are too small to be resumed."""
        resumable = [path for path in self.entries if not path.startswith(VOCABULARIES)]
        sizes = {path: (directory / f"{path}.tmp").stat().st_size for path in resumable if (directory / f"{path}.tmp").exists()}
        return {path: size for path, size in sizes.items() if size > 0}

    def assert_complete(self, directory: pathlib.Path) -> None:
        for path, entry in self.entries.items():
            assert hashlib.sha256((directory / path).read_bytes()).hexdigest() == entry["sha256"], path
        left = {path.name for path in directory.rglob("*") if path.suffix == ".tmp"} | {"sync-progress.json", ".sync_flock"} & set(os.listdir(directory))
        assert not left
        assert json.loads((directory / "manifest.json").read_bytes()) == json.loads((self.tree / "data/manifest.json").read_bytes())
        assert (directory / "shuffle_seed.enc").read_bytes() == (self.tree / "data/shuffle").read_bytes()

    def assert_went_on(self, directory_before: tuple[set[str], dict[str, int]], log: pathlib.Path) -> None:
        """The log of a new server shows no request for what had landed, and a Range for what had been begun."""
        landed, staged = directory_before
        first: dict[str, str] = {}
        for path, requested_range in requests(log):
            first.setdefault(path.removeprefix("/data/files/"), requested_range)
        assert not landed & first.keys()
        begun = {path: f"bytes={size}" for path, size in staged.items() if path in first and path not in landed}
        assert begun == {path: first[path].partition("-")[0] for path in begun}


def requests(log: pathlib.Path) -> list[tuple[str, str]]:
    """Path and Range of each answer in the tool's log."""
    return [(line.split()[1], line.split()[2]) for line in log.read_text().splitlines()] if log.exists() else []


@pytest.fixture(scope="module")
def data_set(tool: Callable[..., str], tmp_path_factory: pytest.TempPathFactory) -> DataSet:
    tree = tmp_path_factory.mktemp("end_to_end") / "tree"
    tool("sample", tree, "--files", 64, "--bytes", "6MB", "--era", 5)
    entries = json.loads((tree / "data/manifest.json").read_bytes())["files"]
    assert len(entries) >= 60 and sum(entry["size_bytes"] > CHUNK_BYTES for entry in entries.values()) >= 15
    return DataSet(tree, entries)


@pytest.fixture
def directory(tmp_path: pathlib.Path, monkeypatch: pytest.MonkeyPatch) -> pathlib.Path:
    monkeypatch.setenv("BRACKENFEN_SYNC_HTTP_CHUNK_BYTES", str(CHUNK_BYTES))
    (tmp_path / "data").mkdir()
    return tmp_path / "data"


@pytest.fixture(autouse=True)
def no_token_anywhere(tmp_path: pathlib.Path, records: pytest.LogCaptureFixture, capfd: pytest.CaptureFixture[str]) -> Iterator[None]:
    yield
    found = [logging.Formatter().format(record) + repr(vars(record)) for record in records.get_records("call")]
    assert not [text for text in (*found, *capfd.readouterr()) if TOKEN in text]
    assert not [path for path in tmp_path.rglob("*") if path.is_file() and TOKEN.encode() in path.read_bytes()]


def open_manager(directory: pathlib.Path, url: str) -> sync.SyncManager:
    return sync.SyncManager.get_or_create(directory, url, lambda: TOKEN)


def test_nginx_serves_a_pass_and_the_next_asks_for_the_version_alone(
    serve_with_nginx: Any, data_set: DataSet, directory: pathlib.Path, tmp_path: pathlib.Path, wait_until: Any
) -> None:
    def logged() -> list[str]:
        return re.findall(r'"GET (\S+) HTTP/1.1" 20[06]', (tmp_path / "nginx/access.log").read_text())

    manager = open_manager(directory, serve_with_nginx(data_set.tree).url)
    result = manager.sync()
    assert result.bytes_downloaded == data_set.counted_bytes
    data_set.assert_complete(directory)
    asked = 3 + sum(-(-entry["size_bytes"] // CHUNK_BYTES) for entry in data_set.entries.values())  # version, manifest and seed
    wait_until(lambda: len(logged()) == asked)  # each answer is logged when nginx has done with it
    assert manager.sync().bytes_downloaded == 0
    wait_until(lambda: len(logged()) > asked)
    assert logged()[asked:] == ["/data/manifest/version"]


def waits() -> int:
    """Announced so far by this process, those that the log was spared included."""
    return sum(count for key, count in sync._SYNC_EVENT_COALESCE_COUNTS.items() if ("event_type", "'sync_backoff_wait'") in key)


@pytest.mark.usefixtures("short_waits")
def test_a_server_killed_in_the_middle_of_a_pass_and_back_on_its_port(
    serve: Any, data_set: DataSet, directory: pathlib.Path, tmp_path: pathlib.Path, wait_until: Any, records: pytest.LogCaptureFixture
) -> None:
    peer = serve(data_set.tree, "--token", TOKEN, "--fault", DRIP)
    manager, earlier = open_manager(directory, peer.url), waits()
    with ThreadPoolExecutor(1) as pool:
        running = pool.submit(manager.sync)
        wait_until(lambda: len(data_set.landed(directory)) >= 8 and len(data_set.staged(directory)) >= 4)
        peer.kill()
        wait_until(lambda: waits() >= earlier + 40)
        before = data_set.landed(directory), data_set.staged(directory)
        assert not running.done() and not (directory / "manifest.json").exists() and manager._manifest is None
        serve(data_set.tree, "--token", TOKEN, "--log", tmp_path / "log", "--port", peer.port)
        running.result(10)
    data_set.assert_complete(directory)
    data_set.assert_went_on(before, tmp_path / "log")
    assert before[1] and "/data/manifest" not in dict(requests(tmp_path / "log"))
    events = [event for record in records.records if (event := getattr(record, "brackenfen_sync_event", None))]
    told = [event for event in events if event["event_type"] == "sync_unavailable_status"]
    back = [event for event in events if event["event_type"] == "sync_recovered_status"]
    assert 1 <= len(told) == len(back) <= 8  # once for each request that met the outage
    assert {event["exception_sequence"][-1] for event in back} <= {"ConnectionRefusedError", "ConnectionResetError"}
