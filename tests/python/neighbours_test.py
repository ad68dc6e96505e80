"""The host's modules in the place of the built-in ones, back-off contexts, and the log."""

import asyncio
import enum
import itertools
import json
import logging
import sys
import threading
import time
import types
import unittest.mock
from collections.abc import Callable, Iterator, Mapping
from contextlib import contextmanager
from typing import Any

import brackenfen.sync as sync
import pytest

Install = Callable[..., types.ModuleType]


EPOCHS = enum.Enum("EpochName", {"SIGNAL_IS": "sig", "STRATEGY_IS": "strat", "SIGNAL_OS": "out"})


def test_era_config_and_rules_of_the_host(neighbour: Install) -> None:
    assert sync._feature_epoch_for_expression_type("SIGNAL") == "signal_is"
    neighbour("era_config", EpochName=EPOCHS)
    assert sync._feature_epoch_for_expression_type("STRATEGY") == "strat"
    assert sync._agent_signal_group_key("useful_signals/a/b/out/f", "useful_signals/") == "useful_signals/a/b"

    seen: list[Any] = []
    neighbour("_artifact_rotation", manifest_file_kind=lambda info: seen.append(info) or "odd_module",
              vocabulary_named_universe_from_path=lambda path: path.partition("/")[0] or None)  # fmt: skip
    neighbour("runtime_module_freshness", RUNTIME_MODULE_KIND_SUFFIX="_module", is_runtime_module_kind=lambda kind: kind != "odd_module")
    assert sync._drop_unsupported_runtime_module_files({"files": {"a": {"kind": "feature"}}}) == {"files": {}}
    assert seen == [{"kind": "feature"}]
    assert sync._vocabulary_named_universe_from_path("u/x") == "u"


def test_errors_of_the_hosts_auth(neighbour: Install, manager: sync.SyncManager, server: Any) -> None:
    class AuthError(Exception):
        pass

    builtin = sync.AuthError
    neighbour("auth", AuthError=AuthError)
    assert sync.AuthError is AuthError is not builtin
    server.answers["/data/manifest/version"] = (401, b"")
    with pytest.raises(AuthError, match="^Authentication failed: HTTP 401$"):
        manager.sync()
    assert [path for path, _ in server.requests] == ["/data/manifest/version"]  # it is no failure of the hint that the pass gets over
    neighbour("auth", AuthError=lambda text: ValueError(text))
    with pytest.raises(TypeError, match="AuthError must be an exception class"):
        manager.sync()


def test_which_failures_of_an_import_count_as_absent(monkeypatch: pytest.MonkeyPatch, neighbour: Install) -> None:
    asked: list[Exception] = []

    class Finder:
        def find_spec(self, name: str, *_: object) -> None:
            if name == "brackenfen.era_config":
                asked.append(failure)
                raise failure

    for _ in range(2):  # each answer forgets the one before
        monkeypatch.setitem(sys.modules, "brackenfen.era_config", None)
        assert sync._feature_epoch_for_expression_type("x") == "signal_is"
        neighbour("era_config", EpochName=EPOCHS)
        assert sync._feature_epoch_for_expression_type("x") == "sig"
    monkeypatch.delitem(sys.modules, "brackenfen.era_config")
    monkeypatch.setattr(sys, "meta_path", [Finder(), *sys.meta_path])
    failure: Exception
    for failure in (ImportError("broken"), ModuleNotFoundError("No module named 'numpy'", name="numpy"), RuntimeError("at import")):
        with pytest.raises(type(failure)) as caught:
            sync._feature_epoch_for_expression_type("x")
        assert caught.value is failure
    asked.clear()
    failure = ModuleNotFoundError("gone", name="brackenfen.era_config")
    assert {sync._feature_epoch_for_expression_type("x") for _ in range(3)} == {"signal_is"} and len(asked) == 1


def test_a_neighbour_is_looked_up_once_per_operation(neighbour: Install) -> None:
    looked: list[str] = []
    module = neighbour("runtime_module_freshness")
    module.__class__ = type("Module", (types.ModuleType,), {"__getattr__": lambda _, name: looked.append(name) or {"RUNTIME_MODULE_KIND_SUFFIX": "_module"}[name]})  # type: ignore[assignment]
    sync._sanitize_manifest_data_for_sync({"files": {str(number): {"kind": "feature"} for number in range(1000)}})
    assert looked == ["RUNTIME_MODULE_KIND_SUFFIX"]


