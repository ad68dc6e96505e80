"""SyncManager: construction, its fields, and passes against a server."""

import hashlib
import json
import pathlib
import threading
import types
from typing import Any

import brackenfen.sync as sync
import pytest


def open_manager(directory: Any, url: Any = "http://127.0.0.1:1", get_token: Any = str, **more: Any) -> sync.SyncManager:
    return sync.SyncManager(directory, url, get_token, **more)


@pytest.mark.parametrize(
    ("arguments", "error", "text"),
    [
        ({"get_token": 5, "url": ""}, TypeError, "get_token must be callable, got <class 'int'>"),
        ({"get_token": None}, TypeError, "get_token must be callable, got <class 'NoneType'>"),
        ({"url": "", "directory": "/missing"}, ValueError, "server_url must not be empty"),
        ({"url": "http://example.com", "directory": "/missing"}, ValueError, None),
        ({"directory": "/missing/dir"}, FileNotFoundError, "data_dir does not exist: /missing/dir"),
        ({"directory": "/missing/\udcff"}, FileNotFoundError, "data_dir does not exist: /missing/\udcff"),
        ({"poll_interval_s": "x"}, TypeError, None),
    ],
)
def test_construction_checks_in_order(tmp_path: pathlib.Path, arguments: dict[str, Any], error: type[Exception], text: str | None) -> None:
    with pytest.raises(error) as caught:
        open_manager(**{"directory": tmp_path, **arguments})
    assert text in (None, str(caught.value))


def test_registry(tmp_path: pathlib.Path) -> None:
    (tmp_path / "data").mkdir()
    (tmp_path / "link").symlink_to("data")
    guard, first_token, second_token = types.SimpleNamespace(), lambda: "a", lambda: "b"
    made = sync.SyncManager.get_or_create(str(tmp_path / "data"), "http://127.0.0.1:1", first_token, 2, guard)
    again = sync.SyncManager.get_or_create(tmp_path / "link", server_url="http://127.0.0.1:1", get_token=second_token, poll_interval_s=9)
    assert again is made and made._get_token is second_token and made._poll_interval == 2.0 and made.runtime_freshness_guard is guard
    with pytest.raises(ValueError, match=f"^SyncManager for '{tmp_path}/data' already exists with server_url='http://127.0.0.1:1', cannot reuse"):
        sync.SyncManager.get_or_create(tmp_path / "data", "http://127.0.0.1:2", str)
    assert made._get_token is second_token
    assert sync.SyncManager._instances[str(tmp_path / "data")] is made
    sync.SyncManager._evict(tmp_path / "link")
    assert str(tmp_path / "data") not in sync.SyncManager._instances
    assert sync.SyncManager.get_or_create(tmp_path / "data", "http://127.0.0.1:1", str) is not made


def test_fields_read_and_assign(manager: sync.SyncManager, tmp_path: pathlib.Path, server: Any) -> None:
    directory, token, state, guard = str(tmp_path / "data"), object(), types.SimpleNamespace(active_relative_paths=("a",)), object()
    start = {
        "_data_dir": directory, "_server_url": server.url, "_poll_interval": 5.0, "runtime_freshness_guard": None, "_manifest": None,
        "_running": False, "_consumer_lifecycle_started": False, "_hash_cache_path": directory + "/.sync_hash_cache.json", "_hash_cache": {},
        "_hash_cache_dirty": False, "_missing_found_pnl_paths": set(), "_missing_found_pnl_manifest_version": None,
        "_consumer_count_path": directory + "/.consumer_count", "_consumer_count": 0, "_in_transition": False, "_repair_queue": [],
        "_status_message": None, "_active_rotation_state": None, "_prefetched_feature_era_id": None, "_prefetched_feature_relative_paths": set(),
        "_vocabulary": None, "_flock_path": directory + "/.sync_flock", "_sync_thread": None, "_era_thread": None, "_cleanup_thread": None,
    }  # fmt: skip
    assert {name: getattr(manager, name) for name in start} == start
    changed = {
        "_data_dir": "/x", "_server_url": "http://localhost", "_poll_interval": 0.5, "runtime_freshness_guard": guard, "_manifest": sync.Manifest({}),
        "_running": True, "_consumer_lifecycle_started": True, "_hash_cache_dirty": True, "_missing_found_pnl_paths": {"a", "b"},
        "_hash_cache_path": "/h", "_hash_cache": {"f": {"sha256": "s", "size_bytes": 1, "mtime_ns": 2, "ctime_ns": 3, "inode": 4}},
        "_missing_found_pnl_manifest_version": 3, "_consumer_count_path": "/y", "_consumer_count": 2, "_in_transition": True,
        "_repair_queue": ["a", "a"], "_status_message": "s", "_active_rotation_state": state, "_prefetched_feature_era_id": 7,
        "_prefetched_feature_relative_paths": {"p"}, "_vocabulary": {"u": {"a": [1]}}, "_flock_path": "/z", "_get_token": token,
    }  # fmt: skip
    for name, value in changed.items():
        setattr(manager, name, value)
    assert {name: getattr(manager, name) for name in changed} == changed
    for name in ("_manifest", "_active_rotation_state", "runtime_freshness_guard", "_get_token"):
        assert getattr(manager, name) is changed[name]
    assert manager.status() == "s" and manager.get_manifest() is changed["_manifest"]
    with pytest.raises(TypeError, match="^_poll_interval "):
        manager._poll_interval = "x"


