"""Processes that end, fork, spawn, divide or are interrupted while the library works in them: each ends as its host says, and in silence."""

import contextlib
import fcntl
import functools
import os
import random
import signal
import subprocess
import sys
import time
from collections.abc import Iterator

from torture.case import BUILD, Case, draw, module_environment
from torture.hostile_case import arena, assert_heals, template
from torture.hostile_server import PLACES, TOKEN, Exchange, Server, answer, raw, small_world

# A host with work of every kind on threads of every kind. A moment after "ready" it does what it is asked to.
HOST = '''
import atexit, logging, multiprocessing, os, random, signal, sys, threading, time, warnings
import brackenfen.sync as sync
logging.getLogger("brackenfen.sync").setLevel(logging.ERROR)
warnings.simplefilter("ignore", DeprecationWarning)  # of fork in a threaded process
directory, url, token, work, kind, ending, seed = sys.argv[1:8] if len(sys.argv) > 7 else [""] * 7
draw = random.Random(seed)
stop, here = threading.Event(), os.getpid()

def get_token():
    if work == "callback": time.sleep(60 if kind in ("daemon", "main") else 0.2)
    return token

def sparse(manager):
    files = {f"sparse{n}": {"size_bytes": 1 << 36, "sha256": "0" * 64} for n in range(3)}
    for name in files: open(f"{directory}/{name}", "ab").truncate(1 << 36)
    manager._manifest = sync.Manifest({"files": files})
    manager.verify()

def many(other):
    """Of two managers at once. What others do meanwhile may refuse a call."""
    small = "features/us/signal_is/small.arrow"
    for call in (other.sync, other.needs_sync, manager.request_for_sync, manager.health, lambda: other.repair([small, "unknown"]), lambda: manager.report_corruption(small),
                 lambda: manager.request_feature_files_for_sync(["small"]), lambda: manager.add_active_feature_paths([small])):
        manager.acquire()
        try: call()
        except (sync.SyncError, AttributeError, ValueError): pass
        finally: manager.release()

def idle():
    """Long, in short pieces: a signal that comes right before a sleep does not end that one."""
    for _ in range(1200): time.sleep(0.05)

def runs():
    if work == "transition": manager.trigger_era_transition(8)
    elif work == "verify": sparse(sync.SyncManager(directory, url, get_token))
    elif work == "many":
        while not stop.is_set(): many(sync.SyncManager(directory, url, get_token))
    else: manager.sync()

def work_on():
    try:
        with sync.backoff_context(stop_requested=stop.is_set): runs()
    except (sync.SyncBackoffCancelled, sync.StateError): pass  # of a child, which has a manager to build

def moment():
    until = time.monotonic() + draw.choice([0, 0.001, 0.01, 0.05, 0.15]) * draw.random()
    while time.monotonic() < until: manager.health(), manager.progress()

def late():
    """After the end of threads."""
    began = time.monotonic()
    manager.release(), manager.stop(), manager.status(), manager.health()
    for start in (manager.acquire, manager.start, sync.EraThread(url, str, manager).start):
        try: start()
        except sync.StateError: continue
        print("started after the end", file=sys.stderr)
    assert time.monotonic() - began < 1

def own():
    """What a child may do, and what it may not."""
    if "manager" in globals():
        assert not manager.is_alive()
        manager.release(), manager.stop()
        for call in (manager.sync, manager.acquire, manager.start):
            try: call()
            except sync.StateError as error: assert "fork" in str(error), error
            else: raise AssertionError(call)
    mine = sync.SyncManager.get_or_create(directory, url, str)
    with sync.backoff_context(stop_requested=lambda: True):
        try: mine.needs_sync()
        except sync.SyncBackoffCancelled: pass
    mine.health()

def divides():
    import _xxsubinterpreters as subs
    other = subs.create()
    try: subs.run_string(other, "import brackenfen.sync")
    except subs.RunFailedError as refused: assert "ImportError" in str(refused), refused
    else: raise AssertionError("a second interpreter got it")
    subs.destroy(other)

def forks(child):
    pid = os.fork()
    if pid == 0:
        if child == "works": own()
        if child == "quits" or kind == "asyncio": os._exit(0)  # whose loop is the parent's
        sys.exit(0)
    assert os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]) == 0

def processes(method):
    child = multiprocessing.get_context(method).Process(target=other_process, args=(directory, url))
    child.start()
    child.join()
    assert child.exitcode == 0, child.exitcode

def other_process(*given):
    global directory, url
    directory, url = given
    own()

ENDINGS = {"exit": lambda: sys.exit(7), "quit": lambda: os._exit(7), "fork": lambda: forks("quits"), "fork-on": lambda: forks("works"), "divide": divides,
           **{method: lambda method=method: processes(method) for method in ("forkserver", "spawn")}, "mp-fork": lambda: processes("fork"), "raise": lambda: None}

def main():
    if kind == "main":
        print("ready", flush=True)
        work_on()
        idle()
    elif kind == "background":
        manager.acquire()
        atexit.register(late)
        print("ready", flush=True)
        moment()
        if ending == "ctrl-c": manager.release(), idle()
        ENDINGS[ending]()
    elif kind == "asyncio":
        import asyncio
        async def run():
            working = asyncio.create_task(asyncio.to_thread(work_on))
            await asyncio.sleep(0)
            print("ready", flush=True)
            try:
                if ending == "ctrl-c": await asyncio.sleep(60)
                await asyncio.to_thread(moment)
                ENDINGS[ending]()
            finally: stop.set()
        asyncio.run(run())
    else:
        if kind == "pool":
            from concurrent.futures import ThreadPoolExecutor  # as most hosts do: later than the library
            pool = ThreadPoolExecutor(3)
            for _ in range(6): pool.submit(work_on)
        else:
            for _ in range(2): threading.Thread(target=quiet, daemon=kind == "daemon").start()
        print("ready", flush=True)
        if ending == "ctrl-c": idle()
        moment()
        ENDINGS[ending]()

def quiet():
    try: work_on()
    except Exception as error: print(f"{type(error).__name__}: {error}", file=sys.stderr)

if __name__ == "__main__":
    manager = sync.SyncManager.get_or_create(directory, url, get_token, 0.02)
    if kind in ("pool", "thread") and work == "verify": work = "many"
    try: main()
    except KeyboardInterrupt:
        if ending != "ctrl-c": raise
        print("%.3f" % time.time(), flush=True)
    sys.exit(7 if os.getpid() == here else 0)
'''
WORKS = ("pass", "many", "outage", "stalled", "transition", "lock", "callback", "verify")
KINDS = ("background", "daemon", "thread", "pool", "asyncio", "main")
ENDINGS = ("exit", "quit", "fork", "fork-on", "divide", "mp-fork", "forkserver", "spawn", "ctrl-c")
FORKS = ("fork", "fork-on", "divide", "mp-fork")
DEADLINE_SECONDS = 60
INTERRUPT_SECONDS = 0.2
SOON_SECONDS = 4  # in which an end must have come on a busy machine; what starts other processes takes its time


