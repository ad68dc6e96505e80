#!/usr/bin/env python3
"""From era to era on one machine: a host follows a served data set through an outage, a close, a gap and into the next
era, while a search works on the data whenever it may. Run by ./dev demo; by hand:

    PYTHONPATH=build/dev/python examples/eras.py [--directory DIRECTORY] [--files N] [--bytes N]
"""

from __future__ import annotations

import argparse
import json
import logging
import os
import shutil
import signal
import subprocess
import sys
import threading
import time
from collections.abc import Callable
from pathlib import Path

from brackenfen import sync

ROOT = Path(__file__).resolve().parent.parent
BUILD = Path(os.environ.get("BRACKENFEN_BUILD_DIR", ROOT / "build" / "dev"))
DISTRIBUTION = BUILD / "bin" / "brackenfen-distribution"
TOKEN = "demo-token"
UNIVERSE = "liquid_500"
OUTAGE_SECONDS = 2.0
PATIENCE_SECONDS = 120.0


class Story:
    """Tells what happens as it happens, and the chapters once more at the end."""

    def __init__(self) -> None:
        self._began = time.monotonic()
        self._lock = threading.Lock()
        self._chapters: list[tuple[float, str, str]] = []

    def tell(self, who: str, text: str) -> None:
        with self._lock:
            print(f"{time.monotonic() - self._began:6.1f} s  {who:<8}{text}", flush=True)

    def chapter(self, who: str, text: str) -> None:
        self.tell(who, text)
        with self._lock:
            self._chapters.append((time.monotonic() - self._began, who, text))

    def print_summary(self) -> None:
        print("\nWhat happened when:")
        for seconds, who, text in self._chapters:
            print(f"{seconds:6.1f} s  {who:<8}{text}")


class Search:
    """Stands for the work of a host: it reads the features of its vocabulary over and over until it is told to stop."""

    named_universe = UNIVERSE

    def __init__(self, directory: Path, story: Story) -> None:
        self._directory = directory
        self._story = story
        self._stopping = threading.Event()
        self._thread: threading.Thread | None = None
        self._read = 0
        self.restarts = 0

    def start(self) -> None:
        vocabulary = json.loads((self._directory / "named_universes" / UNIVERSE / "vocabulary.json").read_bytes())
        features = sorted((self._directory / "features" / UNIVERSE).rglob("*.arrow"))
        self._stopping.clear()
        self._thread = threading.Thread(target=self._run, args=(features,), name="search", daemon=True)
        self._thread.start()
        window = vocabulary["metadata"]["t_signal_is"]
        self._story.chapter("search", f"runs with the vocabulary of era {vocabulary['era_number']}: {len(features)} features, {window} days")

    def stop(self) -> None:
        if self._thread is None:
            return
        self._stopping.set()
        self._thread.join()
        self._thread = None
        self._story.chapter("search", f"is stopped, after {self._read:,} reads")

    def on_era(self, event_type: str, era_number: int) -> None:
        """Called by the library, on the thread that watches the era; what it does must be over when it returns."""
        if event_type == "kill":
            self.stop()
        else:
            self.restarts += 1
            self.start()

    def refresh_rotation_scope(self, rotation_state: object, scoped_vocabulary: dict[str, object]) -> None:
        """Called by the library where the selection of features changes."""
        features = scoped_vocabulary["features"]
        assert isinstance(features, dict)
        self._story.tell("search", f"has a new scope: {len(features)} features in its vocabulary")

    def _run(self, features: list[Path]) -> None:
        while not self._stopping.is_set():
            for path in features:
                path.read_bytes()
                self._read += 1
                if self._stopping.wait(0.002):
                    return


class Events(logging.Handler):
    """The library's log, as far as it matters here."""

    def __init__(self, story: Story) -> None:
        super().__init__(logging.INFO)
        self._story = story
        self._announced: set[str] = set()
        self.recovered = threading.Event()

    def emit(self, record: logging.LogRecord) -> None:
        event = getattr(record, "brackenfen_sync_event", {})
        kind = event.get("event_type", "")
        message = record.getMessage()
        if kind == "sync_unavailable_status" and event["endpoint"] not in self._announced:
            self._announced.add(event["endpoint"])
            self._story.tell("library", f"the server does not answer at {event['endpoint']}; waiting")
        elif kind == "sync_recovered_status":
            self._announced.discard(event["endpoint"])
            self._story.tell("library", f"the server answers again at {event['endpoint']}, after {event['elapsed_seconds']:.1f} s")
            self.recovered.set()
        elif message.startswith(("Scheduled close", "Era transition cancelled", "Old era")) and message not in self._announced:
            self._announced.add(message)  # an announcement stands for many polls
            self._story.tell("library", message)
        elif record.levelno >= logging.WARNING:
            self._story.tell("library", f"{record.levelname.lower()}: {message}")


