"""Keeps a local data directory in step with a server's distribution of it.

`SyncManager.get_or_create` opens a directory; `SyncManager.sync` brings it up to date. Names with a leading
underscore exist at run time and are not listed here.
"""

import os
from collections.abc import Callable, Iterable, Mapping
from contextlib import AbstractContextManager
from dataclasses import dataclass, field
from typing import Any, Protocol, final, type_check_only

__all__ = [
    "ActiveRotationStateError", "ArtifactDescriptor", "ArtifactRotationSettings", "AuthError",
    "CURRENT_PLATFORM", "DiskSpaceError", "EraError", "EraThread", "FeatureRotationStateError",
    "FileInFlight", "Health", "IntegrityError", "LibraryUpdateRequired", "LockHolder", "LockWait",
    "MandatoryArtifactsTooLargeError", "Manifest", "ManifestError", "ManifestSupersededError",
    "PermanentDownloadError", "Progress", "RotationPlan", "RotationSelection", "RotationSettings",
    "RotationState", "RotationStatePayloadError", "SelectionScope", "StateError", "SyncBackoffCancelled",
    "SyncError", "SyncManager", "SyncPlan", "SyncResult", "SyncUnavailableError", "VerifyResult",
    "VocabularyScopeError", "Wait", "backoff_context", "current_context", "feature_rotation_state_path",
    "feature_rotation_status_payload", "load_feature_rotation_state", "lock_holder",
    "write_feature_rotation_state",
]

__version__: str
"""The version in the user agent."""

CURRENT_PLATFORM: str
"""The running platform, such as "linux_x86_64"."""

type _Path = str | os.PathLike[str]
type _Document = dict[str, Any]
"""A JSON object: str keys in insertion order; values are dict, list, str, int of any size, float, bool and None."""

@type_check_only
class TokenSource(Protocol):
    """Where bearer tokens come from: any callable without arguments."""

    def __call__(self) -> str:
        """Return a fresh token. Called once for each request, on the thread that makes it."""

@type_check_only
class RuntimeFreshnessGuard(Protocol):
    """Told of every file that lands in the live directory."""

    def record_sync_update(self, *, relative_path: str, kind: str, sha256: str) -> object:
        """Called on the thread that landed the file. What it raises ends the operation."""

@type_check_only
class EraManager(Protocol):
    """What an EraThread needs of a manager of the host's own."""

    @property
    def _manifest(self) -> Any:
        """An object with era_number, or None."""

    def trigger_era_transition(
        self,
        *,
        new_era_id: int | None,
        kill_searches_fn: Callable[[], object] | None,
        restart_searches_fn: Callable[[], object] | None,
    ) -> object:
        """Called on the watcher's thread."""

@type_check_only
class RotationSearchConsumer(Protocol):
    """A running search. Its universe is the first usable of named_universe, _named_universe, universe, _universe."""

    def refresh_rotation_scope(self, rotation_state: Any, scoped_vocabulary: Any) -> object:
        """Called on the syncing thread once the new selection is in place. Must not sync itself; what it raises ends the
        pass and keeps the searches registered after it from being told, while the new state stays.
        """

# ---- errors -------------------------------------------------------------------------------------------------

class SyncError(Exception):
    """Base class of sync failures.

    The attributes hold what the failure is about, where that is known; notes of the exception tell the same, and what to do.
    """

    url: str | None
    status: int | None
    """HTTP status."""
    file_path: str | None
    """Manifest-relative path."""
    local_era_number: int | None
    """Of an era mismatch, as the one below."""
    server_era_number: int | None

class PermanentDownloadError(SyncError):
    """A file's download failed for good; retrying cannot help."""

    status: int | None
    """HTTP status, or None where the given one is no number."""
    def __init__(self, message: str, file_path: str | None = None, status: object = None) -> None: ...

