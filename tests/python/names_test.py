"""What is reachable, under which names, with which arguments."""

import ast
import inspect
import json
import os
import pathlib
import subprocess
import sys
from typing import Any

import brackenfen.sync as sync
import pytest

# Constants, by their types, and operations that no other test calls, by whose they are.
CONSTANTS = {
    int: "_SYNC_HTTP_CHUNK_BYTES _SYNC_HTTP_RESPONSE_READ_BYTES _SYNC_MAX_CONCURRENCY _SYNC_MAX_UNCHANGED_CHECKSUM_REPAIRS _SYNC_HASH_CACHE_VERSION "
         "_SYNC_MANIFEST_SUPERSEDE_RESTART_LIMIT _SYNC_HASH_FILE_CHUNK_BYTES _SYNC_EVENT_COALESCE_LIMIT _FEATURE_ROTATION_STATE_VERSION "
         "_FEATURE_ROTATION_BYTES_PER_GB _PREFETCHED_FEATURES_VERSION",
    float: "_SYNC_HTTP_TIMEOUT_SECONDS _SYNC_MANIFEST_VERSION_HTTP_TIMEOUT_SECONDS _SYNC_PARALLEL_TIMEOUT_SECONDS _SYNC_MANIFEST_POLL_INTERVAL_SECONDS",
    str: "__version__ _SYNC_USER_AGENT _SYNC_HASH_CACHE_FILENAME _SYNC_PROGRESS_FILENAME _SIGNALS_INDEX_RELATIVE_PATH CURRENT_PLATFORM "
         "_FEATURE_ROTATION_STATE_FILENAME _PREFETCHED_FEATURES_FILENAME _FOUND_SIGNAL_PNL_KIND _FOUND_STRATEGY_EPOCH_PNL_KIND "
         "_USEFUL_SIGNAL_OS_PNL_KIND _USEFUL_SIGNAL_STRATEGY_IS_PNL_KIND",
    frozenset: "_REQUIRED_VOCABULARY_KEYS _RETIRED_UNSUPPORTED_RUNTIME_MODULE_NAMES",
    tuple: "_TRANSIENT_HTTP_STATUSES _SIGNALS_INDEX_SECTIONS _RUNTIME_MODULE_EXTENSION_SUFFIXES _FOUND_PNL_FILE_KINDS",
    dict: "_FOUND_PNL_SECTION_KINDS _RECOVERABLE_SIGNAL_PNL_SECTION_KINDS",
}  # fmt: skip
FURTHER = {
    sync: "_cleanup_sync_tmp_files _detect_platform _manifest_has_retired_found_pnl_long_files _manifest_local_path _remove_manifest_tmp_file "
          "_remove_sync_progress_json _sync_http_chunk_bytes _sync_http_response_read_bytes _sync_http_timeout_seconds _sync_max_concurrency "
          "_sync_manifest_version_http_timeout_seconds _sync_max_unchanged_checksum_repairs _write_sync_backoff_progress_json",
    sync.SyncManager: "_fetch_active_era_for_transition _confirm_active_era _check_transition_superseded _schedule_cleanup_old_eras "
                      "_cleanup_inactive_rotation_artifacts _cleanup_old_eras_background _normalize_active_rotation_state_for_manifest "
                      "_persist_consumer_count _persist_hash_cache _poll_loop _process_repair_queue _promote_rotation_candidate "
                      "_parse_era_directory_id _remember_local_sha _start_sync_thread _stop_internal _sync_impl _sync_with_manifest_refresh",
    sync.EraThread: "_run",
}  # fmt: skip


def test_constants_and_operations_are_there() -> None:
    assert [name for kind, names in CONSTANTS.items() for name in names.split() if type(getattr(sync, name, None)) is not kind] == []
    assert [name for owner, names in FURTHER.items() for name in names.split() if not callable(getattr(owner, name, None))] == []


VOCABULARY: dict[str, Any] = {"era_number": 7, "named_universe": "u", "features": [], "metadata": {"named_universe": "u"}}