class Server:
    """The distribution tool: a served tree, what it does wrong, and its way from era to era."""

    def __init__(self, folder: Path, files: int, total_bytes: int) -> None:
        self._tree, self._sources, self._faults = folder / "server", folder / "eras", folder / "faults"
        self._tool("sample", self._sources, "--source", "--files", files, "--bytes", total_bytes, "--eras", 2)
        self._tool("publish", self._sources / "era-1", self._tree, "--era", 1, "--version", 1)
        command = [str(DISTRIBUTION), "serve", str(self._tree), "--token", TOKEN, "--fault-file", str(self._faults)]
        self._process = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        assert self._process.stdout is not None
        self.url = self._process.stdout.readline().rsplit(" at ", 1)[1].strip()

    @staticmethod
    def _tool(*arguments: object) -> str:
        done = subprocess.run([str(DISTRIBUTION), *map(str, arguments)], check=True, capture_output=True, text=True)
        return done.stdout.strip().splitlines()[-1]

    def step(self, name: str) -> str:
        source = [self._sources / "era-2"] if name == "open" else []
        return self._tool("advance", self._tree, *source, "--step", name)

    def misbehave(self, *faults: str) -> None:
        fresh = self._faults.with_suffix(".new")
        fresh.write_text("\n".join(faults))
        os.replace(fresh, self._faults)

    def close(self) -> None:
        self._process.send_signal(signal.SIGTERM)
        self._process.wait()


def wait_until(what: str, condition: Callable[[], bool], manager: sync.SyncManager, story: Story) -> None:
    """Tells meanwhile what the library says of itself."""
    deadline = time.monotonic() + PATIENCE_SECONDS
    last: str | None = None
    while not condition():
        if time.monotonic() > deadline:
            raise SystemExit(f"{what} did not happen within {PATIENCE_SECONDS:.0f} s")
        status = manager.status()
        if status and status != last:
            story.tell("library", status)
        last = status
        time.sleep(0.02)


def follow(server: Server, directory: Path, manager: sync.SyncManager, search: Search, events: Events, story: Story) -> None:
    def wait(what: str, condition: Callable[[], bool]) -> None:
        wait_until(what, condition, manager, story)

    def era() -> object:
        manifest = manager.get_manifest()
        return manifest.era_number if manifest else None

    result = manager.sync()
    story.chapter("library", f"era {result.era_number} is here: {len(result.active_relative_paths)} files, {result.bytes_downloaded / 1e6:.1f} MB")
    manager.register_era_callback(search.on_era)
    manager.register_rotation_search_consumer(search)
    manager.acquire()
    search.start()
    time.sleep(1.0)

    story.chapter("server", f"goes away for {OUTAGE_SECONDS:.0f} s")
    server.misbehave("*:status=503")
    time.sleep(OUTAGE_SECONDS)
    server.misbehave()
    wait("recovery", events.recovered.is_set)
    story.chapter("library", "waited the outage out; the search never noticed")

    for step in ("announce", "close"):
        story.chapter("server", server.step(step))
        time.sleep(1.0)
    wait("restart within the era", lambda: search.restarts == 1)
    story.chapter("library", "brought the directory up to date within the closing era")

    story.chapter("server", server.step("gap"))
    time.sleep(1.0)
    server.misbehave("/data/files/features/*:drop-after=2000,times=2")  # two transfers of the next era break off
    story.chapter("server", server.step("open"))
    wait("next era", lambda: era() == 2)
    story.chapter("library", "era 2 was staged beside the live files, and is promoted")
    wait("restart in the next era", lambda: search.restarts == 2)
    wait("clean-up of the old era", lambda: not (directory / "era_0").exists())
    story.chapter("library", "the directory of era 0, left behind by an earlier run, is gone")
    time.sleep(1.0)
    search.stop()

    found = manager.verify()
    assert found.valid, found
    story.chapter("library", f"every file of era {era()} verified")


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--directory", type=Path, default=ROOT / "build" / "demo-eras", help="made anew at each run")
    parser.add_argument("--files", type=int, default=120)
    parser.add_argument("--bytes", type=int, default=40_000_000)
    options = parser.parse_args()
    shutil.rmtree(options.directory, ignore_errors=True)
    directory = options.directory / "data"
    (directory / "era_0").mkdir(parents=True)
    (directory / "era_0" / "left-behind.arrow").write_bytes(bytes(100_000))

    server = Server(options.directory, options.files, options.bytes)
    story = Story()
    events = Events(story)
    logger = logging.getLogger("brackenfen.sync")
    logger.setLevel(logging.INFO)
    logger.propagate = False
    logger.addHandler(events)
    manager = sync.SyncManager.get_or_create(directory, server.url, lambda: TOKEN, poll_interval_s=0.2)
    search = Search(directory, story)
    try:
        follow(server, directory, manager, search, events, story)
    finally:
        search.stop()
        manager.release()
        server.close()
    story.print_summary()


if __name__ == "__main__":
    try:
        main()
    except KeyboardInterrupt:
        sys.exit(130)
