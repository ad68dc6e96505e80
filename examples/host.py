"""A small host of brackenfen-sync: brings one directory up to date and shows what is happening.

    host.py [--verify] DIRECTORY SERVER_URL

With --verify it reads every local file instead, and fetches anew what is damaged. The bearer token is read from
BRACKENFEN_TOKEN. Ctrl-C stops cleanly; the next run goes on where this one stopped.
"""

from __future__ import annotations

import argparse
import json
import logging
import os
import sys
import threading
import time
from collections import Counter, deque
from pathlib import Path
from typing import Any

from brackenfen import sync


RATE_WINDOW_SECONDS = 1.0
REASONS = {
    "partial_transfer": "the connection broke off",
    "sha256_mismatch": "the bytes are not the ones promised",
}


def megabytes(count: float) -> str:
    return f"{count / 1e6:,.1f} MB"


class Progress(threading.Thread):
    """Shows how far a pass has come, from sync-progress.json and the sizes on disk: the library itself prints nothing."""

    def __init__(self, directory: Path) -> None:
        super().__init__(name="progress", daemon=True)
        self._directory = directory
        self._finished = threading.Event()
        self._live = sys.stdout.isatty()
        self._interval = 0.1 if self._live else 0.5
        self._samples: deque[tuple[float, int]] = deque()  # time and bytes on disk, of the last second
        self._files: dict[str, Any] = {}
        self._landed: set[str] = set()
        self._landed_bytes = 0
        self._shown: object = None

    def run(self) -> None:
        while not self._finished.wait(self._interval):
            line = self._line()
            if line:
                self._print(line)

    def stop(self) -> None:
        self._finished.set()
        self.join()
        if self._live:
            sys.stdout.write("\r\x1b[K")
            sys.stdout.flush()

    def note(self, text: str) -> None:
        """A line of its own, above the progress line."""
        print(f"\r\x1b[K{text}" if self._live else text, flush=True)

    def _print(self, line: str) -> None:
        print(f"\r\x1b[K{line[: os.get_terminal_size().columns - 1]}" if self._live else line, end="" if self._live else "\n", flush=True)

    def _line(self) -> str:
        try:
            progress = json.loads((self._directory / "sync-progress.json").read_bytes())
        except (OSError, ValueError):
            return ""
        self._files = progress.get("files", self._files)
        done, in_flight = self._sizes()
        rate = self._rate(in_flight)
        parts = []
        if self._files:
            parts.append(f"{done:>4}/{len(self._files)} files  {megabytes(in_flight)} of {megabytes(progress.get('total_bytes', 0))}")
        # The file tells of the latest wait also when that is over.
        backoff = progress.get("backoff", {"attempt": 0, "wait_seconds": 0.0})
        remaining = progress["updated_at"] + backoff["wait_seconds"] - time.time()
        if remaining > 0 and rate == 0:
            parts.append(f"waiting, attempt {backoff['attempt']}, next try in {remaining:.1f} s")
        else:
            backoff = {"attempt": 0}
            parts.append(f"{megabytes(rate)}/s")
        # A line of its own is worth it where something moved; a line that is written over may count down.
        state = (in_flight, backoff["attempt"])
        if not self._live and state == self._shown:
            return ""
        self._shown = state
        return "  ".join(parts)

    def _rate(self, in_flight: int) -> float:
        """Bytes per second since the oldest sample; what an earlier run left is there from the first."""
        now = time.monotonic()
        while self._samples and self._samples[0][0] < now - RATE_WINDOW_SECONDS:
            self._samples.popleft()
        self._samples.append((now, in_flight))
        then, before = self._samples[0]
        return max(0, in_flight - before) / (now - then) if now > then else 0.0

    def _sizes(self) -> tuple[int, int]:
        """Files that have landed, and the bytes on disk, those of staging files included."""
        staged = 0
        for path, entry in self._files.items():
            if path in self._landed:
                continue
            local = self._directory / path
            try:
                staged += os.stat(f"{local}.tmp").st_size
                continue
            except OSError:
                pass
            try:
                if os.stat(local).st_size == entry.get("size_bytes"):
                    self._landed.add(path)
                    self._landed_bytes += entry["size_bytes"]
            except OSError:
                pass
        return len(self._landed), self._landed_bytes + staged


