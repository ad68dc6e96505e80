"""Consumers, threads, requests and callbacks, as a host sees them."""

import gc
import logging
import pathlib
import sys
import threading
import types
import weakref
from collections.abc import Callable, Iterator
from typing import Any

import brackenfen.sync as sync
import pytest


@pytest.fixture
def running(manager: sync.SyncManager, server: Any) -> Iterator[sync.SyncManager]:
    server.add("found_signals/pool/one/signal_is/pnl.arrow", b"pnl", "found_signal_is_pnl")
    manager.acquire()
    yield manager
    manager.stop()


def test_requests_of_the_host_and_the_threads_behind_them(running: sync.SyncManager, server: Any) -> None:
    path = f"{running._data_dir}/found_signals/pool/one/signal_is/pnl.arrow"
    assert running.request_for_sync() == [path] == running._get_found_file_paths()
    landed = threading.Event()
    running.runtime_freshness_guard = types.SimpleNamespace(record_sync_update=lambda **_: landed.set())
    pathlib.Path(path).write_bytes(b"bad")
    running.report_corruption(file_path="found_signals/pool/one/signal_is/pnl.arrow")
    assert landed.wait(20) and pathlib.Path(path).read_bytes() == b"pnl"
    with pytest.raises(ValueError, match="^File not in manifest: x$"):
        running.report_corruption("x")
    sync_thread, era_thread = running._sync_thread, running._era_thread
    assert sync_thread.is_alive() and running.is_alive() and running.consumer_count() == 1 and running._era_thread is era_thread
    assert (era_thread.is_alive(), era_thread._server_url, era_thread._poll_interval, era_thread._started) == (True, server.url, 5.0, True)
    running.release()
    assert not sync_thread.is_alive() and not era_thread.is_alive() and running._data_dir not in sync.SyncManager._instances
    assert (running._sync_thread, running._era_thread, running._running) == (None, None, False)


class Worker:
    def __init__(self) -> None:
        self.seen: list[tuple[str, int, str]] = []

    def on_era(self, event_type: str, era_number: int) -> None:
        self.seen.append((event_type, era_number, threading.current_thread().name))


def test_era_callbacks(manager: sync.SyncManager, records: pytest.LogCaptureFixture) -> None:
    worker = Worker()
    failure: BaseException = KeyError("no")

    def fails(*_: object) -> None:
        raise failure

    def leaves(*_: object) -> None:
        manager.unregister_era_callback(leaves)
        manager.register_era_callback(lambda *_: worker.seen.append(("late", 0, "")))
        worker.seen.append(("left", 0, ""))

    for callback in (worker.on_era, fails, leaves, worker.on_era):
        manager.register_era_callback(callback)
    manager._kill_fn()
    manager._manifest = sync.Manifest({"era_number": 7})
    manager.unregister_era_callback(callback=worker.on_era)  # another object, but an equal one
    manager.unregister_era_callback(print)
    manager._restart_fn()
    here = threading.current_thread().name
    assert worker.seen == [("kill", 0, here), ("left", 0, ""), ("kill", 0, here), ("restart", 7, here), ("late", 0, "")]
    first, _ = [record for record in records.records if record.levelno == logging.WARNING]
    assert first.msg == "Era callback failed (%s): %s" and first.args == (fails, failure)
    assert first.exc_info is not None and first.exc_info[1] is failure
    for failure in (KeyboardInterrupt(), SystemExit()):  # an interrupt is no failure
        manager.register_era_callback(lambda *_: pytest.fail("called after an interrupt"))
        with pytest.raises(type(failure)):
            manager._kill_fn()


def test_two_removals_at_once_remove_two_equal_callbacks(manager: sync.SyncManager) -> None:
    class Equal:
        """Equal to all of its kind; a comparison lets the other removal go first, once."""

        others, told = [None], []  # type: ignore[var-annotated]

        def __call__(self, *_: object) -> None:
            self.told.append(self)

        def __eq__(self, other: object) -> bool:
            if self.others and self.others.pop() is None:
                manager.unregister_era_callback(Equal())
            return True

    for _ in range(2):
        manager.register_era_callback(Equal())
    manager.unregister_era_callback(Equal())
    manager._notify_era_callbacks("kill", 1)
    assert Equal.told == []


def test_what_ends_a_background_thread_is_told_and_a_logger_that_fails_ends_none(
    manager: sync.SyncManager, server: Any, monkeypatch: pytest.MonkeyPatch, wait_until: Callable[..., None]
) -> None:
    told: list[Any] = []
    monkeypatch.setattr(threading, "excepthook", told.append)

    def token() -> str:
        if threading.current_thread().name == "bf-poll":
            raise KeyboardInterrupt
        return "t"

    manager._get_token = token
    manager.start()
    wait_until(lambda: told and not manager.is_alive())
    assert told[0].exc_type is KeyboardInterrupt and told[0].thread.name == "bf-poll"
    manager.stop()

    told.clear()
    monkeypatch.setattr(sys, "unraisablehook", told.append)
    monkeypatch.setattr(logging.getLogger("brackenfen.sync"), "filters", [lambda _: 1 / 0])
    server.answers["/data/manifest"] = (404, b"")  # so that each round is a warning
    manager._get_token, manager._poll_interval = str, 0.01
    manager.start()
    wait_until(lambda: len(told) > 1)
    assert manager.is_alive() and told[0].exc_type is ZeroDivisionError
    with pytest.raises(ZeroDivisionError):
        sync._log_sync_event("checksum_repair_exhausted", "f", 1, "")
    manager.stop()


