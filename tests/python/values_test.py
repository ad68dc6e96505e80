"""Values on their way in and out."""

import collections
import concurrent.futures
import functools
import json
import math
import pathlib
import re
import sys
import threading
import types
from typing import Any

import brackenfen.sync as sync
import pytest
from hypothesis import given, settings
from hypothesis import strategies as st

texts = st.text(st.characters(exclude_categories=()), max_size=8)  # lone surrogates and NULs among them
scalars = st.none() | st.booleans() | st.integers() | st.integers(-(10**40), 10**40) | st.floats(allow_nan=False) | texts
values = st.recursive(scalars, lambda inner: st.lists(inner, max_size=4) | st.dictionaries(texts, inner, max_size=4), max_leaves=20)


def round_trip(value: Any) -> Any:
    return sync.Manifest({"x": value}).to_dict()["x"]


def shape(value: Any) -> Any:
    """The value with the types and the order of keys that == does not look at."""
    if isinstance(value, dict):
        return [(key, shape(item)) for key, item in value.items()]
    if isinstance(value, list):
        return [shape(item) for item in value]
    return type(value), value


@given(values)
@settings(max_examples=300, deadline=None)
def test_values_survive(value: Any) -> None:
    assert shape(round_trip(value)) == shape(value)


def test_numbers_at_the_edges_and_what_counts_as_a_document() -> None:
    for refused_digits in (640, 4300):
        sys.set_int_max_str_digits(refused_digits)
        for number in (10**5000, -(10**4299) - 7, -(7**50_000), 10**20_000 + 10**700, 2**63, -(2**63), -(2**63) - 1):
            assert (round_trip(number) - number).bit_length() == 0
    assert math.isnan(round_trip(math.nan))
    ordered = collections.OrderedDict([("a", 1), ("b", 2)])
    ordered.move_to_end("a")
    assert list(round_trip(ordered)) == ["b", "a"]
    assert round_trip(types.MappingProxyType({"k": (1, 2)})) == {"k": [1, 2]}
    assert round_trip(collections.ChainMap({"a": 1}, {"b": 2})) == {"a": 1, "b": 2}

    text, whole = type("Text", (str,), {})("t"), type("Whole", (), {"__index__": lambda _: 5})()
    assert type(round_trip(text)) is str and round_trip(whole) == 5


def test_what_is_no_value_is_refused_by_name() -> None:
    loop: list[Any] = []
    loop.append(loop)
    deep = functools.reduce(lambda value, _: [value], range(5000), [1])
    for value in ({1, 2}, b"x", loop, deep):
        with pytest.raises((TypeError, ValueError, RecursionError)) as caught:
            sync.Manifest({"x": value})
        assert isinstance(caught.value, RecursionError) or "data" in str(caught.value)
    assert round_trip([1]) == [1]  # the interpreter's depth is as it was


def test_depth_is_refused_where_the_stack_of_a_thread_ends(manager: sync.SyncManager, server: Any) -> None:
    deep = functools.reduce(lambda value, _: {"a": value}, range(990), 1)
    body = b'{"x": %s%s, ' % (b"[" * 990, b"]" * 990) + json.dumps(server.manifest()).encode()[1:]
    server.answers["/data/manifest"] = (200, body)
    usual = threading.stack_size(128 * 1024)
    with concurrent.futures.ThreadPoolExecutor(2) as pool:
        ended = [pool.submit(round_trip, deep), pool.submit(manager.sync)]
        threading.stack_size(usual)
    for outcome in ended:
        with pytest.raises(ValueError, match="the stack of this thread is used up while"):
            outcome.result()


DOCUMENT = {"files": {"keep.arrow": {"kind": "feature"}, "x/module.so": {"kind": "vault_module"}}, "artifacts": [{"path": "a"}], "other": {"deep": [1]}}
DROPPED = {
    sync._drop_agent_bundle_declaration_files: ("b.pxd", {"kind": "x"}),
    sync._drop_unsupported_runtime_module_files: ("m.so", {"kind": "risk_module"}),
    sync._drop_retired_found_pnl_long_files: ("found_signals/a/b/c/pnl_long.arrow", {}),
    sync._sanitize_manifest_data_for_sync: ("b.pxd", {}),
    lambda data: sync._drop_missing_found_pnl_paths(data, {"found_signals/p/e/signal_is/pnl.arrow"}): ("found_signals/p/e/signal_is/pnl.arrow", {}),
}