def test_assigned_paths_are_the_ones_used(manager: sync.SyncManager, tmp_path: pathlib.Path) -> None:
    manager._flock_path, manager._hash_cache_path = tmp_path / "lock", str(tmp_path / "cache.json")
    manager._acquire_flock()
    assert (tmp_path / "lock").exists()
    manager._release_flock()
    manager._hash_cache_dirty = True
    manager._persist_hash_cache()
    assert [path.name for path in sorted(tmp_path.rglob("*"))] == ["cache.json", "data"]


def test_restoring_from_disk(tmp_path: pathlib.Path, records: pytest.LogCaptureFixture) -> None:
    (tmp_path / "manifest.json").write_text(json.dumps({"version": 3, "files": {"a.pxd": {}, "b": {}}, "é": 1}))
    (tmp_path / ".consumer_count").write_text("")
    restored = open_manager(tmp_path, token=b"fixed".decode())
    assert restored._manifest.files == {"b": {}} and restored._consumer_count == 0 and restored._get_token() == "fixed"
    assert (tmp_path / "manifest.json").read_text() == '{"version": 3, "files": {"b": {}}, "\\u00e9": 1}'
    assert [record.msg for record in records.records] == ["Failed to read consumer count: %s"]


def fill(server: Any) -> None:
    server.add("features/u/signal_is/a.arrow", b"alpha" * 1000)
    server.add("found_signals/p/e/signal_is/pnl.arrow", b"pnl", kind="found_signal_is_pnl")
    server.add("lib/vault.so", b"code", kind="vault_module", platform=sync.CURRENT_PLATFORM)
    server.add("lib/other.so", b"code", kind="vault_module", platform="mars_z80")


def test_an_empty_directory_is_filled(manager: sync.SyncManager, server: Any) -> None:
    fill(server)
    landed: list[dict[str, Any]] = []
    manager.runtime_freshness_guard = types.SimpleNamespace(record_sync_update=lambda **record: landed.append(record))
    result = manager.sync()
    directory = pathlib.Path(manager._data_dir)
    for path in list(server.files)[:3]:
        assert (directory / path).read_bytes() == server.files[path]
    assert not (directory / "lib/other.so").exists()
    assert (result.features_downloaded, result.bytes_downloaded, result.era_number, result.n_features) == (1, 5007, 7, 1)
    assert result.found_pnl_paths_downloaded == (str(directory / "found_signals/p/e/signal_is/pnl.arrow"),)
    assert result.active_relative_paths == tuple(list(server.files)[:3]) and isinstance(result, sync.SyncResult)
    assert sorted(record["relative_path"] for record in landed) == sorted(list(server.files)[:3])
    assert {record["sha256"] for record in landed} == {server.entries[path]["sha256"] for path in list(server.files)[:3]}
    assert json.loads((directory / "manifest.json").read_text()) == manager._manifest.to_dict() == server.manifest()
    assert not list(directory.rglob("*.tmp")) and not (directory / ".sync_flock").exists()
    assert all(headers["Authorization"] == f"Bearer {server.token}" for _, headers in server.requests)

    before = len(server.requests)
    assert manager.sync().bytes_downloaded == 0 and server.paths()[before:] == ["/data/manifest/version"]


