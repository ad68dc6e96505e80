"""An idle round of the poll thread in a host: prints the processor time of the calling thread, in milliseconds.

    idle_round.py DIRECTORY

That is more than the time for which the round holds the interpreter: most of it is the request, made without it.
"""

import json
import sys
import threading
import time
from http.server import BaseHTTPRequestHandler, HTTPServer

from brackenfen import sync


class Handler(BaseHTTPRequestHandler):
    def do_GET(self) -> None:
        body = b'{"era_number": 1, "version": 1, "files": {}}'
        self.send_response(200)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def log_message(self, *_: object) -> None:
        pass


def main() -> None:
    server = HTTPServer(("127.0.0.1", 0), Handler)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    manager = sync.SyncManager.get_or_create(sys.argv[1], f"http://127.0.0.1:{server.server_port}", lambda: "token")
    manager.sync()
    seen = []
    for _ in range(200):
        began = time.thread_time()
        manager._poll_once()  # type: ignore[attr-defined]  # private names are not in the stub
        seen.append((time.thread_time() - began) * 1e3)
    print(json.dumps({"idle_round_ms": sorted(seen)[len(seen) // 2]}))


if __name__ == "__main__":
    main()
