"""Tells nginx whether a request may pass (auth_request, see tls_token.conf): 204 for a bearer token that is known, 401 for any other.

    python3 token_service.py TOKENS [HOST:PORT]        (127.0.0.1:8300)

TOKENS has a line for each token, its SHA-256 and the name of who has it, so that the file gives no token away:

    printf %s "$TOKEN" | sha256sum        # put the name in the place of the "-"

It is read again when it changes: a token counts, or no longer counts, from the next request on. Nothing is logged but
names. To ask an identity provider of yours instead, replace `Tokens.reader`.
"""

import hashlib
import logging
import os
import sys
import threading
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer

log = logging.getLogger("token_service")


class Tokens:
    """Who has which token, by digest. Any thread."""

    def __init__(self, path: str) -> None:
        self._path = path
        self._lock = threading.Lock()
        self._version: tuple[int, int, int] | None = None
        self._readers: dict[str, str] = {}

    def reader(self, token: str) -> str | None:
        """Who has that token. Raises OSError where the file cannot be read: nobody passes then, and nobody is refused."""
        # That digests are looked up tells by its time nothing that helps to guess a token.
        digest = hashlib.sha256(token.encode("latin-1")).hexdigest()
        with self._lock:
            self._refresh()
            return self._readers.get(digest)

    def _refresh(self) -> None:
        status = os.stat(self._path)
        version = status.st_ino, status.st_size, status.st_mtime_ns
        if version == self._version:
            return
        with open(self._path, encoding="utf-8") as file:
            words = [line.split(maxsplit=1) for line in file if line.strip() and not line.startswith("#")]
        self._readers = {line[0].lower(): line[-1].strip() for line in words}
        self._version = version
        log.info("%d tokens", len(self._readers))


class Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"  # nginx keeps its connections
    timeout = 120
    tokens: Tokens

    def do_GET(self) -> None:
        scheme, _, token = self.headers.get("Authorization", "").partition(" ")
        try:
            reader = self.tokens.reader(token) if scheme.lower() == "bearer" and token else None
            status = 401 if reader is None else 204
        except OSError as error:
            log.error("tokens cannot be read: %s", error)
            status = 503
        self.send_response_only(status)
        if status != 204:
            self.send_header("Content-Length", "0")
        self.end_headers()


class Server(ThreadingHTTPServer):
    daemon_threads = True
    request_queue_size = 512


def main() -> None:
    logging.basicConfig(level=logging.INFO, format="%(asctime)s %(levelname)s %(message)s")
    host, _, port = (sys.argv[2] if len(sys.argv) > 2 else "127.0.0.1:8300").rpartition(":")
    Handler.tokens = Tokens(sys.argv[1])
    with Server((host, int(port)), Handler) as server:
        log.info("listening at %s:%d", *server.server_address[:2])
        server.serve_forever()


if __name__ == "__main__":
    main()
