"""Several processes on one directory, some of which are killed or stopped in the middle of whatever they do.

BRACKENFEN_STRESS_SECONDS sets how long each test goes on; a short sample by default.
"""

import contextlib
import mmap
import os
import pathlib
import random
import signal
import struct
import subprocess
import sys
import threading
import time
from collections.abc import Callable, Iterator
from typing import Any

import brackenfen.sync as sync

SECONDS = float(os.environ.get("BRACKENFEN_STRESS_SECONDS", "6"))
PROCESSES = 8
LONGEST_WAIT_SECONDS = 30  # generous: a machine under load, with every process but one in the way

Children = list[subprocess.Popen[str]]


@contextlib.contextmanager
def children(source: str, *arguments: str) -> Iterator[tuple[Children, Callable[[int], None]]]:
    """PROCESSES of them, and a function that kills one and starts another in its place. All are killed at the end."""

    def start(index: int) -> subprocess.Popen[str]:
        return subprocess.Popen([sys.executable, "-c", source, *arguments, str(index)], stderr=subprocess.PIPE, text=True)

    running = [start(index) for index in range(PROCESSES)]

    def replace(index: int) -> None:
        running[index].kill()
        running[index].communicate()
        running[index] = start(index)

    try:
        yield running, replace
    finally:
        for process in running:
            process.kill()
            process.communicate()


# ---- never two holders ----------------------------------------------------------------------------------------------

# Shared memory: who came in last, how often that was another one while a process was inside, and each process's rounds.
HOLDER = """
import mmap, os, struct, sys, time
import brackenfen.sync as sync
directory, index = sys.argv[1], int(sys.argv[2])
with open(directory + "/../shared", "r+b") as file: shared = mmap.mmap(file.fileno(), 0)
def get(at): return struct.unpack_from("q", shared, 8 * at)[0]
def put(at, value): struct.pack_into("q", shared, 8 * at, value)
manager = sync.SyncManager(directory, "http://127.0.0.1:1", str)
while True:
    manager._acquire_flock()
    put(0, os.getpid())
    time.sleep(0.0003)
    if get(0) != os.getpid(): put(1, get(1) + 1)
    manager._release_flock()
    put(2 + index, get(2 + index) + 1)
"""


def test_never_two_hold_the_lock_and_nobody_waits_for_ever(tmp_path: pathlib.Path) -> None:
    (tmp_path / "data").mkdir()
    (tmp_path / "shared").write_bytes(bytes(8 * (2 + PROCESSES)))
    draw = random.Random(5)
    with open(tmp_path / "shared", "r+b") as file, children(HOLDER, str(tmp_path / "data")) as (running, replace):
        shared = mmap.mmap(file.fileno(), 0)

        def values() -> tuple[int, ...]:
            return struct.unpack_from(f"{2 + PROCESSES}q", shared)

        def wait_for_progress() -> None:
            """Until each of them has had the lock once more."""
            before, deadline = values(), time.monotonic() + LONGEST_WAIT_SECONDS
            while any(now == then for now, then in zip(values()[2:], before[2:], strict=True)):
                assert time.monotonic() < deadline, (before, values())
                time.sleep(0.01)

        wait_for_progress()
        end = time.monotonic() + SECONDS
        while time.monotonic() < end:
            index = draw.randrange(PROCESSES)
            if draw.random() < 0.5:
                replace(index)
            else:
                running[index].send_signal(signal.SIGSTOP)
                time.sleep(draw.uniform(0, 0.1))
                running[index].send_signal(signal.SIGCONT)
            time.sleep(draw.uniform(0, 0.05))
        wait_for_progress()
        assert values()[1] == 0


# ---- everything at once ---------------------------------------------------------------------------------------------

WORKER = """
import concurrent.futures, logging, os, random, sys, time
import brackenfen.sync as sync
logging.getLogger("brackenfen.sync").setLevel(logging.ERROR)  # a count that is read while another process writes it is a warning
directory, url, seconds, index = sys.argv[1], sys.argv[2], float(sys.argv[3]), int(sys.argv[4])
end = time.monotonic() + seconds
def work(number):
    draw = random.Random(os.getpid() * 8 + number)
    while time.monotonic() < end:
        manager = sync.SyncManager.get_or_create(directory, url, str, 0.2)
        files = manager.get_manifest().files if manager.get_manifest() else {}
        path = draw.choice(list(files or ["unknown"]))
        manager.acquire()
        try: draw.choice([manager.sync, manager.request_for_sync, lambda: manager.repair([path]), lambda: manager.report_corruption(path)])()
        except (sync.SyncError, sync.StateError, AttributeError, ValueError) as error:
            known = isinstance(error, sync.StateError | sync.ManifestSupersededError) or "File not in manifest" in str(error)
            if not known and "'NoneType' object has no attribute 'set'" not in str(error): raise
        finally: manager.release()
        if draw.random() < 0.1: manager.stop()
with concurrent.futures.ThreadPoolExecutor(4) as pool: done = pool.map(work, range(4))
for manager in sync.SyncManager._instances.values(): manager.stop()
list(done)  # raises what a thread has raised
"""


def test_a_directory_that_many_processes_work_on_verifies_at_the_end(tmp_path: pathlib.Path, server: Any) -> None:
    for number in range(20):
        server.add(f"features/u/signal_is/{number}.arrow", bytes([number]) * 3000)
    server.add("found_signals/pool/one/signal_is/pnl.arrow", b"pnl", "found_signal_is_pnl")
    directory = tmp_path / "data"
    directory.mkdir()
    over, draw = threading.Event(), random.Random(6)

    def publish() -> None:
        while not over.wait(0.5):
            server.version += 1

    publisher = threading.Thread(target=publish)
    publisher.start()
    began = time.monotonic()
    try:
        # A process that takes another's place works for as long, so the last ones go on without being disturbed.
        with children(WORKER, str(directory), server.url, str(SECONDS)) as (running, replace):
            while time.monotonic() < began + SECONDS / 2:
                replace(draw.randrange(PROCESSES))
                time.sleep(draw.uniform(0.1, 0.5))
            for process in running:
                _, errors = process.communicate(timeout=SECONDS + 2 * LONGEST_WAIT_SECONDS)
                assert (process.returncode, errors) == (0, "")
    finally:
        over.set()
        publisher.join()
    server.version += 1  # so that this pass walks the files, and clears away what killed ones left
    manager = sync.SyncManager(directory, server.url, str)
    manager.sync()
    assert manager.verify().valid and server.entries.keys() <= manager.get_manifest().files.keys()
    assert not [path for path in directory.rglob("*") if path.suffix == ".tmp" or path.name == ".sync_flock"]
