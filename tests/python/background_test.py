"""A manager that runs in the background, in processes that exit, are interrupted or fork while it is busy."""

import fcntl
import pathlib
import signal
import time
from collections.abc import Callable
from typing import Any

import pytest

# One program for all cases: it lets the background thread get busy at `where`, and then does `what`.
PROGRAM = """
import atexit, os, sys, threading, time
import brackenfen.sync as sync
directory, url, where, what = sys.argv[1:]
def token():
    if where == "callback" and threading.current_thread().name == "bf-poll":
        print("busy", flush=True)
        time.sleep(60)
    return "t"
manager = sync.SyncManager.get_or_create(directory, url, token, 0.05)
manager.acquire()
thread = manager._sync_thread
def go_on():
    while not os.path.exists(directory + "/go"): time.sleep(0.01)

def late():
    began = time.monotonic()
    manager.release(); manager.stop(); manager.status()
    for start in (manager.acquire, manager.start, sync.EraThread(url, str, manager).start):
        try: start()
        except sync.StateError: continue
        print("started after the end", file=sys.stderr)
    assert time.monotonic() - began < 0.5

def ends():
    atexit.register(late)
    go_on()
    sys.exit(7)

def is_interrupted():
    go_on()
    print("waiting", flush=True)
    try: manager.release()
    except KeyboardInterrupt: print("%.3f" % time.time(), flush=True)
    sys.exit(7)

def forks():
    import warnings
    warnings.simplefilter("ignore", DeprecationWarning)  # of fork in a threaded process
    go_on()
    child = os.fork()
    if child == 0:
        try:
            assert not manager.is_alive() and not thread.is_alive() and not manager._era_thread.is_alive()
            manager.release(); manager.stop(); manager._era_thread.stop()
            for start in (manager.acquire, manager.start, manager._era_thread.start, manager.sync):
                try: start()
                except sync.StateError as error: assert "fork" in str(error)
                else: raise AssertionError(start)
            own = sync.SyncManager.get_or_create(directory, url, str, 0.05)
            own.start()
            assert own is not manager and own.is_alive()
        except BaseException as error:
            print(repr(error), file=sys.stderr, flush=True)
            os._exit(1)
        os._exit(0)
    assert os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) == 0
    assert manager.is_alive() and open(directory + "/.consumer_count").read() == "1"
    sys.exit(7)

{"exit": ends, "interrupt": is_interrupted, "fork": forks}[what]()
"""

BUSY = ["outage", "download", "lock", "callback"]


@pytest.fixture
def busy(program: Any, server: Any, tmp_path: pathlib.Path, wait_until: Callable[..., None]) -> Any:
    """busy(where, what): the program, once its background thread is at `where`."""
    held = []

    def start(where: str, what: str) -> Any:
        server.add("file", b"x" * 1000)
        server.answers["/data/files/file"] = server.stall if where == "download" else (503, b"{}")
        if where == "lock":
            held.append(open(tmp_path / ".sync_flock", "ab"))
            fcntl.flock(held[0], fcntl.LOCK_EX)
        running = program(PROGRAM, str(tmp_path), server.url, where, what)
        if where == "callback":
            running.wait_for("busy")
        else:
            awaited = "/data/manifest/version" if where == "lock" else "/data/files/file"
            wait_until(lambda: any(path == awaited for path, _ in server.requests))
        (tmp_path / "go").touch()
        return running

    yield start
    for file in held:
        file.close()


@pytest.mark.parametrize("what", ["exit", "fork"])
@pytest.mark.parametrize("where", BUSY)
def test_exit_and_fork(busy: Any, tmp_path: pathlib.Path, where: str, what: str) -> None:
    code, _, err, seconds = busy(where, what).finish()
    assert (code, err) == (7, "") and seconds < (4 if what == "exit" else 6)
    assert what == "fork" or (tmp_path / ".consumer_count").read_text() == "0"  # the release at exit still counts


@pytest.mark.parametrize("where", BUSY)
def test_ctrl_c_ends_the_wait_of_a_release(busy: Any, where: str) -> None:
    running = busy(where, "interrupt")
    running.wait_for("waiting")
    time.sleep(0.3)
    running.process.send_signal(signal.SIGINT)
    sent = time.time()
    code, out, err, _ = running.finish()
    assert (code, err) == (7, "") and float(out) - sent < 0.2
