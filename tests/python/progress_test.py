"""What a host sees of a manager while it works, and how a stop ends its waits."""

import json
import logging
import os
import pathlib
import pickle
import subprocess
import sys
import threading
import time
from collections.abc import Callable, Iterator
from concurrent.futures import Future, ThreadPoolExecutor
from typing import Any

import brackenfen.sync as sync
import pytest
from torture.hostile_server import Exchange, head

AWAY = (503, b"{}")
LOCK_HOLDER = "import fcntl, sys; file = open(sys.argv[1], 'a'); fcntl.flock(file, fcntl.LOCK_EX); print('held', flush=True); sys.stdin.read()"


@pytest.fixture
def begin() -> Iterator[Callable[[sync.SyncManager], Future[sync.SyncResult]]]:
    """begin(manager): a sync on a thread of its own, looked at from this one."""
    with ThreadPoolExecutor(1) as pool:
        yield lambda manager: pool.submit(manager.sync)


def shown(manager: sync.SyncManager, enough: Callable[[sync.Progress], object]) -> sync.Progress:
    deadline = time.monotonic() + 10
    while time.monotonic() < deadline:
        if (seen := manager.progress()) is not None and enough(seen):
            return seen
    raise AssertionError(seen)


def test_a_pass_shows_its_files_bytes_and_waits(manager: sync.SyncManager, server: Any, begin: Any) -> None:
    assert manager.progress() is None
    for name in "abc":
        server.add(f"features/{name}.arrow", name.encode() * 1000)

    released = threading.Event()

    def pause(exchange: Exchange) -> None:
        exchange.send(head(200, Content_Length=1000), b"b" * 600)
        released.wait(30)
        exchange.send(b"b" * 400)

    server.answers |= {"/data/files/features/b.arrow": pause, "/data/files/features/c.arrow": AWAY}
    began, syncing = time.time(), begin(manager)
    seen = shown(manager, lambda each: each.wait and each.wait.attempt > 1 and any(file.bytes_done for file in each.files_in_flight))
    # The catalogue of functions is one of the set; the vocabulary comes behind it.
    assert (seen.operation, seen.phase, seen.files_done, seen.files_total) == ("sync", "downloading", 2, 4)
    assert seen.bytes_total == 3000 + len(server.documents["functions.json"]) and seen.bytes_done == seen.bytes_total - 1400
    assert sorted((file.relative_path, file.bytes_done, file.bytes_total) for file in seen.files_in_flight) == [
        ("features/b.arrow", 600, 1000), ("features/c.arrow", 0, 1000),
    ]  # fmt: skip
    wait = seen.wait
    assert isinstance(wait, sync.Wait) and (wait.endpoint, wait.reason) == ("/data/files/features/c.arrow", "http_503")
    assert began <= seen.started_at <= wait.since < wait.next_try_at and seen.bytes_per_second >= 0
    assert manager.health().waiting_for is not None and pickle.loads(pickle.dumps(seen)) == seen
    called = time.process_time()
    for _ in range(10_000):
        manager.progress()
    assert time.process_time() - called < 2
    server.answers.clear()
    released.set()
    syncing.result()
    assert manager.progress() is None and manager.health().waiting_for is None


def test_done_is_never_more_than_total(manager: sync.SyncManager, server: Any, begin: Any) -> None:
    for index in range(150):
        server.add(f"features/{index}.arrow", b"x" * 100)
    syncing, seen = begin(manager), list[sync.Progress]()
    while not syncing.done():
        seen += filter(None, [manager.progress()])
    assert all(each.files_done <= each.files_total and each.bytes_done <= each.bytes_total for each in seen)
    assert any(0 < each.files_done < 150 for each in seen)


def test_who_holds_the_directory(manager: sync.SyncManager, program: Any, begin: Any) -> None:
    holder = program(LOCK_HOLDER, manager._flock_path, "x" * 100_000)
    holder.wait_for("held")
    syncing = begin(manager)
    seen = shown(manager, lambda each: each.wait)
    assert seen.phase == "waiting" and isinstance(seen.wait, sync.LockWait)
    assert seen.wait.pid == holder.process.pid and "fcntl.flock" in str(seen.wait.command) and len(str(seen.wait.command)) == 4096
    assert manager.health().waiting_for == seen.wait
    holder.finish()
    syncing.result()


FORKING = "import fcntl, os, sys; fcntl.flock(os.open(sys.argv[1], os.O_RDONLY), fcntl.LOCK_EX); os.fork() and os._exit(0); sys.stdin.read()"


def test_process_that_has_ended_is_not_named(tmp_path: pathlib.Path) -> None:
    with subprocess.Popen([sys.executable, "-c", FORKING, tmp_path], stdin=subprocess.PIPE) as taker:
        taker.wait()
        assert sync.lock_holder(tmp_path) == sync.LockHolder(None, None)  # but its child, which has the lock now, is there


