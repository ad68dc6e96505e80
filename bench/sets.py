"""The data sets of the benchmarks, made from a seed and published as a distribution. Kept from run to run."""

from __future__ import annotations

import json
import os
import random
import shutil
import subprocess
from dataclasses import dataclass
from pathlib import Path

from measure import Ground, Word

KIB, MIB = 1 << 10, 1 << 20
FILES_IN_A_FOLDER = 100


@dataclass(frozen=True)
class FileSet:
    name: str
    files: int
    smallest: int  # bytes
    largest: int


SETS = {
    "S": FileSet("S", 10_000, 4 * KIB, 64 * KIB),
    "N": FileSet("N", 100_000, 100, 2_000),
    "P": FileSet("P", 120, 1 * MIB, 16 * MIB),
    "L": FileSet("L", 4, 512 * MIB, 512 * MIB),
}


@dataclass(frozen=True)
class Published:
    """A set as servers and contenders need it."""

    tree: Path
    sums: Path  # as sha256sum prints them: a digest and a path for each file of the manifest
    parts: list[Path]  # the same dealt to as many lists as there are cores
    paths: list[str]
    files: int
    bytes: int

    @property
    def source(self) -> Path:
        return self.tree / "data" / "files"


def publish(ground: Ground, wanted: FileSet) -> Published:
    """The set at the scale of the run, made unless an earlier run did."""
    count = max(1, round(wanted.files * ground.scale))
    home = ground.work / "sets" / f"{wanted.name}-{count}"
    if not (home / "sums").exists():
        shutil.rmtree(home, ignore_errors=True)
        write_artifacts(home / "source", wanted, count)
        tool = ground.program("brackenfen-distribution")
        command: list[Word] = [tool, "publish", home / "source", home / "tree", "--link", "--era", "12", "--version", "1"]
        subprocess.run(command, check=True, stdout=subprocess.DEVNULL)
        shutil.rmtree(home / "source")
        write_sums(home)
    lines = (home / "sums").read_text().splitlines()
    paths = [line.split("  ", 1)[1] for line in lines]
    source = home / "tree" / "data" / "files"
    size = sum(read_through(source / path) for path in paths)  # so that a server finds it in memory
    return Published(home / "tree", home / "sums", sorted(home.glob("part-*")), paths, len(paths), size)


def write_artifacts(source: Path, wanted: FileSet, count: int) -> None:
    draw = random.Random(f"{wanted.name} {count}")
    for number in range(count):
        folder = source / "features" / f"universe_{number // FILES_IN_A_FOLDER:04d}" / "signal_is"
        if number % FILES_IN_A_FOLDER == 0:
            folder.mkdir(parents=True)
        left = draw.randint(wanted.smallest, wanted.largest)
        with (folder / f"momentum__fast__w{number:06d}__v1.arrow").open("wb") as artifact:
            while left > 0:
                left -= artifact.write(draw.randbytes(min(left, MIB)))
    vocabulary = source / "named_universes" / "universe_0000" / "vocabulary.json"
    vocabulary.parent.mkdir(parents=True)
    universe = {"named_universe": "universe_0000"}
    vocabulary.write_text(json.dumps({"era_number": 12, **universe, "features": {}, "metadata": universe}))
    (source / "functions.json").write_text(json.dumps({"era_number": 12, "functions": [{"name": "fn_delay"}]}))


def read_through(path: Path) -> int:
    """The bytes of a file, all of which were read."""
    size = 0
    with path.open("rb", buffering=0) as file:
        while block := file.read(MIB):
            size += len(block)
    return size


def write_sums(home: Path) -> None:
    files = json.loads((home / "tree" / "data" / "manifest.json").read_bytes())["files"]
    lines = [f"{entry['sha256']}  {path}\n" for path, entry in files.items()]
    cores = os.cpu_count() or 1
    for core in range(cores):
        (home / f"part-{core}").write_text("".join(lines[core::cores]))
    (home / "sums").write_text("".join(lines))


def copy_of(ground: Ground, published: Published) -> Path:
    """A data directory that holds the set's files already, but no document of the library's own."""
    directory = ground.landing / f"copy-{published.files}"
    if not directory.exists():
        subprocess.run(["cp", "--archive", published.source, directory], check=True)
    return directory