@pytest.mark.parametrize("mapping", [dict, collections.OrderedDict, types.MappingProxyType], ids=lambda made: made.__name__)
@pytest.mark.parametrize(("drop", "removed"), DROPPED.items(), ids=range(len(DROPPED)))
def test_a_filter_returns_the_same_objects(drop: Any, removed: tuple[str, Any], mapping: Any) -> None:
    clean = mapping(DOCUMENT)
    assert drop(clean) is clean
    path, entry = removed
    dirty = mapping({**DOCUMENT, "files": {**DOCUMENT["files"], path: entry}})
    cleaned = drop(dirty)
    assert cleaned == DOCUMENT and path in dirty["files"]
    assert cleaned["files"]["keep.arrow"] is DOCUMENT["files"]["keep.arrow"]
    assert cleaned["other"] is DOCUMENT["other"] and cleaned["artifacts"] is DOCUMENT["artifacts"]


def test_a_filter_owns_what_it_looks_at() -> None:
    class Made(collections.UserDict[str, Any]):
        """Makes its values when it is asked."""

        def __getitem__(self, key: str) -> Any:
            value = self.data[key]
            return Made(value) if isinstance(value, dict) else list(value) if isinstance(value, list) else value

    def cleaned(given: Any) -> dict[str, Any]:
        return {path: dict(entry) for path, entry in sync._drop_agent_bundle_declaration_files(given)["files"].items()}

    files: dict[str, Any] = {f"f{number}": {"sha256": f"f{number}", "more": [{"deep": number}]} for number in range(500)}
    shared: dict[str, Any] = {"files": {**files, "b.pxd": {}}}
    done = threading.Event()

    def replace() -> None:
        while not done.is_set():
            shared["files"].update({path: dict(entry) for path, entry in files.items()})

    changer = threading.Thread(target=replace)
    changer.start()
    try:
        assert all(cleaned(shared) == files for _ in range(60)), "an entry is never another path's"
    finally:
        done.set()
        changer.join()
    assert cleaned(Made(shared)) == files
    again = type("Again", (Made,), {"items": lambda self: [("files", {"x": {"gone": 1}}), *Made.items(self), ("files", shared["files"])]})(shared)
    assert cleaned(again) == files, "the last of repeated keys counts"


def test_manifest_record() -> None:
    data = {"era_number": "7", "files": {"a": {"kind": "feature"}, "b.pxd": {}}, "found_signals": {"e": {}}, "extra": 1}
    record = sync.Manifest(data)
    assert (record.era_number, record.version, record.base_url, record.files) == ("7", 0, None, {"a": {"kind": "feature"}})
    assert record.to_dict() == record._data == {**data, "files": record.files} and record.found_signals == {}
    again = sync.Manifest.from_dict(record.to_dict())
    assert again.to_dict() == record.to_dict() and again != record
    again.found_signals = {"e": {"files": []}}
    assert again.found_signals == {"e": {"files": []}} and again.useful_signals == {}
    assert sync.Manifest({"files": [1]}).files == [1]


def test_result_records() -> None:
    made = sync.VerifyResult(valid=False, corrupted_files=["a"], missing_files=["b"])
    assert repr(made) == "VerifyResult(valid=False, corrupted_files=['a'], missing_files=['b'])" and made != sync.VerifyResult()
    assert sync.VerifyResult().corrupted_files is not sync.VerifyResult().corrupted_files
    assert sync.SyncResult(bytes_downloaded=3) == sync.SyncResult(0, 0, 3) != sync.SyncResult()


