"""A host in asyncio: the library waits and works on threads, and nothing of it holds the event loop up.

    BRACKENFEN_TOKEN=... python asyncio_host.py DIRECTORY SERVER_URL
"""

import asyncio
import os
import signal
import sys
import threading

from brackenfen import sync


async def sync_once(manager: sync.SyncManager, directory: str) -> sync.SyncResult:
    """One sync on a thread. To cancel it ends its wait for a server that is away; it is over when this is."""
    stop = threading.Event()
    with sync.backoff_context(data_dir=directory, surface="asyncio host", stop_requested=stop.is_set):  # goes along to the thread
        work = asyncio.create_task(asyncio.to_thread(manager.sync))
        try:
            await asyncio.wait([work])  # which leaves it running where this is cancelled
        except asyncio.CancelledError:
            stop.set()
            await asyncio.gather(work, return_exceptions=True)  # a request that is under way ends first
            raise
        return work.result()


async def on_era(event: str, era_number: int) -> None:
    """What reads the files ends before a "kill" returns, and begins with a "restart" or an "abort"."""
    print(f"{event}: era {era_number}", flush=True)


async def main() -> None:
    directory, server_url = sys.argv[1:]
    os.makedirs(directory, exist_ok=True)
    loop, task = asyncio.get_running_loop(), asyncio.current_task()
    loop.add_signal_handler(signal.SIGTERM, lambda: task and task.cancel())  # Ctrl-C cancels it as it is
    manager = sync.SyncManager.get_or_create(directory, server_url, lambda: os.environ["BRACKENFEN_TOKEN"])
    if manager.get_manifest() is None:
        print(f"{(await sync_once(manager, directory)).bytes_downloaded:,} bytes came", flush=True)
    # Callbacks come on threads of the library, which wait for them: this one waits for the loop.
    manager.register_era_callback(lambda *event: asyncio.run_coroutine_threadsafe(on_era(*event), loop).result())
    manager.stop_ends_waits = True
    manager.acquire()
    try:
        while True:
            health = manager.health()  # asks nobody, so the loop may call it
            print(f"era {health.era_number}, version {health.version}; {health.last_error or 'fine'}", flush=True)
            await asyncio.sleep(10)
    finally:
        await asyncio.to_thread(manager.release)  # it waits for work under way, which may wait for the loop


if __name__ == "__main__":
    try:
        asyncio.run(main())
    except (KeyboardInterrupt, asyncio.CancelledError):
        sys.exit(130)
