"""Every figure there is, and how figures become text. A figure that is not known is left out, never guessed."""

from __future__ import annotations

import os
from collections.abc import Iterator, Mapping
from pathlib import Path

from brackenfen import sync
from brackenfen.sync_command.history import History
from prometheus_client import CollectorRegistry, generate_latest
from prometheus_client.core import CounterMetricFamily, GaugeMetricFamily, InfoMetricFamily, Metric
from prometheus_client.registry import Collector

PREFIX = "brackenfen_sync_"
# Those in _total are counters, all others gauges. What is a question is 1 for yes and 0 for no.
FIGURES = {
    "collected_timestamp_seconds": "When these figures were collected.",
    "in_step": "Whether the directory is what the server publishes, as far as it is known.",
    "last_good_pass_timestamp_seconds": "When the directory was last known to be what the server publishes.",
    "committed_timestamp_seconds": "When the version that is here was committed.",
    "era_number": "The era that the directory holds.",
    "manifest_version": "The version of the manifest that the directory holds.",
    "running": "Whether the background work runs.",
    "failing": "Whether the last piece of work failed.",
    "damaged": "Whether a state file of the directory cannot be read.",
    "locked": "Whether a process works on the directory.",
    "server_up": "Whether the server gave a usable answer when it was asked for these figures.",
    "server_era_number": "The era that the server publishes.",
    "server_manifest_version": "The version of the manifest that the server publishes.",
    "server_wait_seconds": "For how long the longest wait for the server has lasted, 0 where there is none.",
    "lock_wait_seconds": "For how long the longest wait for another process has lasted, 0 where there is none.",
    "passes_total": "Passes that committed something.",
    "transitions_total": "Transitions to another era.",
    "landed_files_total": "Files that passes and transitions brought.",
    "landed_bytes_total": "Bytes of the files that passes and transitions brought.",
    "outages_total": "Outages of the server, each counted when it ends at the latest.",
    "outage_seconds_total": "Seconds that outages of the server lasted, each added when it ends at the latest.",
    "download_repairs_total": "Files fetched again because their bytes were not the ones promised.",
    "local_repairs_total": "Files fetched anew because they were found damaged in the directory.",
    "failures_total": "Passes and transitions of the background work that failed.",
    "warnings_total": "Warnings in the log.",
    "log_unreadable_lines": "Lines of the files of events that are no events.",
    "verified_timestamp_seconds": "When every file was last read and compared with the manifest.",
    "verified_bad_files": "Files that were damaged or missing then.",
    "listed_files": "Files that the manifest lists.",
    "listed_bytes": "Bytes of the files that the manifest lists.",
    "rotation_generation": "Counts the rotations of the features.",
    "rotation_eligible_features": "Features that the directory may hold.",
    "rotation_held_features": "Features that the directory holds now.",
    "rotation_missing_files": "Files that the rotation has selected and that are not here.",
    "rotation_next_timestamp_seconds": "When the next rotation is due.",
    "disk_budget_bytes": "What features may take, where a number is set.",
    "disk_free_bytes": "What is free on the disk of the directory for its user.",
}
INFO = "Which version of the library collected these figures."

type Figures = Mapping[str, float | None]


def counted(histories: list[History]) -> dict[str, float | None]:
    """The counters of all these histories together."""
    return {
        "passes_total": sum(history.change_count - history.transition_count for history in histories),
        "transitions_total": sum(history.transition_count for history in histories),
        "landed_files_total": sum(history.landed_files for history in histories),
        "landed_bytes_total": sum(history.landed_bytes for history in histories),
        "outages_total": sum(history.outage_count for history in histories),
        "outage_seconds_total": round(sum(history.outage_seconds for history in histories), 3),
        "download_repairs_total": sum(history.repaired for history in histories),
        "local_repairs_total": sum(history.damaged for history in histories),
        "failures_total": sum(history.failure_count for history in histories),
        "warnings_total": sum(history.warning_count for history in histories),
    }


class _Once(Collector):
    def __init__(self, directory: Path, figures: Figures) -> None:
        # Absolute, so that a series stays the same wherever the command is run.
        self._directory = os.fsencode(os.path.abspath(directory)).decode(errors="backslashreplace")
        self._figures = figures

    def collect(self) -> Iterator[Metric]:
        info = InfoMetricFamily(f"{PREFIX}build", INFO, labels=["directory"])
        info.add_metric([self._directory], {"version": sync.__version__})
        yield info
        for name, told in FIGURES.items():
            if (value := self._figures.get(name)) is None:
                continue
            family = (CounterMetricFamily if name.endswith("_total") else GaugeMetricFamily)(PREFIX + name, told, labels=["directory"])
            family.add_metric([self._directory], float(value))
            yield family


def exposition(directory: Path, figures: Figures) -> bytes:
    """The text that Prometheus reads. The directory is the only label, beside the library's version."""
    registry = CollectorRegistry()
    registry.register(_Once(directory, figures))
    return generate_latest(registry)
