"""Within the client's process: a host all of whose callables do as they should, but for one."""

# The names of the library that begin with an underscore stand in no stub.
# mypy: disable-error-code="attr-defined,import-not-found,misc,func-returns-value,assignment"

import gc
import logging
import os
import pathlib
import sys
import threading
import time
import types
import warnings
from collections.abc import Callable
from typing import Any

import brackenfen.sync as sync

sys.path.append(str(pathlib.Path(__file__).parents[1] / "python"))
from rotation_test import HostRotation, HostState, host_plan  # noqa: E402

warnings.simplefilter("ignore", DeprecationWarning)  # of fork in a threaded process
SMALL = "features/us/signal_is/small.arrow"
GO_ON = object()  # after that, the callable does as it should
Call = Callable[["Host", tuple[Any, ...], dict[str, Any]], Any]


class Failure(Exception):
    pass


class Base(BaseException):
    pass


class Speechless(Exception):
    def __str__(self) -> str:
        raise RuntimeError("no text")


def raises(error: BaseException) -> Call:
    def call(host: "Host", *_: Any) -> Any:
        host.failure = error
        raise error

    return call


def returns(value: Any) -> Call:
    return lambda *_: value


def enters(operation: str) -> Call:
    def call(host: "Host", *_: Any) -> Any:
        try:
            OPERATIONS[operation](host)
        except NAMED as error:
            host.inner.append(f"{type(error).__name__}: {error}")
        return GO_ON

    return call


def mutates(host: "Host", arguments: tuple[Any, ...], named: dict[str, Any]) -> Any:
    for value in (*arguments, *named.values(), *host.handed):
        if isinstance(value, dict):
            value.clear()
            value.update({5: object(), "files": value})
        elif isinstance(value, list | set):
            value.clear()
        elif hasattr(value, "__dict__"):
            vars(value).clear()
    return GO_ON


def changes_the_environment(*_: Any) -> Any:
    os.environ.clear()
    os.environ.update({f"NAME_{number}": "x" * number for number in range(500)} | {"BRACKENFEN_SYNC_HTTP_CHUNK_BYTES": "x", "BRACKENFEN_SYNC_MAX_CONCURRENCY": "-5"})
    return GO_ON


def forks(goes_on: bool) -> Call:
    def call(host: "Host", *_: Any) -> Any:
        child = os.fork()
        if child == 0 and not goes_on:
            os._exit(0)
        host.children += [child] * (child != 0)
        return GO_ON

    return call


def begins_threads(host: "Host", *_: Any) -> Any:
    for operation in ("sync", "needs_sync", "add", "acquire"):
        host.threads.append(threading.Thread(target=enters(operation), args=(host,), daemon=True))
        host.threads[-1].start()
    time.sleep(0.05)
    return GO_ON


def drops(host: "Host", *_: Any) -> Any:
    host.manager = None
    sync.SyncManager._instances.clear()
    gc.collect()
    return GO_ON


def sleeps(*_: Any) -> Any:
    time.sleep(0.3)
    return GO_ON


def exits(*_: Any) -> Any:
    os._exit(7)


# By name: how often at most, and what.
BEHAVIOURS: dict[str, tuple[int, Call]] = {
    "raises": (99, raises(Failure("host"))), "raises-speechless": (99, raises(Speechless())),
    "raises-connection": (2, raises(ConnectionResetError(104, "host"))), "raises-os": (2, raises(OSError(28, "host"))),
    "raises-value": (99, raises(ValueError("host"))), "raises-timeout": (2, raises(TimeoutError("host"))),
    "raises-sync": (2, raises(sync.SyncError("host"))), "raises-superseded": (2, raises(sync.ManifestSupersededError("host"))),
    "raises-permanent": (99, raises(sync.PermanentDownloadError("host", "x", 404))), "raises-memory": (1, raises(MemoryError())),
    "raises-stop": (99, raises(StopIteration())), "raises-base": (1, raises(Base("host"))),
    "interrupts": (1, raises(KeyboardInterrupt())), "leaves": (1, raises(SystemExit(7))),
    "raises-generator": (1, raises(GeneratorExit())), "none": (99, returns(None)), "object": (99, returns(object())),
    "number": (99, returns(-5)), "wide": (99, returns(10**400)), "nan": (3, returns(float("nan"))), "text": (99, returns("x")),
    "bytes": (99, returns(b"x")), "list": (99, returns([1, None])), "surrogate": (99, returns("\ud800\0\r\n")),
    "mapping": (99, returns({1: object()})), "class": (99, returns(type)), "blocks": (1, sleeps), "mutates": (99, mutates),
    "environment": (1, changes_the_environment), "forks": (1, forks(False)), "forks-on": (1, forks(True)),
    "threads": (1, begins_threads), "drops": (1, drops), "exits": (1, exits),
} | {f"enters-{name}": (1, enters(name)) for name in ("sync", "repair", "needs_sync", "verify", "transition", "request", "add", "acquire", "stop", "cleanup", "construct", "watch")}  # fmt: skip