def backoff_module() -> dict[str, Any]:
    """A provider that records, never sleeps, and keeps its context in a list."""
    current: list[dict[str, Any]] = [{}]

    @contextmanager
    def backoff_context(**fields: Any) -> Iterator[None]:
        current.append(fields)
        yield
        current.pop()

    class Policy:
        slept: list[tuple[float, bool]] = []
        kept: list[Callable[[], bool]] = []

        def delay_seconds(self, attempt_index: int) -> float:
            return attempt_index + 0.5

        def sleep(self, wait_seconds: float, *, sleep: Any, stop_requested: Any) -> bool:
            sleep(0.0)
            self.slept.append((wait_seconds, stop_requested()))
            self.kept += [stop_requested, lambda: sleep(0.0)]
            return not stop_requested()

    class Cancelled(Exception):
        pass

    return dict(
        SyncBackoffPolicy=Policy, SyncBackoffCancelled=Cancelled, backoff_context=backoff_context, current_context=lambda: current[-1],
        sync_backoff_event_fields=lambda **given: {"event_type": "sync_backoff_wait", **given, "host": True},
    )  # fmt: skip


def test_backoff_of_the_host_at_every_use(neighbour: Install, monkeypatch: pytest.MonkeyPatch, tmp_path: Any) -> None:
    builtin = sync._sync_backoff_module()
    assert builtin.SyncBackoffPolicy().delay_seconds(3) == pytest.approx(4, rel=0.21)
    module = neighbour("sync_backoff", **backoff_module())
    assert sync._sync_backoff_module() is module and sync.SyncBackoffCancelled is module.SyncBackoffCancelled
    assert sync._backoff_delay_seconds(2) == 2.5
    stop = threading.Event()
    with module.backoff_context(data_dir=tmp_path, surface="mine", stop_requested=stop.is_set, more=1):
        context = sync.current_context()
        assert context == {"data_dir": tmp_path, "surface": "mine", "stop_requested": stop.is_set, "more": 1}
        assert sync._current_sync_backoff_context() == context and sync._sync_backoff_surface("d") == "mine"
        event = sync._emit_sync_backoff_wait("d", 0, "http_503", None, 1.5)
        assert event == {"event_type": "sync_backoff_wait", "surface": "mine", "attempt": 1, "wait_seconds": 1.5, "reason": "http_503", "file_path": "", "host": True}
        assert '"surface": "mine"' in (tmp_path / "sync-progress.json").read_text()
        sync._sleep_for_sync_backoff(1.5)
        stop.set()
        with pytest.raises(module.SyncBackoffCancelled):
            sync._sleep_for_sync_backoff(2.5)
        module.SyncBackoffCancelled = int
        with pytest.raises(TypeError, match="an exception was expected"):
            sync._sleep_for_sync_backoff(2.5)
    assert module.SyncBackoffPolicy.slept == [(1.5, False), (2.5, True), (2.5, True)]
    assert not any(called() for called in module.SyncBackoffPolicy.kept)  # the waits are over
    module.current_context = lambda: {"data_dir": 5, "surface": types.SimpleNamespace(__str__=None), "stop_requested": stop.is_set}
    assert sync._sync_backoff_stop_requested()  # whatever else of the context cannot be used
    monkeypatch.delitem(sys.modules, "brackenfen.sync_backoff")
    assert sync._sync_backoff_module() is builtin  # the one bound first


def test_backoff_of_a_host_that_hands_on_to_the_built_in_one(neighbour: Install) -> None:
    builtin = sync._sync_backoff_module()

    @contextmanager
    def wrapped(**fields: Any) -> Iterator[Any]:
        with sync.backoff_context(**fields) as given:
            yield given

    for context in (builtin.backoff_context, sync.backoff_context, lambda **fields: sync.backoff_context(**fields), wrapped):
        neighbour("sync_backoff", **{**vars(builtin), "backoff_context": context, "current_context": sync.current_context})
        with sync.backoff_context(surface="mine"):
            assert sync.current_context() == {"surface": "mine"} == sync._current_sync_backoff_context()
        assert sync.current_context() == {}