class SyncUnavailableError(SyncError, ConnectionError):
    """A sync dependency remained unavailable.

    Raised where the server itself says that retrying cannot help; every other outage is waited out.
    """

    url: str
    endpoint: str
    """The URL's path: neither host nor query."""
    attempts: int
    """Requests that failed."""
    statuses: list[int]
    """HTTP statuses seen, newest last, at most 20."""
    failures: list[str]
    """Class names of network failures seen, newest last, at most 20."""
    server_error_code: str | None
    """The server's own words, as are the four below; None where it gave none."""
    dependency: str | None
    retryable: bool | None
    """False where retrying cannot help."""
    recovery: str | None
    reason: str | None
    typed_details: bool
    """Whether the failure is described by more than a reason."""
    def __init__(
        self,
        url: str | None = None,
        attempts: int = 0,
        statuses: list[int] | None = None,
        failures: list[str] | None = None,
        server_error_code: str | None = None,
        dependency: str | None = None,
        retryable: bool | None = None,
        recovery: str | None = None,
        reason: str | None = None,
        typed_details: bool | None = None,
    ) -> None: ...

class ManifestSupersededError(SyncError):
    """A newer manifest generation supersedes active downloads."""

class DiskSpaceError(SyncError):
    """Insufficient disk space for a sync."""

class IntegrityError(SyncError):
    """File checksum verification failed after retries."""

class EraError(SyncError):
    """Era-related failure."""

class ManifestError(SyncError):
    """Manifest parsing or validation failed."""

class StateError(Exception):
    """Operation invalid for the current state. Deliberately no SyncError."""

class FeatureRotationStateError(StateError):
    """Persisted feature-rotation state is invalid."""

class AuthError(Exception):
    """Authentication failed. The class of the module `brackenfen.auth` where the host has one."""

class LibraryUpdateRequired(Exception):
    """An era needs a newer library. The class of `brackenfen.deployment` where the host has one."""

class SyncBackoffCancelled(Exception):
    """A wait was ended by its stop callback. The class of `brackenfen.sync_backoff` where the host has one."""

class RotationStatePayloadError(ValueError):
    """A persisted rotation state is malformed. The class of `brackenfen._artifact_rotation` where the host has one, as are
    the three below.
    """

class ActiveRotationStateError(ValueError):
    """No plan can be made of the active rotation state."""

class VocabularyScopeError(SyncError):
    """A running search cannot be matched with a vocabulary."""

class MandatoryArtifactsTooLargeError(DiskSpaceError):
    """Mandatory artifacts need more than half of the free space."""

    mandatory_bytes: int
    """Bytes still to come."""
    available_bytes: int
    """Half of the free space."""
    selected_paths: tuple[str, ...]
    """Relative; empty in an error of this library."""
    def __init__(self, mandatory_bytes: int, available_bytes: int, selected_paths: tuple[str, ...] = ()) -> None: ...

# ---- results ------------------------------------------------------------------------------------------------

@dataclass
class SyncResult:
    """What a sync came to. Every field has a default."""

    features_downloaded: int = 0
    """Files of kind "feature" that landed."""
    useful_signals_downloaded: int = 0
    """Useful-signal groups touched by the download set."""
    bytes_downloaded: int = 0
    """Bytes of the files that landed, whole files, resumed bytes included."""
    era_number: int = 0
    """Of the manifest, as is pnl_column_count."""
    t_signal_is: int = 0
    """From the metadata of a vocabulary, as are the two below; 0 where it states none."""
    t_strategy_is: int = 0
    n_instruments: int = 0
    n_features: int = 0
    """Files of kind "feature" in the manifest."""
    n_useful_signals: int = 0
    """Groups of useful signals in the manifest; of found strategies below."""
    n_found_strategies: int = 0
    pnl_column_count: int = 0
    vocabulary_downloaded: bool = False
    shuffle_seed_downloaded: bool = False
    active_relative_paths: tuple[str, ...] = ()
    """What the plan of the rotation selects, mandatory files included."""
    skipped_relative_paths: tuple[str, ...] = ()
    """Features that it leaves out."""
    mandatory_relative_paths: tuple[str, ...] = ()
    found_pnl_paths_downloaded: tuple[str, ...] = ()
    """Local paths."""
    rotation_seed: int | None = None
    """None where no rotation took part, as is the budget."""
    feature_budget_bytes: int | None = None
    """The most that features still to come may take."""

@dataclass
class VerifyResult:
    """What an audit of the local files found, by relative path."""

    valid: bool = True
    corrupted_files: list[str] = field(default_factory=list)
    missing_files: list[str] = field(default_factory=list)

