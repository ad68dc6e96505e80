"""Fetching a whole set into an empty directory: the library, the limit programs, and what people would use instead."""

from __future__ import annotations

import os
import shlex
import shutil
from collections.abc import Callable, Sequence
from contextlib import AbstractContextManager, ExitStack, nullcontext
from dataclasses import replace
from pathlib import Path

import servers
from measure import INTERPRETER, Contender, Ground, RunFailed, Samples, Word, race
from servers import Place
from sets import SETS, Published, publish

LIMIT = "limit"
LIMIT_KEPT = "limit, kept connections"
LIBRARY = "brackenfen-sync"
LIBRARY_KEPT = "brackenfen-sync, kept connections"
AT_ONCE = 8
VERIFIED_HTTP_PEERS = ("wget2 + sha256sum", "curl + sha256sum", "aria2c + sha256sum", "rclone + sha256sum", "Python http.client")
WORKERS = (1, 2, 4, 8, 16)
REUSE = "BRACKENFEN_SYNC_HTTP_REUSE_CONNECTIONS"

Server = Callable[[Ground, Path], AbstractContextManager[Place]]


def fetch(name: str, server: Server) -> Callable[[Ground], Samples]:
    """All contenders on one set; in a quick run the library and the limits alone."""

    def measure(ground: Ground) -> Samples:
        published = publish(ground, SETS[name])
        with ExitStack() as stack:
            place = stack.enter_context(server(ground, published.tree))
            wanted = [interpreter(ground), *limits(ground, published, place), *library(ground, published, place)]
            if not ground.quick:
                wanted += peers(ground, published, place)
                if server is servers.plain:
                    daemon = servers.rsync_daemon(ground, published.source) if shutil.which("rsync") else nullcontext("")
                    wanted.append(rsync(ground, published, stack.enter_context(daemon)))
            return race(wanted, ground.rounds)

    return measure


def workers(name: str) -> Callable[[Ground], Samples]:
    """The library on one set with other numbers of workers than it has by itself."""

    def measure(ground: Ground) -> Samples:
        published = publish(ground, SETS[name])
        with servers.plain(ground, published.tree) as place:
            default = library(ground, published, place)[0]
            wanted = [default]
            for count in WORKERS:
                environment = {**default.environment, "BRACKENFEN_SYNC_MAX_CONCURRENCY": str(count)}
                wanted.append(replace(default, name=workers_name(count), environment=environment))
            return race(wanted, ground.rounds)

    return measure


def workers_name(count: int) -> str:
    return f"{LIBRARY}, {count} worker{'s' * (count > 1)}"


def serve(ground: Ground) -> Samples:
    """The same client against nginx and the embedded server."""
    published = publish(ground, SETS["P"])
    with servers.plain(ground, published.tree) as nginx, servers.embedded(ground, published.tree) as embedded:
        clients = [
            replace(limits(ground, published, place)[0], name=name) for name, place in (("nginx", nginx), ("embedded server", embedded))
        ]
        return race(clients, ground.rounds)


# --- the contenders --------------------------------------------------------------------------------------------------


def interpreter(ground: Ground) -> Contender:
    return Contender(INTERPRETER, [ground.root / ".venv" / "bin" / "python", "-c", "pass"])


def landing(ground: Ground, published: Published, contender: Contender, place: Place | None = None) -> Contender:
    """The contender with an empty directory before each run and a look at what landed there after it."""
    target = ground.landing / "landed"

    def empty() -> None:
        shutil.rmtree(target, ignore_errors=True)
        target.mkdir()

    def look() -> None:
        found = (path for folder in ("features", "named_universes") for path in (target / folder).rglob("*"))
        landed = [path.stat().st_size for path in found if path.is_file()]
        if len(landed) < published.files - 1 or sum(landed) < 0.999 * published.bytes:
            raise RunFailed(f"landed {len(landed)} files of {published.files}, {sum(landed)} bytes of {published.bytes}")
        shutil.rmtree(target)

    inside = [] if place is None else place.inside
    return replace(contender, command=[*inside, *contender.command], before=empty, check=look)


def limits(ground: Ground, published: Published, place: Place) -> list[Contender]:
    program, target = ground.program("fetch_limit"), ground.landing / "landed"
    command: list[Word] = [program, published.sums, f"{place.url}/data/files/", target, str(AT_ONCE)]
    return [
        landing(ground, published, Contender(LIMIT, command, trust(place)), place),
        landing(ground, published, Contender(LIMIT_KEPT, [*command, "keep"], trust(place)), place),
    ]


