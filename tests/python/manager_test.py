"""SyncManager: construction, its fields, and passes against a server."""

import json
import pathlib
import threading
import time
import types
from typing import Any

import brackenfen.sync as sync
import pytest
from torture.hostile_server import answer


def test_construction_and_registry(tmp_path: pathlib.Path) -> None:
    (tmp_path / "data").mkdir()
    (tmp_path / "link").symlink_to("data")
    with pytest.raises(TypeError, match="^get_token must be callable, got <class 'int'>$"):
        sync.SyncManager("/missing", "", 5)
    with pytest.raises(ValueError, match="^server_url must not be empty$"):
        sync.SyncManager("/missing", "", str)
    with pytest.raises(ValueError, match="^URL must use https, or http on this machine only: http://example.com$"):
        sync.SyncManager("/missing", "http://example.com", str)
    for missing, make in (("/missing/\udcff", sync.SyncManager), (__file__, sync.SyncManager), (__file__, sync.SyncManager.get_or_create)):
        with pytest.raises(FileNotFoundError, match=f"^data_dir does not exist: {missing}$"):
            make(missing, "http://127.0.0.1:1", str)
    assert __file__ not in sync.SyncManager._instances
    assert sync.SyncManager(tmp_path, "http://127.0.0.1:1", token=b"fixed".decode())._get_token() == "fixed"

    guard, newer = types.SimpleNamespace(), lambda: "b"
    made = sync.SyncManager.get_or_create(str(tmp_path / "data"), "http://127.0.0.1:1", lambda: "a", 2, guard)
    again = sync.SyncManager.get_or_create(tmp_path / "link", server_url="http://127.0.0.1:1", get_token=newer, poll_interval_s=9)
    with pytest.raises(ValueError, match="already exists with server_url='http://127.0.0.1:1', cannot reuse with server_url='https://b'$"):
        sync.SyncManager.get_or_create(tmp_path / "link", "https://b", str)
    assert again is made and made._get_token is newer and made.runtime_freshness_guard is guard
    assert sync.SyncManager._instances[str(tmp_path / "data")] is made
    sync.SyncManager._evict(tmp_path / "link")
    assert str(tmp_path / "data") not in sync.SyncManager._instances


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


def fill(server: Any) -> None:
    server.add("features/u/signal_is/a.arrow", b"alpha" * 1000)
    server.add("found_signals/p/e/signal_is/pnl.arrow", b"pnl", kind="found_signal_is_pnl")
    server.add("useful_signals/p/e/signal_os/pnl.arrow", b"os", kind="useful_signal_os_pnl")
    server.add("lib/vault.so", b"code", kind="vault_module", platform=sync.CURRENT_PLATFORM)
    server.add("lib/other.so", b"code", kind="vault_module", platform="mars_z80")


def test_what_a_pass_hands_to_python(manager: sync.SyncManager, server: Any) -> None:
    fill(server)
    landed: list[dict[str, Any]] = []
    manager.runtime_freshness_guard = types.SimpleNamespace(record_sync_update=lambda **record: landed.append(record))
    result = manager.sync()
    present = tuple(sorted([*list(server.files)[:4], *server.documents]))
    catalogue_bytes = len(server.documents["functions.json"])
    assert (result.features_downloaded, result.bytes_downloaded, result.era_number, result.n_features) == (1, 5009 + catalogue_bytes, 7, 1)
    assert (result.pnl_column_count, result.useful_signals_downloaded, result.n_useful_signals, result.n_found_strategies) == (4, 1, 1, 0)
    assert (result.t_signal_is, result.t_strategy_is, result.n_instruments) == (5, 6, 7)
    assert result.vocabulary_downloaded and result.shuffle_seed_downloaded
    assert result.found_pnl_paths_downloaded == (manager._data_dir + "/found_signals/p/e/signal_is/pnl.arrow",)
    assert result.active_relative_paths == present and isinstance(result, sync.SyncResult)
    entries = server.manifest()["files"]
    assert {(record["relative_path"], record["sha256"]) for record in landed} == {(path, entries[path]["sha256"]) for path in present}
    assert manager._manifest.to_dict() == server.manifest()


def test_a_download_with_every_argument(manager: sync.SyncManager, server: Any, neighbour: Any, tmp_path: pathlib.Path, records: Any) -> None:
    class Policy:
        delay_seconds = staticmethod(lambda _: 0.02)
        sleep = staticmethod(lambda seconds, sleep, stop_requested: sleep(seconds) or not stop_requested())

    neighbour("sync_backoff", **{**vars(sync._sync_backoff_module()), "SyncBackoffPolicy": Policy})
    server.add("f", b"x")
    waits: list[float] = []
    answers = iter([(503, b"{}"), (200, b"")])  # the first is an outage of the server, the second a failed transfer of this file
    server.answers["/data/files/f"] = lambda exchange: answer(*next(answers, (200, b"x")))(exchange)
    result = sync.SyncResult(bytes_downloaded=3)
    manager._download_file("f", server.entries["f"], result, waits.append, backoff_surface="mine", target_data_dir=tmp_path / "staging")
    events = [record.brackenfen_sync_event for record in records.records if hasattr(record, "brackenfen_sync_event")]
    waits_shown = [(event["surface"], event["attempt"]) for event in events if event["event_type"] == "sync_backoff_wait"]
    assert waits_shown == [("http_request", 1), ("mine", 1)]
    assert waits == [0.02] and (result.bytes_downloaded, result.features_downloaded) == (4, 1) and (tmp_path / "staging/f").exists()
    with pytest.raises(sync.IntegrityError):
        manager._download_file("f", {"sha256": "00", "size_bytes": 1}, result, retry_checksum_mismatch=False)
    landed: list[dict[str, Any]] = []
    manager.runtime_freshness_guard = types.SimpleNamespace(record_sync_update=lambda **record: landed.append(record))
    manager._download_file("f", {**server.entries["f"], "kind": 7}, result)
    assert [record["kind"] for record in landed] == [7], "as the manifest has it"


