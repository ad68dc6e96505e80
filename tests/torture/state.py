"""Every file that the library keeps, damaged in every way: a start and a healthy pass heal it, or an error names it."""

import functools
import json
import os
import pathlib
import re
import shutil
import socket
from collections.abc import Callable, Iterator
from typing import Any

from torture.case import SANITIZED, Case, draw
from torture.hostile_case import OPERATIONS, SETTINGS, arena, assert_whole, template
from torture.hostile_client import Report
from torture.hostile_server import BIG, CHUNK, FUNCTIONS, INDEX, SMALL, TOKEN, VOCABULARY, Server, World

# What a directory holds besides that a pass leaves: files of work that was killed, of requests and of operators.
KEPT = {
    "feature-rotation-settings.json": b'{"rotation_frequency": "weekly", "rotation_seed": 7}', ".consumer_count": b"0", ".told_era": b'{"era_number": 6}',
    ".prefetched-features.json": json.dumps({"era_number": 7, "paths": [SMALL], "schema_version": 1}).encode(), ".transition_lock": b"4711", ".sync_flock": b"",
    "sync-progress.json": b'{"backoff": {}, "era_number": 7, "files": {}, "phase": "backoff", "updated_at": 1.5, "version": 1}', BIG + ".tmp": World().files[BIG][: CHUNK + 5],
    ".transition_era8.tmp/" + SMALL: b"staged", ".transition_move8.1.tmp": b"moved", "manifest.json.1.2.3.tmp": b'{"era',
}  # fmt: skip
OF_THE_LIBRARY = ("manifest.json", ".sync_hash_cache.json", "feature-rotation-state.json", "shuffle_seed.enc", "shuffle_seed.enc.meta.json")
LISTED = (INDEX, VOCABULARY, FUNCTIONS, SMALL, BIG)


def numbers(replacement: bytes) -> Callable[[bytes], bytes]:
    return lambda data: re.sub(rb"(?<=[ :])\d+(?=[,}\]])", replacement, data)


def flipped(at: float) -> Callable[[bytes], bytes]:
    def flip(data: bytes) -> bytes:
        index = int(at * len(data))
        return data[:index] + bytes([data[index] ^ 4]) + data[index + 1 :] if data else b"\x04"

    return flip


