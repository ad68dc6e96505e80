"""The library's side of the download benchmark: one pass into an empty directory. Usage: peer_library.py SERVER_URL DIRECTORY"""

from __future__ import annotations

import sys

from brackenfen.sync import SyncManager

manager = SyncManager.get_or_create(sys.argv[2], sys.argv[1], lambda: "bench")
result = manager.sync()
if result.bytes_downloaded == 0:
    raise SystemExit("nothing was downloaded")
