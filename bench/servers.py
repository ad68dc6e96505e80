"""The servers of the benchmarks, each for as long as a `with` lasts: nginx plain, with TLS and behind a slow wire, the
distribution tool's own server, and an rsync daemon."""

from __future__ import annotations

import json
import os
import shutil
import socket
import subprocess
import tempfile
import time
from collections.abc import Iterator, Mapping, Sequence
from contextlib import ExitStack, contextmanager
from dataclasses import dataclass
from pathlib import Path
from types import MappingProxyType

from measure import Ground, Word

TOKEN = "t" * 40  # as bench/limits/polls.lua brings it
TOLERATED_START_SECONDS = 10
ROUND_TRIP_MS = 20
SERVER_ADDRESS, CLIENT_ADDRESS = "10.213.0.1", "10.213.0.2"


@dataclass(frozen=True)
class Place:
    """Where a tree is served and from where it is fetched."""

    url: str
    certificate: Path | None = None  # to be trusted
    inside: Sequence[str] = ()  # the words before a client's command


@dataclass(frozen=True)
class Nginx:
    """A running server, with its processes and what it logs."""

    url: str
    master: int
    log: Path

    def processes(self) -> list[int]:
        workers = Path(f"/proc/{self.master}/task/{self.master}/children").read_text().split()
        return [self.master, *map(int, workers)]


class NotPossibleHere(Exception):
    """This machine lacks, or does not allow, what a measurement needs."""


def free_port() -> int:
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        port: int = probe.getsockname()[1]
        return port


@contextmanager
def running(command: Sequence[Word], log: Path) -> Iterator[int]:
    """Yields the process's number."""
    with log.open("w") as errors:
        process = subprocess.Popen([str(word) for word in command], stdout=errors, stderr=errors)
    try:
        yield process.pid
    finally:
        process.terminate()
        process.wait()


def wait_until_answered(port: int, log: Path, address: str = "127.0.0.1", inside: Sequence[str] = ()) -> None:
    """Until something accepts connections there."""
    attempt = ["bash", "-c", f"exec 3<>/dev/tcp/{address}/{port}"]
    deadline = time.monotonic() + TOLERATED_START_SECONDS
    while subprocess.run([*inside, *attempt], stderr=subprocess.DEVNULL).returncode != 0:
        if time.monotonic() > deadline:
            raise SystemExit(f"no server answers at port {port}: {log.read_text()}")
        time.sleep(0.05)


@contextmanager
def started_nginx(
    ground: Ground,
    tree: Path,
    certificate: Path | None = None,
    address: str = "127.0.0.1",
    at_server: Sequence[str] = (),
    at_client: Sequence[str] = (),
    changes: Mapping[str, str] = MappingProxyType({}),
) -> Iterator[Nginx]:
    """The tree, served with the configuration that the examples give, in which some texts are changed, and TLS with a certificate."""
    port = free_port()
    listen = f"listen {address}:{port}"
    if certificate is not None:
        key = certificate.with_suffix(".key")
        listen += f" ssl; ssl_certificate {certificate}; ssl_certificate_key {key}; ssl_protocols TLSv1.3"
    filled = {"listen 127.0.0.1:@PORT@": listen, "@ROOT@": str(tree), **changes}
    with configured_nginx(ground, "plain", filled, address, port, certificate, at_server, at_client) as server:
        yield server


@contextmanager
def cache(ground: Ground, origin: Nginx, certificate: Path, changes: Mapping[str, str]) -> Iterator[Nginx]:
    """The examples' cache in front of a server on this machine."""
    port = free_port()
    with tempfile.TemporaryDirectory() as folder:
        (Path(folder) / "tokens").write_text(f'"Bearer {TOKEN}" data;\n')
        filled = {
            "@PORT@": str(port),
            "@CERTIFICATE@": str(certificate),
            "@KEY@": str(certificate.with_suffix(".key")),
            "@TOKENS@": f"{folder}/tokens",
            "@ORIGIN_SCHEME@": "http",
            "@ORIGIN_HOST@:@ORIGIN_PORT@": origin.url.removeprefix("http://"),
            "@ORIGIN_HOST@": "127.0.0.1",
            "@ORIGIN_CA@": str(certificate),
            "@ORIGIN_TOKEN@": "t",
            "@CACHE@": f"{folder}/cache",
            "@INNER_PORT@": str(free_port()),
            **changes,
        }
        (Path(folder) / "cache").mkdir()
        with configured_nginx(ground, "caching_proxy", filled, "127.0.0.1", port, certificate) as server:
            yield server


