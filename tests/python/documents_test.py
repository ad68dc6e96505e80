"""The documents of an era, called by name on records, on a manager, and with the host's own rules for tokens."""

import copy
import hashlib
import json
import pathlib
import types
from collections.abc import Callable
from typing import Any

import brackenfen.sync as sync
import pytest

Install = Callable[..., types.ModuleType]
INDEX, VOCABULARY, FUNCTIONS = "signals_index.json", "named_universes/us/vocabulary.json", "functions.json"
INDEX_BODY = b'{"era_number": 7, "found_signals": {"e": {"files": ["found_signals/p/e/signal_is/pnl.arrow"]}}}'


@pytest.mark.parametrize("own", [True, False])
def test_an_index_on_any_record(own: bool, manager: sync.SyncManager, server: Any, tmp_path: pathlib.Path) -> None:
    data: dict[str, Any] = {"era_number": 7, "files": {INDEX: {"kind": "signals_index"}}}
    record: Any = sync.Manifest(data) if own else types.SimpleNamespace(**copy.deepcopy(data), signals_index=None, functions=None, _data=data)
    assert sync._manifest_signals_index_path(manifest=record) == INDEX
    sync._validate_signals_index_bytes(body=INDEX_BODY, manifest=record)
    assert record.found_signals == json.loads(INDEX_BODY)["found_signals"] and record.useful_signals == {}
    with pytest.raises(sync.ManifestError, match="^membership-referenced found PnL file 'found_signals/p/e/signal_is/pnl.arrow' in found_signals has "):
        sync._validate_membership_referenced_found_pnl_kinds(manifest=record)
    sync._apply_manifest_signals_index(manifest=record, index_data={"useful_signals": {"u": 1}})
    assert (record.found_signals, record.useful_signals) == ({}, {"u": 1})
    (tmp_path / INDEX).write_bytes(INDEX_BODY)
    assert sync._load_manifest_signals_index(tmp_path / "none", record, fallback_data_dir=tmp_path)
    assert "e" in record.found_signals

    server.files[INDEX] = INDEX_BODY
    result = sync.SyncResult()
    assert manager._download_signals_index(server_manifest=record, target_data_dir=tmp_path / "staged", result=result)
    entry = {"kind": "signals_index", "relative_path": INDEX, "sha256": hashlib.sha256(INDEX_BODY).hexdigest(), "size_bytes": len(INDEX_BODY)}
    assert record.files[INDEX] == record._data["files"][INDEX] == entry and result.bytes_downloaded == len(INDEX_BODY)
    manager._repair_signals_index_manifest_entry(server_manifest=record, file_path=INDEX, body=b"x", reason=None)
    assert record.files[INDEX]["size_bytes"] == 1
    with pytest.raises(sync.IntegrityError, match="^Refusing to repair vocabulary manifest hash for signals_index.json: expected "):
        manager._repair_vocabulary_manifest_entry(record, INDEX, b"yy", sync.IntegrityError("why"))
    manager._repair_vocabulary_manifest_entry(record, INDEX, b"yy", reason="why", allow_sha_mismatch=True)
    assert record._data["files"][INDEX]["sha256"] == hashlib.sha256(b"yy").hexdigest()
    for odd in (5, {"files": 5}):
        unusual = types.SimpleNamespace(files={INDEX: {"size_bytes": 10**5000}}, _data=odd)  # which a log record holds then
        manager._repair_signals_index_manifest_entry(unusual, INDEX, b"x")
        assert unusual.files[INDEX]["size_bytes"] == 1 and unusual._data is odd


def test_a_scrub_hands_back_the_same_document_or_a_new_one(tmp_path: pathlib.Path) -> None:
    data = {"files": {INDEX: {"kind": "signals_index"}, "a": {"kind": "data"}}, "version": 2}
    scrub = sync._scrub_missing_found_pnl_paths_from_signals_index
    assert scrub(tmp_path, data, []) == (data, None) and scrub(tmp_path, data, [])[0] is data
    (tmp_path / INDEX).write_bytes(INDEX_BODY)
    kept, update = scrub(data_dir=tmp_path, manifest_data=data, missing_paths=["found_signals/p/e/signal_is/pnl.arrow"])
    written = (tmp_path / INDEX).read_bytes()
    assert json.loads(written)["found_signals"] == {} and kept["files"]["a"] is data["files"]["a"]
    assert update == {"relative_path": INDEX, "local_path": str(tmp_path / INDEX), "kind": "signals_index", "sha256": hashlib.sha256(written).hexdigest()}