class Rotation(HostRotation):
    """Everything is active."""

    def plan_rotation(self, artifacts: tuple[Any, ...], settings: Any, *, previous_state: HostState | None, reason: str) -> Any:
        state = HostState(tuple(artifact.relative_path for artifact in artifacts), previous_state.generation + 1 if previous_state else 1, 5, "g")
        return host_plan(state, selected_artifacts=artifacts, mandatory_artifacts=(), eligible_artifacts=artifacts)


class Host:
    def __init__(self, directory: str, url: str, token: str, slot: str, behaviour: str) -> None:
        self.directory, self.url, self.slot = directory, url, slot
        self.limit, self.behaviour = BEHAVIOURS[behaviour]
        self.calls, self.busy, self.failure = 0, False, None
        self.inner: list[str] = []
        self.children: list[int] = []
        self.threads: list[threading.Thread] = []
        self.handed: list[Any] = []
        self.get_token = self.does("token", lambda: token)
        self.guard = types.SimpleNamespace(record_sync_update=self.does("guard", lambda **_: None))
        self.search = types.SimpleNamespace(named_universe="us", refresh_rotation_scope=self.does("search", lambda *_, **__: None))
        self.kill, self.restart, self.stop = self.does("kill", lambda: None), self.does("restart", lambda: None), self.does("stop", lambda: False)
        self.era = self.does("era", lambda *_: None)
        self.modules()
        log = logging.getLogger("brackenfen.sync")
        log.addFilter(self.does("filter", lambda _: True))
        handler = logging.Handler()
        handler.emit = self.does("handler", lambda _: None)
        handler.lock = None  # under it an emit that waits for a thread of the library would keep that thread's own record waiting
        log.addHandler(handler)
        self.manager = None if slot in AT_CONSTRUCTION else self.made()

    def does(self, name: str, properly: Callable[..., Any]) -> Callable[..., Any]:
        """The callable of a slot; what it calls finds all callables as they should be."""

        def call(*arguments: Any, **named: Any) -> Any:
            if name == self.slot and not self.busy and self.calls < self.limit:
                self.calls, self.busy = self.calls + 1, True
                try:
                    outcome = self.behaviour(self, arguments, named)
                finally:
                    self.busy = False
                if outcome is not GO_ON:
                    return outcome
            return properly(*arguments, **named)

        return call

    def made(self) -> sync.SyncManager:
        manager = sync.SyncManager(self.directory, self.url, self.get_token, 0.02, self.guard)
        manager.register_era_callback(self.era)
        manager.register_rotation_search_consumer(self.search)
        return manager

    def modules(self) -> None:
        does, builtin = self.does, sync._sync_backoff_module()

        def install(name: str, **operations: Any) -> None:
            module = sys.modules.setdefault(f"brackenfen.{name}", types.ModuleType(f"brackenfen.{name}"))
            vars(module).update(operations)

        class Tracker:
            def __init__(self, data_dir: str, identity: Any = None) -> None:
                does("tracker", lambda: None)()

            handle_era_transition = staticmethod(does("tracker.handle", lambda **_: None))
            close = staticmethod(does("tracker.close", lambda: None))

        class Policy:
            delay_seconds = staticmethod(does("delay", lambda _: 0.01))
            sleep = staticmethod(does("sleep", lambda seconds, sleep, stop_requested: sleep(seconds) or not stop_requested()))

        settings = dict(algorithm="a", rotation_seed=3, market=None, named_universes=["us"], family=None, subfamily=None, feature_budget_gb=None)
        epochs = types.SimpleNamespace(SIGNAL_IS=types.SimpleNamespace(value="signal_is"), STRATEGY_IS=types.SimpleNamespace(value="strategy_is"), SIGNAL_OS=types.SimpleNamespace(value="signal_os"))
        install("_transport_security", validate_bearer_transport_url=does("transport", lambda _: None))
        install("auth", AuthError=sync.AuthError, notify_era_change=does("notify", lambda _: None))
        install("era_config", EpochName=epochs)
        install("runtime_module_freshness", RUNTIME_MODULE_KIND_SUFFIX="_module", is_runtime_module_kind=does("module-kind", lambda _: True))
        install("reason_descriptions", describe_reason=does("reason", lambda *_, **__: {"rendered": "wait"}))
        install("_function_token_safety", is_retired_public_function_token_name=does("retired", lambda _: False))
        install("_functions_vocabulary", merge_functions_vocabulary=does("merge", lambda *, functions, vocabulary, **_: functions | vocabulary))
        install("deployment", _CURRENT_VERSION="1.0", LibraryUpdateRequired=sync.LibraryUpdateRequired, check_update=does("update-check", lambda _: "2.0"),
                _compare_versions=does("versions", lambda *_: 0), auto_update=does("update", lambda _: types.SimpleNamespace(success=True)))  # fmt: skip
        install("search_tracking", SearchTracker=Tracker)
        install("identity", resolve_identity_for_data_dir=does("identity", lambda _: "me"))
        install("agent_onboarding", update_nudge=does("nudge", lambda *_, **__: None))
        install("_sync_progress", manifest_file_size=does("size", lambda info: (True, info.get("size_bytes", 0))))
        install("_rotation_settings", load_rotation_settings=does("settings", lambda *_, **__: types.SimpleNamespace(**settings, model_dump=does("dump", lambda: {"rotation_frequency": "PT1H"}))))
        install("sync_backoff", SyncBackoffPolicy=Policy, sync_backoff_event_fields=does("wait-event", builtin.sync_backoff_event_fields),
                current_context=does("context", builtin.current_context), backoff_context=does("scope", builtin.backoff_context))  # fmt: skip
        rotation = Rotation()
        operations = {name: getattr(rotation, name) for name in dir(rotation) if not name.startswith("__")}
        install("_artifact_rotation", **operations | {name: does(name, operations[name]) for name in ROTATION})