def test_a_download_resumes_and_a_wrong_digest_is_refused(manager: sync.SyncManager, server: Any, monkeypatch: pytest.MonkeyPatch) -> None:
    body = b"0123456789"
    server.add("a/b.arrow", body)
    directory = pathlib.Path(manager._data_dir)
    (directory / "a").mkdir()
    (directory / "a/b.arrow.tmp").write_bytes(body[:4])
    manager.sync()
    assert (directory / "a/b.arrow").read_bytes() == body
    assert dict(server.requests)["/data/files/a/b.arrow"]["Range"] == "bytes=4-"

    monkeypatch.setenv("BRACKENFEN_SYNC_MAX_UNCHANGED_CHECKSUM_REPAIRS", "0")
    result = sync.SyncResult(bytes_downloaded=3)
    with pytest.raises(sync.IntegrityError, match="^Checksum failure for a/b.arrow: expected 00, got " + hashlib.sha256(body).hexdigest()):
        manager._download_file("a/b.arrow", {"sha256": "00", "size_bytes": 10}, result, retry_checksum_mismatch=False)
    manager._download_file("a/b.arrow", {"sha256": hashlib.sha256(body).hexdigest(), "size_bytes": 10, "kind": "feature"}, result,
                           target_data_dir=directory / "staging")  # fmt: skip
    assert (result.bytes_downloaded, result.features_downloaded) == (13, 1) and (directory / "staging/a/b.arrow").exists()


@pytest.mark.parametrize(
    ("manifest", "error", "text"),
    [
        ((404, b""), "SyncError", "Failed to fetch manifest: HTTP 404"),
        ((401, b""), "AuthError", "Authentication failed: HTTP 401"),
        ((200, b""), "ManifestError", "Invalid manifest JSON: Expecting value: line 1 column 1 (char 0)"),
        ((200, b"[]"), "AttributeError", None),
        ((200, b'{"era_number": 8, "files": {}}'), "EraError", "Era mismatch: local era_number=7, server era_number=8"),
        ((200, b'{"era_number": 7, "version": 2, "files": {"a": 5}}'), "SyncError", "Active rotation path is missing from manifest: a"),
        ((200, b'{"era_number": 7, "version": 2, "files": {"../a": {}}}'), "ManifestError", "Manifest file path contains unsafe segments: '../a'"),
        ((200, b'{"era_number": 7, "version": 2, "files": {"a": {"size_bytes": 1e30}}}'), "DiskSpaceError", None),
        ((503, b'{"retryable": false}'), "SyncUnavailableError", None),
    ],
)
def test_bad_manifests(manager: sync.SyncManager, server: Any, manifest: Any, error: str, text: str | None) -> None:
    manager.sync()
    committed = pathlib.Path(manager._data_dir, "manifest.json").read_bytes()
    server.version = 2
    server.answers["/data/manifest"] = manifest
    with pytest.raises(Exception) as caught:
        manager.sync()
    assert type(caught.value).__name__ == error and text in (None, str(caught.value))
    assert pathlib.Path(manager._data_dir, "manifest.json").read_bytes() == committed and manager._manifest.version == 1
    assert not pathlib.Path(manager._flock_path).exists()


def test_requests_and_probes(manager: sync.SyncManager, server: Any) -> None:
    server.answers["/x"] = lambda handler: (handler.send_response(201), handler.send_header("X-Odd", "\xe9"), handler.end_headers(), handler.wfile.write(b"\0b"))
    status, headers, body = sync._http_get_public(server.url + "/x", range_start=10, range_end=5)
    assert (status, headers["X-Odd"], body) == (201, "\xe9", b"\0b") and type(body) is bytes
    assert server.requests[-1][1]["Range"] == "bytes=10-" and "Authorization" not in server.requests[-1][1]
    assert manager._http_get(server.url + "/missing")[0] == 404
    assert manager._manifest_version_probe_once(server.url + "/data/manifest/version")[2] == b'{"version": 1, "era_number": 7}'
    assert manager._manifest_version_probe_once("http://127.0.0.1:1/") is None
    stamped = {"_manifest_version": 0, "_manifest_era_id": 7}
    assert manager._download_manifest_superseded(stamped) and not manager._download_manifest_superseded({})