def test_builtin_backoff_context() -> None:
    calls: list[int] = []
    other: list[dict[str, Any]] = []
    broken = lambda: 1 / 0  # noqa: E731
    with sync.backoff_context(surface="a", stop_requested=broken):
        thread = threading.Thread(target=lambda: other.append(sync.current_context()))
        thread.start()
        thread.join()
        assert not sync._sync_backoff_stop_requested()  # one that fails stops nothing
        sync._sleep_for_sync_backoff(0.01)
        with sync.backoff_context(stop_requested=lambda: bool(calls.append(1)) or len(calls) > 2):
            with pytest.raises(sync.SyncBackoffCancelled):
                sync._sleep_for_sync_backoff(60)
            assert (sync.current_context()["surface"], sync._sync_backoff_surface("d")) == ("a", "a")  # as in the scope around it
            with sync.backoff_context(surface="b", stop_requested=None), pytest.raises(sync.SyncBackoffCancelled):
                assert sync.current_context()["surface"] == "b"
                sync._sleep_for_sync_backoff(60)
        assert sync.current_context()["stop_requested"] is broken
    assert other == [{}] == [sync.current_context()] and len(calls) == 4
    with pytest.raises(KeyError), sync.backoff_context(surface="b"):
        raise KeyError
    assert sync._current_sync_backoff_context() == {}
    for wrong in ({"host": 1}, {"data_dir": 1}, {"surface": 1}, {"stop_requested": 1}):
        with pytest.raises(TypeError, match=next(iter(wrong))):
            sync.backoff_context(**wrong)


def test_a_context_ends_on_whichever_thread_leaves_it() -> None:
    def elsewhere(action: Callable[[], object]) -> Any:
        """The surface of this thread once another one has done that."""
        thread = threading.Thread(target=action)
        thread.start()
        thread.join()
        return sync.current_context().get("surface")

    def entering(*surfaces: str) -> Iterator[None]:
        for each in surfaces:
            with sync.backoff_context(surface=each, stop_requested=lambda: 1 / 0):
                yield

    outer, inner = entering("outer", "second"), entering("inner")
    next(outer), next(inner)
    assert elsewhere(outer.close) == "inner"
    assert elsewhere(inner.close) is None
    shared = sync.backoff_context(surface="shared")
    with shared:
        assert elsewhere(lambda: shared.__enter__()) == "shared"
    assert sync.current_context() == {}
    shared.__exit__(None, None, None)  # what the other thread has left behind


def test_a_context_goes_along_with_a_copy_of_the_hosts() -> None:
    left = threading.Event()

    def late() -> Any:
        left.wait()
        return sync.current_context(), sync._sync_backoff_stop_requested()

    async def main() -> None:
        with sync.backoff_context(surface="outer", stop_requested=left.is_set):
            with sync.backoff_context(surface="inner"):
                running = asyncio.create_task(asyncio.to_thread(late))
                await asyncio.sleep(0)
                with sync.backoff_context(data_dir="/d"):
                    inner = await asyncio.to_thread(sync._current_sync_backoff_context)
            outer = await asyncio.to_thread(sync.current_context)
        none = await asyncio.to_thread(sync.current_context)
        left.set()
        seen = [fields.get("surface") for fields in (inner, outer, none)]
        assert seen == ["inner", "outer", None] and inner["data_dir"] == "/d"
        assert await running == ({"surface": "inner", "stop_requested": left.is_set}, True)  # left while the work goes on

    asyncio.run(main())


