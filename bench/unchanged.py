"""What it costs to find that there is nothing to do, and what a host of the library pays for having it: new processes over a
directory that is up to date, construction, import, and the share of the GIL."""

from __future__ import annotations

import shutil
import subprocess
from contextlib import ExitStack
from dataclasses import replace
from pathlib import Path

import servers
from fetch import LIBRARY, interpreter, landing
from measure import Contender, Ground, Samples, race, run_once
from sets import SETS, FileSet, Published, copy_of, publish

STATX = "statx loop"
NEEDS_SYNC, PASS, CONSTRUCT = (f"{LIBRARY}, {call}" for call in ("needs_sync", "pass", "construction"))
RSYNC = "rsync -an"
SIMDJSON = "simdjson"
IMPORTED, UNIMPORTED = f"{LIBRARY}, import", "Python with logging, json and dataclasses"
GROWTH = (1_000, 10_000, 100_000, 300_000)


def up_to_date(ground: Ground, published: Published, url: str) -> Path:
    """A data directory that a pass has seen to be up to date, so that its documents and its hash cache are there."""
    directory = copy_of(ground, published)
    if not (directory / "manifest.json").exists():
        run_once(Contender("filling", [*ground.host("library_fetch"), url, directory], ground.module))
    return directory


def checking(ground: Ground, name: str, call: str, url: str, directory: Path) -> Contender:
    return Contender(name, [*ground.host("library_check"), url, directory, call], ground.module)


def new_process(ground: Ground) -> Samples:
    published = publish(ground, SETS["N"])
    with ExitStack() as stack:
        place = stack.enter_context(servers.plain(ground, published.tree))
        directory = up_to_date(ground, published, place.url)
        wanted = [
            interpreter(ground),
            Contender(STATX, [ground.program("statx_limit"), published.sums, directory, "1"]),
            checking(ground, NEEDS_SYNC, "needs_sync", place.url, directory),
            checking(ground, PASS, "sync", place.url, directory),
            Contender("Python os.stat", [*ground.host("stat_loop"), published.sums, directory]),
        ]
        if shutil.which("rsync"):
            mirror = stack.enter_context(servers.rsync_daemon(ground, published.source))
            copy = ground.landing / "mirror"  # rsync goes by times, which only its own copy has
            subprocess.run(["rsync", "--archive", mirror, copy], check=True)
            wanted.append(Contender(RSYNC, ["rsync", "-an", mirror, copy]))
        else:
            wanted.append(Contender(RSYNC, [], needs=["rsync"]))
        samples = race(wanted, ground.rounds)
        shutil.rmtree(ground.landing / "mirror", ignore_errors=True)
        return samples


def construction(ground: Ground) -> Samples:
    published = publish(ground, SETS["N"])
    with servers.plain(ground, published.tree) as place:
        directory = up_to_date(ground, published, place.url)
        documents = [directory / name for name in ("manifest.json", "feature-rotation-state.json", ".sync_hash_cache.json")]
        parse = Contender(SIMDJSON, [ground.program("parse_limit"), *documents])
        if subprocess.run([ground.program("parse_limit")], stdout=subprocess.DEVNULL).returncode == 3:
            parse = replace(parse, needs=["libsimdjson-dev"])
        return race([parse, checking(ground, CONSTRUCT, "construct", place.url, directory)], ground.rounds)


def growth(ground: Ground) -> Samples:
    """New processes over ever more files of the set N's kind."""
    samples = Samples()
    for count in GROWTH:
        kind = SETS["N"]
        published = publish(ground, FileSet("growth", count, kind.smallest, kind.largest))
        with servers.plain(ground, published.tree) as place:
            directory = up_to_date(ground, published, place.url)
            limit = Contender(STATX, [ground.program("statx_limit"), published.sums, directory, "3"])
            calls = [checking(ground, name, call, place.url, directory) for name, call in ((NEEDS_SYNC, "needs_sync"), (PASS, "sync"))]
            sized = [replace(contender, name=f"{contender.name}, {round(count * ground.scale)} files") for contender in (limit, *calls)]
            race(sized, ground.rounds, samples)
        shutil.rmtree(directory)
    return samples


def importing(ground: Ground) -> Samples:
    python = ground.root / ".venv" / "bin" / "python"
    modules = "import logging, json, dataclasses"
    return race(
        [
            interpreter(ground),
            Contender(UNIMPORTED, [python, "-c", modules]),
            Contender(IMPORTED, [python, "-c", f"{modules}; import brackenfen.sync"], ground.module),
        ],
        4 * ground.rounds + 1,
    )


def gil(ground: Ground) -> Samples:
    """Two rivals for the share, two for the waits; each has the same fetch going on beside it."""
    published = publish(ground, SETS["S"])
    with servers.plain(ground, published.tree) as place:
        target = ground.landing / "landed"
        return race(
            [
                landing(
                    ground,
                    published,
                    Contender(gil_name(where, what), [*ground.host("gil_share"), place.url, target, where, what], ground.module),
                )
                for what in ("share", "waits")
                for where in ("other", "same")
            ],
            ground.rounds,
        )


def gil_name(where: str, what: str) -> str:
    fetching = "beside another process's pass" if where == "other" else "during a pass of its own"
    return f"{'a computing thread' if what == 'share' else 'waits for the GIL'}, {fetching}"


def idle_round(ground: Ground) -> Samples:
    """Processor time that a round of the poll thread takes with nothing to do, on a small data set."""
    home = ground.work / "idle"
    shutil.rmtree(home, ignore_errors=True)
    (home / "data").mkdir(parents=True)
    tool = ground.program("brackenfen-distribution")
    subprocess.run([tool, "sample", home / "tree", "--files", "20", "--bytes", "100000"], check=True, stdout=subprocess.DEVNULL)
    with servers.embedded(ground, home / "tree") as place:
        return race([Contender("idle round", [*ground.host("idle_round"), place.url, home / "data"], ground.module)], 1)