ROTATION = (
    "manifest_file_kind", "vocabulary_named_universe_from_path", "artifact_descriptor_from_manifest_file", "plan_rotation",
    "plan_from_active_rotation_state", "promote_rotation_candidate", "rotation_state_payload", "rotation_state_from_payload",
    "rotation_cleanup_keep_paths", "scope_vocabulary_to_active_rotation",
)  # fmt: skip
AT_CONSTRUCTION = (
    "transport", "module-kind", "manifest_file_kind", "vocabulary_named_universe_from_path", "merge", "retired",
    "rotation_state_from_payload",
)
NAMED = (
    sync.SyncError, sync.StateError, sync.AuthError, sync.SyncBackoffCancelled, sync.LibraryUpdateRequired, TypeError, ValueError,
    AttributeError, OSError, KeyError, OverflowError,
)


def on(host: Host) -> sync.SyncManager:
    return host.manager or host.made()


def lose(host: Host) -> None:
    if not host.busy and os.path.exists(f"{host.directory}/{SMALL}"):
        os.unlink(f"{host.directory}/{SMALL}")


def lives(host: Host) -> None:
    manager = on(host)
    manager.acquire()
    until = time.monotonic() + 5
    while not host.busy and not host.calls and time.monotonic() < until:
        time.sleep(0.005)
    manager.release()


def asks(host: Host, call: Callable[[sync.SyncManager], Any]) -> None:
    manager = on(host)
    manager._running = True
    call(manager)


def ensures(host: Host) -> None:
    entry = {"kind": "feature", "size_bytes": 60}
    host.handed.append(entry)
    on(host).ensure_manifest_file_available(SMALL, entry)


def watches(host: Host) -> None:
    watcher = sync.EraThread(host.url, host.get_token, on(host), 5, host.kill, host.restart)
    watcher._last_known_era_id = 7
    watcher._poll_once()


OPERATIONS: dict[str, Callable[[Host], Any]] = {
    "sync": lambda host: (lose(host), on(host).sync()), "repair": lambda host: (lose(host), on(host).repair([SMALL])),
    "needs_sync": lambda host: on(host).needs_sync(), "verify": lambda host: on(host).verify(),
    "transition": lambda host: on(host).trigger_era_transition(8, host.kill, host.restart), "watch": watches, "ensure": ensures,
    "request": lambda host: asks(host, lambda manager: manager.request_for_sync()),
    "features": lambda host: (lose(host), asks(host, lambda manager: manager.request_feature_files_for_sync(["small"]))),
    "add": lambda host: on(host).add_active_feature_paths([SMALL]), "acquire": lives, "follow": lives,
    "stop": lambda host: on(host).stop(), "cleanup": lambda host: on(host).cleanup_old_eras(),
    "construct": lambda host: sync.SyncManager.get_or_create(host.directory, host.url, host.get_token),
}  # fmt: skip


def cell(directory: str, url: str, token: str, slot: str, operation: str, behaviour: str) -> dict[str, Any]:
    """What came of it: the calls of the slot, the error's class if it is none that has a name, what inner operations said."""
    here, host, error = os.getpid(), Host(directory, url, token, slot, behaviour), None
    threading.excepthook = sys.unraisablehook = lambda *_: None  # where threads of the library tell of what their host raised
    try:
        with sync.backoff_context(data_dir=directory, surface="host", stop_requested=host.stop):
            OPERATIONS[operation](host)
    except BaseException as raised:
        error = raised
    if os.getpid() != here:
        if not isinstance(error, sync.StateError | types.NoneType):
            print(f"the child met {type(error).__name__}: {error}", file=sys.stderr, flush=True)
        os._exit(0 if isinstance(error, sync.StateError | types.NoneType) else 3)
    host.busy = True  # from here on all is as it should be
    for thread in host.threads:  # before the server goes, for which they would wait
        thread.join()
    managers = {host.manager, *sync.SyncManager._instances.values()} - {None}
    for manager in managers:
        manager.stop()
    until = time.monotonic() + 5  # a stop in a callback leaves threads that end by themselves
    while time.monotonic() < until and any(manager.health().threads for manager in managers):
        time.sleep(0.01)
    codes = [os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) for child in host.children]
    unnamed = "" if error is None or error is host.failure or isinstance(error, NAMED) else f"{type(error).__name__}: {error}"
    outcome = "" if error is None else type(error).__name__
    return {"calls": host.calls, "unnamed": unnamed, "inner": host.inner, "children": codes, "outcome": outcome}