# ---- manifest -----------------------------------------------------------------------------------------------

@final
class Manifest:
    """What one data directory must hold for one era at one generation.

    The document is sanitised on the way in. No field is converted or checked, so a malformed value stays as it
    came. Documents come as plain dicts, made anew at each access: keep one in a variable to read it often.
    """

    def __init__(self, data: Mapping[str, Any]) -> None:
        """Raises TypeError where `data` is None or holds what JSON does not know, AttributeError where it is another value
        that is no mapping."""

    @staticmethod
    def from_dict(data: Mapping[str, Any]) -> Manifest:
        """The same as Manifest(data)."""

    def to_dict(self) -> _Document:
        """The whole sanitised document."""

    @property
    def files(self) -> _Document:
        """Relative path to file entry."""

    @property
    def era_number(self) -> int: ...
    @property
    def version(self) -> int:
        """The generation."""

    @property
    def base_url(self) -> str | None:
        """Where the data files lie; None for the server's own /data/files."""

    @property
    def pnl_column_count(self) -> int: ...
    @property
    def signals_index(self) -> str | None:
        """The relative path of the index, None without one; of the catalogue of functions below."""

    @property
    def functions(self) -> str | None: ...

    found_signals: _Document
    """Entity id to membership entry. Empty until a signals index is applied, as are the two below."""
    found_strategies: _Document
    useful_signals: _Document

# ---- rotation -----------------------------------------------------------------------------------------------
# What the built-in rotation makes. Where the host supplies `_artifact_rotation` or `_rotation_settings`, the objects of
# its own classes take the place of these.

@dataclass(frozen=True)
class RotationState:
    """What a directory holds, and since when."""

    active_relative_paths: tuple[str, ...]
    """Mandatory files and selected features."""
    generation: int
    """Counts rotations from 1."""
    seed: int
    rng_state: str
    """Of the generator that seed and generation give, 16 hexadecimal digits."""
    rotated_at: int | None = None
    """Seconds since the epoch."""

@dataclass(frozen=True)
class ArtifactDescriptor:
    """One artifact of a manifest. Texts are empty where the manifest says nothing."""

    relative_path: str
    kind: str
    artifact_kind: str
    """The kind; "feature" for what rotates."""
    size_bytes: int
    mandatory: bool
    market: str
    named_universe: str
    family: str
    subfamily: str

@dataclass(frozen=True)
class SelectionScope:
    """Which features are considered; None and () for all."""

    market: str | None = None
    named_universes: tuple[str, ...] = ()
    family: str | None = None
    subfamily: str | None = None

@dataclass(frozen=True)
class ArtifactRotationSettings:
    """What a plan is asked for. Sizes are in bytes."""

    artifact_kind: str = "feature"
    algorithm: str | None = None
    seed: int | None = None
    scope: SelectionScope = SelectionScope()
    feature_budget_bytes: int | str | None = None
    """A number, or "FULL_DOWNLOAD" for everything that fits."""
    free_disk_bytes: int | None = None
    """None where the budget is explicit."""

@dataclass(frozen=True)
class RotationSelection:
    """What a plan selects."""

    active_relative_paths: tuple[str, ...]
    selected_artifacts: tuple[ArtifactDescriptor, ...]
    mandatory_artifacts: tuple[ArtifactDescriptor, ...]
    eligible_artifacts: tuple[ArtifactDescriptor, ...]
    """The selected ones and those that were left out."""
    mandatory_bytes: int
    """Mandatory bytes still to come."""
    feature_budget_bytes: int
    """The most that features still to come may take."""
    seed: int | None

@dataclass(frozen=True)
class RotationPlan:
    """A selection, and the state that it makes once its files are here."""

    selection: RotationSelection
    candidate_state: RotationState | None
    """None where nothing rotates."""

