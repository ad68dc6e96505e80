"""Running the distribution tool and talking to what serves its trees."""

import contextlib
import http.client
import json
import os
import pathlib
import re
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

    def __init__(self, port, process, context=None):
        self.port, self.process, self.context = port, process, context  # for TLS, where there is one
        self.url = f"{'https' if context else 'http'}://127.0.0.1:{port}"

    def kill(self):
        """Ends it as a crash would."""
        self.process.kill()
        self.process.wait()

    def get(self, path, method="GET", body=None, **headers):
        if self.context:
            connection = http.client.HTTPSConnection("127.0.0.1", self.port, timeout=20, context=self.context)
        else:
            connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=20)
        with contextlib.closing(connection):
            connection.request(method, path, body, headers={name.replace("_", "-"): value for name, value in headers.items()})
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
def start_nginx(tmp_path):
    """start_nginx(example, PLACE=..., folder=..., edit=...) -> Peer: nginx with a configuration we ship, the places between "@" filled in."""
    nginx = shutil.which("nginx", path=os.environ.get("PATH", "") + ":/usr/sbin")
    if nginx is None:
        pytest.skip("nginx is not installed")
    with contextlib.ExitStack() as stack:

        def start(example, folder="nginx", edit=(), context=None, **places):
            prefix = tmp_path / folder
            prefix.mkdir(exist_ok=True)
            places.setdefault("PORT", free_port())
            text = (ROOT / "examples/nginx" / example).read_text()
            for old, new in edit:
                assert old in text, old
                text = text.replace(old, new)
            for place, value in places.items():
                text = text.replace(f"@{place}@", str(value))
            left = [line for line in text.splitlines() if not line.startswith("#") and re.search("@[A-Z_]+@", line)]
            assert not left
            (prefix / "nginx.conf").write_text(text)
            command = [nginx, "-p", str(prefix), "-c", str(prefix / "nginx.conf")]
            if os.geteuid() == 0:
                command += ["-g", "user root;"]
            looked_through = subprocess.run([*command, "-t"], capture_output=True, text=True)
            assert looked_through.returncode == 0 and "[warn]" not in looked_through.stderr, looked_through.stderr
            process = stack.enter_context(running(command, stderr=subprocess.PIPE))
            wait_for_port(places["PORT"], process, prefix / "error.log")
            return Peer(places["PORT"], process, context)

        yield start


def free_port():
    with socket.create_server(("127.0.0.1", 0)) as probe:
        return probe.getsockname()[1]


def wait_for_port(port, process, log):
    deadline = time.monotonic() + 10
    while True:
        try:
            return socket.create_connection(("127.0.0.1", port), timeout=1).close()
        except ConnectionRefusedError:
            assert process.poll() is None and time.monotonic() < deadline, log.read_text()
            time.sleep(0.01)


@pytest.fixture
def serve_with_nginx(start_nginx):
    """The same with nginx and the configuration we ship."""
    return lambda tree: start_nginx("plain.conf", ROOT=tree)


@pytest.fixture(scope="session")
def wait_until():
    """wait_until(condition): returns once it holds."""

    def wait(condition):
        deadline = time.monotonic() + 10
        while not condition():
            assert time.monotonic() < deadline
            time.sleep(0.005)

    return wait
