"""Eras as a host sees them: the neighbours that a transition talks to, forks on the way, and duck-typed managers."""

import json
import logging
import sys
import types
from collections.abc import Callable
from typing import Any

import brackenfen.sync as sync
import pytest

Install = Callable[..., types.ModuleType]


# ---- one transition, with the host's neighbours -----------------------------------------------------------------


@pytest.fixture
def publish(server: Any) -> Callable[..., None]:
    """publish(era): the server's data are of that era, and it is the current one."""

    def enter(era: int, **era_fields: Any) -> None:
        server.era_number = server.version = era
        server.add("features/us/signal_is/a.arrow", b"of era %d" % era)
        server.answers["/era/current"] = (200, json.dumps({"era_number": era, "state": "active", **era_fields}).encode())

    return enter


@pytest.fixture
def settled(manager: sync.SyncManager, publish: Callable[..., None]) -> sync.SyncManager:
    """A manager in era 7, whose server is in era 8."""
    publish(7)
    manager.sync()
    publish(8)
    return manager


Update = types.SimpleNamespace


class Required(Exception):
    pass


HOW = "Build a local wheel with build_wheel() and install it with: pip install --upgrade /path/to/brackenfen-*.whl"
NEEDED = "brackenfen >= 2.0 required for era 8"


@pytest.mark.parametrize(("below", "newer", "update", "failure", "warning"), [
    (False, "3.0", Update(success=False), None, "Auto-update failed: Could not auto-update to latest."),
    (False, "3.0", ValueError("broken"), None, "Auto-update failed: broken"),
    (False, "3.0", Required("at once"), "at once", None),
    (True, None, None, f"{NEEDED}. {HOW}", None),
    (True, ConnectionError("cache away"), None, f"{NEEDED}. {HOW}", "Could not check local wheel cache for library update: cache away"),
    (True, RuntimeError("bad cache"), None, "bad cache", None),
    (True, "3.0", Update(success=True), None, None),
    (True, "3.0", None, None, None),  # a result without `success` counts as one
    (True, "3.0", Update(success=0, warning="no wheel"), f"{NEEDED}; auto-update failed: no wheel. {HOW}", "Auto-update failed: no wheel"),
    (True, "3.0", OSError("no room"), f"{NEEDED}; auto-update failed: no room. {HOW}", "Auto-update failed: no room"),
    (Required("odd"), None, None, "odd", None),
    (ValueError("odd"), None, None, None, "Invalid min_library_version from era config: 2.0"),
])  # fmt: skip
def test_the_library_must_be_new_enough(settled: sync.SyncManager, publish: Any, neighbour: Install, records: pytest.LogCaptureFixture,
                                        below: Any, newer: Any, update: Any, failure: Any, warning: Any) -> None:  # fmt: skip
    def answer(value: Any) -> Any:
        if isinstance(value, Exception):
            raise value
        return value

    updated: list[Any] = []
    neighbour(
        "deployment",
        _CURRENT_VERSION="1.0",
        LibraryUpdateRequired=Required,
        check_update=lambda current: answer(newer),
        _compare_versions=lambda a, b: -0.5 if answer(below) else 7,
        auto_update=lambda minimum: updated.append(minimum) or answer(update),
    )
    assert sync.LibraryUpdateRequired is Required
    publish(8, min_library_version="2.0")
    if failure is None:
        settled.trigger_era_transition(8)
    else:
        with pytest.raises((Required, RuntimeError)) as caught:
            settled.trigger_era_transition(new_era_id=8, kill_searches_fn=None, restart_searches_fn=None)
        assert str(caught.value) == failure and caught.value in (below, newer, update, caught.value)
    manifest = settled.get_manifest()
    assert manifest and manifest.era_number == (7 if failure else 8)
    assert updated == (["2.0"] if isinstance(newer, str) else [])
    assert [record.getMessage() for record in records.records if record.levelno == logging.WARNING] == ([warning] if warning else [])


class Tracker:
    made: list[tuple[Any, ...]] = []

    def __init__(self, data_dir: str, **identity: Any) -> None:
        self.made.append((data_dir, identity))

    def handle_era_transition(self, new_era_id: int, previous_era_id: int | None) -> None:
        self.made.append((new_era_id, previous_era_id))

    def close(self) -> None:
        self.made.append(("closed",))


class Anonymous(Tracker):
    def __init__(self, data_dir: str) -> None:  # knows no identity
        super().__init__(data_dir)