@dataclass(frozen=True)
class RotationSettings:
    """A directory's rotation settings."""

    feature_budget_gb: float | str | None = None
    """In units of 2**30 bytes, "FULL_DOWNLOAD", or None for no explicit budget."""
    algorithm: str = "seeded-hash"
    rotation_seed: int | None = None
    market: str | None = None
    named_universes: tuple[str, ...] | None = None
    family: str | None = None
    subfamily: str | None = None
    rotation_frequency: str = "weekly"
    """Either "weekly" or "PT{hours}H"."""
    def model_dump(self) -> _Document:
        """The fields as one document."""

def feature_rotation_state_path(data_dir: _Path) -> str:
    """Where a directory keeps its rotation state."""

def load_feature_rotation_state(data_dir: _Path) -> RotationState | Any | None:
    """The rotation state on disk, or None where there is none. Raises FeatureRotationStateError for a damaged file."""

def write_feature_rotation_state(data_dir: _Path, state: RotationState | Any) -> str:
    """Write the rotation state atomically and return the file's path.

    The file's modification time counts as the moment of the last rotation. Raises FeatureRotationStateError for a state
    that has no such form, and OSError.
    """

def feature_rotation_status_payload(data_dir: _Path, *, settings_payload: Mapping[str, Any] | None = None) -> _Document:
    """What a directory holds of its features, and when they change next; docs/rotation.md tells the 21 keys.

    settings_payload: a document with `rotation_frequency`; without one the two keys of the next rotation are None.
    Raises FeatureRotationStateError for a damaged state file or manifest.json.
    """

# ---- what a manager is doing --------------------------------------------------------------------------------

@dataclass(frozen=True)
class FileInFlight:
    """A file that is being downloaded."""

    relative_path: str
    bytes_done: int
    """How much of it is here, resumed bytes included."""
    bytes_total: int
    """Its size, or bytes_done where the manifest states none."""

@dataclass(frozen=True)
class Wait:
    """A wait for the server, from the first failure to the answer."""

    endpoint: str
    """The URL's path: neither host nor query."""
    attempt: int
    """Failures so far."""
    reason: str
    """What the last try came to, as the events have it: "http_503", "ConnectionRefusedError", "partial_transfer", ..."""
    since: float
    """Seconds since the epoch, as next_try_at."""
    next_try_at: float
    """One that has passed means that a try is under way."""

@dataclass(frozen=True)
class LockWait:
    """A wait for another process that works on the directory."""

    since: float
    """Seconds since the epoch."""
    pid: int | None
    """Of that process; None where the system's lock table does not tell."""
    command: str | None
    """Its command line, at most 4 KiB of it; None where it may not be looked at."""

@dataclass(frozen=True)
class LockHolder:
    """A process that works on a directory."""

    pid: int | None
    """None where the system's lock table does not tell, as for a process in another container."""
    command: str | None
    """Its command line, at most 4 KiB of it; None where it may not be looked at."""

def lock_holder(data_dir: _Path) -> LockHolder | None:
    """The process that works on a directory at this moment, this one included; None for nobody.

    Tries the directory's locks for a moment, and waits for nothing.
    """

@dataclass(frozen=True)
class Progress:
    """An operation at one moment. Done is never more than total; both are 0 before the set of files is known."""

    operation: str
    """The outermost one: "sync", "repair", "transition", "features", "verify", "plan" or "download"."""
    phase: str
    """What it is at: "waiting" (for its turn at the directory), "manifest", "comparing", "downloading", "documents",
    "committing", "promoting" or "verifying".
    """
    files_done: int
    files_total: int
    bytes_done: int
    """Of files that are here and of those in flight, resumed bytes included."""
    bytes_total: int
    bytes_per_second: float
    """Over the network, of about the last five seconds."""
    files_in_flight: tuple[FileInFlight, ...]
    started_at: float
    """Seconds since the epoch."""
    wait: Wait | LockWait | None
    """What it waits for, the longest wait where there are several; None where nothing is waited for."""

