"""Each configuration that we ship for serving, driven by the real client through a version and an era."""

import collections
import contextlib
import hashlib
import json
import os
import pathlib
import re
import socket
import ssl
import subprocess
import sys
import time
from concurrent.futures import ThreadPoolExecutor
from types import SimpleNamespace

import brackenfen.sync as sync
import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
TOKEN, ORIGIN_TOKEN = "canary-4f1c09a2", "canary-0b77d1e5"
CHANGING = "features/liquid_500/signal_is/changing__path__a__b.arrow"  # with other bytes and the same size in each era
LARGE = "features/liquid_500/signal_is/large__file__a__b.arrow"


@pytest.fixture
def data(tool, tmp_path):
    """A tree of era 1, the folders of eras 1 and 2, and what publishes more."""
    tree, eras = tmp_path / "tree", tmp_path / "eras"
    tool("sample", eras, "--source", "--files", 24, "--bytes", "2MB", "--eras", 2)
    for era in (1, 2):
        (eras / f"era-{era}" / CHANGING).write_bytes(b"%d" % era * 200_000)
        (eras / f"era-{era}/empty.bin").touch()

    def publish(version, *switches):
        tool("publish", eras / "era-1", tree, "--era", 1, "--version", version, *switches)

    def add(name):
        (eras / "era-1" / name).write_bytes(name.encode())

    def next_era(*switches):
        tool("advance", tree, "--step", "gap")
        tool("advance", tree, eras / "era-2", "--step", "open", *switches)

    publish(1)
    return SimpleNamespace(tree=tree, eras=eras, add=add, publish=publish, next_era=next_era)


@pytest.fixture
def tls(tmp_path, monkeypatch):
    """A certificate for this machine that the client trusts."""
    certificate, key = tmp_path / "certificate.pem", tmp_path / "key.pem"
    names = ["-subj", "/CN=localhost", "-addext", "subjectAltName=IP:127.0.0.1,DNS:localhost"]
    command = ["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", *names]
    subprocess.run([*command, "-keyout", key, "-out", certificate], check=True, capture_output=True)
    monkeypatch.setenv("SSL_CERT_FILE", str(certificate))
    return {"CERTIFICATE": certificate, "KEY": key, "context": ssl.create_default_context(cafile=certificate)}


@pytest.fixture
def servers(start_nginx, tls, data, tmp_path):
    """One function for each configuration: starts it and all that it needs."""
    (tmp_path / "tokens").write_text(f'"Bearer {TOKEN}" data;\n')
    (tmp_path / "origin_tokens").write_text(f'"Bearer {ORIGIN_TOKEN}" cache;\n')
    (tmp_path / "digests").write_text(f"# for the service\n{hashlib.sha256(TOKEN.encode()).hexdigest()} data\n")
    (tmp_path / "cache").mkdir()

    def tls_token(check="map", tokens="tokens", service="127.0.0.1:9", **more):
        return start_nginx("tls_token.conf", ROOT=data.tree, CHECK=check, TOKENS=tmp_path / tokens, SERVICE=service, **tls, **more)

    def asking_a_service():
        port = free_port()
        command = [sys.executable, ROOT / "examples/nginx/token_service.py", tmp_path / "digests", f"127.0.0.1:{port}"]
        process = stack.enter_context(subprocess.Popen(command, stderr=subprocess.DEVNULL))
        stack.callback(process.kill)
        return tls_token("service", service=f"127.0.0.1:{port}")

    def caching_proxy(origin=None, scheme="https", **more):
        origin = origin or tls_token(tokens="origin_tokens", folder="origin")
        places = {"TOKENS": tmp_path / "tokens", "CACHE": tmp_path / "cache", "INNER_PORT": free_port()}
        places |= {"ORIGIN_SCHEME": scheme, "ORIGIN_HOST": "localhost", "ORIGIN_PORT": origin.port}
        places |= {"ORIGIN_TOKEN": ORIGIN_TOKEN, "ORIGIN_CA": tls["CERTIFICATE"]}
        return start_nginx("caching_proxy.conf", **places, **tls, **more)

    with contextlib.ExitStack() as stack:
        yield SimpleNamespace(plain=lambda: start_nginx("plain.conf", ROOT=data.tree), tls_token=tls_token, service=asking_a_service, cache=caching_proxy)


