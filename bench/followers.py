"""What real clients ask a server: one that has nothing to do, byte by byte, and a small fleet that follows a new version and a new era.

The clients are behind a wire of 20 ms with TLS, and share 100 Mbit/s of the server's: what is measured of the fleet is the
protocol and that line, not this machine's processors. The simulation is held against it.
"""

from __future__ import annotations

import collections
import json
import re
import shutil
import subprocess
import tempfile
import time
from collections.abc import Iterator, Sequence
from contextlib import ExitStack, contextmanager
from dataclasses import dataclass
from pathlib import Path
from typing import Any

import servers
from fleet import Fleet as SimulatedFleet
from fleet import Publication
from fleet_figures import like
from measure import Figure, Ground, Samples, Word
from polls import POLL_SECONDS
from sets import FileSet, write_artifacts
from servers import Ends, Nginx

LOG = {
    "access_log access.log;": "log_format each '$connection_requests $ssl_session_reused $request_length $bytes_sent $uri'; access_log access.log each;",
    "worker_connections 1024;": "worker_connections 4096;",
}
IDLE_SECONDS = 20
CLIENTS, PROCESSES = 50, 2
LINE_BYTES_PER_S = 100e6 / 8
HELD = FileSet("held", 200, 20_000, 20_000)
SIMULATED = SimulatedFleet(CLIENTS, POLL_SECONDS, round_trip_s=servers.ROUND_TRIP_MS / 1000)
ERA, NEW_FILES, CHANGED_FILES, FILE_BYTES = 12, 40, 10, 50_000  # bytes of each file that is new or changed