def run(work: str, kind: str, ending: str, seed: int) -> None:
    server, directory, draw = Server(), arena.directory(template("old")), random.Random(f"{work} {kind} {ending} {seed}")
    server.world = small_world(8 if work == "transition" else 7, 2)

    def slowly(exchange: Exchange) -> None:
        time.sleep(draw.random() * 0.02)
        exchange.send(*exchange.healthy())

    for path in PLACES.values():
        server.attacks[path] = (answer(503, b"{}") if work == "outage" else slowly, 1e9)
    if work == "stalled":
        server.attacks[PLACES["small"]] = (raw(hold=True), 1e9)
    program = directory.with_suffix(".py")
    program.write_text(HOST)
    with contextlib.closing(server), contextlib.ExitStack() as stack:
        stack.callback(program.unlink)
        holder = stack.enter_context(open(directory / ".sync_flock", "ab"))
        if work == "lock":
            fcntl.flock(holder, fcntl.LOCK_EX)
        command = [sys.executable, str(program), str(directory), server.url, TOKEN, work, kind, ending, str(seed)]
        environment = os.environ | module_environment() | {"BRACKENFEN_SYNC_HTTP_TIMEOUT_SECONDS": "2"}
        host = stack.enter_context(subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, env=environment, start_new_session=True))
        stack.callback(host.kill)
        assert host.stdout and host.stdout.readline() == "ready\n", host.communicate()[1]
        if ending == "ctrl-c":
            time.sleep(draw.choice((0.001, 0.03, 0.2)) * draw.random())
            host.send_signal(signal.SIGINT)
        began, sent = time.monotonic(), time.time()
        try:
            out, told = host.communicate(timeout=DEADLINE_SECONDS)
        except subprocess.TimeoutExpired:
            raise AssertionError("it hangs") from None
        assert (host.returncode, told) == (7, ""), f"code {host.returncode}, standard error: {told}"
        assert time.monotonic() - began < SOON_SECONDS or ending not in ("exit", "quit", "ctrl-c"), "it took long"
        assert ending != "ctrl-c" or kind == "asyncio" or float(out) - sent < INTERRUPT_SECONDS, f"the interrupt took {float(out) - sent:.3f} s"
        stack.close()
        for sparse in directory.glob("sparse*"):
            sparse.unlink()
        assert_heals(directory, server)


def cases(long: bool) -> Iterator[Case]:
    # No stop callback ends these two, and asyncio waits for its threads.
    rows = [(work, kind, ending) for work in WORKS for kind in KINDS for ending in ENDINGS
            if (kind != "main" or ending == "ctrl-c") and (kind != "asyncio" or work not in ("lock", "verify"))]  # fmt: skip
    # The runtime of the address sanitizer leaves its own locks held in a child that is forked beside a thread which allocates.
    rows = [row for row in rows if BUILD.name != "asan" or row[2] not in FORKS]
    moments = [(*row, seed) for seed in range(2) for row in rows]
    for moment in moments if long else draw(moments, 60):
        yield Case(" ".join(map(str, moment)), functools.partial(run, *moment))
