"""Whole passes against real servers: through kills, restarts, wrong bytes and failing disks. After each test the
token must be found nowhere."""

import contextlib
import dataclasses
import hashlib
import json
import logging
import os
import pathlib
import random
import re
import resource
import shutil
import signal
import subprocess
import sys
import tempfile
from collections.abc import Callable, Iterator
from concurrent.futures import ThreadPoolExecutor
from typing import Any

import brackenfen.sync as sync
import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
TOKEN = "canary-77c0b1"
CHUNK_BYTES = 65536
NOBODY = 65534
DRIP = "/data/files/*:drip=150000"  # bytes per second and connection: slow enough to be caught in the middle of files
# Listed like artifacts, but fetched and validated by stages of their own.
DOCUMENT_KINDS = {"vocabulary", "signals_index"}


@dataclasses.dataclass
class DataSet:
    tree: pathlib.Path
    entries: dict[str, dict[str, Any]]

    def landed(self, directory: pathlib.Path) -> set[str]:
        return {path for path in self.entries if (directory / path).exists()}

    def staged(self, directory: pathlib.Path) -> dict[str, int]:
        """Bytes of the staging files that hold any."""
        sizes = {path: (directory / f"{path}.tmp").stat().st_size for path in self.entries if (directory / f"{path}.tmp").exists()}
        return {path: size for path, size in sizes.items() if size > 0}

    def assert_complete(self, directory: pathlib.Path) -> None:
        for path, entry in self.entries.items():
            assert hashlib.sha256((directory / path).read_bytes()).hexdigest() == entry["sha256"], path
        left = {path.name for path in directory.rglob("*") if path.suffix == ".tmp"} | {"sync-progress.json", ".sync_flock"} & set(os.listdir(directory))
        assert not left
        assert json.loads((directory / "manifest.json").read_bytes()) == json.loads((self.tree / "data/manifest.json").read_bytes())

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
    files = json.loads((tree / "data/manifest.json").read_bytes())["files"]
    entries = {path: entry for path, entry in files.items() if entry["kind"] not in DOCUMENT_KINDS}
    assert len(entries) >= 60 and sum(entry["size_bytes"] > CHUNK_BYTES for entry in entries.values()) >= 15
    return DataSet(tree, entries)


@pytest.fixture
def directory(tmp_path: pathlib.Path, monkeypatch: pytest.MonkeyPatch) -> pathlib.Path:
    monkeypatch.setenv("BRACKENFEN_SYNC_HTTP_CHUNK_BYTES", str(CHUNK_BYTES))
    (tmp_path / "data").mkdir()
    return tmp_path / "data"


@pytest.fixture(autouse=True)
def texts(
    tmp_path: pathlib.Path, records: pytest.LogCaptureFixture, capfd: pytest.CaptureFixture[str], server: Any
) -> Iterator[list[str]]:
    """What a test has read from elsewhere goes onto this list, to be searched for the token with all the rest."""
    found: list[str] = []
    yield found
    tokens = (TOKEN, server.token)
    found += [logging.Formatter().format(record) + repr(vars(record)) for record in records.get_records("call")]
    found += capfd.readouterr()
    assert not [text for text in found if any(token in text for token in tokens)]
    files = [path for path in tmp_path.rglob("*") if path.is_file()]
    assert not [path for path in files if any(token.encode() in path.read_bytes() for token in tokens)]


@contextlib.contextmanager
def fails(error: type[BaseException], match: str, texts: list[str]) -> Iterator[Any]:
    with pytest.raises(error, match=match) as caught:
        yield caught
    texts += [str(caught.value), repr(caught.value), repr(vars(caught.value))]


def open_manager(directory: pathlib.Path, url: str) -> sync.SyncManager:
    return sync.SyncManager.get_or_create(directory, url, lambda: TOKEN)