def test_any_object_serves_as_a_manifest() -> None:
    bare, holder = object(), types.SimpleNamespace(files={"a.pxd": 1, "features/signal_is/f.arrow": {}})
    assert not sync._manifest_has_agent_bundle_declarations(bare) and sync._manifest_has_agent_bundle_declarations(holder)
    assert sync._manifest_feature_relative_path(holder, feature_name=" f ") == "features/signal_is/f.arrow"
    assert sync._manifest_feature_relative_path(types.SimpleNamespace(files=[1]), feature_name="f") is None
    assert sync._manifest_feature_companion_relative_paths(bare, "features/a/b/c__d__e__f.arrow") == ()


def test_paths_bytes_and_iterables(tmp_path: pathlib.Path) -> None:
    target = tmp_path / "odd \udcff name"
    for path, data in ((target, b"1"), (str(target), bytearray(b"2")), (target, memoryview(b"3"))):
        sync._atomic_write(path, data)
        assert target.read_bytes() == bytes(data) and sync._sha256_file(path) == sync._sha256(data)
    assert sync._sync_progress_path("a\udcff") == "a\udcff/sync-progress.json"
    assert sync._normalize_found_pnl_paths(iter(["found_signals/a/signal_is/pnl.arrow", 5, "x"])) == {"found_signals/a/signal_is/pnl.arrow"}
    assert sync._normalize_found_pnl_paths(None) == set()


STATE, SELECTION, Bare = sync.RotationState((), 1, 2, ""), sync.RotationSelection((), (), (), (), 0, 0, None), types.SimpleNamespace

# By the kind of an argument: one that it takes, those that it refuses, and the arguments of that kind. "?" takes None besides,
# and "operation.argument" is one that is not of the kind that others of its name are.
KINDS: dict[str, tuple[Any, list[Any], str]] = {
    "any": (None, [], "SyncManager.token __getattr__.name _write_sync_progress_json.manifest _manifest_era_id_or_none.manifest unregister_era_callback.callback "
            "_apply_rotation_result_fields.result _download_signals_index.result _precheck_rotation_disk_budget.selection _rotation_scoped_files_to_download.selection"),
    "text": ("http://127.0.0.1:1", [5, b"x"], "server_url token artifact prefix name event_type default_surface backoff_surface context SyncManager.file_path SyncManager.url "
             "_http_get.url _http_get_public.url _http_get_manifest_version.url _is_manifest_version_url.url _raise_download_http_status.file_path _emit_sync_backoff_wait.reason"),
    "text?": ("x", [5, b"x"], "SyncManager.server_url _log_sync_event.file_path _log_sync_event.reason _emit_sync_backoff_wait.file_path expected_sha actual_sha"),
    "path": ("/dev/null/x", [5], "data_dir path filepath local_path"), "path?": ("/dev/null/x", [5], "target_data_dir fallback_data_dir backoff_context.data_dir"),
    "integer": (1, ["x", 1.5], "attempt_index limit range_start range_end chunk_bytes file_count max_workers free_disk_bytes"),
    "number": (1, [[]], "_write_shuffle_seed_metadata.era_number"), "real": (0.01, ["x"], "wait_seconds started_at poll_interval_s era_poll_interval_s"),
    "bytes": (b"", ["x"], "body data"), "callable": (str, [5], "callback get_token"), "watched": (Bare(), [], "sync_manager"),
    "callable?": (None, [5], "kill_searches_fn restart_searches_fn retry_status_callback"),
    "value?": ({}, [object(), {1: 2}, [{"a": object()}]], "file_info era_number expected_era_id expected_era_number new_era_id"),
    "inside?": ({}, [{1: 2}, [object()]], "index_data membership vocabularies vocabulary _manifest_data_signals_index_path.manifest_data _normalize_era_current_response.data"),
    "mapping": ({}, [5, {1: 2}, {"a": object()}], "details files_to_download SyncManager.file_info _write_manifest_json.manifest_data _emit_brackenfen_sync_event.event"),
    "document": ({}, [object(), {1: 2}], "manifest_data Manifest.data from_dict.data"), "event": ({}, [5, []], "event"),
    "entries": ({}, [5, {"a": 1}, {"a": None}, {"a": {1: 2}}], "_download_files_parallel.files_to_download"),
    "iterable": ((), [5, "x"], "statuses failures relative_paths artifacts corrupted_files active_relative_paths available_relative_paths refresh_payloads "
                 "_drop_found_pnl_paths_from_membership.missing_paths _request_feature_files_for_sync_impl.feature_names"),
    "iterable?": ((), [5, b"x"], "missing_paths paths file_paths preserve_relative_paths existing_relative_paths feature_names consumers _sync_unavailable_from.statuses "
                  "_sync_unavailable_from.failures _remember_prefetched_feature_relative_paths.relative_paths"),
    "list": ([], [5, ()], "values"), "manifest?": (None, [Bare(files={"a": object()})], "manifest"),
    "state": (STATE, [5, Bare(active_relative_paths=None)], "rotation_state promoted candidate_state write_feature_rotation_state.state"),
    "state?": (STATE, [5, Bare(active_relative_paths=None)], "active_state active_rotation_state state _complete_rotation_promotion.candidate_state"),
    "selection": (SELECTION, [5, Bare(**{**vars(SELECTION), "mandatory_artifacts": None})], "selection"),
    "result": (sync.SyncResult(), [5, Bare(**{**vars(sync.SyncResult()), "bytes_downloaded": "x"})], "result"),
}  # fmt: skip


