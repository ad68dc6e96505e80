"""The ten workloads, and a run of one of them in which something happens: then the checker, a healthy run, the checker."""

import atexit
import contextlib
import dataclasses
import functools
import itertools
import json
import os
import pathlib
import shutil
import subprocess
import tempfile
import threading
import time
from collections.abc import Callable, Iterator

from torture.case import BUILD, scratch
from torture.checker import problems_of
from torture.hostile_server import TOKEN
from torture.site import Site
from torture.world import CHUNK_BYTES, DATA, MANDATORY, PNL, ROTATING, SETTINGS, World, digest, world

SPOILT = b"spoilt"
DEADLINE_SECONDS = 120  # of one run, which takes a tenth of one on an idle machine
PARALLEL = {"BRACKENFEN_SYNC_MAX_CONCURRENCY": "4"}

Environment = dict[str, str]


def generations(**groups: int) -> dict[str, int]:
    names = {"first": DATA[:1], "mandatory": MANDATORY, "rotating": ROTATING, "pnl": list(PNL), "calendar": DATA[-1:]}
    return {path: number for name, number in groups.items() for path in names[name]}


FIRST = world(1, 1)
VERSION = world(1, 2, generations(first=1, calendar=-1) | {"data/new.arrow": 0, "features/us/signal_is/flow__close__w005__z0.arrow": 0})
LOST = world(1, 1, lost=list(PNL)[:2])
# Of the 12 files of the era before 3 are gone, 4 stay, 5 have other bytes, and 3 are new: 8 to fetch.
ERA = world(2, 2, generations(pnl=1, calendar=-1) | dict.fromkeys(ROTATING[:2], -1) | {f"data/new{number}.arrow": 0 for number in range(3)})
NEXT_ERA = world(3, 3, generations(pnl=2, calendar=1) | {"data/new9.arrow": 0})


# ---- what is done to the directory before ----


def spoil(data: pathlib.Path, site: Site) -> None:
    (data / MANDATORY[0]).write_bytes(SPOILT)
    (data / list(PNL)[0]).unlink()
    # Other bytes of the size and date that were read.
    hidden, cache = data / DATA[-1], data / ".sync_hash_cache.json"
    status, known = hidden.stat(), json.loads(cache.read_bytes())
    hidden.write_bytes(SPOILT.ljust(status.st_size))
    os.utime(hidden, ns=(status.st_atime_ns, status.st_mtime_ns))
    known["files"][DATA[-1]] |= {"inode": status.st_ino, "mtime_ns": status.st_mtime_ns, "ctime_ns": status.st_ctime_ns - 10**9}
    cache.write_text(json.dumps(known))


def list_what_is_retired(data: pathlib.Path, site: Site) -> None:
    manifest = json.loads((data / "manifest.json").read_bytes())
    manifest["files"]["found_signals/alpha/s1/signal_is/pnl_long.arrow"] = {"kind": "found_signal_is_pnl", "size_bytes": 3}
    (data / "manifest.json").write_text(json.dumps(manifest))


def leave_old_eras(data: pathlib.Path, site: Site) -> None:
    for name in ("era_0/a/b", "era_0/c", "era-7", "era7/x"):
        (data / name).mkdir(parents=True)
        for number in range(3):
            (data / name / f"{number}.arrow").write_bytes(b"old")


def supersede_in_the_middle(data: pathlib.Path, site: Site) -> None:
    """The sixth look at the era, with a few files staged, finds the next one."""
    looks = itertools.count(1)

    def at_request(site: Site, path: str) -> None:
        if path == "/era/current" and next(looks) == 6:
            site.published.append(site.later.pop())

    site.at_request = at_request


def leave_work(data: pathlib.Path, site: Site) -> None:
    """Something to repair and to remove; and whenever a pass is over, the server has moved on."""
    spoil(data, site)
    leave_old_eras(data, site)
    asked = set()

    def at_request(site: Site, path: str) -> None:
        asked.add(path)
        if path == "/data/manifest/version" and "/data/manifest" in asked and site.later:
            asked.clear()
            site.published.append(site.later.pop(0))

    site.at_request = at_request


