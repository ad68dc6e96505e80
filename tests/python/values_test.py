"""Values on their way in and out."""

import collections
import math
import pathlib
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


def test_numbers_at_the_edges_survive() -> None:
    for number in (10**5000, -(10**4299) - 7, 2**63, -(2**63), -(2**63) - 1):
        assert round_trip(number) == number
    assert math.isnan(round_trip(math.nan))


def test_what_counts_as_a_document() -> None:
    ordered = collections.OrderedDict([("a", 1), ("b", 2)])
    ordered.move_to_end("a")
    assert list(round_trip(ordered)) == ["b", "a"]
    assert round_trip(types.MappingProxyType({"k": (1, 2)})) == {"k": [1, 2]}
    assert round_trip(collections.ChainMap({"a": 1}, {"b": 2})) == {"a": 1, "b": 2}

    class Text(str):
        pass

    class Whole:
        def __index__(self) -> int:
            return 5

    assert type(round_trip(Text("t"))) is str and round_trip(Whole()) == 5


def cyclic() -> list[Any]:
    loop: list[Any] = []
    loop.append(loop)
    return loop


def nested(depth: int) -> Any:
    value: Any = 1
    for _ in range(depth):
        value = [value]
    return value


@pytest.mark.parametrize(
    ("value", "error"),
    [({1, 2}, TypeError), (b"x", TypeError), ({1: 2}, TypeError), (object(), TypeError), (cyclic(), (ValueError, RecursionError)), (nested(5000), (ValueError, RecursionError))],
)
def test_what_is_no_value_is_refused_by_name(value: Any, error: Any) -> None:
    with pytest.raises(error) as caught:
        sync.Manifest({"x": value})
    assert isinstance(caught.value, RecursionError) or "data" in str(caught.value)
    assert round_trip([1]) == [1]  # the interpreter's depth is as it was


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


@pytest.mark.parametrize(
    ("call", "name"),
    [
        (lambda: sync._sha256("text"), "data"),
        (lambda: sync._sync_progress_path(5), "data_dir"),
        (lambda: sync._http_get("http://127.0.0.1:1", "t", range_start="x"), "range_start"),
        (lambda: sync._atomic_write(3, b""), "filepath"),
        (lambda: sync._drop_missing_found_pnl_paths({}, 5), "missing_paths"),
        (lambda: sync._sync_parallel_timeout_description("x"), "timeout_seconds"),
        (lambda: sync._emit_brackenfen_sync_event({"event_type": object()}), "event"),
    ],
)
def test_an_argument_of_the_wrong_type_is_named(call: Any, name: str) -> None:
    with pytest.raises(TypeError, match=f"^{name} "):
        call()


@pytest.mark.parametrize("raised", [KeyboardInterrupt, ZeroDivisionError])
def test_what_a_conversion_of_the_host_raises_goes_on(raised: type[BaseException]) -> None:
    def fail(_: object) -> Any:
        raise raised

    hostile: Any = type("Hostile", (), dict.fromkeys(("__fspath__", "__index__", "__float__", "__iter__", "__int__"), fail))()
    for call in (
        lambda: sync._sync_progress_path(hostile),
        lambda: sync._sha256_file("a", hostile),
        lambda: sync._sync_parallel_timeout_description(hostile),
        lambda: sync._drop_missing_found_pnl_paths({}, hostile),
    ):
        with pytest.raises(raised):
            call()
