"""Signals, exit, fork and memory: each in an interpreter of its own, which must end quietly."""

import pathlib
from collections.abc import Callable
from typing import Any

import pytest

# Programs start with this: a manager of the directory and server given, and ways to block in the library.
PROLOGUE = """
import os, signal, sys, threading, time
import brackenfen.sync as sync
directory, url = sys.argv[1:3]
manager = sync.SyncManager.get_or_create(directory, url, lambda: "t")
names = map(str, range(16))  # a later download of a file would take it from the one before
def download(): manager._download_file(next(names), {"size_bytes": 1000}, sync.SyncResult())
def batch(): manager._download_files_parallel({next(names): {"size_bytes": 1000} for n in range(4)}, sync.SyncResult())
def away(): sync._http_get("http://127.0.0.1:1/", "t")
"""


@pytest.fixture
def ends_quietly(program: Any, server: Any, tmp_path: pathlib.Path) -> Callable[..., None]:
    """ends_quietly(source, code): so does a program of that source after the prologue, with a server that never sends a body."""
    server.answers |= {f"/data/files/{number}": server.stall for number in range(16)}

    def check(source: str, expected: int = 0, repeats: int = 1) -> None:
        for _ in range(repeats):
            code, _, err, seconds = program(PROLOGUE + source, str(tmp_path), server.url).finish()
            assert (code, err) == (expected, "") and seconds < 4

    return check


def test_requests_while_the_host_changes_its_environment(program: Any) -> None:
    source = """
import logging, os, threading, time
import brackenfen.sync as sync
logging.getLogger("brackenfen.sync").setLevel(logging.ERROR)
end = time.monotonic() + 1
def change():
    blocks, number = [], len(os.environ)
    while time.monotonic() < end:
        os.environ["no_proxy"] = "localhost"
        # Each name makes the table of variables longer. One block lands where the table was, the other where it would grow.
        for number in range(number, number + 20):
            os.environ[f"NAME_{number}"] = "x"
            blocks += [b"\\xff" * (8 * number - 100), b"\\xff" * (8 * number + 100)]
        del os.environ["no_proxy"]
        if number > 2000: blocks.clear()
        time.sleep(0.001)
def ask():
    with sync.backoff_context(stop_requested=lambda: True):
        while time.monotonic() < end:
            try: sync._http_get("http://127.0.0.1:1/", "t")
            except sync.SyncBackoffCancelled: continue
threads = [threading.Thread(target=each) for each in (change, ask, ask, ask)]
for thread in threads: thread.start()
for thread in threads: thread.join()
"""
    code, _, err, _ = program(source).finish()
    assert (code, err) == (0, "")


def test_a_signal_handlers_own_exception_comes_out(ends_quietly: Callable[..., None]) -> None:
    ends_quietly("""
class Late(Exception): pass
late = Late()
def handler(*_): raise late
signal.signal(signal.SIGALRM, handler)
signal.setitimer(signal.ITIMER_REAL, 0.2)
try: download()
except Late as error: assert error is late and error.__traceback__ is not None
else: raise SystemExit("not raised")
""", repeats=3)


@pytest.mark.parametrize("source", ["""
import atexit, greenlet
main, others = greenlet.getcurrent(), [sync.SyncManager(directory, url, lambda: "t")]
manager._get_token = lambda: main.switch() or "t"
first = greenlet.greenlet(manager.ensure_manifest_file_available)
first.switch("0", {})
for call in (greenlet.greenlet(download).switch, manager.verify): refused(call)
others.clear()
assert manager.progress().files_in_flight[0].relative_path == "0"
try: first.throw(KeyError)
except KeyError: manager.verify()
atexit.register(manager.release)
atexit.register(refused, manager.sync)
greenlet.greenlet(manager.sync).switch()
""", """
names = map(str, range(10000))
manager._get_token = download
threading.stack_size(2**20)
thread = threading.Thread(target=refused, args=(download,))
thread.start()
thread.join()
"""], ids=["greenlets", "depth"])  # fmt: skip
def test_a_callback_that_leaves_the_stack_in_disorder_is_refused(ends_quietly: Callable[..., None], source: str) -> None:
    ends_quietly("""
def refused(call):
    try: call()
    except sync.StateError: return
    os._exit(9)
""" + source)


