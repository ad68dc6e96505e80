"""The network benchmarks: downloads from nginx on loopback, the embedded server beside nginx, and an idle poll."""

from __future__ import annotations

import json
import os
import random
import shutil
import socket
import subprocess
import sys
import tempfile
import time
import urllib.request
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path
from typing import Any

FILES = 120
TOTAL_BYTES = 10**9
TOLERATED_START_SECONDS = 10


def make_tree(root: Path, work: Path) -> Path:
    """A distribution of 120 files of 1 to 16 MiB, 1 GB together, and the documents of an era. Kept from run to run."""
    tree = work / "tree"
    if (tree / "data" / "files" / "functions.json").exists():
        return tree
    shutil.rmtree(tree, ignore_errors=True)
    source = work / "source"
    draw = random.Random(12)
    sizes = [draw.randint(1 << 20, 16 << 20) for _ in range(FILES)]
    scale = TOTAL_BYTES / sum(sizes)
    for number, size in enumerate(sizes):
        path = source / "features" / "universe" / "signal_is" / f"a__b__{number:03d}__v1.arrow"
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(draw.randbytes(min(max(int(size * scale), 1 << 20), 16 << 20)))
    vocabulary = source / "named_universes" / "universe" / "vocabulary.json"
    vocabulary.parent.mkdir(parents=True)
    metadata = {"named_universe": "universe"}
    vocabulary.write_text(json.dumps({"era_number": 12, "named_universe": "universe", "features": {}, "metadata": metadata}))
    (source / "functions.json").write_text(json.dumps({"era_number": 12}))
    tool = root / "build" / "release" / "bin" / "brackenfen-distribution"
    subprocess.run([tool, "publish", source, tree, "--era", "12", "--version", "1"], check=True, stdout=subprocess.DEVNULL)
    shutil.rmtree(source)
    return tree


def free_port() -> int:
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        port: int = probe.getsockname()[1]
        return port


def wait_until_served(url: str) -> None:
    deadline = time.monotonic() + TOLERATED_START_SECONDS
    while True:
        try:
            urllib.request.urlopen(url + "/data/manifest/version", timeout=1).read()
            return
        except OSError:
            if time.monotonic() > deadline:
                raise SystemExit(f"no server answers at {url}") from None
            time.sleep(0.05)


@contextmanager
def nginx(root: Path, tree: Path) -> Iterator[str]:
    port = free_port()
    with tempfile.TemporaryDirectory() as prefix:
        text = (root / "examples" / "nginx.conf").read_text()
        configuration = Path(prefix) / "nginx.conf"
        configuration.write_text(text.replace("@ROOT@", str(tree)).replace("@PORT@", str(port)))
        process = subprocess.Popen(["/usr/sbin/nginx", "-p", prefix, "-c", str(configuration)], stderr=subprocess.DEVNULL)
        try:
            url = f"http://127.0.0.1:{port}"
            wait_until_served(url)
            yield url
        finally:
            process.terminate()
            process.wait()


