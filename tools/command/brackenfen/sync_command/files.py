"""The library's own files in a data directory that can be left over: what each is, whether it harms, what removes it."""

from __future__ import annotations

import json
import os
import re
import shutil
import stat
from collections.abc import Callable, Iterable, Iterator
from dataclasses import dataclass
from pathlib import Path
from typing import Any

from brackenfen import sync

from brackenfen.sync_command import library


EMPTY = "it is empty, as after a power failure"


@dataclass(frozen=True)
class Kind:
    """A kind of leftover; `is_one` is given the relative path of a file or folder and the era that the directory is in."""

    name: str
    is_one: Callable[[str, int | None], bool]
    what: str
    harm: str
    goes: str
    ask: bool = True
    """Whether clean offers it; what is not offered goes by itself, or is kept for a reason."""


@dataclass(frozen=True)
class Leftover:
    kind: Kind
    relative_path: str
    size_bytes: int


def state_size(path: Path) -> int:
    """A state file's bytes. Raises ValueError for what is no regular file, which would be waited for."""
    found = path.stat()
    if not stat.S_ISREG(found.st_mode):
        raise ValueError("it is no regular file")
    return found.st_size


def read_state(path: Path) -> Any:
    """What a state file of JSON holds. Raises OSError, or ValueError that says what is wrong with it."""
    state_size(path)
    try:
        return json.loads(path.read_bytes())
    except RecursionError:
        raise ValueError("it is nested too deeply") from None


def is_old_era(path: str, era_number: int | None) -> bool:
    old = library.old_era_of(path) if "/" not in path else None
    return old is not None and era_number is not None and old != era_number


def pattern(expression: str) -> Callable[[str, int | None], bool]:
    compiled = re.compile(expression)
    return lambda path, _era: compiled.fullmatch(path) is not None


# The first kind that takes a path has it. Folders are taken whole.
KINDS = (
    Kind(
        "transition lock", pattern(r"\.transition_lock"), "a transition that was killed, or one that runs",
        "while it is there, requests for single files are refused", "the next transition, or brackenfen-sync clean",
    ),
    Kind(
        "staged era", pattern(r"\.transition_era-?\d+\.tmp"), "what a transition that was killed had fetched",
        "it takes room", "the next transition, or brackenfen-sync clean",
    ),
    Kind(
        "staged move", pattern(r"(.*/)?\.transition_move[^/]*\.tmp"), "a file on its way to a mount of its own",
        "it takes room", "the next pass",
    ),
    Kind("old era", is_old_era, "the directory of an era that is over", "it takes room", "the next transition, or brackenfen-sync clean"),
    Kind("half-written document", pattern(r".*\.\d+\.\d+\.\d+\.tmp"), "a document whose writer was killed", "none", "the next pass"),
    Kind(
        "partial download", pattern(r".*\.tmp"), "the begin of a file whose download was interrupted",
        "none: the next pass goes on from there", "the next pass, or brackenfen-sync clean",
    ),
    Kind(
        "progress file", pattern(r"sync-progress\.json"), "how far a pass had come that was killed, or one that runs",
        "none", "the next pass",
    ),
    Kind(
        "consumer count", pattern(r"\.consumer_count"), "the count of a host that runs, or was killed",
        "the background work of the next host outlasts its last release", "brackenfen-sync clean while no host runs",
    ),
    Kind(
        "note of an era", pattern(r"\.told_era"), "a transition whose end not all modules of the host have heard of",
        "none: it is made up for", "the next transition, which the next watch begins", ask=False,
    ),
    Kind(
        "lock file", pattern(r"\.sync_flock"), "the lock of a pass that runs or was killed",
        "none: a dead process holds no lock", "the next pass", ask=False,
    ),
)  # fmt: skip


def kind_of(path: str, era_number: int | None) -> Kind | None:
    return next((kind for kind in KINDS if kind.is_one(path, era_number)), None)


def size_of(path: Path) -> int:
    """Bytes of a file or of all files of a folder; links count for nothing."""
    if path.is_symlink():
        return 0
    if not path.is_dir():
        return path.stat().st_size
    return sum(os.lstat(os.path.join(folder, name)).st_size for folder, _, names in os.walk(path) for name in names)


def leftovers(directory: Path, era_number: int | None) -> Iterator[Leftover]:
    """Every leftover, folders before what follows them; nothing is looked for below one or behind a link."""
    top = str(directory)
    for folder, folders, names in os.walk(top):
        inside = Path(folder)
        for name in [*list(folders), *names]:
            if folder != top and not name.endswith(".tmp"):
                continue  # below the top only what is staged can be left over
            path = inside / name
            relative_path = str(path.relative_to(directory))
            if kind := kind_of(relative_path, era_number):
                if name in folders:
                    folders.remove(name)
                try:
                    if kind.name != "consumer count" or not path.is_file() or path.read_bytes().strip() != b"0":
                        yield Leftover(kind, relative_path, size_of(path))
                except FileNotFoundError:
                    continue  # it has gone meanwhile


def by_kind(things: Iterable[Leftover]) -> list[tuple[Kind, list[Leftover]]]:
    """In the order they were found: a thousand partial downloads are told as one."""
    groups: dict[Kind, list[Leftover]] = {}
    for thing in things:
        groups.setdefault(thing.kind, []).append(thing)
    return list(groups.items())


def remove(directory: Path, leftover: Leftover) -> None:
    """Removes a file or a folder with all below it; what is a link goes, what it leads to stays."""
    path = directory / leftover.relative_path
    if path.is_dir() and not path.is_symlink():
        shutil.rmtree(path)
    else:
        path.unlink(missing_ok=True)


def rotation_state_error(directory: Path) -> str | None:
    """Why the rotation state, without which no manager is built, cannot be read; None where it can. Raises PermissionError."""
    path = Path(sync.feature_rotation_state_path(directory))
    if path.is_file() and not path.stat().st_size:
        return EMPTY
    try:
        sync.load_feature_rotation_state(directory)
    except PermissionError:
        raise
    except (sync.FeatureRotationStateError, OSError) as error:
        return str(error)
    return None