class Events(logging.Handler):
    """Turns the library's structured events into a line for people, and passes its warnings on."""

    def __init__(self, progress: Progress) -> None:
        super().__init__(logging.INFO)
        self._progress = progress
        self._outage = False
        self._resumed: set[tuple[str, int]] = set()

    def emit(self, record: logging.LogRecord) -> None:
        event = getattr(record, "brackenfen_sync_event", None)
        if event is None:
            if record.levelno >= logging.WARNING:
                self._progress.note(f"{record.levelname.lower()}: {record.getMessage()}")
        elif event["event_type"] == "range_resume" and (event["file"], event["bytes_existing"]) not in self._resumed:
            self._resumed.add((event["file"], event["bytes_existing"]))
            self._progress.note(f"resuming {event['file']}: {event['bytes_existing']:,} bytes are already here")
        elif event["event_type"] == "sync_unavailable_status" and not self._outage:  # every file in flight meets the same one
            self._outage = True
            self._progress.note(f"the server is not available ({self._cause(event)}). {event['next_action']}")
        elif event["event_type"] == "sync_recovered_status" and self._outage:
            self._outage = False
            self._progress.note(f"the server is back after {event['elapsed_seconds']:.0f} s ({self._cause(event)})")
        elif event["event_type"] == "sync_backoff_wait" and event["reason"] in REASONS:
            self._progress.note(f"{event['file']}: {REASONS[event['reason']]}; the rest follows in {event['wait_seconds']:.1f} s")

    @staticmethod
    def _cause(event: dict[str, Any]) -> str:
        """What the server said last, else what the network did."""
        seen = [f"HTTP {status}" for status in event["status_sequence"]] + event["exception_sequence"]
        return ", ".join(dict.fromkeys([*seen, *filter(None, [event["last_server_error_code"], event.get("reason")])]))


def print_contents(directory: Path, manifest: sync.Manifest) -> None:
    """What a search would work with: the universes and their instruments, and what earlier searches found."""
    universes = []
    for path, entry in manifest.files.items():
        if entry["kind"] == "vocabulary":
            metadata = json.loads((directory / path).read_bytes())["metadata"]
            universes.append(f"{metadata['named_universe']} with {metadata['n_instruments']:,} instruments")
    print(f"  universes: {', '.join(universes)}")
    print(
        f"  found: {len(manifest.found_signals)} signals, {len(manifest.found_strategies)} strategies; "
        f"useful: {len(manifest.useful_signals)} signals"
    )


def print_summary(directory: Path, manifest: sync.Manifest, result: sync.SyncResult, seconds: float) -> None:
    files: Counter[str] = Counter()
    sizes: Counter[str] = Counter()
    for path, entry in manifest.files.items():
        if not (directory / path).exists():
            continue  # of another platform
        folder = path.split("/")[0] + "/" if "/" in path else path
        files[folder] += 1
        sizes[folder] += entry["size_bytes"]
    print(f"era {result.era_number}, version {manifest.version}, in {directory}:")
    print_contents(directory, manifest)
    for folder in sorted(files):
        print(f"  {folder:<24} {files[folder]:>5} files  {megabytes(sizes[folder]):>12}")
    if result.bytes_downloaded:
        rate = megabytes(result.bytes_downloaded / seconds)
        print(f"{megabytes(result.bytes_downloaded)} landed in {seconds:.1f} s ({rate}/s), each file checked against its SHA-256 as it landed.")
    else:
        print(f"Already up to date; checked in {seconds * 1e3:.0f} ms.")


def verify_and_repair(manager: sync.SyncManager) -> None:
    began = time.monotonic()
    found = manager.verify()
    damaged = found.corrupted_files + found.missing_files
    print(f"Every file read and checked in {time.monotonic() - began:.1f} s: {len(damaged) or 'none'} damaged.")
    if damaged:
        for path in damaged:
            print(f"  {path}")
        result = manager.repair(damaged)
        print(f"{megabytes(result.bytes_downloaded)} fetched anew; now {'all is well' if manager.verify().valid else 'something is still wrong'}.")


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("directory", type=Path)
    parser.add_argument("server_url")
    parser.add_argument("--verify", action="store_true", help="read every file and mend what is damaged, in place of a pass")
    options = parser.parse_args()

    progress = Progress(options.directory)
    logger = logging.getLogger("brackenfen.sync")
    logger.setLevel(logging.INFO)
    logger.propagate = False
    logger.addHandler(Events(progress))

    token = os.environ.get("BRACKENFEN_TOKEN", "")
    try:
        options.directory.mkdir(parents=True, exist_ok=True)
        manager = sync.SyncManager.get_or_create(str(options.directory), options.server_url, lambda: token)
        if options.verify:
            verify_and_repair(manager)
            return 0
        progress.start()
        began = time.monotonic()
        try:
            with sync.backoff_context(data_dir=str(options.directory), surface="host"):  # so that waits show in sync-progress.json
                result = manager.sync()
        finally:
            progress.stop()
    except KeyboardInterrupt:
        print("stopped; what has landed stays, and the next run resumes the rest", file=sys.stderr)
        return 130
    except Exception as error:  # whatever it is, a person reads it here; a larger host would tell classes apart
        print(f"{type(error).__name__}: {error}", file=sys.stderr)
        return 1
    seconds = time.monotonic() - began
    manifest = manager.get_manifest()
    assert manifest is not None  # there is one after every pass
    print_summary(options.directory, manifest, result, seconds)
    return 0


if __name__ == "__main__":
    sys.exit(main())