# Each call gives every argument by name; a name that is wrong is a TypeError.
CALLS: list[tuple[str, dict[str, Any], Any]] = [
    ("_is_agent_bundle_declaration_file", {"file_path": "a.pxd", "file_info": None}, True),
    ("_is_unsupported_runtime_module_file", {"_file_path": "", "file_info": {"kind": "risk_module"}}, True),
    ("_retired_unsupported_runtime_module_name_from_path", {"file_path": f"x/backtester-{sync.CURRENT_PLATFORM}.pyd"}, "backtester"),
    ("_is_retired_unsupported_runtime_module_path", {"file_path": "backtester.pyd"}, False),
    ("_is_retired_found_pnl_long_file", {"file_path": "/found_signals/a/b/c/pnl.long.arrow/"}, True),
    ("_rotation_file_is_platform_excluded", {"file_info": {"kind": "vault_module", "platform": "mars_z80"}}, True),
    ("_manifest_file_is_sync_excluded", {"file_info": {"kind": "feature"}}, False),
    ("_safe_manifest_relative_path", {"file_path": " a\\b/./c "}, "a/b/c"),
    ("_feature_epoch_for_expression_type", {"expression_type": "My_STRATEGY"}, "strategy_is"),
    ("_feature_artifact_family_prefix", {"feature_name": "a__b__c__d"}, "a__b__"),
    ("_manifest_base_url_uses_public_download", {"server_url": "http://localhost", "base_url": "http://localhost:1/data/files"}, True),
    ("_validate_named_universe", {"named_universe": 5}, "5"),
    ("_normalize_era_current_response", {"data": {"era_number": 5}}, {"era_number": 5}),
    ("_parse_era_directory_id", {"name": "era_7"}, 7),
    ("_rotation_vocabulary_named_universe_from_path", {"relative_path": "named_universes/u/vocabulary.json"}, "u"),
    ("_manifest_size", {"file_info": {"size_bytes": 5}}, (True, 5)),
    ("_found_pnl_section_for_path", {"file_path": "useful_signals/x/signal_os/pnl.arrow"}, "useful_signals"),
    ("_is_manifest_found_pnl_file", {"file_path": "found_signals/x/signal_is/pnl.arrow", "file_info": {"kind": "found_signal_is_pnl"}}, True),
    ("_drop_found_pnl_paths_from_membership", {"section_data": {"e": {"files": ["a"]}}, "missing_paths": {"a"}}, {}),
    ("_manifest_data_signals_index_path", {"manifest_data": {"signals_index": "./signals_index.json"}}, "signals_index.json"),
    ("_membership_referenced_files", {"membership": {"e": {"files": ["a", 1]}}}, {"a"}),
    ("_retired_function_names_in_vocabulary", {"vocabulary": {"functions": {"f": 1}}}, []),
    ("_is_retired_function_token_name", {"name": "f"}, False),
    ("_validate_no_retired_function_tokens", {"vocabulary": {"functions": {"f": 1}}}, None),
    ("_validate_vocabulary_data", {"vocabulary": VOCABULARY, "expected_era_number": 7, "named_universe": "u"}, VOCABULARY),
    ("_validate_vocabulary_bytes", {"data": json.dumps(VOCABULARY).encode(), "expected_era_number": 7, "named_universe": None}, VOCABULARY),
    ("_first_vocabulary_metadata", {"vocabularies": {"u": VOCABULARY}}, VOCABULARY["metadata"]),
    ("_shuffle_seed_meta_path", {"path": "/d/shuffle_seed.enc"}, "/d/shuffle_seed.enc.meta.json"),
    ("_header_value", {"headers": {1: 2, "x-ERA-id": "7"}, "name": "X-Era-Id"}, "7"),
    ("_validate_response_era_header", {"headers": {"X-Era-Id": 7}, "expected_era_id": 7, "artifact": "a"}, None),
    ("_validate_shuffle_seed_bytes", {"data": bytes(60)}, None),
    ("_sync_parallel_timeout_seconds", {"file_count": 3, "max_workers": 2}, None),
    ("_sync_parallel_timeout_description", {"timeout_seconds": 300}, "300.0s"),
    ("_sync_parallel_timeout_description", {"timeout_seconds": None}, "unbounded"),
    ("_is_manifest_version_url", {"url": "http://h/data/manifest/version//"}, True),
    ("_parse_sync_error_body", {"body": b'{"a": 1}'}, {"a": 1}),
    ("_should_retry_http_status", {"status": "503"}, True),
    ("load_feature_rotation_state", {"data_dir": "/nowhere"}, None),
    ("_drop_retired_unsupported_runtime_paths_from_state", {"state": None, "manifest": None}, None),
    ("_load_feature_rotation_status_manifest", {"data_dir": "/nowhere"}, None),
    ("_rotation_is_due", {"data_dir": "/nowhere", "settings_payload": None, "active_state": None}, True),
    ("_existing_rotation_paths", {"data_dir": "/", "relative_paths": ["etc/passwd", "nowhere"]}, ("etc/passwd",)),
    ("_manifest_era_id_or_none", {"manifest": object()}, None),
    ("_rotation_artifact_rows", {"manifest": object()}, ()),
    ("_prefetched_features_state_path", {"data_dir": "/d"}, "/d/.prefetched-features.json"),
    ("_manifest_prefetched_feature_paths", {"manifest": object(), "paths": None}, ()),
    ("_should_emit_sync_event", {"event": {"event_type": "sync_recovered_status"}}, True),
    ("_sync_event_is_coalescible", {"event": {"event_type": "http_retry"}}, True),
    ("_sync_event_coalesce_key", {"event": {"r": 1.0, "count": 1, "l": [10**20, "a"], "d": {"b": 1, "a": None}, "n": None, "x": {1}}},
     (("d", '{"a": null, "b": 1}'), ("l", f'[{10**20}, "a"]'), ("n", "null"), ("r", "1.0"), ("x", "{1}"))),
    ("_sync_event_stable_coalesce_value", {"value": True}, "true"),
    ("_sync_event_level_name", {"event": {"recovery": "reauthenticate"}}, "warning"),
    ("_sync_unavailable_has_typed_details", {"err": OSError()}, False),
    ("_sync_unavailable_action_recovery", {"details": {"error": "AUTH"}}, "reauthenticate"),
    ("_sync_local_data_status", {}, "intact and preserved, but not run because fresh data is required"),
    ("_sync_endpoint_from_url", {"url": "https://h/p?q"}, "/p"),
    *(("_sync_endpoint_from_url", {"url": url}, endpoint) for url, endpoint in (("https://h", "https://h"), ("http://[broken", "http://[broken"), ("", "<unknown>"))),
    *(("_sync_event_file_from_url", {"url": url}, file) for url, file in (
        ("http://h/data/files/a/b.arrow?x=1#y", "a/b.arrow"), ("https://h/o/releases/v1/a//b.arrow", "a/b.arrow"), ("https://h/era/current/", "era/current"), ("https://h", ""), ("http://[broken", ""))),
]


