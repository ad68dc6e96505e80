"""An S3 server at a free port, which it prints, and a line for each request: METHOD PATH STATUS AUTHORIZATION RANGE."""

import sys

from moto.moto_server.werkzeug_app import DomainDispatcherApplication, create_backend_app
from werkzeug.serving import WSGIRequestHandler, make_server


class Silent(WSGIRequestHandler):
    protocol_version = "HTTP/1.1"

    def log(self, *_):
        pass


def logged(environment, start_response):
    def start(status, headers, *more):
        words = [environment["REQUEST_METHOD"], environment["PATH_INFO"], status.partition(" ")[0]]
        words += [environment.get(f"HTTP_{name}", "-").partition(" ")[0] for name in ("AUTHORIZATION", "RANGE")]
        print(*words, file=log, flush=True)
        return start_response(status, headers, *more)

    return store(environment, start)


with open(sys.argv[1], "w") as log:
    store = DomainDispatcherApplication(create_backend_app)
    server = make_server("127.0.0.1", 0, logged, threaded=True, request_handler=Silent)
    print(server.server_port, flush=True)
    server.serve_forever()