@dataclasses.dataclass(frozen=True, eq=False)
class Workload:
    name: str
    start: World | None  # what a healthy pass has brought, FIRST; None for an empty directory
    worlds: tuple[World, ...]  # what the server has, and what it moves on to
    command: tuple[str, ...]
    before: Callable[[pathlib.Path, Site], object] = lambda data, site: None


WORKLOADS = [
    Workload("cold", None, (FIRST,), ("pass",)),
    Workload("warm", FIRST, (FIRST,), ("pass",), spoil),
    Workload("version", FIRST, (VERSION,), ("pass",)),
    Workload("transition", FIRST, (ERA,), ("follow",)),
    Workload("superseded", FIRST, (ERA, NEXT_ERA), ("follow",), supersede_in_the_middle),
    Workload("prefetch", FIRST, (FIRST,), ("prefetch", "*")),
    Workload("repair", FIRST, (FIRST,), ("repair",), spoil),
    Workload("construction", FIRST, (FIRST,), ("open",), list_what_is_retired),
    Workload("old-eras", FIRST, (FIRST,), ("clean",), leave_old_eras),
    Workload("lost", None, (LOST,), ("pass",)),
]
# Beside the ten: all that the threads of a running manager do.
LIVE = Workload("live", FIRST, (FIRST, VERSION, ERA), ("live", MANDATORY[0], "2"), leave_work)


# ---- runs ----


@dataclasses.dataclass(frozen=True)
class Outcome:
    code: int
    out: str


STARTS_LOCK = threading.Lock()


class Trial:
    """One workload in a folder of its own, ready to be run; its last world is served until that is closed."""

    def __init__(self, workload: Workload, folder: pathlib.Path) -> None:
        self.workload, self.folder, self.data = workload, folder, folder / "data"
        for name in ("fault", "heal", "data"):
            (folder / name).mkdir()
        if workload.start is None:
            (self.data / "feature-rotation-settings.json").write_text(json.dumps(SETTINGS))
        else:
            with STARTS_LOCK:
                start = filled()
            shutil.copytree(start, self.data, dirs_exist_ok=True)
        self.site = Site(folder / "fault/requests", list(workload.worlds))
        workload.before(self.data, self.site)
        self.start = {path.relative_to(self.data).as_posix(): digest(path.read_bytes()) for path in self.data.rglob("*") if path.is_file()}
        whole = workload.start.facts["files"] if workload.start else {}
        self.spoilt = [found for path, found in self.start.items() if found != whole.get(path, found)]
        self.processes = 1
        # Which feature the rotation has left out is what is asked for.
        left_out = next(path for path in ROTATING if workload.start is None or path not in self.start)
        self.layer = folder / "fault/layer.so"  # what is preloaded has no blank in its path, which BUILD may have
        self.layer.symlink_to(BUILD / "bin/libtorture_faults.so")
        self.command = tuple(pathlib.Path(left_out).stem if word == "*" else word for word in workload.command)

    def close(self) -> None:
        self.site.close()

    def start_host(self, phase: str, command: tuple[str, ...], environment: Environment,
                   within: tuple[str, ...] = ()) -> subprocess.Popen[bytes]:  # fmt: skip
        """On the data directory, its output among the phase's files; `within` is a command that runs it."""
        settings = {
            "LD_PRELOAD": f"{self.layer} " + os.environ.get("TORTURE_PRELOAD", ""),
            "FAULT_BELOW": f"{self.data}/", "FAULT_LOG": f"{self.folder}/{phase}/points", "TORTURE_TOKEN": TOKEN,
            "BRACKENFEN_SYNC_HTTP_CHUNK_BYTES": str(CHUNK_BYTES), "BRACKENFEN_SYNC_MAX_CONCURRENCY": "1",
            "BRACKENFEN_SYNC_MANIFEST_VERSION_HTTP_TIMEOUT_SECONDS": "30",  # a busy machine is no outage
        }  # fmt: skip
        variables = [f"{name}={value}" for name, value in (settings | environment).items()]
        full = [*within, "env", *variables, f"{BUILD}/bin/torture_host", command[0], str(self.data), self.site.url, *command[1:]]
        with (self.folder / phase / "out").open("a") as out, (self.folder / phase / "log").open("a") as log:
            return subprocess.Popen(full, stdout=out, stderr=log)

    def run_host(self, phase: str, command: tuple[str, ...], environment: Environment, within: tuple[str, ...] = (),
                 kill_after: float | None = None) -> Outcome:  # fmt: skip
        process = self.start_host(phase, command, environment, within)
        try:
            code = process.wait(DEADLINE_SECONDS if kill_after is None else kill_after)
        except subprocess.TimeoutExpired:
            process.kill()
            code = process.wait()
            assert kill_after is not None, f"still at it after {DEADLINE_SECONDS} s"
        return Outcome(code, (self.folder / phase / "out").read_text())

    def fault(self, environment: Environment, within: tuple[str, ...] = (), kill_after: float | None = None) -> Outcome:
        return self.run_host("fault", self.command, environment, within, kill_after)

    def note(self) -> None:
        """For the checker."""
        published = [self.workload.start] if self.workload.start else []
        worlds = [*published, *self.site.published]
        facts = {
            "stays": [path for path in self.start if path not in ROTATING and all(path in one.bodies for one in worlds)],
            "rotating": ROTATING, "published": [one.facts for one in worlds], "start": self.start,
            "spoilt": self.spoilt, "token": TOKEN, "processes": self.processes,
            "era_change": self.command[0] == "follow" and self.workload.worlds[-1].era > 1,
        }  # fmt: skip
        (self.folder / "facts.json").write_text(json.dumps(facts))

    def check(self, phase: str) -> None:
        self.note()
        problems = problems_of(self.folder, phase)
        assert not problems, f"{phase}: " + "\n".join(problems) + self.told(phase)

    def told(self, phase: str) -> str:
        log = (self.folder / phase / "log").read_text(errors="replace").splitlines()
        return f"\n--- {(self.folder / phase / 'out').read_text()}--- " + "\n".join(log[-24:])

    def survive(self, outcome: Outcome, codes: set[int]) -> None:
        assert outcome.code in codes, f"exit code {outcome.code}" + self.told("fault")
        self.heal()

    def heal(self) -> None:
        """What came of the fault is in order, and one healthy run sets all right."""
        self.site.settle()
        self.check("fault")
        published = self.site.published
        self.close()  # requests of the killed one may still come
        self.site = Site(self.folder / "heal/requests", published[-1:])
        self.site.published = published
        healed = self.run_host("heal", ("follow",), {})
        assert healed.code == 0, f"the healthy run ended with {healed.code}" + self.told("heal")
        self.check("heal")