def free_port():
    with socket.create_server(("127.0.0.1", 0)) as probe:
        return probe.getsockname()[1]


@pytest.fixture
def client(tmp_path, monkeypatch):
    """client(name, url) -> a manager that asks in pieces of 64 kB and polls ten times a second"""
    monkeypatch.setenv("BRACKENFEN_SYNC_HTTP_CHUNK_BYTES", "65536")
    made = []

    def make(name, peer, token=TOKEN):
        (tmp_path / name).mkdir()
        made.append(sync.SyncManager.get_or_create(tmp_path / name, peer.url, lambda: token, 0.1))
        made[-1].stop_ends_waits = True
        return made[-1]

    yield make
    for manager in made:
        manager.stop()


def fill(manager):
    """A pass that waits half a minute for a server, and not for ever."""
    deadline = time.monotonic() + 30
    with sync.backoff_context(stop_requested=lambda: time.monotonic() > deadline):
        manager.sync()


def in_step(manager, tree):
    """Whether it holds what the tree has now, each file by its digest."""
    directory, published = pathlib.Path(manager._data_dir), json.loads((tree / "data/manifest.json").read_bytes())
    held = manager.get_manifest()
    if (held.era_number, held.version) != (published["era_number"], published["version"]) or (directory / ".sync_flock").exists():
        return False
    for path, entry in published["files"].items():
        assert hashlib.sha256((directory / path).read_bytes()).hexdigest() == entry["sha256"], path
    return (directory / "shuffle_seed.enc").read_bytes() == (tree / "data/shuffle").read_bytes()


@pytest.mark.parametrize("configuration", ["plain", "tls_token", "service", "cache"])
def test_clients_follow_through_a_version_and_an_era(servers, data, client, wait_until, tmp_path, configuration):
    peer = getattr(servers, configuration)()
    manager = client("data", peer)
    fill(manager)
    assert in_step(manager, data.tree)
    manager.acquire()
    data.add("version-2.bin")
    data.publish(2)
    wait_until(lambda: in_step(manager, data.tree))
    data.next_era()
    wait_until(lambda: in_step(manager, data.tree))
    manager.release()

    good = {"Authorization": f"Bearer {TOKEN}"}
    seed = peer.get("/data/shuffle", **good)
    assert (seed.status, seed.headers["X-Era-Id"]) == (200, "2")
    assert peer.get("/era/current", **good).json()["era_number"] == 2
    content = (data.tree / "data/files" / CHANGING).read_bytes()
    part = peer.get(f"/data/files/{CHANGING}", Range="bytes=1000-1009", **good)
    assert (part.status, part.body, part.headers["Content-Encoding"]) == (206, content[1000:1010], None)
    assert peer.get(f"/data/files/{CHANGING}", Range=f"bytes={len(content)}-", **good).status == 416
    assert (peer.get("/data/files/empty.bin", **good).status, peer.get("/data/files/none", **good).status) == (200, 404)
    if configuration == "plain":
        return
    paths = ["/era/current", "/data/manifest", "/data/manifest/version", "/data/shuffle", "/data/files/functions.json", f"/data/files/{CHANGING}"]
    for headers in ({}, {"Authorization": "Bearer "}, {"Authorization": TOKEN}, {"Authorization": f"Bearer {TOKEN}x"}):
        for path in paths:
            refused = peer.get(path, **headers)
            assert (refused.status, refused.json()["error"]) == (401, "unauthorized")
    stranger = client("stranger", peer, token="another")
    with pytest.raises(sync.AuthError):
        stranger.sync()
    assert not [path for path in (tmp_path / "stranger").rglob("*") if path.is_file()]
    written = [path for folder in ("nginx", "origin", "cache") for path in (tmp_path / folder).rglob("*") if path.is_file() and path.suffix != ".conf"]
    assert not [path for path in written if b"canary-" in path.read_bytes()]