@dataclass(frozen=True)
class Health:
    """How a manager is."""

    running: bool
    """Between start or acquire and the stop."""
    in_transition: bool
    era_number: int | None
    """Of the last commit, as is the version; None before the first."""
    version: int | None
    last_good_pass_at: float | None
    """When the directory was last known to be what the server publishes, by a pass, a transition or a poll that found
    nothing to do, in seconds since the epoch. None before the first of this process.
    """
    last_good_pass_age_s: float | None
    """Seconds since then by the system's clock; 0.0 where it was set back."""
    last_error: str | None
    """Class and text of the last operation that failed; None once it went well again."""
    last_error_at: float | None
    """Seconds since the epoch."""
    waiting_for: Wait | LockWait | None
    """What any thread waits for, those in the background too; None where none does."""
    consumers: int
    """Acquired and not released, those of an earlier process that crashed included."""
    threads: tuple[str, ...]
    """Names of the threads that work in the background: "bf-poll", "bf-era", "bf-repair", "brackenfen-sync-cleanup"."""

@dataclass(frozen=True)
class SyncPlan:
    """What a sync would do, or the transition where the server is in another era."""

    era_number: int
    """Of the server's manifest, as is the version."""
    version: int
    is_transition: bool
    fetch: dict[str, int]
    """Relative paths with their sizes, 0 where the manifest states none. The shuffle seed, which it does not list, is not here."""
    fetch_bytes: int
    keep: tuple[str, ...]
    """Files that stay although the manifest of the same era states other bytes; the sync after fetches them."""
    remove: tuple[str, ...]
    """Relative paths: what is no longer listed or rotates out, and whatever else lies in the folders of artifacts."""
    free_bytes: int
    fits: bool
    """Whether fetch_bytes are free."""

# ---- manager ------------------------------------------------------------------------------------------------

