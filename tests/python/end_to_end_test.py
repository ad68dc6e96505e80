"""Whole passes against a server of another maker."""

import hashlib
import json
import logging
import pathlib
import re
from collections.abc import Callable
from typing import Any

import brackenfen.sync as sync
import pytest

TOKEN = "canary-77c0b1"
CHUNK_BYTES = 65536


def test_nginx_serves_a_pass_and_the_next_asks_for_the_version_alone(
    serve_with_nginx: Any, tool: Callable[..., str], tmp_path: pathlib.Path, wait_until: Any,
    monkeypatch: pytest.MonkeyPatch, records: pytest.LogCaptureFixture, capfd: pytest.CaptureFixture[str],
) -> None:  # fmt: skip
    monkeypatch.setenv("BRACKENFEN_SYNC_HTTP_CHUNK_BYTES", str(CHUNK_BYTES))
    tree, directory = tmp_path / "tree", tmp_path / "data"
    directory.mkdir()
    tool("sample", tree, "--files", 64, "--bytes", "6MB", "--era", 5)
    published = json.loads((tree / "data/manifest.json").read_bytes())
    sizes = {path: entry["size_bytes"] for path, entry in published["files"].items()}
    assert len(sizes) >= 60 and sum(size > CHUNK_BYTES for size in sizes.values()) >= 15

    def logged() -> list[str]:
        return re.findall(r'"GET (\S+) HTTP/1.1" 20[06]', (tmp_path / "nginx/access.log").read_text())

    manager = sync.SyncManager.get_or_create(directory, serve_with_nginx(tree).url, lambda: TOKEN)
    assert manager.sync().bytes_downloaded == sum(size for path, size in sizes.items() if not path.startswith("named_universes/"))
    for path, entry in published["files"].items():
        assert hashlib.sha256((directory / path).read_bytes()).hexdigest() == entry["sha256"], path
    assert not [path for path in directory.rglob("*") if path.suffix == ".tmp" or path.name in ("sync-progress.json", ".sync_flock")]
    assert json.loads((directory / "manifest.json").read_bytes()) == published
    assert (directory / "shuffle_seed.enc").read_bytes() == (tree / "data/shuffle").read_bytes()
    asked = 3 + sum(-(-size // CHUNK_BYTES) for size in sizes.values())  # version, manifest and seed
    wait_until(lambda: len(logged()) == asked)  # each answer is logged when nginx has done with it
    assert manager.sync().bytes_downloaded == 0
    wait_until(lambda: len(logged()) > asked)
    assert logged()[asked:] == ["/data/manifest/version"]

    texts = [logging.Formatter().format(record) + repr(vars(record)) for record in records.get_records("call")]
    assert not [text for text in [*texts, *capfd.readouterr()] if TOKEN in text]
    assert not [path for path in tmp_path.rglob("*") if path.is_file() and TOKEN.encode() in path.read_bytes()]