def test_an_argument_of_the_wrong_type_is_named_by_every_operation(manager: sync.SyncManager, server: Any) -> None:
    kinds = {argument: kind for kind, (_, _, arguments) in KINDS.items() for argument in arguments.split()}
    watcher = sync.EraThread(server.url, str, manager)
    wrong: list[str] = []
    for owner, target in ((sync, sync), (sync.SyncManager, manager), (sync.EraThread, watcher), (sync.Manifest, sync.Manifest)):
        for name, signature in [(name, member.__nb_signature__[0][0]) for name, member in vars(owner).items() if hasattr(member, "__nb_signature__")]:
            call = owner if name == "__init__" else getattr(target, name)
            found = {argument: (f"{name}.{argument}", f"{owner.__name__}.{argument}", argument) for argument in re.findall(r"(\w+): ", signature)}
            given = {argument: next((kinds[key] for key in keys if key in kinds), "any") for argument, keys in found.items()}
            for argument, kind in given.items():
                for value in KINDS[kind][1] + [None] * (kind != "any" and not kind.endswith("?")):
                    try:
                        with sync.backoff_context(stop_requested=lambda: True):
                            outcome: Any = call(**{other: KINDS[kind][0] for other, kind in given.items()} | {argument: value})
                    except Exception as error:
                        outcome = error
                    if not isinstance(outcome, TypeError) or not re.match(rf"{argument}\b", str(outcome)):
                        wrong.append(f"{name}({argument}={value!r}): {outcome!r}")
    for field in ("_missing_found_pnl_paths", "_repair_queue", "_prefetched_feature_relative_paths", "_hash_cache"):
        with pytest.raises(TypeError, match=f"^{field} "):
            setattr(manager, field, None)
    assert wrong == [], "\n".join(wrong)


@pytest.mark.parametrize("raised", [KeyboardInterrupt(), ZeroDivisionError(), AttributeError(name="another")], ids=type)
def test_what_an_object_of_the_host_raises_goes_on(raised: BaseException) -> None:
    def fail(_: object) -> Any:
        raise raised

    conversions = dict.fromkeys(("__fspath__", "__index__", "__float__", "__iter__", "__int__"), fail)
    hostile: Any = type("Hostile", (), conversions | dict.fromkeys(("files", "era_number", "typed_details", "value"), property(fail)))()
    for call in (
        lambda: sync._sync_progress_path(hostile),
        lambda: sync._sha256_file("a", hostile),
        lambda: sync._sync_parallel_timeout_description(hostile),
        lambda: sync._drop_missing_found_pnl_paths({}, hostile),
        lambda: sync._rotation_manifest_artifacts(hostile),  # a property is none that is absent
        lambda: sync._write_sync_progress_json("/nowhere", hostile, {}),
        lambda: sync._sync_unavailable_has_typed_details(hostile),
        lambda: sync._feature_epoch_for_expression_type(hostile),
    ):
        with pytest.raises(type(raised)) as caught:
            call()
        assert caught.value is raised