class SyncManager:
    """The one object through which a process reaches one data directory. Any thread may call it."""

    runtime_freshness_guard: RuntimeFreshnessGuard | None
    """None where nobody is told. It may be assigned at any time."""
    stop_ends_waits: bool
    """Whether stop() and the last release() end the waits for a server that is away, and with them what the background
    threads were doing. False by default: a stop then waits until the server answers. What a thread of the host's waits for
    is not touched; a back-off context ends that.
    """

    def __init__(
        self,
        data_dir: _Path,
        server_url: str,
        get_token: TokenSource | Callable[[], str] | None = None,
        poll_interval_s: float = 5.0,
        runtime_freshness_guard: RuntimeFreshnessGuard | None = None,
        token: str | None = None,
    ) -> None:
        """Open a directory without entering it in the process's registry; see get_or_create.

        token: a fixed bearer token in place of get_token.
        """

    @staticmethod
    def get_or_create(
        data_dir: _Path,
        server_url: str,
        get_token: TokenSource | Callable[[], str],
        poll_interval_s: float = 5.0,
        runtime_freshness_guard: RuntimeFreshnessGuard | None = None,
    ) -> SyncManager:
        """The process's one manager for a directory; built on first use from the files there, without a request.

        poll_interval_s is in seconds. An existing manager takes over the new get_token, and the new guard where
        there is one. The registry keeps no manager alive.

        Raises TypeError for a token source that cannot be called, ValueError for an empty or unacceptable
        server_url or one that differs from the existing manager's, FileNotFoundError for a missing directory.
        """

    def sync(self) -> SyncResult:
        """Bring the directory up to the server's current manifest: compare, download, verify, commit.

        An outage of the server is waited out, however long it lasts; Ctrl-C and a `stop_requested` of the back-off
        context end the wait, the latter with SyncBackoffCancelled. Raises SyncUnavailableError where the server itself
        says that retrying cannot help, AuthError, SyncError and its other subclasses, OSError of the local files,
        and whatever the token source or the guard raises.
        """

    def plan(self) -> SyncPlan:
        """What a sync would do now, or the transition where the server is in another era.

        Asks the server for its manifest, reads files that the hash cache does not know, and changes nothing on disk. Waits
        for a sync of this process, not for other processes. Raises what sync() raises before it downloads, DiskSpaceError
        where the disk is too small for any selection included; whether what is to be fetched fits is `fits`.
        """

    def verify(self) -> VerifyResult:
        """Read every active local file and compare size and SHA-256 with the manifest.

        Always reads: the hash cache is not asked. Valid where there is no manifest yet. Makes no request and takes no
        lock. Raises OSError for a file that cannot be read, ManifestError for a path that the manifest must not hold.
        """

    def repair(self, corrupted_files: Iterable[str]) -> SyncResult:
        """Fetch the named files anew, by relative path; names that the manifest does not hold are ignored.

        Runs a full sync instead where the server has moved on meanwhile. Waits while another unit of work runs on the
        directory. Raises what sync() raises.
        """

    def ensure_manifest_file_available(self, file_path: str, file_info: Mapping[str, Any]) -> SyncResult:
        """Fetch one file into its place by its manifest entry, unless it is not for this platform.

        Takes no lock: do not run it beside another operation on the same directory. Raises what sync() raises for a file.
        """

    def needs_sync(self) -> bool:
        """Whether a pass would find something to do: one request, and a look at each local file.

        True where that cannot be told. An outage is waited out as in sync(); a `stop_requested` that ends the wait gives True.
        Raises SyncUnavailableError where the server itself says that retrying cannot help, and json.JSONDecodeError,
        UnicodeDecodeError or AttributeError where its answer is no JSON object.
        """

    def request_feature_files_for_sync(
        self, feature_names: Iterable[object] | None, *, expression_type: object = "SIGNAL", named_universe: str | None = None
    ) -> list[str]:
        """Ensure manifest feature arrow files exist locally for parent dispatch.

        Fetches the named features and their companions, whatever the rotation selects, and keeps them until the era
        ends. Returns the local paths of all that the names resolve to; a name that the manifest lacks gives none.
        expression_type: a text or an enumeration member; one with "strategy" in it means the strategy epoch.

        Raises StateError in an era transition and where the manager does not run, DiskSpaceError, and what sync raises.
        """

    def fetch_features(
        self, feature_names: Iterable[object] | None, *, expression_type: object = "SIGNAL", named_universe: str | None = None
    ) -> list[str]:
        """The same as request_feature_files_for_sync, whether the manager runs or not: waits for its turn at the directory,
        also while an era transition runs.
        """

    def add_active_feature_paths(self, relative_paths: Iterable[str]) -> tuple[str, ...]:
        """Add to the active paths of the rotation state on disk; returns all of them, or () where there is no state.

        The added paths stay active until the next rotation, also beside a pass that rotates already. Waits for passes of
        other threads and processes; a callback of a pass may call it. Raises FeatureRotationStateError and OSError.
        """

    def register_rotation_search_consumer(self, consumer: RotationSearchConsumer) -> None:
        """Tell a running search of every change of its scope, until it is unregistered. It is kept alive."""

    def unregister_rotation_search_consumer(self, consumer: RotationSearchConsumer) -> None:
        """Forget a search; one that is not registered is ignored."""

    def refresh_running_searches_for_rotation(
        self, rotation_state: RotationState | Any, vocabulary: Mapping[str, Any], manifest: Manifest | Any | None = None
    ) -> None:
        """Tell the registered searches a rotation state and what it leaves of their vocabularies, now.

        vocabulary: one vocabulary document, or documents by universe. manifest: None for the manager's own.
        Raises VocabularyScopeError before any search is told, and what the first failing search raises.
        """

    def get_manifest(self) -> Manifest | None:
        """The manifest of the last commit, or None before the first."""

    def status(self) -> str | None:
        """Human-readable status, or None."""

    def progress(self) -> Progress | None:
        """What runs now, or None. Cheap enough for ten calls a second; never waits for the work.

        The operation that began first, of those that wait for no other; one within another is a phase of that. A poll that
        only looks whether there is something to do counts as nothing.
        """

    def health(self) -> Health:
        """How the manager is, always and at once: asks neither the server nor the files."""

    # Background work. Two ways to have it: acquire and release count consumers and run polling and the era watcher;
    # start and stop run polling alone.

    def acquire(self) -> None:
        """Register as consumer, start threads if first.

        The count is kept in the directory's .consumer_count: one that a crash left behind keeps the threads up until
        the process ends. Raises StateError once the interpreter is shutting down.
        """

    def release(self) -> None:
        """Deregister as consumer, stop threads if last; the manager then leaves the process's registry.

        The last one waits for a sync that is under way, however long that takes, and for an era transition 10 seconds;
        Ctrl-C ends the wait, and the manager counts as stopped then. While the server is away a sync does not end: see
        stop_ends_waits. Does nothing without consumers.
        """

    def trigger_era_transition(
        self,
        new_era_id: int,
        kill_searches_fn: Callable[[], object] | None = None,
        restart_searches_fn: Callable[[], object] | None = None,
    ) -> None:
        """Handle era transition: kill, update, re-auth, sync, restart.

        Everything of the new era is fetched and validated beside the live files before one of them changes. An era that
        overtakes it is followed. Both callables are called without arguments, on this thread. Raises EraError where the
        server does not confirm the era, LibraryUpdateRequired where it needs a newer library, SyncError and its
        subclasses, OSError of the local files, and what the callables raise; searches then stay stopped. An outage of
        the server is waited out.
        """

    def cleanup_old_eras(self, keep_current: bool = True) -> int:
        """Delete non-current era directories, return bytes freed.

        keep_current=False removes all data: manifest.json, shuffle_seed.enc and every directory that is not hidden.
        Raises OSError at the first that cannot be removed.
        """

    def consumer_count(self) -> int:
        """Return the current number of active consumers."""

    def start(self) -> None:
        """Start background sync polling loop. Raises StateError where it runs."""

    def stop(self) -> None:
        """Stop background sync polling loop, and the era watcher where it runs. Waits as release does; leaves the count."""

    def is_alive(self) -> bool:
        """Health check returning thread responsiveness."""

    def request_for_sync(self) -> list[str]:
        """Cross-process sync trigger, returns file paths.

        Absolute paths of found signal and strategy PnL files, newest first: those that this sync brought, else all.
        While another request of this process runs, waits for it, at most 30 seconds, and returns all.
        Raises StateError in an era transition and where the manager does not run, and what sync raises.
        """

    def report_corruption(self, file_path: str) -> None:
        """Cross-process corruption report, queues async repair.

        file_path is relative, as the manifest has it. Raises StateError where the manager does not run, ValueError for
        a path that the manifest lacks.
        """

    def register_era_callback(self, callback: Callable[[str, int], object]) -> None:
        """Register a callback for era change events.

        callback(event_type, era_number) with "kill" (stop workers), "restart" or "abort" (resume), on the thread that
        drives the transition, which waits for it. What it raises is logged. A callable may be registered twice.
        """

    def unregister_era_callback(self, callback: Callable[[str, int], object]) -> None:
        """Unregister an era change callback: the first equal one. One that is not registered is ignored."""