@contextmanager
def configured_nginx(
    ground: Ground,
    example: str,
    filled: Mapping[str, str],
    address: str,
    port: int,
    certificate: Path | None,
    at_server: Sequence[str] = (),
    at_client: Sequence[str] = (),
) -> Iterator[Nginx]:
    with tempfile.TemporaryDirectory() as prefix:
        text = (ground.root / "examples" / "nginx" / f"{example}.conf").read_text()
        configuration = Path(prefix) / "nginx.conf"
        for part, put in filled.items():
            if part not in text:
                raise SystemExit(f"the example's configuration has no {part}")
            text = text.replace(part, put)
        configuration.write_text(text)
        command: list[Word] = [*at_server, "/usr/sbin/nginx", "-p", prefix, "-c", configuration]
        if os.geteuid() == 0:
            command += ["-g", "user root;"]
        log = ground.work / f"nginx-{example}.log"
        with running(command, log) as master:
            wait_until_answered(port, log, address, at_client)
            yield Nginx(f"{'http' if certificate is None else 'https'}://{address}:{port}", master, Path(prefix) / "access.log")


@contextmanager
def plain(ground: Ground, tree: Path) -> Iterator[Place]:
    with started_nginx(ground, tree) as server:
        yield Place(server.url)


@contextmanager
def encrypted(ground: Ground, tree: Path) -> Iterator[Place]:
    with tempfile.TemporaryDirectory() as folder:
        certificate = make_certificate(Path(folder))
        with started_nginx(ground, tree, certificate) as server:
            yield Place(server.url, certificate)


@dataclass(frozen=True)
class Ends:
    """The words before a command that shall run at one end of a wire."""

    server: Sequence[str]
    client: Sequence[str]


@contextmanager
def wire(ground: Ground) -> Iterator[Ends]:
    """From one network namespace to another, half a round trip each way. The interface is called "wire" at either end."""
    missing = [program for program in ("ip", "nsenter") if shutil.which(program) is None]
    if missing:
        raise NotPossibleHere(f"not installed: {', '.join(missing)}")
    with ExitStack() as stack:
        command: list[Word] = [ground.program("delayed_link"), str(ROUND_TRIP_MS)]
        link = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        stack.callback(link.wait)
        assert link.stdin is not None and link.stdout is not None and link.stderr is not None
        stack.callback(link.stdin.close)
        line = link.stdout.readline()
        if not line:
            raise NotPossibleHere(f"a wire between two network namespaces: {link.stderr.read().strip()}")
        inside = {end: ["nsenter", f"--net={space}"] for end, space in json.loads(line).items()}
        for end, address in (("server", SERVER_ADDRESS), ("client", CLIENT_ADDRESS)):
            for words in (f"addr add {address}/24 dev wire", "link set lo up", "link set wire txqueuelen 10000 up"):
                subprocess.run([*inside[end], "ip", *words.split()], check=True)
        yield Ends(inside["server"], inside["client"])


@contextmanager
def delayed(ground: Ground, tree: Path) -> Iterator[Place]:
    """Over a wire, with TLS, as plain HTTP stays on one machine."""
    with wire(ground) as ends, tempfile.TemporaryDirectory() as folder:
        certificate = make_certificate(Path(folder))
        with started_nginx(ground, tree, certificate, SERVER_ADDRESS, ends.server, ends.client) as server:
            yield Place(server.url, certificate, ends.client)


def make_certificate(folder: Path) -> Path:
    """A certificate for the addresses of the benchmarks, with its key beside it."""
    certificate = folder / "server.pem"
    command: list[Word] = [
        *("openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-noenc", "-days", "2"),
        *("-subj", "/CN=bench", "-addext", f"subjectAltName=IP:127.0.0.1,IP:{SERVER_ADDRESS}"),
        *("-keyout", certificate.with_suffix(".key"), "-out", certificate),
    ]
    subprocess.run(command, check=True, stderr=subprocess.DEVNULL)
    return certificate


@contextmanager
def embedded(ground: Ground, tree: Path) -> Iterator[Place]:
    command: list[Word] = [ground.program("brackenfen-distribution"), "serve", tree]
    process = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    try:
        assert process.stdout is not None
        yield Place(process.stdout.readline().rsplit(" at ", 1)[1].strip())
    finally:
        process.terminate()
        process.wait()


@contextmanager
def rsync_daemon(ground: Ground, source: Path) -> Iterator[str]:
    """Yields the URL below which rsync finds the files."""
    port = free_port()
    with tempfile.TemporaryDirectory() as folder:
        configuration = Path(folder) / "rsyncd.conf"
        root = os.geteuid() == 0
        configuration.write_text(f"[files]\npath = {source}\nuse chroot = no\n" + ("uid = 0\ngid = 0\n" if root else ""))
        log = ground.work / "rsync.log"
        with running(["rsync", "--daemon", "--no-detach", f"--port={port}", "--address=127.0.0.1", f"--config={configuration}"], log):
            wait_until_answered(port, log)
            yield f"rsync://127.0.0.1:{port}/files/"
