"""Serving a tree, with the tool and with nginx, and misbehaving on request."""

import contextlib
import os
import socket

import pytest

from tree_files import manifest_of


@pytest.fixture(scope="module")
def tree(tool, tmp_path_factory):
    path = tmp_path_factory.mktemp("served") / "tree"
    tool("sample", path, "--files", 30, "--bytes", "3MB", "--era", 5)
    return path


@pytest.fixture(scope="module")
def artifact(tree):
    """Path and content of the largest artifact."""
    files = manifest_of(tree)["files"]
    path = max(files, key=lambda name: files[name]["size_bytes"])
    return f"/data/files/{path}", (tree / "data/files" / path).read_bytes()


@pytest.fixture(params=["serve", "serve_with_nginx"])
def start(request):
    return request.getfixturevalue(request.param)


def test_endpoints_answer_what_clients_ask(start, tree, artifact):
    peer = start(tree)
    for path, file in (
        ("/data/manifest", "data/manifest.json"),
        ("/data/manifest/version", "data/manifest-version.json"),
        ("/era/current", "era/current.json"),
    ):
        answer = peer.get(path)
        assert (answer.status, answer.headers["Content-Type"]) == (200, "application/json")
        assert answer.body == (tree / file).read_bytes()
    seed = peer.get("/data/shuffle")
    assert (seed.status, seed.headers["X-Era-Id"], seed.body) == (200, "5", (tree / "data/shuffle").read_bytes())
    path, content = artifact
    assert peer.get(path).body == content
    assert peer.get(path, method="HEAD").headers["Content-Length"] == str(len(content))
    resumed = peer.get(path, Range="bytes=1000-")
    assert (resumed.status, resumed.body) == (206, content[1000:])
    assert resumed.headers["Content-Range"] == f"bytes 1000-{len(content) - 1}/{len(content)}"
    beyond = peer.get(path, Range=f"bytes={len(content)}-")
    assert (beyond.status, beyond.headers["Content-Range"]) == (416, f"bytes */{len(content)}")


@pytest.mark.parametrize(
    "path", ["/data/files/none", "/data/files/features", "/data/seeds/era-5.enc", "/data/files/../manifest.json", "/", "/x"]
)
def test_nothing_else_is_served(start, tree, path):
    assert start(tree).get(path).status in (301, 400, 404)


def test_token_is_required_where_one_is_set(serve, tree):
    peer = serve(tree, "--token", "t0p")
    assert peer.get("/era/current", Authorization="Bearer t0p").status == 200
    for headers in ({}, {"Authorization": "Bearer t0"}, {"Authorization": "t0p"}):
        refused = peer.get("/era/current", **headers)
        assert (refused.status, refused.json()["error"]) == (401, "unauthorized")


def test_status_carries_the_words_given(serve, tree):
    peer = serve(tree, "--fault", "/era/*:error-code=db_down,retryable=false,times=1", "--fault", "*:status=404,skip=1")
    answer = peer.get("/era/current")
    assert answer.status == 503
    assert (answer.json()["error_code"], answer.json()["retryable"]) == ("db_down", False)
    assert peer.get("/era/current").status == 200
    assert peer.get("/era/current").status == 404


@pytest.mark.parametrize(("switch", "cut"), [("", 100_000), (",reset", 0)], ids=["close", "reset"])
def test_dropped_body_ends_exactly_there_and_can_be_resumed(serve, tree, artifact, tmp_path, switch, cut):
    path, content = artifact
    peer = serve(tree, "--fault", f"/data/files/*:drop-after={cut},times=2{switch}", "--log", tmp_path / "log")
    received = b""
    for expected in (content[:cut], content[cut : 2 * cut]):
        with socket.create_connection(("127.0.0.1", peer.port), timeout=20) as connection:
            connection.sendall(f"GET {path} HTTP/1.1\r\nHost: x\r\nRange: bytes={len(received)}-\r\n\r\n".encode())
            body, ended_by = read_body(connection)
        assert body == expected
        assert ended_by == ("reset" if switch else "close")
        received += body
    rest = peer.get(path, Range=f"bytes={len(received)}-")
    assert received + rest.body == content
    assert [line.split()[0] for line in (tmp_path / "log").read_text().splitlines()] == ["206"] * 3


def read_body(connection):
    data, ended_by = b"", "close"
    try:
        while block := connection.recv(1 << 16):
            data += block
    except ConnectionResetError:
        ended_by = "reset"
    return data.partition(b"\r\n\r\n")[2], ended_by


def test_wrong_bytes_have_the_right_size_and_ranges_can_be_ignored(serve, tree, artifact):
    path, content = artifact
    peer = serve(tree, "--fault", "/data/files/*:no-range,times=1", "--fault", "/data/files/*:wrong-bytes")
    whole = peer.get(path, Range="bytes=500-")
    assert (whole.status, whole.body) == (200, content)
    wrong = peer.get(path).body
    assert len(wrong) == len(content)
    assert all(a != b for a, b in zip(wrong, content))
    assert peer.get(path, Range="bytes=500-").body == wrong[500:]


def test_fault_file_steers_a_running_server(serve, tree, tmp_path, wait_until):
    steering = tmp_path / "faults"

    def steer(*faults):
        (tmp_path / "next").write_text("\n".join(faults))
        os.replace(tmp_path / "next", steering)

    peer = serve(tree, "--fault-file", steering)
    assert peer.get("/era/current").status == 200
    steer("# an outage", "", "*:outage=0+1000")
    assert peer.get("/era/current").status == 503
    steer("*:status=oops")
    assert peer.get("/era/current").status == 503
    steer("/*/cur*nt:status=500,times=1", "/data/*:status=410", "*:status=404,outage=1000+1", "*:refuse,outage=1000+1")
    assert [peer.get(path).status for path in ("/data/manifest", "/era/current", "/era/current")] == [410, 500, 200]
    steer("/*/cur*nt:status=500,times=1")
    assert peer.get("/era/current").status == 200  # it goes on counting
    steering.unlink()
    assert peer.get("/data/manifest").status == 200
    steer("*:refuse,outage=0+1000")
    wait_until(lambda: not accepts(peer.port))
    steering.unlink()
    wait_until(lambda: accepts(peer.port))


def accepts(port):
    with contextlib.suppress(ConnectionError), socket.create_connection(("127.0.0.1", port), timeout=5):
        return True
    return False
