"""`sample`: made-up data sets that are the same everywhere; `publish` finds their documents right."""

import hashlib

from tree_files import assert_complete


def test_sample_has_the_files_and_bytes_asked_for(tool, tmp_path):
    tool("sample", tmp_path / "tree", "--files", 300, "--bytes", "20MB", "--seed", 5, "--universes", "a,b,c")
    manifest = assert_complete(tmp_path / "tree")
    universes = {path.split("/")[1] for path in manifest["files"] if path.startswith("features/")}
    sizes = sorted(entry["size_bytes"] for entry in manifest["files"].values() if entry["kind"] == "feature")
    assert len(manifest["files"]) == 300 and universes == {"a", "b", "c"}
    assert 20_000_000 <= sum(entry["size_bytes"] for entry in manifest["files"].values()) <= 20_200_000
    assert sizes[-1] > 30 * sizes[0]
    assert sizes[len(sizes) // 2] < sum(sizes) / len(sizes)  # many small ones, few large ones


def test_same_seed_same_bytes_on_every_machine(tool, tmp_path):
    tool("sample", tmp_path / "tree", "--files", 40, "--bytes", "1MB", "--seed", 7)
    digest = hashlib.sha256((tmp_path / "tree/data/manifest.json").read_bytes()).hexdigest()
    assert digest == "c7163a06cc4ca059f128891533cd5591f6a984f5b952521d85b7761a22cdf3b6"


def test_source_folder_can_be_published(tool, tmp_path):
    tool("sample", tmp_path / "source", "--files", 60, "--bytes", "100kB", "--era", 3, "--source")
    tool("publish", tmp_path / "source", tmp_path / "published", "--era", 3, "--version", 1, "--pnl-columns", 8)
    tool("sample", tmp_path / "direct", "--files", 60, "--bytes", "100kB", "--era", 3)
    assert assert_complete(tmp_path / "published") == assert_complete(tmp_path / "direct")
    assert (tmp_path / "published/data/shuffle").read_bytes() == (tmp_path / "direct/data/shuffle").read_bytes()
