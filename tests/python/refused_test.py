"""Directories and token sources that let a pass down: the error says what and where, and nothing that was there is lost."""

import pathlib
import subprocess
import tempfile
from collections.abc import Iterator
from typing import Any

import brackenfen.sync as sync
import pytest

LARGE = "features/u/signal_is/large.arrow"
NOBODY = 65534


class Kept:
    """A directory in step with version 1, and a manager; version 2 adds a large file."""

    def __init__(self, directory: pathlib.Path, server: Any) -> None:
        server.add("features/u/signal_is/kept.arrow", b"kept" * 1000)
        self.directory, self.server = directory, server
        self.calls_until: dict[int, Any] = {}  # what happens when the token is asked for so many times more
        self.manager = sync.SyncManager.get_or_create(directory, server.url, self.get_token)
        self.manager.sync()
        self.before = self.state()
        server.add(LARGE, bytes(range(256)) * 1600, mandatory=True)
        server.version = 2

    def get_token(self) -> str:
        self.calls_until = {calls - 1: action for calls, action in self.calls_until.items()}
        if action := self.calls_until.pop(0, None):
            action()
        return str(self.server.token)

    def state(self) -> tuple[Any, ...]:
        ignored = (".tmp", "sync-progress.json")
        files = {path: path.read_bytes() for path in self.directory.rglob("*") if path.is_file() and not path.name.endswith(ignored)}
        return files, self.manager._manifest, self.manager._hash_cache

    def assert_refused(self, error: type[BaseException], message: str) -> BaseException:
        with pytest.raises(error, match=message) as caught:
            self.manager.sync()
        assert self.state() == self.before
        return caught.value

    def assert_next_pass_completes(self) -> None:
        self.manager.sync()
        assert (self.directory / LARGE).read_bytes() == self.server.files[LARGE] and not list(self.directory.rglob("*.tmp"))


@pytest.fixture
def small_volume(tmp_path: pathlib.Path) -> Iterator[pathlib.Path]:
    volume = tmp_path / "volume"
    volume.mkdir()
    mounted = subprocess.run(["mount", "-t", "tmpfs", "-o", "size=1m", "tmpfs", volume], capture_output=True, text=True)
    if mounted.returncode != 0:
        pytest.skip(f"a small volume cannot be mounted: {mounted.stderr.strip()}")
    yield volume
    subprocess.run(["umount", volume], check=True)


def test_a_volume_that_fills_up(small_volume: pathlib.Path, server: Any) -> None:
    filler = small_volume / "filler"
    (small_volume / "data").mkdir()
    kept = Kept(small_volume / "data", server)
    kept.calls_until = {1: lambda: filler.write_bytes(b"x" * 850_000)}
    kept.assert_refused(sync.MandatoryArtifactsTooLargeError, "^mandatory artifacts need 409600 more bytes, and only half of the free space, [0-9]+ bytes")
    filler.unlink()
    kept.calls_until = {3: lambda: filler.write_bytes(b"x" * 850_000)}  # full when the file is asked for
    kept.assert_refused(OSError, rf"^\[Errno 28\] No space left on device: '{kept.directory}/{LARGE}.tmp'$")
    filler.unlink()
    kept.assert_next_pass_completes()


@pytest.mark.parametrize(("place", "refused"), [(".", ".sync_flock"), ("features/u/signal_is", f"{LARGE}.tmp")])
def test_a_directory_that_may_not_be_written(program: Any, server: Any, place: str, refused: str) -> None:
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
assert (manager._manifest, manager._hash_cache) == committed
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
        server.add(LARGE, b"large" * 1000)
        server.version = 2
        code, out, err, _ = running.finish()
        assert (code, out, err) == (0, f"[Errno 13] Permission denied: '{directory}/{refused}'\n", "")
        assert (directory / LARGE).read_bytes() == b"large" * 1000


def test_a_directory_that_is_gone(tmp_path: pathlib.Path, server: Any) -> None:
    directory = tmp_path / "data"
    directory.mkdir()
    kept = Kept(directory, server)
    away = directory.rename(tmp_path / "away")
    with pytest.raises(FileNotFoundError, match=rf"^\[Errno 2\] No such file or directory: '{directory}/.sync_flock'$"):
        kept.manager.sync()
    assert not directory.exists()
    away.rename(directory)
    assert kept.state() == kept.before
    kept.assert_next_pass_completes()


@pytest.mark.parametrize("call", [2, 3], ids=["for the manifest", "for a file"])
def test_a_token_source_that_raises(tmp_path: pathlib.Path, server: Any, call: int) -> None:
    failure = RuntimeError("the key ring is locked")

    def fail() -> None:
        raise failure

    kept = Kept(tmp_path, server)
    kept.calls_until = {call: fail}
    assert kept.assert_refused(RuntimeError, "^the key ring is locked$") is failure
    kept.assert_next_pass_completes()
