"""A host that keeps one directory up to date in the background. Several of them may share the directory.

    background_host.py NAME DIRECTORY SERVER_URL

It leaves when the directory is complete; a real host would go on with its work. The bearer token is read from
BRACKENFEN_TOKEN.
"""

from __future__ import annotations

import argparse
import logging
import os
import sys
import time

from brackenfen import sync


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("name")
    parser.add_argument("directory")
    parser.add_argument("server_url")
    options = parser.parse_args()

    def say(text: str) -> None:
        print(f"[{options.name}] {text}", flush=True)

    logging.basicConfig(level=logging.WARNING, format=f"[{options.name}] %(levelname)s: %(message)s")
    token = os.environ.get("BRACKENFEN_TOKEN", "")
    manager = sync.SyncManager.get_or_create(options.directory, options.server_url, lambda: token, poll_interval_s=0.5)
    manager.acquire()  # from here on a thread of the library does the work, or waits until another process has done its share
    say("runs in the background")
    try:
        while (manifest := manager.get_manifest()) is None:
            time.sleep(0.1)
        result = manager.verify()
    finally:
        manager.release()
    found = len(manifest.files) - len(result.missing_files)
    say(f"version {manifest.version} is complete: {found} files are here, {len(result.corrupted_files)} of them corrupt")
    return 1 if result.corrupted_files else 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except KeyboardInterrupt:
        sys.exit(130)