def test_nginx_serves_a_pass_and_the_next_asks_for_the_version_alone(
    serve_with_nginx: Any, data_set: DataSet, directory: pathlib.Path, tmp_path: pathlib.Path, wait_until: Any
) -> None:
    def logged() -> list[str]:
        return re.findall(r'"GET (\S+) HTTP/1.1" 20[06]', (tmp_path / "nginx/access.log").read_text())

    manager = open_manager(directory, serve_with_nginx(data_set.tree).url)
    result = manager.sync()
    assert result.bytes_downloaded == sum(entry["size_bytes"] for entry in data_set.entries.values())
    data_set.assert_complete(directory)
    chunks = sum(-(-entry["size_bytes"] // CHUNK_BYTES) for entry in data_set.entries.values())
    wait_until(lambda: len(logged()) == 2 + chunks)  # each answer is logged when nginx has done with it
    assert manager.sync().bytes_downloaded == 0
    wait_until(lambda: len(logged()) > 2 + chunks)
    assert logged()[2 + chunks :] == ["/data/manifest/version"]


def test_a_client_killed_again_and_again_goes_on_where_it_was(
    serve: Any, data_set: DataSet, directory: pathlib.Path, tmp_path: pathlib.Path, wait_until: Any, texts: list[str]
) -> None:
    seed = random.randrange(1_000_000)
    print(f"the moments follow from seed {seed}")
    draw, resumable = random.Random(seed), 0

    def run(number: int, seconds: float | None) -> None:
        log = tmp_path / f"{number}.log"
        before = data_set.landed(directory), data_set.staged(directory)
        peer = serve(data_set.tree, "--token", TOKEN, "--log", log, *(["--fault", DRIP] if seconds else []))
        command = [sys.executable, str(ROOT / "examples/host.py"), str(directory), peer.url]
        environment = os.environ | {"BRACKENFEN_TOKEN": TOKEN}
        with subprocess.Popen(command, env=environment, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True) as host:
            try:
                if seconds:
                    wait_until(lambda: len(requests(log)) > 2 or host.poll() is not None)
                    with contextlib.suppress(subprocess.TimeoutExpired):
                        host.wait(seconds)
                    host.kill()
                output = host.communicate(timeout=20)[0]
            finally:
                host.kill()
        texts.append(output)
        assert host.returncode == (-signal.SIGKILL if seconds else 0), output
        data_set.assert_went_on(before, log)

    for number in range(6):
        run(number, draw.uniform(0.05, 0.5))
        resumable += len(data_set.staged(directory))
    assert resumable and data_set.landed(directory)
    run(6, None)
    data_set.assert_complete(directory)


@pytest.mark.usefixtures("short_waits")
@pytest.mark.parametrize("during", ["files", "manifest"])
def test_a_server_killed_in_the_middle_of_a_pass_and_back_on_its_port(
    serve: Any, data_set: DataSet, directory: pathlib.Path, tmp_path: pathlib.Path, wait_until: Any,
    records: pytest.LogCaptureFixture, texts: list[str], during: str,
) -> None:  # fmt: skip
    def waits() -> int:
        return sum(getattr(record, "brackenfen_sync_event", {}).get("event_type") == "sync_backoff_wait" for record in records.records)

    first, second = tmp_path / "first.log", tmp_path / "second.log"
    peer = serve(data_set.tree, "--token", TOKEN, "--log", first, "--fault", DRIP if during == "files" else "/data/manifest:drip=5000")
    manager = open_manager(directory, peer.url)
    with ThreadPoolExecutor(1) as pool:
        running = pool.submit(manager.sync)
        if during == "files":
            wait_until(lambda: len(data_set.landed(directory)) >= 8 and len(data_set.staged(directory)) >= 4)
        else:
            wait_until(lambda: "/data/manifest" in dict(requests(first)))
        peer.kill()
        if during == "files":
            wait_until(lambda: waits() >= 40)
        else:
            with fails(sync.SyncError, "Invalid manifest JSON: |data sync unavailable", texts):
                running.result(10)
        before = data_set.landed(directory), data_set.staged(directory)
        assert not (directory / "manifest.json").exists() and manager._manifest is None
        serve(data_set.tree, "--token", TOKEN, "--log", second, "--port", peer.port)
        if during == "manifest":
            running = pool.submit(manager.sync)
        running.result(10)
    data_set.assert_complete(directory)
    data_set.assert_went_on(before, second)
    assert during == "manifest" or (before[1] and "/data/manifest" not in dict(requests(second)))


@pytest.mark.usefixtures("short_waits")
@pytest.mark.parametrize(("times", "transfers"), [(",times=1", 2), ("", 4)], ids=["once", "for ever"])
def test_wrong_bytes_are_fetched_again_within_a_bound(
    serve: Any, data_set: DataSet, directory: pathlib.Path, tmp_path: pathlib.Path, texts: list[str], times: str, transfers: int
) -> None:
    path = min(data_set.entries, key=lambda name: abs(data_set.entries[name]["size_bytes"] - CHUNK_BYTES // 2))
    log = tmp_path / "log"
    manager = open_manager(directory, serve(data_set.tree, "--log", log, "--fault", f"/data/files/{path}:wrong-bytes{times}").url)
    if times:
        manager.sync()
        data_set.assert_complete(directory)
    else:
        with fails(sync.IntegrityError, f"^Checksum failure for {path}: .*contact BrackenFen. expected {data_set.entries[path]['sha256']}", texts):
            manager.sync()
        assert manager._manifest is None and not (directory / "manifest.json").exists()
        assert data_set.landed(directory) == data_set.entries.keys() - {path} and (directory / f"{path}.tmp").stat().st_size == 0
    assert [requested_range for name, requested_range in requests(log) if name == f"/data/files/{path}"] == ["-"] * transfers


class Kept:
    """A directory in step with version 1, and a manager; version 2 adds a large file. Failures must change nothing."""

    def __init__(self, directory: pathlib.Path, server: Any, get_token: Callable[[], str]) -> None:
        server.add("features/u/signal_is/kept.arrow", b"kept" * 1000)
        self.directory, self.server = directory, server
        self.manager = sync.SyncManager.get_or_create(directory, server.url, get_token)
        self.manager.sync()
        self.files = self.content()
        self.memory = self.manager._manifest, self.manager._hash_cache
        server.add("features/u/signal_is/large.arrow", random.Random(1).randbytes(400_000))
        server.version = 2

    def content(self) -> dict[str, bytes]:
        ignored = (".tmp", "sync-progress.json")
        return {str(path): path.read_bytes() for path in self.directory.rglob("*") if path.is_file() and not path.name.endswith(ignored)}

    def assert_unchanged(self) -> None:
        assert self.content() == self.files
        assert self.manager._manifest is self.memory[0] and self.manager._hash_cache == self.memory[1]

    def assert_next_pass_completes(self) -> None:
        self.manager.sync()
        assert (self.directory / "features/u/signal_is/large.arrow").read_bytes() == self.server.files["features/u/signal_is/large.arrow"]
        assert self.manager._manifest.version == 2 and not list(self.directory.rglob("*.tmp"))


@pytest.fixture
def small_volume(tmp_path: pathlib.Path) -> Iterator[pathlib.Path]:
    volume = tmp_path / "volume"
    volume.mkdir()
    mounted = subprocess.run(["mount", "-t", "tmpfs", "-o", "size=1m", "tmpfs", volume], capture_output=True, text=True)
    if mounted.returncode != 0:
        pytest.skip(f"a small volume cannot be mounted: {mounted.stderr.strip()}")
    yield volume
    subprocess.run(["umount", volume], check=True)


def test_a_volume_that_fills_up(small_volume: pathlib.Path, server: Any, texts: list[str]) -> None:
    filler, requests_until_full = small_volume / "filler", [10**9]

    def get_token() -> str:
        requests_until_full[0] -= 1
        if requests_until_full[0] == 0:
            filler.write_bytes(b"x" * 850_000)
        return str(server.token)

    (small_volume / "data").mkdir()
    kept = Kept(small_volume / "data", server, get_token)
    requests_until_full[0] = 1
    with fails(sync.DiskSpaceError, "^Insufficient disk space: need 400000 bytes, have [0-9]+ bytes available$", texts):
        kept.manager.sync()
    kept.assert_unchanged()
    filler.unlink()
    requests_until_full[0] = 3  # it is full when the file is asked for
    with fails(OSError, rf"^\[Errno 28\] No space left on device: '{kept.directory}/features/u/signal_is/large.arrow.tmp'$", texts):
        kept.manager.sync()
    kept.assert_unchanged()
    filler.unlink()
    kept.assert_next_pass_completes()


def test_a_limit_on_the_size_of_files(directory: pathlib.Path, server: Any, texts: list[str]) -> None:
    kept = Kept(directory, server, lambda: str(server.token))
    soft, hard = resource.getrlimit(resource.RLIMIT_FSIZE)
    resource.setrlimit(resource.RLIMIT_FSIZE, (200_000, hard))
    try:
        with fails(OSError, rf"^\[Errno 27\] File too large: '{directory}/features/u/signal_is/large.arrow.tmp'$", texts):
            kept.manager.sync()
    finally:
        resource.setrlimit(resource.RLIMIT_FSIZE, (soft, hard))
    kept.assert_unchanged()
    kept.assert_next_pass_completes()


@pytest.mark.parametrize(("place", "refused"), [(".", ".sync_flock"), ("features/u/signal_is", "features/u/signal_is/large.arrow.tmp")])
def test_a_directory_that_may_not_be_written(program: Any, server: Any, texts: list[str], place: str, refused: str) -> None:
    # The superuser may write everywhere, so the program becomes somebody else, who must be able to reach the place.
    source = f"""
import os, sys
import brackenfen.sync as sync
directory, url = sys.argv[1:]
if os.geteuid() == 0:
    os.chown(directory, {NOBODY}, {NOBODY})
    os.setuid({NOBODY})
manager = sync.SyncManager.get_or_create(directory, url, lambda: {server.token!r})
manager.sync()
committed = manager._manifest, manager._hash_cache
os.chmod(directory + "/{place}", 0o555)
print("synced", flush=True)
sys.stdin.read()
try: manager.sync()
except PermissionError as error: print(error, flush=True)
assert manager._manifest is committed[0] and manager._hash_cache == committed[1]
os.chmod(directory + "/{place}", 0o755)
manager.sync()
"""
    server.add("features/u/signal_is/kept.arrow", b"kept")
    with tempfile.TemporaryDirectory() as name:
        directory = pathlib.Path(name, "data")
        directory.mkdir()
        directory.parent.chmod(0o755)
        running = program(source, str(directory), server.url)
        running.wait_for("synced")
        server.add("features/u/signal_is/large.arrow", b"large" * 1000)
        server.version = 2
        code, out, err, _ = running.finish()
        texts += [out, err]
        assert (code, out, err) == (0, f"[Errno 13] Permission denied: '{directory}/{refused}'\n", "")
        assert (directory / "features/u/signal_is/large.arrow").read_bytes() == b"large" * 1000


def test_a_directory_that_is_gone(directory: pathlib.Path, server: Any, texts: list[str]) -> None:
    kept = Kept(directory, server, lambda: str(server.token))
    away = directory.rename(directory.parent / "away")
    with fails(FileNotFoundError, rf"^\[Errno 2\] No such file or directory: '{directory}/.sync_flock'$", texts):
        kept.manager.sync()
    assert not directory.exists()
    away.rename(directory)
    kept.assert_unchanged()
    kept.assert_next_pass_completes()
    shutil.rmtree(directory)
    with fails(FileNotFoundError, f"^data_dir does not exist: {directory}$", texts):
        sync.SyncManager(directory, server.url, str)


@pytest.mark.parametrize("good_calls", [0, 2], ids=["at once", "for a file"])
def test_a_token_source_that_raises(directory: pathlib.Path, server: Any, texts: list[str], good_calls: int) -> None:
    failure, calls = RuntimeError("the key ring is locked"), [10**9]

    def get_token() -> str:
        calls[0] -= 1
        if calls[0] < 0:
            raise failure
        return str(server.token)

    kept = Kept(directory, server, get_token)
    calls[0] = good_calls
    with fails(RuntimeError, "^the key ring is locked$", texts) as caught:
        kept.manager.sync()
    assert caught.value is failure
    kept.assert_unchanged()
    calls[0] = 10**9
    kept.assert_next_pass_completes()