@pytest.mark.parametrize(("count", "shown"), [(0, None), (1, "t0"), (6, r"t0, t1, t2, t3, t4 \(\+1 more\)")])
def test_retired_tokens_of_the_host(neighbour: Install, manager: sync.SyncManager, server: Any, count: int, shown: str | None) -> None:
    names = sync._iter_vocabulary_entry_names(value={"name": "first", "list": ["no name", {"name": "second"}]})
    assert iter(names) is names and next(names) == "first", "they come one by one"
    assert list(names) == ["second", "name", "name", "list"]
    neighbour("_function_token_safety", is_retired_public_function_token_name=lambda name: name.startswith("t"))
    tokens = {f"t{number}": {"name": "x"} for number in range(count)}
    body = json.dumps(json.loads(server.documents[FUNCTIONS]) | {"reductions": [[tokens]], "more": {"name": "t9"}, "rotations": ["t8"]}).encode()
    server.add(FUNCTIONS, body, "functions")
    if shown is None:
        assert manager.sync().n_instruments == 7
    else:
        text = f"^vocabulary.json contains retired function token ids {shown}; regenerate the era distribution with DB-token vocabulary$"
        with pytest.raises(sync.SyncError, match=text):
            manager.sync()


def test_vocabularies_as_the_host_merges_them(neighbour: Install, manager: sync.SyncManager, server: Any) -> None:
    vocabulary, functions = (json.loads(server.documents[path]) for path in (VOCABULARY, FUNCTIONS))
    manager.sync()
    assert manager._vocabulary == {"us": vocabulary | {"rotations": ["weekly"]}}

    calls: list[dict[str, Any]] = []
    neighbour("_functions_vocabulary", merge_functions_vocabulary=lambda **given: calls.append(given) or {"metadata": {"n_instruments": 99}})
    assert manager.sync().n_instruments == 99 and manager._vocabulary == {"us": {"metadata": {"n_instruments": 99}}}
    assert calls == [{"functions": functions, "vocabulary": vocabulary, "named_universe": "us", "expected_era_number": 7}]
    failure = ValueError("not mine")
    neighbour("_functions_vocabulary", merge_functions_vocabulary=lambda **_: (_ for _ in ()).throw(failure))
    with pytest.raises(ValueError) as caught:
        manager.sync()
    assert caught.value is failure


def test_what_a_directory_holds(manager: sync.SyncManager, server: Any, tmp_path: pathlib.Path) -> None:
    manager.sync()
    directory, manifest = manager._data_dir, types.SimpleNamespace(**server.manifest())
    seed = pathlib.Path(directory, "shuffle_seed.enc")
    assert sync._vocabulary_manifest_paths(manifest=manifest) == [VOCABULARY]
    assert sync._validate_functions_file(data_dir=directory, manifest=manifest) == json.loads(server.documents[FUNCTIONS])
    assert sync._validate_manifest_vocabulary_files(data_dir=directory, manifest=manifest) == manager._vocabulary
    assert sync._validate_vocabulary_file(path=pathlib.Path(directory, VOCABULARY), expected_era_number=7, named_universe="us")["features"] == {}
    assert sync._validate_shuffle_seed_file(path=seed, expected_era_id=7) is None
    sync._write_shuffle_seed_metadata(path=str(seed), era_number="8")
    with pytest.raises(sync.EraError, match="^shuffle_seed.enc era_number=8 does not match manifest era_number=7$"):
        sync._validate_shuffle_seed_file(seed, 7)
    assert manager._download_shuffle_seed(server_manifest=manifest, target_data_dir=None) is True
    assert manager._download_shuffle_seed(manifest) is False
    assert manager._download_vocabulary(server_manifest=manifest, target_data_dir=tmp_path / "staged") is True
    result = sync.SyncResult()
    assert manager._download_validated_vocabulary_repair(file_path=VOCABULARY, file_info=manifest.files[VOCABULARY], result=result)
    assert result == sync.SyncResult(bytes_downloaded=len(server.documents[VOCABULARY]), vocabulary_downloaded=True)


def told(call: Callable[..., Any], *arguments: Any) -> Any:
    """What it gives, or the class and text of its error."""
    try:
        return call(*arguments)
    except sync.SyncError as error:
        return f"{type(error).__name__}: {error}"


UNSAFE = "SyncError: named_universe must be a single safe path segment: "


def test_a_universe_is_one_safe_segment_of_its_path() -> None:
    names = {" us ": "us", " ..": UNSAFE + "' ..'", "a/b": UNSAFE + "'a/b'", "a\0b": UNSAFE + "'a\\x00b'"}
    assert {name: told(sync._validate_named_universe, name) for name in names} == names
    assert told(sync._validate_named_universe, None) == "SyncError: named_universe is required"
    paths = {" named_universes\\us//vocabulary.json": "us", "named_universes/a/b/vocabulary.json": None, 7: None}
    assert {path: sync._vocabulary_named_universe_from_path(path) for path in paths} == paths
    assert told(sync._vocabulary_named_universe_from_path, "named_universes/ /vocabulary.json").startswith("SyncError: ")


