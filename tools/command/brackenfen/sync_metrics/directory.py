"""What the files of a data directory tell, read anew only where one of them has changed."""

from __future__ import annotations

import json
import os
import shutil
from datetime import datetime
from pathlib import Path

from brackenfen import sync

MANIFEST, SETTINGS = "manifest.json", "feature-rotation-settings.json"
READ_AGAIN_SECONDS = 600.0  # files of the selection may go without a change of these
GIBIBYTE = 2**30


def settings_of(directory: Path) -> tuple[str, float | None]:
    """How often features rotate, and the most bytes that they may take: None for what fits. A file that is none counts as absent."""
    given: dict[str, object] = {}
    try:
        if (path := directory / SETTINGS).is_file():  # a pipe would be waited for
            given = dict(json.loads(path.read_bytes()))
    except (OSError, ValueError, TypeError, RecursionError):
        pass
    frequency, budget = given.get("rotation_frequency"), given.get("feature_budget_gb")
    # Neither negative, nor NaN, nor more than a float holds.
    is_number = isinstance(budget, (int, float)) and not isinstance(budget, bool) and 0 <= budget < 2**64
    return (
        frequency if isinstance(frequency, str) and frequency else sync.RotationSettings().rotation_frequency,
        float(budget) * GIBIBYTE if is_number and isinstance(budget, (int, float)) else None,
    )


def read(directory: Path) -> dict[str, float | None]:
    """In a host the interpreter lock is held for some 0.3 µs for each file of the manifest, in one piece."""
    frequency, budget = settings_of(directory)
    try:
        rotation = sync.feature_rotation_status_payload(directory, settings_payload={"rotation_frequency": frequency})
        committed = (directory / MANIFEST).stat().st_mtime if rotation["manifest_available"] else None
    except (sync.SyncError, sync.StateError, OSError, ValueError, TypeError, AttributeError):
        return {"damaged": 1}
    due = rotation["next_rotation_at"]
    is_rotating = rotation["generation"] is not None
    return {
        "damaged": 0,
        "committed_timestamp_seconds": committed,
        "era_number": rotation["era_number"],
        "manifest_version": rotation["manifest_version"],
        "rotation_generation": rotation["generation"],
        "rotation_eligible_features": rotation["eligible_feature_count"] if is_rotating else None,
        "rotation_held_features": rotation["selected_feature_count"] if is_rotating else None,
        "rotation_missing_files": rotation["missing_active_path_count"] if is_rotating else None,
        "rotation_next_timestamp_seconds": datetime.fromisoformat(due).timestamp() if due else None,
        "disk_budget_bytes": budget,
    }


class DirectoryFigures:
    """Used by one thread."""

    def __init__(self, directory: Path) -> None:
        self._directory = directory
        self._seen: object = None
        self._read_at = 0.0
        self._known: dict[str, float | None] = {}

    def now(self, monotonic: float) -> dict[str, float | None]:
        """Raises OSError where the directory is gone."""
        seen = [self._place(path) for path in (self._directory / MANIFEST, self._directory / SETTINGS, self._state())]
        if seen != self._seen or monotonic - self._read_at >= READ_AGAIN_SECONDS:
            self._known = read(self._directory)
            self._seen, self._read_at = seen, monotonic
        return {**self._known, "disk_free_bytes": shutil.disk_usage(self._directory).free}

    def _state(self) -> Path:
        return Path(sync.feature_rotation_state_path(self._directory))

    @staticmethod
    def _place(path: Path) -> tuple[int, ...] | None:
        try:
            found = os.stat(path)
        except OSError:
            return None
        return found.st_ino, found.st_size, found.st_mtime_ns
