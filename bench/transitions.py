"""The data of the transition benchmark: 10,000 files, of which one in twenty changes from era to era, served."""

from __future__ import annotations

import json
import os
import random
import shutil
import subprocess
from pathlib import Path
from typing import Any

from measure import Ground, Samples
from servers import embedded

FILES = 10_000
CHANGED = FILES // 20
UNIVERSE = "universe"


def size_of(number: int) -> int:
    """64 KiB to 4 MiB: most files small, as the disk of a small machine asks for."""
    return 4 << 20 if number % 1000 == 0 else 512 << 10 if number % 100 == 0 else 64 << 10


def replace(path: Path, content: bytes) -> None:
    path.parent.mkdir(parents=True, exist_ok=True)
    fresh = path.with_suffix(".new")
    fresh.write_bytes(content)
    os.replace(fresh, path)


def write_era(source: Path, era: int) -> None:
    """All artifacts for the first era, one in twenty for a later one, and the documents of the era."""
    draw = random.Random(era)
    for number in range(FILES) if era == 1 else range(era % 20, FILES, FILES // CHANGED):
        path = f"features/{UNIVERSE}/signal_is/family{number // 100:03d}__sub__w{number:05d}__z1.arrow"
        replace(source / path, draw.randbytes(size_of(number)))
    documents: dict[str, dict[str, Any]] = {
        f"named_universes/{UNIVERSE}/vocabulary.json": {"named_universe": UNIVERSE, "metadata": {"named_universe": UNIVERSE}, "features": {}},
        "functions.json": {"functions": [{"name": "fn_delay"}]},
        "signals_index.json": {"found_signals": {}, "found_strategies": {}, "useful_signals": {}},
    }
    for path, document in documents.items():
        replace(source / path, json.dumps({"era_number": era, **document}).encode())


def transitions(ground: Ground) -> Samples:
    """Transitions beside their parts, and how many live files a reader found missing or torn in one more."""
    tool = ground.program("brackenfen-distribution")
    source, tree, directory, scratch = (ground.work / name for name in ("eras-source", "eras-tree", "eras-data", "eras-scratch"))
    for folder in (source, tree, directory):
        shutil.rmtree(folder, ignore_errors=True)
    directory.mkdir(parents=True)

    def publish(era: int) -> None:
        write_era(source, era)
        command: list[str | Path] = [tool, "publish", source, tree, "--link", "--era", str(era), "--version", str(era)]
        subprocess.run(command, check=True, stdout=subprocess.DEVNULL)

    def run(url: str, era: int, *more: Path) -> Any:
        command: list[str | Path] = [ground.program("bench_transition"), directory, url, str(era), *more]
        done = subprocess.run(command, check=True, capture_output=True, text=True)
        return json.loads(done.stdout or "null")

    rounds = min(ground.rounds, 3)
    samples = Samples()
    publish(1)
    with embedded(ground, tree) as place:
        run(place.url, 1)
        for era in range(2, 2 + rounds):
            publish(era)
            shutil.rmtree(scratch, ignore_errors=True)
            scratch.mkdir()
            seen = run(place.url, era, scratch)
            seen["parts_s"] = seen["requests_s"] + seen["hash_s"] + seen["download_s"]
            samples.add("transition", seen)
        publish(2 + rounds)
        samples.add("reader", run(place.url, 2 + rounds))
    for folder in (source, tree, directory, scratch):
        shutil.rmtree(folder)
    return samples