def asked(tmp_path):
    """How often the origin was asked for what."""
    return collections.Counter(re.findall(r'"GET (\S+) HTTP/1.1" (?:200|206)', (tmp_path / "origin/access.log").read_text()))


def test_the_origin_is_asked_once_whatever_the_number_of_clients(servers, start_nginx, data, client, wait_until, tmp_path):
    (data.eras / "era-1" / LARGE).write_bytes(os.urandom(9 << 20))
    data.publish(2)
    slow = {"folder": "origin", "edit": [("sendfile on;", "limit_rate 3m;")], "ROOT": data.tree}
    origin = start_nginx("plain.conf", **slow)
    began = time.monotonic()
    peer = servers.cache(origin, "http")
    fleet = [client(f"client-{number}", peer) for number in range(5)]
    with ThreadPoolExecutor(5) as pool:
        list(pool.map(fill, fleet))
    assert all(in_step(manager, data.tree) for manager in fleet)

    def assert_once(counts, seconds):
        """Once for each object in each generation, and twice for what is larger than 8 MiB; what is current once a second."""
        expected = {f"/data/files/{path}": 1 for path in json.loads((data.tree / "data/manifest.json").read_bytes())["files"]}
        expected |= {"/data/manifest": 1, "/data/shuffle": 1, f"/data/files/{LARGE}": 2}
        current = counts.pop("/era/current"), counts.pop("/data/manifest/version")
        assert counts == expected and max(current) <= seconds + 3

    assert_once(asked(tmp_path), time.monotonic() - began)

    for manager in fleet:
        manager.acquire()
    origin.process.terminate()
    origin.process.wait()
    late = client("late", peer)
    fill(late)  # all of it from the cache
    assert in_step(late, data.tree) and not late.needs_sync()
    assert peer.get("/data/files/none", Authorization=f"Bearer {TOKEN}").status == 502

    before = asked(tmp_path)
    data.add("version-3.bin")
    data.publish(3)
    start_nginx("plain.conf", PORT=origin.port, **slow)
    wait_until(lambda: all(in_step(manager, data.tree) for manager in fleet))
    more = asked(tmp_path) - before
    assert {path: more[path] for path in more if path not in ("/era/current", "/data/manifest/version")} == {
        "/data/manifest": 1, "/data/files/version-3.bin": 1
    }  # fmt: skip


def test_what_was_kept_is_asked_for_with_its_validators(servers, start_nginx, data, wait_until, tmp_path):
    origin = start_nginx("plain.conf", ROOT=data.tree, folder="origin")
    peer = servers.cache(origin, "http", edit=[(" 200 10m;", " 200 1s;"), (" 206 10m;", " 206 1s;")])
    for path in ("/data/manifest", f"/data/files/{CHANGING}"):
        again = re.compile(f'"GET {re.escape(path)} HTTP/1.1" 304')

        def is_asked():
            assert peer.get(path, Authorization=f"Bearer {TOKEN}").status == 200
            return again.search((tmp_path / "origin/access.log").read_text())

        wait_until(is_asked)
        assert asked(tmp_path)[path] == 1


def test_nobody_has_a_part_in_what_others_are_given(servers, data, tmp_path):
    origin = servers.tls_token(tokens="origin_tokens", folder="origin")
    peer = servers.cache(origin)
    reader = {"Authorization": f"Bearer {TOKEN}", "User-Agent": "of-the-first", "X-Forwarded-Host": "elsewhere"}
    assert peer.get("/era/current", body=b"that nobody sends on", **reader).status == 200  # and holds up nobody
    spelled = CHANGING.replace("/", "%2f", 1).replace("/", "//", 1)
    assert peer.get(f"/data/files/{spelled}", **reader).body == (data.tree / "data/files" / CHANGING).read_bytes()
    assert asked(tmp_path)[f"/data/files/{CHANGING}"] == 1 and "of-the-first" not in (tmp_path / "origin/access.log").read_text()

    origin.process.terminate()
    origin.process.wait()
    servers.tls_token(tokens="tokens", folder="origin", PORT=origin.port)  # the cache's token is one no longer, theirs are as before
    assert [peer.get(path, **reader).status for path in ("/data/manifest", "/data/files/empty.bin", "/era/current")] == [503, 503, 200]