# ---- era ----------------------------------------------------------------------------------------------------

class EraThread:
    """The thread that watches which era the server calls current.

    The first acquire of a manager starts one; a host may also build its own. It asks the server at each poll, and has
    the manager make a transition where the era closes or another one has begun. What fails is logged, and a new era
    tried again at the next poll.
    """

    def __init__(
        self,
        server_url: str,
        get_token: TokenSource | Callable[[], str],
        sync_manager: SyncManager | EraManager,
        era_poll_interval_s: float = 600.0,
        kill_searches_fn: Callable[[], object] | None = None,
        restart_searches_fn: Callable[[], object] | None = None,
    ) -> None:
        """era_poll_interval_s: the pause between polls, in seconds. Raises ValueError for an unacceptable server_url."""

    def start(self) -> None:
        """Start the thread. Raises StateError where it was started and not stopped."""

    def stop(self) -> None:
        """Tell the thread to end and wait for it, at most 10 seconds. A transition that is under way goes on."""

    def is_alive(self) -> bool:
        """Whether the thread runs."""

# ---- back-off -----------------------------------------------------------------------------------------------

def backoff_context(
    *, data_dir: _Path | None = None, surface: str | None = None, stop_requested: Callable[[], object] | None = None
) -> AbstractContextManager[object]:
    """Make this the running thread's back-off context for a `with` block. What is not given, or is None, stays as in the
    block around it. The block may end on another thread than it began on. Threads that run in a copy of the host's
    context, as those of asyncio.to_thread, begin with it.

    data_dir: the directory whose sync-progress.json shows a wait. surface: the name of the waiting operation.
    stop_requested: a callable; true ends the wait with SyncBackoffCancelled.
    """

def current_context() -> dict[str, Any]:
    """A copy of the running thread's back-off context."""