@pytest.mark.parametrize(("name", "arguments", "result"), CALLS, ids=[name for name, _, _ in CALLS])
def test_arguments_by_name_and_by_position(name: str, arguments: dict[str, Any], result: Any) -> None:
    function = getattr(sync, name)
    for got in (function(**arguments), function(*arguments.values())):
        assert got == result and type(got) is type(result)


def test_named_arguments_are_keyword_only() -> None:
    manifest = sync.Manifest({"files": {"features/u/strategy_is/a__b__c__d.arrow": {}, "features/u/strategy_is/a__b__x__y.arrow": {}}})
    named = {"feature_name": "a__b__c__d", "expression_type": type("Member", (), {"value": "STRATEGY"}), "named_universe": "u"}
    assert sync._manifest_feature_relative_path(manifest, **named) == "features/u/strategy_is/a__b__c__d.arrow"
    assert sync._manifest_feature_prefetch_relative_paths(manifest, **named) == tuple(manifest.files)
    for function in (sync._manifest_feature_relative_path, sync._manifest_feature_prefetch_relative_paths):
        with pytest.raises(TypeError):
            function(manifest, "a__b__c__d")


def test_the_stub_tells_the_truth() -> None:
    """Every public name of the stub exists, and every public name that exists is in the stub."""
    stub = pathlib.Path(sync.__file__).with_name("sync.pyi")
    tree = ast.parse(stub.read_text())
    protocols = {"TokenSource", "RuntimeFreshnessGuard", "EraManager", "RotationSearchConsumer"}
    listed = {node.name: node for node in tree.body if isinstance(node, (ast.ClassDef, ast.FunctionDef))}
    assigned = {node.target.id for node in tree.body if isinstance(node, ast.AnnAssign) and isinstance(node.target, ast.Name)}
    aliases = {node.name.id for node in tree.body if isinstance(node, ast.TypeAlias)}
    assert all(name.startswith("_") for name in aliases)  # a public one would be a name that cannot be imported
    missing = [name for name in (listed.keys() | assigned) - protocols if not hasattr(sync, name)]
    public = {name for name in vars(sync) if not name.startswith("_")}
    assert missing == [] and public - listed.keys() - assigned == set()
    [told] = [node.value for node in tree.body if isinstance(node, ast.Assign)]
    assert ast.literal_eval(told) == sync.__all__ and set(sync.__all__) == (listed.keys() | assigned) - protocols - {"__version__"}
    for name in ("SyncManager", "Manifest", "EraThread"):
        node = listed[name]
        assert isinstance(node, ast.ClassDef)
        members = {item.name for item in node.body if isinstance(item, ast.FunctionDef)}
        members |= {item.target.id for item in node.body if isinstance(item, ast.AnnAssign) and isinstance(item.target, ast.Name)}
        bound = {name for name in vars(getattr(sync, name)) if not name.startswith("_")}
        assert bound == members - {"__init__"}
    for node in listed.values():
        made = getattr(sync, node.name, None)
        if isinstance(node, ast.ClassDef) and isinstance(made, type) and issubclass(made, Exception):
            assert [base.__name__ for base in made.__bases__] == [ast.unparse(base) for base in node.bases] != [], node.name
            assert (made.__module__, made.__qualname__) == ("brackenfen.sync", node.name)
    assert all(inspect.getdoc(getattr(sync, name)) for name in public if callable(getattr(sync, name)))


