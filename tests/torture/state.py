"""Every file that the library keeps, damaged in every way: a start and a healthy pass heal it, or an error names it."""

import functools
import itertools
import json
import os
import pathlib
import re
import socket
from collections.abc import Callable, Iterator

from torture.case import Case, draw
from torture.hostile_case import Row, arena, one_of, run
from torture.hostile_server import BIG, SMALL, VOCABULARY, WELL, small_world
from torture.world import CHUNK_BYTES, FUNCTIONS, INDEX

# What a directory holds besides that a pass leaves: files of work that was killed, of requests and of operators.
KEPT = {
    "feature-rotation-settings.json": b'{"rotation_frequency": "weekly", "rotation_seed": 7}', ".consumer_count": b"0",
    ".prefetched-features.json": json.dumps({"era_number": 7, "paths": [SMALL], "schema_version": 1}).encode(),
    ".told_era": b'{"era_number": 6}', ".transition_lock": b"4711", ".sync_flock": b"",
    BIG + ".tmp": small_world().bodies[BIG][: CHUNK_BYTES + 5],
    "sync-progress.json": b'{"backoff": {}, "era_number": 7, "files": {}, "phase": "backoff", "updated_at": 1.5, "version": 1}',
    ".transition_era8.tmp/" + SMALL: b"staged", ".transition_move8.1.tmp": b"moved", "manifest.json.1.2.3.tmp": b'{"era',
}  # fmt: skip
OF_THE_LIBRARY = ("manifest.json", ".sync_hash_cache.json", "feature-rotation-state.json", "shuffle_seed.enc", "shuffle_seed.enc.meta.json")
LISTED = (INDEX, VOCABULARY, FUNCTIONS, SMALL, BIG)

# ---- damages --------------------------------------------------------------------------------------------------------

Change = Callable[[bytes], bytes]


def becomes(content: bytes) -> Change:
    return lambda _: content


def replaces(pattern: bytes, replacement: bytes) -> Change:
    return lambda data: re.sub(pattern, replacement, data)


def flipped(tenth: int) -> Change:
    def flip(data: bytes) -> bytes:
        index = tenth * len(data) // 10
        return data[:index] + bytes([(data[index:] or b"\0")[0] ^ 4]) + data[index + 1 :]

    return flip


def cut_to(eighth: int) -> Change:
    return lambda data: data[: len(data) * eighth // 8]


NUMBER, TEXT = rb"(?<=[ :])\d+(?=[,}\]])", rb'": "[^"]*"'
BODIES = {
    "empty": b"", "null": b"null", "list": b"[1]", "number": b"-5", "text": b'"x"', "object": b"{}", "deep": b"[" * 200_000,
    "deep-closed": b'{"a":' * 200_000 + b"1" + b"}" * 200_000,
}  # fmt: skip
NUMBERS = {"wide": b"9" * 400, "infinite": b"1e999", "negative": b"-1", "text": b'"1"', "null": b"null", "99": b"99"}
CONTENTS: dict[str, Change] = {name: becomes(body) for name, body in BODIES.items()}
CONTENTS |= {f"number-{name}": replaces(NUMBER, number) for name, number in NUMBERS.items()}
CONTENTS |= {f"cut-{eighth}": cut_to(eighth) for eighth in range(1, 8)} | {f"flip-{tenth}": flipped(tenth) for tenth in range(10)}
CONTENTS |= {
    "zeros": lambda data: bytes(len(data)), "latin": lambda data: data + b"\xe9", "twice": lambda data: data * 2,
    "lists-for-texts": replaces(TEXT, b'": ["x"]'), "climbing": replaces(b"features/", b"../../features/"),
    "absolute": replaces(b'"features/', b'"/features/'),
}  # fmt: skip


def full_folder(path: pathlib.Path) -> None:
    path.mkdir()
    (path / "content").write_bytes(b"of somebody")


def socket_at(path: pathlib.Path) -> None:
    folder = os.open(path.parent, os.O_RDONLY)
    with socket.socket(socket.AF_UNIX) as bound:
        bound.bind(f"/proc/self/fd/{folder}/{path.name}")  # the name of a socket has to be short
    os.close(folder)


LINKS: dict[str, Callable[[pathlib.Path], pathlib.Path | str]] = {
    "out": lambda _: arena.outside / "file", "to-folder": lambda _: arena.outside, "dangling": lambda _: arena.outside / "none",
    "loop": lambda path: path.name, "inside": lambda path: arena.jail / path.relative_to(arena.jail).parts[0],
}  # fmt: skip
# What lies there instead.
KINDS: dict[str, Callable[[pathlib.Path], object]] = {
    "missing": lambda _: None, "folder": pathlib.Path.mkdir, "full-folder": full_folder, "pipe": os.mkfifo, "socket": socket_at,
    "second-name": lambda path: path.hardlink_to(arena.outside / "manifest.json"),
} | {f"link-{name}": lambda path, target=target: path.symlink_to(target(path)) for name, target in LINKS.items()}  # fmt: skip
SIZES = {"huge": 300 << 20, "vast": 1 << 42}
DAMAGES = (*CONTENTS, *KINDS, *SIZES)




def damage(name: str, kind: str, directory: pathlib.Path) -> None:
    for kept, content in KEPT.items():
        (directory / kept).parent.mkdir(parents=True, exist_ok=True)
        (directory / kept).write_bytes(content)
    path = directory / name
    if kind in SIZES:
        os.truncate(path, SIZES[kind])
    elif kind in CONTENTS:
        path.write_bytes(CONTENTS[kind](path.read_bytes()))
    else:
        path.unlink()
        KINDS[kind](path)


# ---- what comes of them -----------------------------------------------------------------------------------------------

# The documented errors, of file and damage; everything else heals by itself.
REFUSED = [
    ("feature-rotation-state.json .*", "FeatureRotationStateError: invalid feature rotation state at .*"),
    ("feature-rotation-settings.json .*", one_of("Value", "OS", "IsADirectory")),
    ("manifest.json (number-.*|object)", "EraError: Era mismatch: local era_number=.*|TypeError: '>' not supported.*"),
    (".* (link-inside|folder|full-folder)", one_of("IsADirectory")), (".* link-loop", one_of("Manifest", "OS")),
    (".* link-(out|to-folder|dangling)", "ManifestError: Manifest file path escapes data directory: .*"),
]  # fmt: skip


def row_of(name: str, kind: str, operation: str) -> Row:
    errors = [error for row, error in REFUSED if re.fullmatch(row, f"{name} {kind}")]
    expected = f"({'|'.join(errors)})?" if errors else ""
    stays = (name,) * (name == "shuffle_seed.enc")  # which has no digest
    stays += (".transition_lock", ".transition_era8.tmp") * (operation == "later")
    before = functools.partial(damage, name, kind)
    return Row(f"{name} {kind} {operation}", "", WELL, expected, operation, memory_kib=400 << 10, before=before, damaged=name, stays=stays)


def cases(long: bool) -> Iterator[Case]:
    # What is listed is hashed to its end, which takes too long where it is vast.
    table = itertools.product((*OF_THE_LIBRARY, *LISTED, *KEPT), DAMAGES, ("later", "transition"))
    rows = [row_of(*row) for row in table if row[1] != "vast" or row[0] not in LISTED]
    for row in rows if long else draw(rows, 220):
        yield Case(row.text, functools.partial(run, row))