def test_health_tells_how_it_went(manager: sync.SyncManager, server: Any) -> None:
    new = manager.health()
    assert new == sync.Health(False, False, None, None, None, None, None, None, None, 0, ())
    manager.sync()
    good = manager.health()
    assert (good.era_number, good.version, good.last_error) == (7, 1, None) and time.time() - 60 < good.last_good_pass_at <= time.time()
    for fail, clears in ((manager.sync, True), (lambda: manager.trigger_era_transition(9), False)):
        server.answers = {path: (404, b"") for path in ("/data/manifest", "/data/manifest/version", "/era/current")}
        with pytest.raises(sync.SyncError) as caught:
            fail()
        bad = manager.health()
        assert bad.last_error == f"{type(caught.value).__name__}: {caught.value}" and bad.last_error_at >= good.last_good_pass_at
        server.answers.clear()
        assert not manager.needs_sync()
        assert (manager.health().last_error is None) == clears, "nothing to do for a pass says nothing of the next era"
        assert manager.health().last_good_pass_at > bad.last_good_pass_at and pickle.loads(pickle.dumps(bad)) == bad


def contents(directory: pathlib.Path) -> dict[str, bytes]:
    return {str(path.relative_to(directory)): path.read_bytes() for path in directory.rglob("*") if path.is_file()}


@pytest.mark.parametrize("change", ["nothing", "version", "damage", "rotation", "era"])
def test_a_plan_is_what_then_happens(manager: sync.SyncManager, server: Any, change: str) -> None:
    directory = pathlib.Path(manager._data_dir)
    a, b, c, d = (f"features/us/signal_is/{name}.arrow" for name in "abcd")
    for path in (a, b, c, "models/m"):
        server.add(path, b"%10d" % len(path), "feature" if path.startswith("features") else "model")
    manager.sync()
    if change in ("version", "era"):
        server.version, server.era_number = " 2 ", 7 + (change == "era")
        server.answers["/era/current"] = (200, b'{"era_number": 8, "state": "active"}')
        del server.entries[b], server.entries["models/m"]
        server.add(a, b"other bytes")
        server.add(d, b"new")
        (directory / "features/stranger.arrow").touch()
        if change == "era":  # the same file in another spelling, and features that this era keeps
            server.entries[c.replace("us", "./us")] = server.entries.pop(c)
            manager._prefetched_feature_era_id, manager._prefetched_feature_relative_paths = 7, {a}
    elif change == "damage":
        (directory / c).write_bytes(b"x" * 10)
        (directory / "named_universes/us/vocabulary.json").unlink()
    elif change == "rotation":
        (directory / "feature-rotation-settings.json").write_text(json.dumps({"feature_budget_gb": 20 / 2**30}))
        os.utime(sync.feature_rotation_state_path(directory), (0, 0))
    before, asked, prefetched = contents(directory), len(server.requests), manager._prefetched_feature_relative_paths
    plan = manager.plan()
    assert contents(directory) == before and manager._prefetched_feature_relative_paths == prefetched
    assert [path for path, _ in server.requests[asked:]] == ["/data/manifest"]
    manager.trigger_era_transition(8) if change == "era" else manager.sync()
    fetched = {path for path, _ in server.requests[asked:] if path.startswith("/data/files/")}
    assert fetched == {f"/data/files/{path}" for path in plan.fetch}
    assert before.keys() - contents(directory).keys() == set(plan.remove)
    assert plan.fetch_bytes == sum((directory / path).stat().st_size for path in plan.fetch) == sum(plan.fetch.values()) and plan.fits
    assert (plan.era_number, plan.version, plan.is_transition) == (server.era_number, int(server.version), change == "era")
    assert plan.keep == ((a,) if change == "version" else ())
    assert bool(plan.fetch) == (change not in ("nothing", "rotation")) and bool(plan.remove) == (change in ("version", "rotation", "era"))


@pytest.mark.parametrize("ends", [True, False])
def test_a_stop_ends_waits_where_it_is_to(
    manager: sync.SyncManager, server: Any, records: pytest.LogCaptureFixture, wait_until: Callable[..., None], ends: bool
) -> None:
    assert manager.stop_ends_waits is False
    manager.stop_ends_waits = ends
    server.answers = {path: AWAY for path in ("/data/manifest/version", "/era/current")}
    manager.acquire()
    wait_until(lambda: len([path for path, _ in server.requests if path in server.answers]) >= 4)
    health = manager.health()
    assert health.running and health.waiting_for and set(health.threads) == {"bf-poll", "bf-era"} and manager.progress() is None
    releasing = threading.Thread(target=manager.release)
    releasing.start()
    releasing.join(2 if ends else 0.5)
    assert releasing.is_alive() is not ends
    server.answers.clear()
    releasing.join()
    assert [record.getMessage() for record in records.records if record.levelno >= logging.WARNING] == []
    assert manager.health().threads == () and manager.health().last_error is None and not manager.is_alive()