def test_of_an_origin_without_validators_nothing_is_kept(servers, serve, data, client, wait_until, tmp_path):
    """It answers a range of an empty file with 416, too, as many servers do."""
    peer = servers.cache(serve(data.tree, "--token", ORIGIN_TOKEN), "http")
    manager = client("data", peer)
    fill(manager)
    assert in_step(manager, data.tree)
    assert not [path for path in (tmp_path / "cache/objects").rglob("*") if path.is_file()]
    assert peer.get(f"/data/files/{CHANGING}", Range="bytes=999999-", Authorization=f"Bearer {TOKEN}").status == 416


# ---- an object store ------------------------------------------------------------------------------------------------


@pytest.fixture
def store(tmp_path):
    """A store with an empty bucket: its URL, upload(folder, prefix, ...) by the means of docs/serving.md, and what it was asked."""
    python = ROOT / "build/store/bin/python"
    assert python.exists(), "./dev test makes build/store, which the object store needs"
    command = [python, ROOT / "tests/serving/store.py", tmp_path / "store.log"]
    with subprocess.Popen(command, stdout=subprocess.PIPE, text=True) as process, contextlib.ExitStack() as stack:
        stack.callback(process.kill)
        url = f"http://127.0.0.1:{process.stdout.readline().strip()}"
        settings = {"TYPE": "s3", "PROVIDER": "Other", "ENDPOINT": url, "ACCESS_KEY_ID": "key", "SECRET_ACCESS_KEY": "secret"}
        environment = {name: value for name, value in os.environ.items() if not name.startswith(("AWS_", "RCLONE_"))}
        environment |= {f"RCLONE_CONFIG_STORE_{name}": value for name, value in settings.items()} | {"RCLONE_CONFIG": os.devnull}

        def rclone(*words):
            done = subprocess.run(["rclone", *map(str, words)], env=environment, capture_output=True, text=True, timeout=120)
            assert done.returncode == 0, done.stderr

        def requests():
            return [line.split() for line in (tmp_path / "store.log").read_text().splitlines()]

        rclone("mkdir", "store:research")
        yield SimpleNamespace(url=url, rclone=rclone, requests=requests)


IMMUTABLE = ["--header-upload", "Content-Type: application/octet-stream", "--header-upload", "Cache-Control: public, max-age=31536000, immutable"]


def test_artifacts_lie_in_a_store_that_never_sees_a_token(servers, data, store, client, wait_until):
    def upload(era, version, *switches):
        prefix = f"research/era-{era}/v{version}"
        store.rclone("copy", "--checksum", "--s3-acl", "public-read", *IMMUTABLE, *switches, data.eras / f"era-{era}", f"store:{prefix}")
        return "--base-url", f"{store.url}/{prefix}"

    def fetched():
        """By clients: what they got, and what they brought."""
        gets = [words for words in store.requests() if words[0] == "GET" and not words[3].startswith("AWS4")]
        return {(status, authorization) for _, _, status, authorization, _ in gets}, {path.partition("/v")[2] for _, path, *_ in gets}

    data.publish(2, *upload(1, 2))
    peer = servers.tls_token()
    manager = client("data", peer)
    fill(manager)
    assert in_step(manager, data.tree)
    kinds, paths = fetched()
    assert kinds <= {("200", "-"), ("206", "-")} and len(kinds) == 2 and f"2/{CHANGING}" in paths

    manager.acquire()
    data.add("version-3.bin")
    data.publish(3, *upload(1, 3, "--copy-dest", "store:research/era-1/v2"))
    wait_until(lambda: in_step(manager, data.tree))
    assert {path for path in fetched()[1] if path.startswith("3/")} >= {"3/version-3.bin"}
    assert f"3/{CHANGING}" not in fetched()[1]
    data.next_era(*upload(2, 4))
    wait_until(lambda: in_step(manager, data.tree))
    assert f"4/{CHANGING}" in fetched()[1] and {authorization for _, authorization in fetched()[0]} == {"-"}