def library(ground: Ground, published: Published, place: Place) -> list[Contender]:
    """With its defaults, and with kept connections where the library that was built knows the setting."""
    environment = {**ground.module, **trust(place)}
    command = [*ground.host("library_fetch"), place.url, ground.landing / "landed"]
    contenders = [Contender(LIBRARY, command, environment)]
    if REUSE.encode() in (ground.root / "build" / "release" / "python" / "brackenfen" / "sync.abi3.so").read_bytes():
        contenders.append(Contender(LIBRARY_KEPT, command, {**environment, REUSE: "1"}))
    return [landing(ground, published, contender, place) for contender in contenders]


def trust(place: Place) -> dict[str, str]:
    return {"SSL_CERT_FILE": str(place.certificate)} if place.certificate else {}


def peers(ground: Ground, published: Published, place: Place) -> list[Contender]:
    """Each fetches with its usual means, then sha256sum checks all files on all cores; Python's threads hash for themselves."""
    target = ground.landing / "landed"
    base = f"{place.url}/data/files/"
    ca = place.certificate

    def listed(name: str, line: Callable[[str], str]) -> Path:
        path = ground.work / "lists" / name
        path.parent.mkdir(exist_ok=True)
        path.write_text("".join(line(file) for file in published.paths))
        return path

    aria2c = listed("aria2c.txt", lambda path: f"{base}{path}\n  out={path}\n")
    curl = listed("curl.txt", lambda path: f"url = {base}{path}\noutput = {path}\n")
    wget2 = listed("wget2.txt", lambda path: f"{base}{path}\n")
    rclone = listed("rclone.txt", lambda path: f"{path}\n")
    commands: dict[str, list[Word]] = {
        "aria2c": [
            *("aria2c", "--no-conf", "--quiet=true", f"--max-concurrent-downloads={AT_ONCE}", "--max-connection-per-server=1", "--split=1"),
            *("--file-allocation=none", f"--dir={target}", f"--input-file={aria2c}", *given("--ca-certificate=", ca)),
        ],
        "curl": [
            *("curl", "--disable", "--silent", "--show-error", "--fail", "--parallel", "--parallel-max", str(AT_ONCE), "--create-dirs"),
            *("--no-progress-meter", "--output-dir", str(target), "--config", str(curl), *(["--cacert", str(ca)] if ca else [])),
        ],
        "wget2": [
            *("wget2", "--no-config", "--quiet", "--no-robots", "--no-hsts", f"--max-threads={AT_ONCE}", f"--directory-prefix={target}"),
            *("--force-directories", "--no-host-directories", "--cut-dirs=2", f"--input-file={wget2}", *given("--ca-certificate=", ca)),
        ],
        "rclone": [
            *("rclone", "copy", "--config=", "--quiet", f"--http-url={base}", ":http:", target, f"--files-from-raw={rclone}"),
            *("--no-traverse", "--no-check-dest", "--http-no-head", f"--transfers={AT_ONCE}", *given("--ca-cert=", ca)),
        ],
    }
    contenders = [
        Contender(f"{name} + sha256sum", then_checked(command, target, published), needs=[name]) for name, command in commands.items()
    ]
    contenders.append(Contender("Python http.client", [*ground.host("threads_fetch"), place.url, target], trust(place)))
    return [landing(ground, published, contender, place) for contender in contenders]


def rsync(ground: Ground, published: Published, url: str) -> Contender:
    return landing(ground, published, Contender("rsync daemon", ["rsync", "--archive", url, ground.landing / "landed"], needs=["rsync"]))


def given(option: str, value: Path | None) -> list[Word]:
    return [] if value is None else [f"{option}{value}"]


def then_checked(command: Sequence[Word], target: Path, published: Published) -> list[Word]:
    fetching = shlex.join(str(word) for word in command)
    parts = shlex.join(str(part) for part in published.parts)
    check = f"printf '%s\\n' {parts} | xargs -P {os.cpu_count()} -n 1 sha256sum --check --quiet"
    return ["sh", "-c", f"{fetching} && cd {shlex.quote(str(target))} && {check}"]