@contextlib.contextmanager
def trial(workload: Workload) -> Iterator[Trial]:
    with scratch() as folder, contextlib.closing(Trial(workload, folder)) as made:
        yield made


@functools.cache
def filled() -> pathlib.Path:
    """A directory that a healthy pass has filled with the world that everything starts from."""
    folder = pathlib.Path(tempfile.mkdtemp(prefix="brackenfen-torture-"))
    atexit.register(shutil.rmtree, folder, True)
    with contextlib.closing(Trial(Workload("fill", None, (FIRST,), ("pass",)), folder)) as made:
        outcome = made.fault({})
    assert outcome.code == 0 and "\nverified\n" in outcome.out, outcome
    return made.data


def survive(workload: Workload, environment: Environment, codes: set[int]) -> None:
    with trial(workload) as made:
        made.survive(made.fault(environment), codes)


@dataclasses.dataclass(frozen=True)
class Undisturbed:
    points: list[str]  # the calls that change files, by their names
    requests: int
    allocations: int
    seconds: float


@functools.cache
def undisturbed(workload: Workload, **environment: str) -> Undisturbed:
    """What a run comes to in which nothing happens."""
    with trial(workload) as made:
        began = time.monotonic()
        outcome = made.fault(environment)
        seconds = time.monotonic() - began
        assert outcome.code == 0, f"{workload.name}: {outcome}" + made.told("fault")
        points = [line.split(" ")[0] for line in (made.folder / "fault/points").read_text().splitlines()]
        return Undisturbed(points, made.site.asked, int(outcome.out.split()[-1]), seconds)