CONTENTS: dict[str, Callable[[bytes], bytes]] = {
    "empty": lambda _: b"", "zeros": lambda data: bytes(len(data)), "null": lambda _: b"null", "list": lambda _: b"[1]", "number": lambda _: b"-5", "text": lambda _: b'"x"', "object": lambda _: b"{}",
    "deep": lambda _: b"[" * 200_000, "deep-closed": lambda _: b'{"a":' * 200_000 + b"1" + b"}" * 200_000, "latin": lambda data: data + b"\xe9", "twice": lambda data: data * 2,
    "wide-numbers": numbers(b"9" * 400), "infinite": numbers(b"1e999"), "negative": numbers(b"-1"), "texts-for-numbers": numbers(b'"1"'), "nulls-for-numbers": numbers(b"null"), "version-99": numbers(b"99"),
    "lists-for-texts": lambda data: re.sub(rb'": "[^"]*"', rb'": ["x"]', data), "climbing": lambda data: data.replace(b"features/", b"../../features/"), "absolute": lambda data: data.replace(b'"features/', b'"/features/'),
} | {f"cut-{eighth}": lambda data, eighth=eighth: data[: len(data) * eighth // 8] for eighth in range(1, 8)} | {f"flip-{tenth}": flipped(tenth / 10) for tenth in range(10)}  # fmt: skip


def replaced(make: Callable[[pathlib.Path], object]) -> Callable[[pathlib.Path], None]:
    def damage(path: pathlib.Path) -> None:
        path.unlink()
        make(path)

    return damage


def full_folder(path: pathlib.Path) -> None:
    path.mkdir()
    (path / "content").write_bytes(b"of somebody")


def socket_at(path: pathlib.Path) -> None:
    here = os.open(path.parent, os.O_RDONLY)
    with socket.socket(socket.AF_UNIX) as bound:
        bound.bind(f"/proc/self/fd/{here}/{path.name}"[:107])
    os.close(here)


KINDS: dict[str, Callable[[pathlib.Path], None]] = {
    "missing": pathlib.Path.unlink, "folder": replaced(pathlib.Path.mkdir), "full-folder": replaced(full_folder), "pipe": replaced(os.mkfifo), "socket": replaced(socket_at),
    "link-out": replaced(lambda path: path.symlink_to(arena.outside / "file")), "link-to-folder": replaced(lambda path: path.symlink_to(arena.outside)),
    "link-dangling": replaced(lambda path: path.symlink_to(arena.outside / "none")), "link-loop": replaced(lambda path: path.symlink_to(path.name)), "link-inside": replaced(lambda path: path.symlink_to(arena.jail / path.relative_to(arena.jail).parts[0])),
    "second-name": replaced(lambda path: path.hardlink_to(arena.outside / "manifest.json")), "huge": lambda path: os.truncate(path, 300 << 20), "vast": lambda path: os.truncate(path, 1 << 42),
}  # fmt: skip
DAMAGES = KINDS | {name: lambda path, change=change: path.write_bytes(change(path.read_bytes())) and None for name, change in CONTENTS.items()}

# The documented errors, of file and damage; everything else heals by itself.
REFUSED: list[tuple[str, str, str]] = [
    ("feature-rotation-state.json", ".*", "FeatureRotationStateError: invalid feature rotation state at .*"),
    ("feature-rotation-settings.json", ".*", "(Value|OS|IsADirectory)Error: .*feature-rotation-settings.json.*"),
    ("manifest.json", ".*numbers|version-99|infinite|negative|object", "EraError: Era mismatch: local era_number=.*|TypeError: '>' not supported.*"),
    (".*", "link-inside", "IsADirectoryError: .*"), (".*", "link-(out|to-folder|dangling)", "ManifestError: Manifest file path escapes data directory: .*"), (".*", "link-loop", "(Manifest|OS)Error: .*"),
    (".*", "(full-)?folder", "IsADirectoryError: .*"),
]


def expected(name: str, damage: str) -> str:
    return next((error for file, kinds, error in REFUSED if re.fullmatch(file, name) and re.fullmatch(kinds, damage)), "")


def full_template() -> str:
    template("old")
    if "full" not in arena.templates:
        directory = arena.directory("old")
        for name, content in KEPT.items():
            (directory / name).parent.mkdir(parents=True, exist_ok=True)
            (directory / name).write_bytes(content)
        arena.templates["full"] = directory
    return "full"


RESET = """
from brackenfen.sync_command.main import main
import contextlib, io
sys.argv = ["brackenfen-sync", "clean", "-d", directory, "--yes"]
with contextlib.redirect_stdout(io.StringIO()): result = main()
"""


def run(name: str, damage: str, operation: str) -> None:
    world = World(8, 2) if operation == "transition" else World(7, 2)
    server, directory = Server(World()), arena.directory(full_template())
    path = directory / name
    DAMAGES[damage](path)
    before = arena.around(directory)
    server.world = world
    variables: dict[str, Any] = dict(directory=str(directory), url=server.url, token=TOKEN)

    def works(code: str) -> Report:
        """It does so at once, or when the file that a documented error names is out of the way."""
        report = arena.client.run(code, SETTINGS, **variables)
        if report.error:
            wanted = expected(name, damage)
            assert wanted and re.fullmatch(wanted, report.error, re.DOTALL), f"got {report.error!r}"
            named = (path.name.removesuffix(".tmp"), str(directory), "local era_number", "'>'")
            assert any(text in report.error for text in named), f"the error does not name the file: {report.error}"
            if "FeatureRotationStateError" in report.error and not path.is_dir():
                arena.client.run(RESET, **variables)
            else:  # as a person would
                shutil.rmtree(path) if path.is_dir() and not path.is_symlink() else path.unlink()
            report = arena.client.run(code, SETTINGS, **variables)
        assert not report.error, f"then: {report.error}"
        assert report.grown < 400 << 10 or SANITIZED, f"it took {report.grown >> 10} MiB"
        return report

    try:
        works(OPERATIONS[operation])
        assert works("m = manager(); m.sync(); result = m.verify().valid").result
        # A seed has no digest; folders of somebody are none of the library's.
        stays = (path.name,) * ("folder" in damage or name == "shuffle_seed.enc") + (".transition_lock", ".transition_era8.tmp") * (operation == "sync")
        assert_whole(directory, world, stays)
        assert arena.around(directory) == before, "something outside of the directory changed"
    finally:
        server.close()


def cases(long: bool) -> Iterator[Case]:
    rows = [(name, damage, operation) for name in (*OF_THE_LIBRARY, *LISTED, *KEPT) for damage in DAMAGES for operation in ("sync", "transition")
            if damage != "vast" or name not in LISTED]  # which are hashed to their end
    for row in rows if long else draw(rows, 220):
        yield Case(" ".join(row), functools.partial(run, *row))