@pytest.mark.parametrize(("tracker", "identity", "expected"), [
    (Tracker, {"resolve_identity_for_data_dir": lambda data_dir: "alice"}, {"identity": "alice"}),
    (Tracker, {"resolve_identity_for_data_dir": lambda data_dir: 1 / 0}, {"identity": None}),
    (Tracker, {}, {}),  # a module without the operation
    (Anonymous, {"resolve_identity_for_data_dir": lambda data_dir: "alice"}, {}),
])  # fmt: skip
def test_tracker_and_auth_hear_of_a_new_era(
    settled: sync.SyncManager, neighbour: Install, records: pytest.LogCaptureFixture, tracker: Any, identity: dict[str, Any], expected: Any
) -> None:
    Tracker.made = []
    told: list[Any] = []
    neighbour("search_tracking", SearchTracker=tracker)
    neighbour("identity", **identity)
    neighbour("auth", AuthError=sync.AuthError, notify_era_change=lambda era: told.append(era) or 1 / 0)
    settled.trigger_era_transition(8)
    assert Tracker.made == [(settled._data_dir, expected), (8, 7), ("closed",)]
    assert told == [8] and "Failed to notify auth about era change: division by zero" in records.messages


def test_a_tracker_that_fails(settled: sync.SyncManager, neighbour: Install) -> None:
    class Failing(Tracker):
        def handle_era_transition(self, new_era_id: int, previous_era_id: int | None) -> None:
            raise KeyError("tracker")

    neighbour("search_tracking", SearchTracker=Failing)
    restarted: list[int] = []
    with pytest.raises(KeyError):
        settled.trigger_era_transition(8, restart_searches_fn=lambda: restarted.append(1))
    assert settled._manifest.era_number == 8 and restarted == [] and Tracker.made[-1] == ("closed",)


def test_neighbours_that_cannot_be_loaded_stop_a_transition_before_it_begins(settled: sync.SyncManager, server: Any, monkeypatch: Any) -> None:
    class Broken:
        def find_spec(self, name: str, *_: object) -> None:
            if name == "brackenfen.search_tracking":
                raise ImportError("half installed")

    monkeypatch.setattr(sys, "meta_path", [Broken(), *sys.meta_path])
    asked, killed = len(server.requests), []
    with pytest.raises(ImportError, match="half installed"):
        settled.trigger_era_transition(8, lambda: killed.append(1))
    assert (len(server.requests), killed, settled._in_transition) == (asked, [], False)


# ---- the watcher ------------------------------------------------------------------------------------------------


def test_a_watcher_takes_any_manager(server: Any, publish: Any, neighbour: Install, records: pytest.LogCaptureFixture) -> None:
    class Manager:
        _manifest = types.SimpleNamespace(era_number=7)
        seen: list[Any] = []

        def trigger_era_transition(self, new_era_id: Any, kill_searches_fn: Any, restart_searches_fn: Any) -> None:
            self.seen.append((new_era_id, kill_searches_fn, restart_searches_fn))
            if len(self.seen) == 1:
                raise OSError("first time")

    nudges: list[Any] = []

    def update_nudge(reason: str, **eras: int) -> None:
        nudges.append((reason, eras))
        raise ValueError("nobody home")

    neighbour("agent_onboarding", update_nudge=update_nudge)
    publish(8)
    kill, restart = (lambda: None), (lambda: None)
    watcher = sync.EraThread(server.url, lambda: server.token, Manager(), kill_searches_fn=kill, restart_searches_fn=restart)  # type: ignore[arg-type]
    watcher._last_known_era_id, watcher._in_closing = 7, True
    watcher._poll_once()
    assert (watcher._transition_failed, watcher._last_transition_error, watcher._last_known_era_id) == (True, "new era: first time", 7)
    assert not watcher._in_closing and "Trigger era transition (new era) failed: first time" in records.messages
    watcher._poll_once()
    watcher._poll_once()
    assert Manager.seen == [(8, kill, restart)] * 2 and (watcher._transition_failed, watcher._last_known_era_id) == (False, 8)
    assert nudges == [("era_change", {"new_era_id": 8, "previous_era_id": 7})] and "update_nudge call failed: nobody home" in records.messages
    watcher._mark_transition_failed("by hand", ValueError("x"))
    assert watcher._last_transition_error == "by hand: x"
    watcher._clear_transition_failed()
    assert watcher._last_transition_error is None