def test_local_integrity(manager: sync.SyncManager, server: Any) -> None:
    fill(server)
    manager.sync()
    path = pathlib.Path(manager._data_dir, "features/u/signal_is/a.arrow")
    stat, entry = path.stat(), server.entries["features/u/signal_is/a.arrow"]
    assert sync.SyncManager._cache_stat_key(path) == (5000, stat.st_mtime_ns, stat.st_ctime_ns, stat.st_ino)
    assert manager._load_hash_cache() == manager._hash_cache and "features/u/signal_is/a.arrow" in manager._hash_cache
    assert manager._cached_local_sha("features/u/signal_is/a.arrow", path, entry["sha256"]) == entry["sha256"]
    assert manager._local_file_matches_manifest("features/u/signal_is/a.arrow", path, entry, cache_allowed=False)
    state = types.SimpleNamespace(active_relative_paths=["features/u/signal_is/a.arrow"])
    record = types.SimpleNamespace(files=server.entries, era_number=7)
    assert manager._local_manifest_files_complete(manager._manifest, active_rotation_state=state)
    assert manager._local_manifest_files_complete(record)
    path.write_bytes(b"alphb" * 1000)
    assert not manager._local_manifest_files_complete(record, state)


def test_a_batch_with_callbacks_on_worker_threads(manager: sync.SyncManager, server: Any) -> None:
    names: set[str] = set()
    manager._get_token = lambda: names.add(threading.current_thread().name) or server.token
    for number in range(6):
        server.add(f"f{number}", b"x" * number)
    server.answers["/data/files/f3"] = (410, b"")
    result = sync.SyncResult()
    with pytest.raises(sync.PermanentDownloadError) as caught, sync.backoff_context(surface="s"):
        manager._download_files_parallel(server.entries, result)
    assert (caught.value.file_path, caught.value.status, result.bytes_downloaded) == ("f3", 410, 12)
    assert names and all(name.startswith("bf-sync") for name in names)


def test_the_token_stays_out_of_logs_and_errors(manager: sync.SyncManager, server: Any, records: pytest.LogCaptureFixture) -> None:
    texts: list[str] = []
    server.answers["/data/manifest"] = (500, b'{"retryable": false, "reason": "r"}')
    with pytest.raises(sync.SyncUnavailableError) as unavailable:
        manager.sync()
    texts.append(repr(unavailable.value.__dict__) + str(unavailable.value))
    manager._get_token = lambda: server.token + "\r\nX: y"
    with pytest.raises(ValueError) as refused:
        manager._http_get(server.url + "/x")
    texts += [str(refused.value), *(record.getMessage() for record in records.records)]
    assert not [text for text in texts if server.token in text]
    assert "/x" not in server.paths()


def test_a_failing_file_is_waited_for_and_a_stop_callback_ends_the_wait(manager: sync.SyncManager, server: Any, records: pytest.LogCaptureFixture) -> None:
    server.add("f", b"x")
    waits: list[float] = []
    answers = iter([(503, b"{}")])
    server.answers["/data/files/f"] = lambda handler: server.send(handler, *next(answers, (200, b"x")))
    manager._download_file("f", server.entries["f"], sync.SyncResult(), waits.append, backoff_surface="mine")
    events = [record.brackenfen_sync_event for record in records.records if hasattr(record, "brackenfen_sync_event")]
    assert len(waits) == 1 and 0.4 <= waits[0] <= 0.6
    assert [(event["event_type"], event["surface"], event["attempt"]) for event in events if "surface" in event] == [("sync_backoff_wait", "mine", 1)]
    server.answers["/data/files/f"] = (503, b"{}")
    with sync.backoff_context(stop_requested=lambda: True), pytest.raises(sync.SyncBackoffCancelled):
        manager._download_file("f", server.entries["f"], sync.SyncResult())
    manager._get_token = lambda: 1 / 0
    with pytest.raises(ZeroDivisionError):
        manager._download_file("f", server.entries["f"], sync.SyncResult())
