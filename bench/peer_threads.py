"""A plain thread pool that downloads and verifies every file of a manifest: the peer that the library is measured
against. Usage: peer_threads.py SERVER_URL DIRECTORY"""

from __future__ import annotations

import hashlib
import http.client
import json
import os
import sys
import urllib.parse
from concurrent.futures import ThreadPoolExecutor
from typing import Any

BLOCK_BYTES = 1 << 20


def fetch(server: urllib.parse.SplitResult, directory: str, path: str, entry: dict[str, Any]) -> None:
    assert server.hostname is not None
    target = os.path.join(directory, path)
    os.makedirs(os.path.dirname(target), exist_ok=True)
    connection = http.client.HTTPConnection(server.hostname, server.port)
    connection.request("GET", "/data/files/" + path)
    response = connection.getresponse()
    digest = hashlib.sha256()
    block = bytearray(BLOCK_BYTES)
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
    server, directory = urllib.parse.urlsplit(sys.argv[1]), sys.argv[2]
    assert server.hostname is not None
    connection = http.client.HTTPConnection(server.hostname, server.port)
    connection.request("GET", "/data/manifest")
    files = json.load(connection.getresponse())["files"]
    with ThreadPoolExecutor(8) as pool:
        for _ in pool.map(lambda item: fetch(server, directory, *item), files.items()):
            pass


if __name__ == "__main__":
    main()