@pytest.mark.parametrize("names", ["sync", "sync brackenfen.sync", "brackenfen.sync sync"])
def test_every_import_name_gives_the_same_objects(names: str) -> None:
    source = f"""
import importlib, sys
sys.path.insert(0, {str(pathlib.Path(sync.__file__).parent)!r})
modules = [importlib.import_module(name) for name in {names.split()!r}]
first, last = modules[0], modules[-1]
assert [module.__name__ for module in modules] == {names.split()!r} and last.__version__ == "0.0.3"
for name in vars(first):
    assert name.startswith("__") or getattr(last, name) is getattr(first, name), name
assert last.AuthError is first.AuthError and last.SyncManager.__module__ == last.SyncResult.__module__ == "brackenfen.sync"
assert last.SyncResult(bytes_downloaded=3) == first.SyncResult(0, 0, 3) and last.RotationSettings().market is None
assert not [name for name in sys.modules if name.startswith("brackenfen.") and name != "brackenfen.sync"]
"""
    in_threads = f"""
import concurrent.futures, importlib, sys
sys.path.insert(0, {str(pathlib.Path(sync.__file__).parent)!r})
with concurrent.futures.ThreadPoolExecutor(2) as pool:
    modules = list(pool.map(importlib.import_module, {names.split()!r}))
assert len({{module.SyncError for module in modules}}) == 1
"""
    for program in (source, in_threads):
        done = subprocess.run([sys.executable, "-c", program], capture_output=True, text=True, timeout=60)
        assert (done.returncode, done.stderr) == (0, "")


@pytest.mark.parametrize("text, code, said", [("[[[", 0, ""), ("openssl_conf=a\n[a]\nproviders=b\n[b]\nno=c\n[c]\nactivate=1", 1, "OPENSSL_CONF")])
def test_a_configuration_of_openssl_that_does_not_serve(tmp_path: pathlib.Path, text: str, code: int, said: str) -> None:
    (tmp_path / "openssl.cnf").write_text(text)
    given = os.environ | {"OPENSSL_CONF": str(tmp_path / "openssl.cnf")}
    done = subprocess.run([sys.executable, "-c", "import brackenfen.sync"], capture_output=True, text=True, env=given, timeout=60)
    assert done.returncode == code and said in done.stderr