CATALOGUE, ENTRY = b'{"era_number": 12, "functions": {"fn": 1}}', 'manifest files["functions.json"]'


def stated(content: bytes, **changes: Any) -> dict[str, Any]:
    return {"kind": "functions", "size_bytes": len(content), "sha256": f" {hashlib.sha256(content).hexdigest()} ", **changes}


@pytest.mark.parametrize(("content", "entry", "pointer", "expected"), [
    (CATALOGUE, stated(CATALOGUE), FUNCTIONS, json.loads(CATALOGUE)),
    (CATALOGUE, stated(CATALOGUE, size_bytes=None), FUNCTIONS, json.loads(CATALOGUE)),
    (CATALOGUE, stated(CATALOGUE), None, "SyncError: manifest is missing functions.json pointer"),
    (CATALOGUE, stated(CATALOGUE), "./functions.json", "SyncError: manifest is missing functions.json pointer"),
    (CATALOGUE, 5, FUNCTIONS, f"SyncError: {ENTRY} must be an object"),
    (CATALOGUE, stated(CATALOGUE, kind="data"), FUNCTIONS, f"SyncError: {ENTRY}.kind must be functions"),
    (None, stated(CATALOGUE), FUNCTIONS, "SyncError: functions.json is missing: functions.json"),
    (CATALOGUE + b" ", stated(CATALOGUE), FUNCTIONS, "IntegrityError: functions.json size_bytes mismatch"),
    (CATALOGUE, stated(CATALOGUE, sha256=" "), FUNCTIONS, f"SyncError: {ENTRY}.sha256 is required"),
    (CATALOGUE, stated(b"", size_bytes=None), FUNCTIONS, "IntegrityError: functions.json sha256 mismatch"),
    (b"[", stated(b"["), FUNCTIONS, "SyncError: functions.json is not valid JSON: Expecting value: line 1 column 2 (char 1)"),
    (b"[]", stated(b"[]"), FUNCTIONS, "SyncError: functions.json must contain a JSON object"),
    (b"{}", stated(b"{}"), FUNCTIONS, "EraError: functions.json era_number=None does not match manifest era_number=12"),
])  # fmt: skip
def test_the_catalogue_must_be_the_one_that_the_manifest_states(
    tmp_path: pathlib.Path, content: bytes | None, entry: Any, pointer: str | None, expected: Any
) -> None:
    if content is not None:
        (tmp_path / FUNCTIONS).write_bytes(content)
    manifest = sync.Manifest({"era_number": " 12", "functions": pointer, "files": {FUNCTIONS: entry}})
    assert told(sync._validate_functions_file, tmp_path, manifest) == expected


def test_a_vocabulary_of_each_universe_is_merged_with_the_catalogue(tmp_path: pathlib.Path) -> None:
    catalogue = json.dumps({"era_number": 12, "rotations": ["shared"], "functions": ["shared"], "note": 1}).encode()
    vocabularies = {
        universe: {"era_number": 12, "named_universe": universe, "features": {}, "metadata": {"named_universe": universe}} | own
        for universe, own in (("us", {"functions": ["own"]}), ("eu", {}))
    }
    (tmp_path / FUNCTIONS).write_bytes(catalogue)
    for universe, vocabulary in vocabularies.items():
        (tmp_path / "named_universes" / universe).mkdir(parents=True)
        (tmp_path / "named_universes" / universe / "vocabulary.json").write_text(json.dumps(vocabulary))
    files = {"named_universes/us/vocabulary.json": {}, "named_universes//eu/vocabulary.json": {}, FUNCTIONS: stated(catalogue)}
    merged = sync._validate_manifest_vocabulary_files(tmp_path, sync.Manifest({"era_number": 12, "functions": FUNCTIONS, "files": files}))
    shared = {"rotations": ["shared"], "functions": ["shared"]}
    assert merged == {"eu": vocabularies["eu"] | shared, "us": shared | vocabularies["us"]} and list(merged) == ["eu", "us"]
    nothing = told(sync._validate_manifest_vocabulary_files, tmp_path, sync.Manifest({"functions": FUNCTIONS, "files": {FUNCTIONS: {}}}))
    assert nothing == "SyncError: manifest is missing per-universe vocabulary.json entries"
    assert told(sync._validate_vocabulary_file, tmp_path / "x", 12, None) == "SyncError: vocabulary.json is missing"
    first = {"c": {"metadata": {"d": 1}}, "e": {"metadata": {}}}
    assert sync._first_vocabulary_metadata({"a": 1, "b": {"metadata": None}} | first) == {"d": 1}
    assert sync._first_vocabulary_metadata({"a": {}} | first) == {}
