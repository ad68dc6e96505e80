"""A plain thread pool that downloads and verifies every file of a manifest, a connection for each.

    threads_fetch.py SERVER_URL DIRECTORY
"""

from __future__ import annotations

import hashlib
import http.client
import json
import os
import ssl
import sys
import urllib.parse
from concurrent.futures import ThreadPoolExecutor
from typing import Any

BLOCK_BYTES = 1 << 20
SERVER = urllib.parse.urlsplit(sys.argv[1])
DIRECTORY = sys.argv[2]
TRUST = ssl.create_default_context() if SERVER.scheme == "https" else None


def connect() -> http.client.HTTPConnection:
    assert SERVER.hostname is not None
    if TRUST is None:
        return http.client.HTTPConnection(SERVER.hostname, SERVER.port)
    return http.client.HTTPSConnection(SERVER.hostname, SERVER.port, context=TRUST)


def fetch(path: str, entry: dict[str, Any]) -> None:
    target = os.path.join(DIRECTORY, path)
    os.makedirs(os.path.dirname(target), exist_ok=True)
    connection = connect()
    connection.request("GET", "/data/files/" + path)
    response = connection.getresponse()
    digest = hashlib.sha256()
    block = bytearray(min(BLOCK_BYTES, entry["size_bytes"] + 1))
    view = memoryview(block)
    with open(target + ".tmp", "wb") as staging:
        while count := response.readinto(block):
            digest.update(view[:count])
            staging.write(view[:count])
    connection.close()
    if digest.hexdigest() != entry["sha256"]:
        raise SystemExit(f"checksum failure for {path}")
    os.rename(target + ".tmp", target)


def main() -> None:
    connection = connect()
    connection.request("GET", "/data/manifest")
    files = json.load(connection.getresponse())["files"]
    with ThreadPoolExecutor(8) as pool:
        for _ in pool.map(lambda item: fetch(*item), files.items()):
            pass


if __name__ == "__main__":
    main()
