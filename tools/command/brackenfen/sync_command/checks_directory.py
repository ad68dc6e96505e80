"""The doctor's checks of the directory: place, rights, disk, locks, leftovers, state files and data."""

from __future__ import annotations

import errno
import fcntl
import getpass
import os
import shutil
import time
from collections.abc import Iterator
from pathlib import Path

from brackenfen import sync

from brackenfen.sync_command import library
from brackenfen.sync_command.checks import Check, Finding, Patient, fault, fine, note
from brackenfen.sync_command.files import by_kind, leftovers, read_state, rotation_state_error
from brackenfen.sync_command.telling import MANIFEST_MENDS, read_manifest
from brackenfen.sync_command.texts import counted, holder_text, size

CLOCK_SLACK_SECONDS = 60.0
NAMED = 3
SET_THE_CLOCK = "set the clock (timedatectl set-ntp true)"
LESS_NEEDED = "make room, or set feature_budget_gb in feature-rotation-settings.json"
SYNC_MENDS = "brackenfen-sync sync"


def place(patient: Patient) -> Iterator[Finding]:
    given = patient.session.settings.directory
    if given is None:
        yield fault("none is set", "give --directory, BRACKENFEN_DIRECTORY, or directory in the settings file")
    elif not os.path.exists(given):
        yield fault(f"{given} does not exist", f"mkdir -p {given}, or mount what belongs there")
    elif not given.is_dir():
        yield fault(f"{given} is no directory", "name the directory that holds manifest.json")
    else:
        yield fine(f"{given}")


def rights(patient: Patient) -> Iterator[Finding]:
    directory = patient.session.settings.directory
    if directory is None or not os.path.isdir(directory):
        return
    if os.statvfs(directory).f_flag & os.ST_RDONLY:
        yield fault("its file system is mounted read-only", "mount -o remount,rw, and look for errors of the disk in dmesg")
        return
    refused = ""
    if patient.directory is None:
        refused = "read it"
    elif not os.access(directory, os.W_OK):
        refused = "write it"
    elif closed := closed_state(directory):
        refused = f"read {closed}"
    if refused:
        yield fault(f"user {getpass.getuser()} may not {refused}", f"chown -R {getpass.getuser()} {directory}")
    else:
        yield fine(f"user {getpass.getuser()} may read and write it")


def locks(patient: Patient) -> Iterator[Finding]:
    if (directory := patient.directory) is None:
        return
    lock_file = directory / ".sync_flock"
    if lock_file.is_symlink() or (lock_file.exists() and not lock_file.is_file()):
        yield fault(f"{lock_file} is no regular file, so no pass can lock the directory", f"rm -r {lock_file}")
        return
    if (holder := patient.holder) is not None:
        named = holder_text(holder.pid, holder.command)
        if stopped(holder.pid):
            yield fault(f"{named} holds the directory and is stopped", f"kill -CONT {holder.pid}, or end it")
        else:
            yield note(f"{named} works on the directory; others wait for it", "nothing: they go on when it is done")
        return
    descriptor = os.open(directory, os.O_RDONLY | os.O_DIRECTORY)
    try:
        fcntl.flock(descriptor, fcntl.LOCK_SH | fcntl.LOCK_NB)
    except OSError as error:
        if error.errno != errno.EWOULDBLOCK:
            yield fault(f"file locks do not work here: {error.strerror}", "use a local disk or NFSv4")
            return
    finally:
        os.close(descriptor)
    yield fine("nobody works on the directory")


def stopped(pid: int | None) -> bool:
    """Whether a process is stopped by a signal, so that it keeps its locks and does nothing."""
    try:
        return pid is not None and Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()[0] in "Tt"
    except (OSError, IndexError):
        return False


def disk(patient: Patient) -> Iterator[Finding]:
    if (directory := patient.directory) is None:
        return
    free = shutil.disk_usage(directory).free
    volume = os.statvfs(directory)
    if volume.f_files and not volume.f_favail:
        yield fault("the file system has no room for another file (inodes)", "remove files, or make the file system anew with more inodes")
    manager = patient.manager
    if manager is None or not patient.is_answered:
        yield fine(f"{size(free)} are free") if free > 100_000_000 else fault(f"only {size(free)} are free", "make room")
        return
    try:
        with patient.session.one_try():
            plan = manager.plan()
    except (sync.SyncError, sync.SyncBackoffCancelled, ValueError) as error:
        if isinstance(error, sync.MandatoryArtifactsTooLargeError):  # of which no budget takes any away
            yield fault(f"{error}", "make room: half of what is free must hold what every client holds")
        elif isinstance(error, sync.DiskSpaceError):
            yield fault(f"{error}", LESS_NEEDED)
        return  # any other is named by the check of its own
    needs = f"a pass needs {size(plan.fetch_bytes)}, {size(plan.free_bytes)} are free"
    yield fine(needs) if plan.fits else fault(needs, LESS_NEEDED)