def test_events_in_the_log(records: pytest.LogCaptureFixture, monkeypatch: pytest.MonkeyPatch, manager: sync.SyncManager) -> None:
    sync._log_sync_event("range_resume", "f", " 2 ", None, bytes_existing=5, nothing=None, note="\udcff", retryable=False)
    sync._log_sync_event("x", "", "abc", "", next_action="Action: contact_brackenfen")
    first, second = records.records
    assert (first.name, first.levelno, first.msg) == ("brackenfen.sync", logging.INFO, "brackenfen_sync_event %s")
    event = {"event_type": "range_resume", "file": "f", "count": 2, "reason": "", "bytes_existing": 5, "note": "\udcff", "retryable": False}
    assert first.brackenfen_sync_event == event and list(event) == list(first.brackenfen_sync_event)  # type: ignore[attr-defined]
    assert first.args == (json.dumps(event, sort_keys=True),)
    assert second.levelno == logging.WARNING and second.brackenfen_sync_event["count"] == 0  # type: ignore[attr-defined]
    records.set_level(logging.ERROR, logger="brackenfen.sync")
    sync._log_sync_event("checksum_repair_exhausted", "f", 1, "")
    assert len(records.records) == 2
    # In the logger's frame, a signal's handler may raise as well.
    for call in (manager.sync, lambda: sync._log_sync_event("http_retry", "f", 1, "")):
        for error in (KeyboardInterrupt, ZeroDivisionError):
            asked = unittest.mock.Mock(side_effect=itertools.chain([error], itertools.repeat(False)))
            monkeypatch.setattr(logging.getLogger("brackenfen.sync"), "isEnabledFor", asked)
            with pytest.raises(error):
                call()


def test_outages_as_python_sees_them(records: pytest.LogCaptureFixture, neighbour: Install) -> None:
    values = [0, 1]
    sync._append_limited(values, 2, limit=2)
    sync._append_limited(values, 3)
    assert values == [1, 2, 3]

    counts = sync._SYNC_EVENT_COALESCE_COUNTS
    event = {"event_type": "http_retry", "file": "as python sees it", "reason": object}  # no JSON: counted, never logged
    key = sync._sync_event_coalesce_key(event)
    assert key == (("event_type", "'http_retry'"), ("file", "'as python sees it'"), ("reason", str(object))) and key not in counts
    assert [sync._should_emit_sync_event(event) for _ in range(12)] == [True] * 10 + [False] * 2
    assert counts.get(None, 0) == counts.get((key[0], "file"), 0) == 0
    assert counts[key] == 12 == dict(counts)[key] and len(counts) == len(list(counts)) and isinstance(counts, Mapping)

    error = sync._sync_unavailable_from("https://h/p?q", 2, [503], [], {"error_code": "", "error": "X", "retryable": None, "recovery": "later"})
    assert isinstance(error, sync.SyncUnavailableError) and sync._sync_unavailable_has_typed_details(error)
    assert (error.endpoint, error.attempts, error.server_error_code, error.retryable) == ("/p", 2, "X", None)

    asked: list[Any] = []
    details = {"error": "AUTH_X", "dependency": "wallet", "retryable": False}
    assert sync._sync_unavailable_next_action(details).endswith("Action: reauthenticate (sign in again or renew the token).")
    for answer, action in [({"rendered": "do this", "recovery": "r"}, "do this"), ({"rendered": None, "recovery": "r"}, "r"), ({}, "")]:
        neighbour("reason_descriptions", describe_reason=lambda *given, **named: asked.append((given, named)) or answer)  # noqa: B023
        status = sync._emit_sync_unavailable_status("sync_unavailable_status", None, (503,), iter(["TimeoutError"]), details, 0)
        assert (status["endpoint"], status["next_action"], status["status_sequence"]) == ("<unknown>", action, [503])
    assert asked[0] == (("SyncUnavailableError",), {"recovery": "reauthenticate", "error_code": "AUTH_X", "dependency": "wallet", "reason": None})
    assert [record.levelno for record in records.records] == [logging.WARNING] * 3
    neighbour("reason_descriptions", describe_reason=lambda *_, **__: 1 / 0)
    with pytest.raises(ZeroDivisionError):
        sync._sync_unavailable_next_action({})


def test_a_look_at_one_thing_costs_no_more_for_many_others() -> None:
    for number in range(3000):
        sync._should_emit_sync_event({"event_type": "http_retry", "file": f"{number} of many"})
    row = {"relative_path": "a"} | {f"key {number}": 0 for number in range(20_000)}
    manifest = sync.Manifest({"files": {"a": {}}, "artifacts": [row]})
    for look in (lambda: dict(sync._SYNC_EVENT_COALESCE_COUNTS), lambda: sync._rotation_manifest_artifacts(manifest)):
        began = time.process_time()
        assert look() and time.process_time() - began < 1, "some ten milliseconds on a quiet machine"
