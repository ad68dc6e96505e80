"""A client is killed at each call of a transition that creates, renames or removes a name; the next start recovers."""

import hashlib
import json
import os
import pathlib
import re
import shutil
import signal
import subprocess

import pytest

# What a killed atomic write leaves, until the next pass that downloads.
HALF_WRITTEN = re.compile(r"(manifest|feature-rotation-state)\.json\.\d+\.\d+\.\d+\.tmp")


class Host:
    """Starts a client on a directory, whole or killed at a point."""

    def __init__(self, tool_path: str, url: str) -> None:
        self.bin = pathlib.Path(tool_path).parent
        self.url = url

    def run(self, directory: pathlib.Path, era: int, **switches: object) -> subprocess.CompletedProcess[str]:
        layer = {"LD_PRELOAD": str(self.bin / "libkill_points.so"), "KILL_BELOW": f"{directory}/"} if switches else {}
        environment = os.environ | layer | {f"KILL_{name.upper()}": str(value) for name, value in switches.items()}
        command = [self.bin / "era_host", directory, self.url, str(era)]
        return subprocess.run(command, env=environment, capture_output=True, text=True, timeout=60)


def digests(directory: pathlib.Path, paths: set[str]) -> dict[str, str]:
    return {path: hashlib.sha256((directory / path).read_bytes()).hexdigest() for path in paths if (directory / path).exists()}


def manifest_in(directory: pathlib.Path) -> dict[str, str]:
    files = json.loads((directory / "manifest.json").read_bytes())["files"]
    return {path: entry["sha256"] for path, entry in files.items()}


@pytest.fixture
def host(tool, tool_path, serve, tmp_path):
    """A client that is in era 1, and a server that is in era 2 by now."""
    tool("sample", tmp_path / "eras", "--source", "--files", 24, "--bytes", "60kB", "--eras", 2)
    departing = min((tmp_path / "eras/era-2/features").rglob("*.arrow"))
    departing.rename(departing.with_name("arriving__close__w005__z9.arrow"))
    tool("publish", tmp_path / "eras/era-1", tmp_path / "tree", "--era", 1, "--version", 1)
    made = Host(tool_path, serve(tmp_path / "tree").url)
    (tmp_path / "start").mkdir()
    assert made.run(tmp_path / "start", 1).stdout == "verified\n"
    tool("advance", tmp_path / "tree", tmp_path / "eras/era-2", "--step", "open")
    return made


def test_a_kill_at_any_point_leaves_what_the_next_start_recovers(host, tmp_path):
    whole, killed, log = tmp_path / "whole", tmp_path / "killed", tmp_path / "points"
    shutil.copytree(tmp_path / "start", whole)
    assert host.run(whole, 2, log=log).stdout == "kill\nrestart\nverified\n"
    old, new = manifest_in(tmp_path / "start"), manifest_in(whole)
    points = [(line.split()[0], pathlib.Path(line.split(maxsplit=1)[1]).relative_to(whole).as_posix()) for line in log.read_text().splitlines()]

    def at(call: str, path: str) -> int:
        return next(index for index, point in enumerate(points) if point == (call, path))

    first_move = min(index for index, (call, path) in enumerate(points) if call == "rename" and path in new)
    commit = at("rename", "manifest.json")
    state = [index for index, point in enumerate(points) if point == ("rename", "feature-rotation-state.json")]
    assert old.keys() - new.keys() and old.keys() & new.keys() and first_move < at("rename", "shuffle_seed.enc") < commit < min(state, default=commit + 1)

    for index, (call, path) in enumerate(points):
        shutil.rmtree(killed, ignore_errors=True)
        shutil.copytree(tmp_path / "start", killed)
        assert host.run(killed, 2, at=index + 1).returncode == -signal.SIGKILL
        told = f"killed at {index + 1} of {len(points)}: {call} {path}"

        found = digests(killed, old.keys() | new.keys())
        assert manifest_in(killed) == (old if index <= commit else new), told
        assert all(digest in (old.get(path), new.get(path)) for path, digest in found.items()), told  # never torn
        assert old.keys() & new.keys() <= found.keys(), told  # nor missing
        assert index > first_move or all(found[path] == digest for path, digest in old.items()), told
        assert index <= commit or all(found[path] == digest for path, digest in new.items()), told
        if state and index <= state[0]:
            assert (killed / "feature-rotation-state.json").read_bytes() == (tmp_path / "start/feature-rotation-state.json").read_bytes(), told

        healed = host.run(killed, 2)
        assert healed.stdout.endswith("verified\n") and healed.stdout.startswith("kill\n") == (index <= commit), told + healed.stdout + healed.stderr
        # Under the old selection a feature that came with the era waits for the next rotation.
        waits = {path for path in new.keys() - old.keys() if path.startswith("features/")} if state and commit < index <= state[0] else set()
        assert digests(killed, set(new) - waits) == {path: digest for path, digest in new.items() if path not in waits}, told
        left = {path.name for path in killed.rglob("*") if path.suffix == ".tmp" or path.name.startswith(".transition")}
        left = {name for name in left if not HALF_WRITTEN.fullmatch(name)}
        # Behind the commit nobody looks for them until the next transition.
        assert left <= (set() if index <= commit else {".transition_lock", ".transition_era2.tmp"}), told