def left_over(patient: Patient) -> Iterator[Finding]:
    if (directory := patient.directory) is None:
        return
    if patient.holder is not None:
        yield note("not looked for while a process works here")
        return
    for kind, things in by_kind(leftovers(directory, patient.manifest.era_number if patient.manifest else None)):
        named = ", ".join(thing.relative_path for thing in things[:NAMED]) + (", ..." if len(things) > NAMED else "")
        bulk = f"{counted(len(things), 'thing')}, {size(sum(thing.size_bytes for thing in things))}"
        what = f"{named}: {kind.what}; {bulk}; harm: {kind.harm}"
        yield fault(what, kind.goes) if kind.name == "transition lock" else note(what, f"goes with {kind.goes}")


def closed_state(directory: Path) -> str | None:
    """The first state file that is there and that this user may not read; the check of permissions tells of it."""
    names = ("manifest.json", "feature-rotation-state.json")
    return next((name for name in names if (directory / name).exists() and not os.access(directory / name, os.R_OK)), None)


def state_files(patient: Patient) -> Iterator[Finding]:
    if (directory := patient.directory) is None or closed_state(directory):
        return
    findings = list(damaged_state(directory, patient))
    yield from findings
    if patient.manifest is None and not (directory / "manifest.json").exists():
        yield note("there is no manifest yet", f"{SYNC_MENDS} fills the directory")
    elif not findings:
        yield fine("every state file can be read")


def damaged_state(directory: Path, patient: Patient) -> Iterator[Finding]:
    if (damage := read_manifest(directory)[1]) is not None:
        yield fault(f"manifest.json is damaged: {damage}", MANIFEST_MENDS)
    if (damage := rotation_state_error(directory)) is not None:
        yield fault(f"feature-rotation-state.json is damaged, so no host starts: {damage}", "brackenfen-sync clean resets it")
    for name, harm in (
        (".sync_hash_cache.json", "the next pass reads every file"),
        (".prefetched-features.json", "features fetched by name may go"),
    ):
        path = directory / name
        try:
            read_state(path)
        except FileNotFoundError:
            continue
        except (OSError, ValueError):
            yield note(f"{name} is damaged and counts as empty: {harm}", f"rm {path}, or leave it to the next pass")
    manager = patient.manager
    for warning in patient.heard.warnings:
        if "manifest from disk" not in warning:  # told above
            yield fault(warning, f"rm {directory / '.consumer_count'}" if "consumer count" in warning else SYNC_MENDS)
    if manager is None or patient.manifest is None:
        return
    try:
        library.rotation_settings(manager, patient.manifest)
    except ValueError as error:
        yield fault(f"{error}", "correct feature-rotation-settings.json, see docs/rotation.md")
    try:
        library.validate_seed(directory / "shuffle_seed.enc", patient.manifest.era_number)
    except (sync.SyncError, OSError) as error:
        yield fault(f"shuffle_seed.enc: {error}", f"{SYNC_MENDS} fetches it")


def data_files(patient: Patient) -> Iterator[Finding]:
    directory, manifest, manager = patient.directory, patient.manifest, patient.manager
    if directory is None or manifest is None or manager is None:
        return
    held_back = set(sync.feature_rotation_status_payload(directory)["skipped_relative_paths"])
    wanted = [
        path
        for path, entry in manifest.files.items()
        if path not in held_back
        and not library.is_for_another_platform(entry)
        and not library.matches(manager, path, library.local_path(directory, path), entry)
    ]
    if wanted:
        named = ", ".join(wanted[:NAMED]) + (", ..." if len(wanted) > NAMED else "")
        yield fault(f"{counted(len(wanted), 'file')} missing or not what the manifest says: {named}", "brackenfen-sync repair")
    else:
        yield fine(f"{counted(len(manifest.files), 'file')} in place by size and hash cache; brackenfen-sync verify reads them")


def clock(patient: Patient) -> Iterator[Finding]:
    now = time.time()
    manifest = patient.directory / "manifest.json" if patient.directory else None
    if manifest is not None and manifest.exists() and (ahead := manifest.stat().st_mtime - now) > CLOCK_SLACK_SECONDS:
        yield fault(f"manifest.json was written {ahead:.0f} s in the future: this machine's clock went back", SET_THE_CLOCK)
    skew = patient.version.clock_skew(now) if patient.version else None
    if skew is not None and abs(skew) > CLOCK_SLACK_SECONDS:
        yield fault(f"this machine's clock is {abs(skew):.0f} s {'ahead of' if skew > 0 else 'behind'} the server's", SET_THE_CLOCK)
    elif skew is not None:
        yield fine("agrees with the server's")


DIRECTORY_CHECKS: tuple[tuple[str, Check], ...] = (
    ("directory", place),
    ("permissions", rights),
    ("locks", locks),
    ("state files", state_files),
    ("data files", data_files),
    ("leftovers", left_over),
    ("disk", disk),
    ("clock", clock),
)