def test_a_second_start_is_told_in_the_hosts_style_and_takes_over(
    running: sync.SyncManager, neighbour: Callable[..., Any], records: pytest.LogCaptureFixture, wait_until: Callable[..., None]
) -> None:
    first = running._sync_thread
    running._start_internal()
    assert [record.getMessage()[:31] for record in records.records if record.levelno == logging.ERROR] == ["Era synchronization: sync/state"]
    told: list[tuple[tuple[Any, ...], dict[str, Any]]] = []
    neighbour("logging_style", log_library_surface_event=lambda *arguments, **named: told.append((arguments, named)))
    running._start_internal()
    [(arguments, named)] = told
    assert arguments == ("Era synchronization", "error") and named.pop("source_line") > 0
    assert named == {
        "sub_service": "sync", "component": "state", "metadata": {"reason": "era_thread_start_state"},
        "source_function": "_start_internal", "source_file": "sync/lifecycle/consumers.cpp",
    }  # fmt: skip
    assert running.is_alive()
    running.stop()
    wait_until(lambda: not first.is_alive())


def test_an_era_thread_of_the_hosts_own(server: Any) -> None:
    with pytest.raises(ValueError):
        sync.EraThread("http://example.com", None, None)
    manager = types.SimpleNamespace(_manifest=types.SimpleNamespace(era_number=2**70), trigger_era_transition=None)
    watcher = sync.EraThread(server_url=server.url, get_token=str, sync_manager=manager, era_poll_interval_s=7)
    assert (watcher._poll_interval, watcher._last_known_era_id, watcher._started, watcher.is_alive()) == (7, None, False, False)
    watcher.stop()
    watcher.start()
    assert watcher.is_alive() and watcher._last_known_era_id == 2**70
    with pytest.raises(sync.StateError, match="^EraThread already started$"):
        watcher.start()
    watcher.stop()
    assert not watcher.is_alive() and not watcher._started
    for name, value in {"_in_closing": True, "_transition_failed": True, "_last_transition_error": "closing: x", "_last_known_state": "a"}.items():
        assert not getattr(watcher, name)
        setattr(watcher, name, value)
        assert getattr(watcher, name) == value


class Holder:
    """Refers back to what refers to it."""

    owner: Any

    def __call__(self, *_: object) -> str:
        return "t"

    def record_sync_update(self, **_: str) -> None: ...


@pytest.mark.parametrize(
    "own",
    [
        lambda manager, holder: setattr(manager, "_get_token", holder),
        lambda manager, holder: setattr(manager, "runtime_freshness_guard", holder),
        lambda manager, holder: setattr(manager, "_active_rotation_state", holder),
        lambda manager, holder: manager.register_era_callback(holder),
        lambda manager, holder: manager.register_rotation_search_consumer(holder),
        lambda manager, holder: sync.EraThread(manager._server_url, holder, holder, 1, holder, holder),
    ],
    ids=["token", "guard", "state", "callback", "search", "watcher"],
)
def test_no_cycle_through_the_host_survives(tmp_path: pathlib.Path, own: Callable[..., Any]) -> None:
    manager, holder = sync.SyncManager.get_or_create(tmp_path, "http://127.0.0.1:1", str), Holder()
    holder.owner = own(manager, holder) or manager
    gone = weakref.ref(holder), weakref.ref(holder.owner)
    del manager
    gc.collect()
    assert holder in gc.get_referents(holder.owner), "what is still in use stays"
    del holder
    gc.collect()
    assert [reference() for reference in gone] == [None, None]
    assert str(tmp_path) not in sync.SyncManager._instances


def test_a_kept_back_off_context_goes_with_its_host() -> None:
    holder = Holder()
    holder.owner = sync.backoff_context(stop_requested=holder)
    gone = weakref.ref(holder)
    del holder
    gc.collect()
    assert gone() is None


@pytest.mark.parametrize(("begin", "end", "is_held_by_its_host"), [("acquire", "release", True), ("acquire", "release", False), ("start", "stop", False)])
def test_a_running_manager_outlives_its_last_reference_and_a_stopped_one_does_not(
    tmp_path: pathlib.Path, server: Any, begin: str, end: str, is_held_by_its_host: bool
) -> None:
    holder = Holder()
    manager = sync.SyncManager.get_or_create(tmp_path, server.url, holder)
    if is_held_by_its_host:
        holder.owner = manager
    getattr(manager, begin)()
    gone, running = weakref.ref(holder), weakref.ref(manager)
    del holder, manager
    gc.collect()
    manager = running()
    assert manager is not None and manager is sync.SyncManager._instances[str(tmp_path)]
    assert manager.is_alive() and manager._get_token() == "t" and gone() is not None
    getattr(manager, end)()
    del manager
    gc.collect()
    assert gone() is None and running() is None