def test_a_stop_of_the_host_ends_every_worker_of_an_outage(manager: sync.SyncManager, server: Any, wait_until: Any) -> None:
    for number in range(200):
        server.add(f"f{number}", b"x" * number)
        server.answers[f"/data/files/f{number}"] = (503, b'{"error": "DOWN"}')
    stop, stopped_at = threading.Event(), 0.0

    def run() -> None:
        nonlocal stopped_at
        with sync.backoff_context(data_dir=manager._data_dir, surface="host", stop_requested=lambda: stop.is_set() or 1 / 0):  # a failing one stops nobody
            with pytest.raises(sync.SyncBackoffCancelled):
                manager.sync()
        stopped_at = time.monotonic()

    host = threading.Thread(target=run)
    host.start()
    wait_until(lambda: len({path for path, _ in server.requests if path.startswith("/data/files/")}) == 8)
    shown = pathlib.Path(manager._data_dir, "sync-progress.json")
    wait_until(lambda: "backoff" in shown.read_text())  # once the first of the answers is here
    progress = json.loads(shown.read_text())
    stop.set()
    asked_at = time.monotonic()
    host.join()
    assert stopped_at - asked_at < 1
    assert len({path for path, _ in server.requests if path.startswith("/data/files/")}) == 8  # what was queued never begins
    assert {f"f{number}" for number in range(200)} <= set(progress["files"])
    assert (progress["phase"], progress["backoff"]["surface"]) == ("backoff", "host")


def test_requests_and_probes(manager: sync.SyncManager, server: Any) -> None:
    server.answers["/x"] = answer("201 Odd\r\nX-Odd: 1", b"\0b", X_Odd="\xe9")  # twice: the last one counts
    status, headers, body = sync._http_get_public(server.url + "/x", range_start=10, range_end=5)
    assert (status, headers["X-Odd"], body) == (201, "\xe9", b"\0b") and type(body) is bytes
    own = {"host": server.url.removeprefix("http://"), "user-agent": "brackenfen-sync/0.0.3"}
    assert server.requests[-1][1] == {**own, "range": "bytes=10-"}
    sync._http_get_public(server.url + "/x")
    assert server.requests[-1][1] == own
    for first, last in ((0, 0), (4, 6)):
        sync._http_get(server.url + "/x", "canary", range_start=first, range_end=last)
        assert server.requests[-1][1] == {**own, "authorization": "Bearer canary", "range": f"bytes={first}-{last}"}
    assert manager._http_get(server.url + "/missing")[0] == 404
    assert manager._manifest_version_probe_once(server.url + "/data/manifest/version")[2] == b'{"version": 1, "era_number": 7}'
    assert manager._manifest_version_probe_once("http://127.0.0.1:1/") is None
    stamped = {"_manifest_version": 0, "_manifest_era_id": 7}
    assert manager._download_manifest_superseded(stamped) and not manager._download_manifest_superseded({})


def test_what_is_here_is_judged_and_repaired(manager: sync.SyncManager, server: Any) -> None:
    fill(server)
    assert manager.needs_sync() and manager.verify() == sync.VerifyResult()
    manager.sync()
    damaged, gone = list(server.files)[:2]
    path, entry = pathlib.Path(manager._data_dir, damaged), server.entries[damaged]
    stat = path.stat()
    assert sync.SyncManager._cache_stat_key(path) == (5000, stat.st_mtime_ns, stat.st_ctime_ns, stat.st_ino)
    assert manager._load_hash_cache() == manager._hash_cache and damaged in manager._hash_cache
    assert manager._cached_local_sha(damaged, path, entry["sha256"]) == entry["sha256"]
    assert manager._local_file_matches_manifest(damaged, path, entry, cache_allowed=False)
    record = types.SimpleNamespace(files=server.manifest()["files"], era_number=7, functions="functions.json")
    assert manager._local_manifest_files_complete(manager._manifest, active_rotation_state=types.SimpleNamespace(active_relative_paths=[damaged]))
    path.write_bytes(b"?" * 5000)
    pathlib.Path(manager._data_dir, gone).unlink()
    assert not manager._local_manifest_files_complete(record)
    assert manager.verify() == sync.VerifyResult(valid=False, corrupted_files=[damaged], missing_files=[gone]) and manager.needs_sync()
    result = manager.repair(corrupted_files=(path for path in (damaged, gone, "unknown")))
    assert isinstance(result, sync.SyncResult) and result.bytes_downloaded == len(server.files[damaged]) + len(server.files[gone])
    assert manager.verify().valid and not manager.needs_sync()
    result = manager.ensure_manifest_file_available(file_path=damaged, file_info=types.MappingProxyType(entry))
    assert result.bytes_downloaded == len(server.files[damaged])


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