@pytest.mark.parametrize("where", ["conversion", "caller", "worker", "poll_thread"])
def test_exit_with_threads_in_code_of_the_host(ends_quietly: Callable[..., None], where: str) -> None:
    """Finalisation ends these threads while frames of the library lie under the host's code on their stacks."""
    source = f"""
import logging
class Lingering:  # time for the threads to ask for the interpreter after finalisation has begun
    def __del__(self, sleep=time.sleep): sleep(0.2)
sys.lingering = Lingering()
inside = threading.Event()
def endless(*_):
    inside.set()
    while True: time.sleep(0.001)
class Path: __fspath__ = endless
logger = logging.getLogger("brackenfen.sync")
logger.setLevel(logging.DEBUG)
logger.addFilter(lambda _: threading.current_thread() is not threading.main_thread() and endless())
def conversion(): sync.SyncManager(Path(), url, str)
def worker():
    manager._get_token = endless
    batch()
caller, poll_thread = away, manager.acquire
if "{where}" == "poll_thread": poll_thread()
else: threading.Thread(target={where}, daemon=True).start()
if not inside.wait(10): raise SystemExit("nothing was called")
sys.exit(7)
"""
    ends_quietly(source, 7)


def test_a_forked_child_leaves_the_lock_to_its_parent(ends_quietly: Callable[..., None]) -> None:
    ends_quietly("""
import fcntl, gc, warnings
warnings.simplefilter("ignore", DeprecationWarning)  # of fork in a threaded process
manager._acquire_flock()
threading.Thread(target=away, daemon=True).start()
def locked(path):
    other = os.open(path, os.O_RDONLY)
    try: fcntl.flock(other, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except BlockingIOError: return True
    finally: os.close(other)
def held(): return locked(directory) and locked(directory + "/.sync_flock")
child = os.fork()
if child == 0:
    try:
        opened = [os.readlink(f"/proc/self/fd/{fd}") for fd in os.listdir("/proc/self/fd") if os.path.exists(f"/proc/self/fd/{fd}")]
        assert not [path for path in opened if path in (directory, directory + "/.sync_flock")]
        own = sync.SyncManager.get_or_create(directory, url, str)
        try: manager._release_flock()
        except RuntimeError: pass
        else: raise AssertionError("released what is the parent's")
        assert held()
        del manager
        gc.collect()
        assert held()
        os._exit(0)
    except BaseException as error: print(repr(error), file=sys.stderr, flush=True)
    os._exit(1)
assert os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) == 0
assert held()
manager._release_flock()
assert not locked(directory) and not os.path.exists(directory + "/.sync_flock")
""", repeats=3)


def test_nothing_leaks(program: Any, tmp_path: pathlib.Path) -> None:
    source = """
import gc, os, sys
import brackenfen.sync as sync
manager = sync.SyncManager(sys.argv[1], "http://127.0.0.1:1", str)
data = {"files": {f"f{number}": {"kind": "feature", "x.pxd": 10**30} for number in range(50)}, "z.pxd": {}}
error = sync.SyncUnavailableError(url="u" * 1000)
def use(times):
    for _ in range(times):
        sync._sanitize_manifest_data_for_sync(data)
        sync.Manifest(data).to_dict()
        manager._manifest = sync.Manifest(data)
        sync.SyncManager(sys.argv[1], "http://127.0.0.1:1", lambda: "t")
        manager._get_token = lambda: (_ for _ in ()).throw(error)
        for call in (lambda: manager._http_get("http://127.0.0.1:1"), lambda: sync._safe_manifest_relative_path("/")):
            try: call()
            except sync.SyncError as raised: raised.__traceback__ = None
        with sync.backoff_context(surface="s", stop_requested=lambda: data): sync.current_context()
    gc.collect()
    # Memory that is no file's: pages of programs and libraries come and go with the load of the machine.
    return len(gc.get_objects()), int(open("/proc/self/status").read().split("RssAnon:")[1].split()[0])
objects, kilobytes = (after - before for before, after in zip(use(200), use(1000)))
assert objects < 50, objects
assert kilobytes < 4000 or "libasan" in os.environ.get("LD_PRELOAD", ""), kilobytes  # which keeps freed memory for a while, on purpose
"""
    code, _, err, _ = program(source, str(tmp_path)).finish(60)
    assert (code, err) == (0, "")
