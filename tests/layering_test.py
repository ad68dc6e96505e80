"""Who may include whom, and texts that stand on their own."""

import itertools
import re
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parent.parent
INCLUDE = re.compile(r'^\s*#\s*include\s+[<"]([^>"]+)[>"]', re.MULTILINE)

# Each folder of the core sees itself and what stands before it. Documents and transport lean on each other in one
# point: a transfer needs the manifest's record and its path rule, so those two headers stay free of transport.
LAYERS = ["base", "neighbours", "transport", "documents", "lifecycle", "rotation", "era", "engine"]
BELOW_TRANSPORT = {"sync/documents/manifest.hpp", "sync/documents/manifest_paths.hpp"}
# The upper layers hold the rooms of one class, whose map they all include.
MAP_OF_THE_MANAGER = "sync/engine/sync_manager.hpp"
ROOMS_OF_THE_MANAGER = {"lifecycle", "rotation", "era"}

# What only one place may include.
HOMES = {
    r"Python\.h|nanobind/.*": "python/",
    r"curl/.*": "sync/transport/",
    r"openssl/(evp|sha)\.h": "sync/base/files/sha256.cpp",
    r"microhttpd\.h|CLI/.*": "tools/",
}


def sources(*folders: str) -> list[Path]:
    return sorted(path for folder in folders for path in (ROOT / folder).rglob("*") if path.suffix in {".cpp", ".hpp"})


def includes(source: Path) -> list[str]:
    return INCLUDE.findall(source.read_text())


def name(source: Path) -> str:
    return source.relative_to(ROOT).as_posix()


def may_include(source: str, target: str) -> bool:
    if not target.startswith("sync/"):
        return not target.startswith(("python/", "tools/", "tests/", "bench/"))
    layer, target_layer = source.split("/")[1], target.split("/")[1]
    if source in BELOW_TRANSPORT:
        return target_layer in {"base", "neighbours"} or target in BELOW_TRANSPORT
    if layer == "transport" and target in BELOW_TRANSPORT:
        return True
    if layer in ROOMS_OF_THE_MANAGER and target == MAP_OF_THE_MANAGER:
        return True
    return LAYERS.index(target_layer) <= LAYERS.index(layer)


def test_includes_point_down() -> None:
    upward = [f"{name(source)} includes {target}" for source in sources("sync") for target in includes(source) if not may_include(name(source), target)]
    assert sources("sync") and upward == []


@pytest.mark.parametrize(("header", "home"), HOMES.items())
def test_a_library_is_included_in_its_own_place_only(header: str, home: str) -> None:
    strangers = [
        f"{name(source)} includes {target}"
        for source in sources("sync", "python", "tools")
        for target in includes(source)
        if re.fullmatch(header, target) and not name(source).startswith(home)
    ]
    assert strangers == []


def test_texts_lean_on_no_document_outside_the_tree() -> None:
    outside = re.compile(r"\bthe [s]pec(ification)?\b|\b[s]pec\.md|\bPart [0-9]\.[0-9]")
    own = [path for path in [*ROOT.glob("[!.]*"), ROOT / ".ci"] if path.name not in ("build", "dist")]
    found = []
    for path in itertools.chain(own, *(folder.rglob("*") for folder in own)):
        text = path.read_bytes().decode(errors="replace") if path.is_file() and path.suffix != ".pyc" else ""
        found += [f"{name(path)}:{number}: {line.strip()}" for number, line in enumerate(text.splitlines(), 1) if outside.search(line)]
    assert found == []
