"""Operations of the module that work closely with it and stand in no stub, given types here and used nowhere else.

They come with the very wheel that holds this command, so both change together.
"""

from __future__ import annotations

import json
from collections.abc import Iterator, Mapping
from contextlib import contextmanager
from pathlib import Path
from typing import Any, cast

from brackenfen import sync

_module: Any = sync
# Modules of a host that the library looks for, of the namespace that it shares with the host.
NEIGHBOURS = {
    "_artifact_rotation", "_function_token_safety", "_functions_vocabulary", "_rotation_settings", "_sync_progress", "_transport_security",
    "agent_onboarding", "auth", "deployment", "era_config", "identity", "logging_style", "reason_descriptions",
    "runtime_module_freshness", "search_tracking", "sync_backoff",
}  # fmt: skip
VERSION_PATH, ERA_PATH = "/data/manifest/version", "/era/current"


class Answer:
    """A response of the server that is no failure below HTTP; one that says 401 or 403 raises instead."""

    def __init__(self, status: int, headers: Mapping[str, str], body: bytes) -> None:
        self.status, self.body = status, body
        self.headers = {name.lower(): value for name, value in headers.items()}

    def document(self) -> dict[str, Any]:
        """Raises ManifestError where the body is no JSON object."""
        try:
            content = json.loads(self.body)
        except ValueError as error:
            raise sync.ManifestError(f"the server's answer is no JSON: {error}") from None
        if not isinstance(content, dict):
            raise sync.ManifestError("the server's answer is no JSON object")
        return content


def get(manager: sync.SyncManager, path: str) -> Answer:
    """One GET of the library: its token, timeouts, TLS and waits."""
    status, headers, body = cast(Any, manager)._http_get(cast(Any, manager)._server_url + path)
    return Answer(status, headers, body)


def require_fine(answer: Answer, path: str) -> Answer:
    if answer.status in (401, 403):
        raise sync.AuthError(f"Authentication failed: HTTP {answer.status}")
    if answer.status != 200:
        raise sync.SyncError(f"the server answers HTTP {answer.status} at {path}")
    return answer


def current_era(manager: sync.SyncManager) -> dict[str, Any]:
    """What the server says of its era: `era_number`, `state`, `next_closing_at`, `min_library_version`, as far as it does."""
    answer = require_fine(get(manager, ERA_PATH), ERA_PATH)
    return cast(dict[str, Any], _module._normalize_era_current_response(answer.document()))


def rotation_settings(manager: sync.SyncManager, manifest: sync.Manifest) -> sync.RotationSettings:
    """The directory's own. Raises ValueError that names file and key."""
    return cast(sync.RotationSettings, cast(Any, manager)._feature_rotation_settings_for_manifest(manifest, free_disk_bytes=0)[0])


def stored_manifest(directory: Path) -> sync.Manifest | None:
    """manifest.json as the library takes it, which refuses some that Python's own parser takes; None where there is none.

    Raises FeatureRotationStateError that says what is wrong with it.
    """
    return cast("sync.Manifest | None", _module._load_feature_rotation_status_manifest(str(directory)))


def stated_size(file_info: object) -> int:
    """The size of a file as an entry of a manifest states it; 0 where it states none."""
    return cast(int, _module._manifest_size(file_info)[1])


def is_for_another_platform(file_info: object) -> bool:
    return cast(bool, _module._manifest_file_is_sync_excluded(file_info))


def local_path(directory: Path, relative_path: str) -> Path:
    """Raises ManifestError for a path that leaves the directory."""
    return Path(_module._manifest_local_path(str(directory), relative_path))


def matches(manager: sync.SyncManager, relative_path: str, path: Path, file_info: object) -> bool:
    """Whether a local file is what an entry says; read anew only where the hash cache does not know it."""
    return cast(bool, cast(Any, manager)._local_file_matches_manifest(relative_path, str(path), file_info))


def validate_seed(path: Path, era_number: int) -> None:
    """Raises SyncError or EraError that says what is wrong."""
    _module._validate_shuffle_seed_file(str(path), era_number)


def old_era_of(name: str) -> int | None:
    """The era whose directory of an older layout has this name."""
    return cast("int | None", _module._parse_era_directory_id(name))


@contextmanager
def unit_of_work(manager: sync.SyncManager) -> Iterator[None]:
    """No pass, repair or transition of any process runs meanwhile; waits for the one that does."""
    inner = cast(Any, manager)
    inner._acquire_flock()
    try:
        yield
    finally:
        inner._release_flock()


def settings_in_force() -> dict[str, object]:
    """The transport's settings by name; a variable that is no number is a warning in the log."""
    return {
        "HTTP timeout": _module._sync_http_timeout_seconds(),
        "version poll timeout": _module._sync_manifest_version_http_timeout_seconds(),
        "chunk": _module._sync_http_chunk_bytes(),
        "read block": _module._sync_http_response_read_bytes(),
        "downloads at once": _module._sync_max_concurrency(),
        "checksum repairs": _module._sync_max_unchanged_checksum_repairs(),
        "batch timeout": _module._sync_parallel_timeout_seconds(1, 1),
    }
