"""Running the distribution tool and talking to what serves its trees."""

import contextlib
import http.client
import json
import os
import pathlib
import shutil
import signal
import socket
import subprocess
import time

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[1]


@pytest.fixture(scope="session")
def tool_path():
    path = os.environ.get("BRACKENFEN_DISTRIBUTION")
    assert path, "BRACKENFEN_DISTRIBUTION must name the brackenfen-distribution executable"
    return path


@pytest.fixture(scope="session")
def tool(tool_path):
    def run(*arguments, code=0, warned=False, **options):
        """What it said: on standard output, or, where it failed or is to be warned of something, on standard error."""
        done = subprocess.run([tool_path, *map(str, arguments)], capture_output=True, text=True, timeout=60, **options)
        assert done.returncode == code, done.stdout + done.stderr
        return done.stderr if code or warned else done.stdout

    return run


class Answer:
    def __init__(self, status, headers, body):
        self.status, self.headers, self.body = status, headers, body

    def json(self):
        return json.loads(self.body)


class Peer:
    """A server on loopback; every request is a connection of its own, as clients make them."""

    def __init__(self, port, process):
        self.port, self.process = port, process
        self.url = f"http://127.0.0.1:{port}"

    def kill(self):
        """Ends it as a crash would."""
        self.process.kill()
        self.process.wait()

    def get(self, path, method="GET", **headers):
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=20)
        with contextlib.closing(connection):
            connection.request(method, path, headers={name.replace("_", "-"): value for name, value in headers.items()})
            response = connection.getresponse()
            return Answer(response.status, response.headers, response.read())


@contextlib.contextmanager
def running(command, **options):
    with subprocess.Popen(command, text=True, **options) as process:
        try:
            yield process
            process.terminate()
            assert process.wait(timeout=10) in (0, -signal.SIGKILL)  # the latter where a test asked for it
        finally:
            process.kill()


@pytest.fixture
def serve(tool_path):
    """serve(tree, *switches) -> Peer"""
    with contextlib.ExitStack() as stack:

        def start(tree, *switches):
            command = [tool_path, "serve", str(tree), *map(str, switches)]
            process = stack.enter_context(running(command, stdout=subprocess.PIPE))
            line = process.stdout.readline()
            assert line.startswith(f"serving {tree} at http://127.0.0.1:"), line
            return Peer(int(line.rsplit(":", 1)[1]), process)

        yield start


@pytest.fixture
def serve_with_nginx(tmp_path):
    """The same with nginx and the configuration we ship."""
    nginx = shutil.which("nginx", path=os.environ.get("PATH", "") + ":/usr/sbin")
    if nginx is None:
        pytest.skip("nginx is not installed")
    with contextlib.ExitStack() as stack:

        def start(tree):
            with socket.create_server(("127.0.0.1", 0)) as probe:
                port = probe.getsockname()[1]
            prefix = tmp_path / "nginx"
            prefix.mkdir()
            example = (ROOT / "examples" / "nginx.conf").read_text()
            (prefix / "nginx.conf").write_text(example.replace("@ROOT@", str(tree)).replace("@PORT@", str(port)))
            command = [nginx, "-p", str(prefix), "-c", str(prefix / "nginx.conf")]
            if os.geteuid() == 0:
                command += ["-g", "user root;"]
            process = stack.enter_context(running(command, stderr=subprocess.PIPE))
            deadline = time.monotonic() + 10
            while True:
                try:
                    socket.create_connection(("127.0.0.1", port), timeout=1).close()
                    return Peer(port, process)
                except ConnectionRefusedError:
                    assert process.poll() is None and time.monotonic() < deadline, (prefix / "error.log").read_text()
                    time.sleep(0.01)

        yield start


@pytest.fixture(scope="session")
def wait_until():
    """wait_until(condition): returns once it holds."""

    def wait(condition):
        deadline = time.monotonic() + 10
        while not condition():
            assert time.monotonic() < deadline
            time.sleep(0.005)

    return wait