@contextmanager
def embedded(root: Path, tree: Path) -> Iterator[str]:
    tool = root / "build" / "release" / "bin" / "brackenfen-distribution"
    process = subprocess.Popen([tool, "serve", tree], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    try:
        assert process.stdout is not None
        yield process.stdout.readline().rsplit(" at ", 1)[1].strip()
    finally:
        process.terminate()
        process.wait()


def target_directory(work: Path) -> Path:
    """Where downloads land: in memory where there is room, so that a disk's write-back does not decide."""
    shared = Path("/dev/shm")
    if shared.is_dir() and shutil.disk_usage(shared).free > 3 * TOTAL_BYTES:
        return Path(tempfile.mkdtemp(prefix="brackenfen-bench-", dir=shared))
    return Path(tempfile.mkdtemp(prefix="target-", dir=work))


def timed(command: list[str], target: Path, environment: dict[str, str] | None = None) -> tuple[float, float]:
    """Seconds, and the peak resident set in MiB, of one download into the empty directory `target`."""
    target.mkdir()
    began = time.monotonic()
    process = subprocess.Popen(command, env=environment, stdout=subprocess.DEVNULL)
    _, status, usage = os.wait4(process.pid, 0)
    seconds = time.monotonic() - began
    process.returncode = os.waitstatus_to_exitcode(status)
    if process.returncode != 0:
        raise SystemExit(f"{command[0]} failed with {process.returncode}")
    landed = sum(path.stat().st_size for path in (target / "features").rglob("*.arrow"))
    shutil.rmtree(target)
    if landed < 0.9 * TOTAL_BYTES:
        raise SystemExit(f"{command[0]} landed {landed} bytes only")
    return seconds, usage.ru_maxrss / 1024


def aria2c_list(tree: Path, url: str, work: Path) -> Path:
    files = json.loads((tree / "data" / "manifest.json").read_bytes())["files"]
    path = work / "aria2c.txt"
    path.write_text("".join(f"{url}/data/files/{name}\n  out={name}\n" for name in files))
    return path


def peers(root: Path, tree: Path, url: str, work: Path, target: Path) -> dict[str, tuple[list[str], dict[str, str]]]:
    bench = root / "bench"
    environment = dict(os.environ, PYTHONPATH=str(root / "build" / "release" / "python"), BRACKENFEN_SYNC_MAX_CONCURRENCY="8")
    quiet = ["--quiet=true", "--max-concurrent-downloads=8", "--max-connection-per-server=1", "--split=1", "--file-allocation=none"]
    listed = aria2c_list(tree, url, work)
    return {
        "brackenfen-sync": ([sys.executable, str(bench / "peer_library.py"), url, str(target)], environment),
        "python threads": ([sys.executable, str(bench / "peer_threads.py"), url, str(target)], environment),
        "aria2c": (["aria2c", *quiet, f"--dir={target}", f"--input-file={listed}"], environment),
    }


def measure_downloads(root: Path, work: Path, rounds: int) -> dict[str, Any]:
    """Each peer once per round, one after the other, so that all see the same machine."""
    tree = make_tree(root, work)
    base = target_directory(work)
    seen: dict[str, Any] = {"bytes": TOTAL_BYTES}
    try:
        with nginx(root, tree) as url:
            commands = peers(root, tree, url, work, base / "data")
            for name in commands:
                seen[name] = {"seconds": [], "peak_resident_mib": 0.0}
            for _ in range(rounds):
                for name, (command, environment) in commands.items():
                    seconds, resident = timed(command, base / "data", environment)
                    seen[name]["seconds"].append(seconds)
                    seen[name]["peak_resident_mib"] = max(seen[name]["peak_resident_mib"], resident)
    finally:
        shutil.rmtree(base, ignore_errors=True)
    return seen


def measure_servers(root: Path, work: Path, rounds: int) -> dict[str, Any]:
    """The same client against both servers in turn."""
    tree = make_tree(root, work)
    base = target_directory(work)
    seen: dict[str, Any] = {"bytes": TOTAL_BYTES, "nginx": [], "embedded": []}
    try:
        with nginx(root, tree) as nginx_url, embedded(root, tree) as embedded_url:
            for _ in range(rounds):
                for name, url in (("nginx", nginx_url), ("embedded", embedded_url)):
                    command, environment = peers(root, tree, url, work, base / "data")["aria2c"]
                    seen[name].append(timed(command, base / "data", environment)[0])
    finally:
        shutil.rmtree(base, ignore_errors=True)
    return seen


def measure_idle_round(root: Path, work: Path) -> float:
    """Milliseconds of processor time that a round of the poll thread takes with nothing to do, on a small data set."""
    tree, data = work / "idle" / "tree", work / "idle" / "data"
    shutil.rmtree(work / "idle", ignore_errors=True)
    data.mkdir(parents=True)
    tool = root / "build" / "release" / "bin" / "brackenfen-distribution"
    subprocess.run([tool, "sample", tree, "--files", "20", "--bytes", "100000"], check=True, stdout=subprocess.DEVNULL)
    environment = dict(os.environ, PYTHONPATH=str(root / "build" / "release" / "python"))
    with embedded(root, tree) as url:
        command = [sys.executable, str(root / "bench" / "idle_round.py"), url, str(data)]
        done = subprocess.run(command, check=True, capture_output=True, text=True, env=environment)
    milliseconds: float = json.loads(done.stdout)["idle_round_ms"]
    return milliseconds
