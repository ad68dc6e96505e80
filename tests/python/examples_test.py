"""The examples as a new user runs them, against served trees."""

import contextlib
import json
import os
import pathlib
import signal
import threading
from collections.abc import Iterator
from typing import Any

import brackenfen.sync as sync
import pytest

EXAMPLES = pathlib.Path(__file__).resolve().parents[2] / "examples"
TOKEN = "canary-0d51e7"
# An example under a clock of its own: it polls ten times a second.
QUICKLY = """
import runpy, sys
from brackenfen import sync
make = sync.SyncManager.get_or_create
sync.SyncManager.get_or_create = staticmethod(lambda *given: make(*given, poll_interval_s=0.1))
sys.argv = sys.argv[1:]
runpy.run_path(sys.argv[0], run_name="__main__")
"""


@pytest.fixture
def start(program: Any, monkeypatch: pytest.MonkeyPatch) -> Iterator[Any]:
    """start(name, *arguments): that example, which runs for a minute at most."""
    monkeypatch.setenv("BRACKENFEN_TOKEN", TOKEN)
    with contextlib.ExitStack() as stack:

        def run(name: str, *arguments: object) -> Any:
            running = program(QUICKLY, str(EXAMPLES / name), *map(str, arguments))
            watchdog = threading.Timer(60, running.process.kill)
            watchdog.start()
            for end in (running.process.communicate, running.process.kill, watchdog.cancel):
                stack.callback(end)
            return running

        yield run


def says(running: Any, text: str) -> None:
    for line in running.process.stdout:
        if text in line:
            return
    raise AssertionError(running.finish()[2])


def ends(running: Any) -> int:
    running.process.send_signal(signal.SIGINT)
    code, out, err, _ = running.finish()
    assert TOKEN not in out + err and "Traceback" not in err, err
    return int(code)


@pytest.fixture
def site(tool: Any, serve: Any, tmp_path: pathlib.Path) -> tuple[pathlib.Path, str]:
    tool("sample", tmp_path / "eras", "--source", "--files", 24, "--bytes", "40kB", "--eras", 2, "--universes", "liquid_500")
    tool("publish", tmp_path / "eras/era-1", tmp_path / "tree", "--era", 1, "--version", 1)
    (tmp_path / "faults").touch()
    return tmp_path / "tree", serve(tmp_path / "tree", "--token", TOKEN, "--fault-file", tmp_path / "faults").url


def test_they_are_short() -> None:
    assert {path.name: len(path.read_text().splitlines()) < 60 for path in EXAMPLES.glob("*.py")} == dict.fromkeys(
        ("asyncio_host.py", "host.py", "search_host.py"), True
    )


def test_the_host_follows_eras(start: Any, tool: Any, site: Any, tmp_path: pathlib.Path) -> None:
    host = start("host.py", tmp_path / "data", site[1])
    says(host, "era 1 is here: 24 files")
    kill, restart = "kill: stop what reads the files, era ", "restart: start what reads the files, era "
    for step, told in (("announce", []), ("close", [kill, restart]), ("reopen", [restart]), ("close", [kill, restart]), ("gap", [])):
        tool("advance", site[0], "--step", step)
        for text in told:
            says(host, text + "1")
    tool("advance", site[0], tmp_path / "eras/era-2", "--step", "open", "--shape", "wrapped")
    says(host, kill + "1")
    says(host, restart + "2")
    assert ends(host) == 0 and sync.SyncManager(tmp_path / "data", site[1], str).verify().valid


def test_searches_hear_of_a_rotation(start: Any, site: Any, tmp_path: pathlib.Path) -> None:
    (tmp_path / "data").mkdir()
    (tmp_path / "data/feature-rotation-settings.json").write_text(json.dumps({"feature_budget_gb": 10_000 / 2**30, "rotation_seed": 7}))
    host = start("search_host.py", tmp_path / "data", site[1], "liquid_500")
    says(host, "liquid_500: generation 1, ")
    os.utime(sync.feature_rotation_state_path(tmp_path / "data"), (0, 0))
    says(host, "liquid_500: generation 2, ")
    assert ends(host) == 0


def test_asyncio_ends_a_wait_and_a_run_by_ctrl_c(start: Any, site: Any, tmp_path: pathlib.Path, wait_until: Any) -> None:
    (tmp_path / "data").mkdir()
    (tmp_path / "faults").write_text("*:status=503")
    waiting = start("asyncio_host.py", tmp_path / "data", site[1])
    wait_until((tmp_path / "data/sync-progress.json").exists)
    assert ends(waiting) == 130
    (tmp_path / "faults").write_text("")
    running = start("asyncio_host.py", tmp_path / "data", site[1])
    says(running, "bytes came")
    says(running, "era 1, version 1; fine")
    assert ends(running) == 130