@dataclass
class Tree:
    """A folder of artifacts and the distribution that is made of it."""

    ground: Ground
    source: Path
    tree: Path
    era: int = ERA
    version: int = 1

    def publish(self) -> float:
        """The moment at which it was out."""
        tool = self.ground.program("brackenfen-distribution")
        words: list[Word] = [tool, "publish", self.source, self.tree, "--era", str(self.era), "--version", str(self.version)]
        subprocess.run(words, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        return time.time()

    def folder(self) -> Path:
        return self.source / "features" / "universe_0000" / "signal_is"

    def write(self, names: Sequence[str], size: int) -> dict[str, int]:
        for name in names:
            (self.folder() / name).write_bytes(self.version.to_bytes() * size)
        return {f"features/universe_0000/signal_is/{name}": size for name in names}

    def held(self, count: int) -> list[str]:
        return sorted(path.name for path in self.folder().iterdir())[:count]

    def begin_era(self) -> None:
        self.era, self.version = self.era + 1, 1
        for document in [self.source / "functions.json", *self.source.glob("named_universes/*/vocabulary.json")]:
            document.write_text(json.dumps(json.loads(document.read_text()) | {"era_number": self.era}))


@dataclass
class Fleet:
    """Running hosts of many clients each."""

    hosts: list[subprocess.Popen[str]]

    def wait_for(self, tree: Tree, sizes: dict[str, int], since: float) -> list[float]:
        """The seconds after which each client was in step, in order."""
        for host in self.hosts:
            assert host.stdin is not None
            host.stdin.write(f"{tree.era} {tree.version} {' '.join(f'{path}={size}' for path, size in sizes.items())}\n")
            host.stdin.flush()
        moments: list[float] = []
        for host in self.hosts:
            assert host.stdout is not None
            moments += json.loads(host.stdout.readline())
        return sorted(moment - since for moment in moments)


@contextmanager
def fleet(ground: Ground, server: Nginx, ends: Ends, certificate: Path, directories: Sequence[Path]) -> Iterator[Fleet]:
    with ExitStack() as stack:
        hosts = []
        for number in range(PROCESSES):
            words = [*ends.client, "env", *(f"{name}={value}" for name, value in ground.module.items()), f"SSL_CERT_FILE={certificate}"]
            words += [str(word) for word in [*ground.host("followers"), server.url, str(POLL_SECONDS), *directories[number::PROCESSES]]]
            host = subprocess.Popen(words, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
            assert host.stdin is not None
            stack.callback(host.wait)
            stack.callback(host.stdin.close)
            hosts.append(host)
        for host in hosts:
            assert host.stdout is not None
            if host.stdout.readline() != "running\n":
                raise SystemExit("a host of followers did not start")
        yield Fleet(hosts)


def on_the_line(ends: Ends) -> tuple[int, int]:
    """IP bytes that the server has received and sent."""
    text = subprocess.run([*ends.server, "cat", "/proc/net/dev"], check=True, capture_output=True, text=True).stdout
    numbers = re.search(r"wire:\s*(.*)", text)
    assert numbers is not None
    columns = numbers[1].split()
    return int(columns[0]), int(columns[8])


def seen_by(server: Nginx, offset: int) -> tuple[dict[str, Any], int]:
    """What was asked since an offset of the log: requests by their path, bytes, and how many connections were resumed or kept."""
    with server.log.open() as file:
        file.seek(offset)
        lines = file.read().splitlines()
        end = file.tell()
    asked: collections.Counter[str] = collections.Counter()
    figures: collections.Counter[str] = collections.Counter()
    for kept, resumed, received, sent, path in (line.split(" ", 4) for line in lines):
        asked["/data/files" if path.startswith("/data/files/") else path] += 1
        figures["http_received"] += int(received)
        figures["http_sent"] += int(sent)
        figures["resumed"] += resumed == "r"
        figures["on_a_kept_connection"] += int(kept) > 1
    return {"requests": len(lines), "asked": dict(sorted(asked.items())), **figures}, end


def measure(ground: Ground) -> Samples:
    samples = Samples()
    for _ in range(ground.rounds):
        with ExitStack() as stack:
            home = Path(stack.enter_context(tempfile.TemporaryDirectory(dir=ground.landing)))
            tree = Tree(ground, home / "source", home / "tree")
            write_artifacts(tree.source, HELD, HELD.files)
            tree.publish()
            certificate = servers.make_certificate(home)
            ends = stack.enter_context(servers.wire(ground))
            server = stack.enter_context(
                servers.started_nginx(ground, tree.tree, certificate, servers.SERVER_ADDRESS, ends.server, ends.client, LOG)
            )
            directories = filled(ground, tree, home)
            limit_line(ends)
            follow(tree, server, ends, certificate, directories, samples, ground)
    return samples


def filled(ground: Ground, tree: Tree, home: Path) -> list[Path]:
    """As many directories as there are clients, all in step, filled without the wire."""
    directories = [home / f"client-{number}" for number in range(CLIENTS)]
    directories[0].mkdir()
    with servers.started_nginx(ground, tree.tree) as near:
        words: list[Word] = [*ground.host("library_fetch"), near.url, directories[0]]
        environment = [f"{name}={value}" for name, value in ground.module.items()]
        subprocess.run(["env", *environment, *(str(word) for word in words)], check=True, stdout=subprocess.DEVNULL)
    for directory in directories[1:]:
        shutil.copytree(directories[0], directory)
    return directories


def limit_line(ends: Ends) -> None:
    words = f"tc qdisc add dev wire root tbf rate {LINE_BYTES_PER_S * 8:.0f}bit burst 256kb latency 500ms"
    subprocess.run([*ends.server, *words.split()], check=True)


def follow(
    tree: Tree, server: Nginx, ends: Ends, certificate: Path, directories: Sequence[Path], samples: Samples, ground: Ground
) -> None:
    with fleet(ground, server, ends, certificate, directories) as clients:
        offset = server.log.stat().st_size
        received, sent = on_the_line(ends)

        def watched(name: str, **figures: Any) -> None:
            nonlocal offset, received, sent
            seen, offset = seen_by(server, offset)
            now_received, now_sent = on_the_line(ends)
            samples.add(name, {**figures, **seen, "ip_received": now_received - received, "ip_sent": now_sent - sent})
            received, sent = now_received, now_sent

        time.sleep(IDLE_SECONDS)
        watched("idle", seconds=IDLE_SECONDS)
        tree.version += 1
        changed = tree.write(tree.held(CHANGED_FILES), FILE_BYTES)
        added = tree.write([f"value__slow__w{number:06d}__v1.arrow" for number in range(NEW_FILES)], FILE_BYTES)
        seconds = clients.wait_for(tree, {**changed, **added}, tree.publish())
        watched("new version", in_step=seconds)
        held = HELD.files + 2
        version = Publication(NEW_FILES, CHANGED_FILES, FILE_BYTES, held)
        samples.add("new version, simulated", like(seconds, SIMULATED, version, LINE_BYTES_PER_S * 8))
        tree.begin_era()
        changed = tree.write(tree.held(NEW_FILES + CHANGED_FILES), FILE_BYTES + 1)
        seconds = clients.wait_for(tree, changed, tree.publish())
        watched("new era", in_step=seconds)
        era = Publication(NEW_FILES + CHANGED_FILES, 0, FILE_BYTES, held + NEW_FILES, is_era=True)
        samples.add("new era, simulated", like(seconds, SIMULATED, era, LINE_BYTES_PER_S * 8))


def simulated_over_real(name: str) -> Figure:
    """How much later, or earlier, 99 % of the simulated clients are in step, as a factor of at least one."""

    def factor(samples: Samples) -> float:
        real, simulated = (float(samples.seen[which]["in_step"][-1][-1]) for which in (name, f"{name}, simulated"))
        return max(real / simulated, simulated / real)

    return factor
