"""`sample`: made-up data sets that are the same everywhere and right in every document."""

import hashlib
import json

from tree_files import assert_complete

PNL_KINDS = {
    "found_signals": {"found_signal_is_pnl"},
    "found_strategies": {"found_strategy_is_epoch_pnl"},
    "useful_signals": {"useful_signal_os_pnl", "useful_signal_strategy_is_pnl"},
}


def assert_documents_fit(tree):
    manifest = assert_complete(tree)
    era, files = manifest["era_number"], manifest["files"]

    def document(path):
        return json.loads((tree / "data/files" / path).read_bytes())

    index = document("signals_index.json")
    assert index["era_number"] == era
    assert document("functions.json")["era_number"] == era
    for section, kinds in PNL_KINDS.items():
        named = [path for entry in index[section].values() for path in entry["files"]]
        assert sorted(named) == sorted(path for path in files if path.startswith(section + "/"))
        assert {files[path]["kind"] for path in named} == kinds
    universes = {path.split("/")[1] for path in files if path.startswith("named_universes/")}
    assert {path.split("/")[1] for path in files if path.startswith("features/")} == universes
    for universe in universes:
        vocabulary = document(f"named_universes/{universe}/vocabulary.json")
        assert (vocabulary["era_number"], vocabulary["named_universe"]) == (era, universe)
        assert vocabulary["metadata"]["named_universe"] == universe
        features = {path.split("/")[-1][: -len(".arrow")] for path in files if path.startswith(f"features/{universe}/")}
        assert vocabulary["features"].keys() == features
        assert all(len(name.split("__")) == 4 for name in features)
    return manifest


def test_sample_has_the_files_and_bytes_asked_for(tool, tmp_path):
    tool("sample", tmp_path / "tree", "--files", 300, "--bytes", "20MB", "--seed", 5, "--universes", "a,b,c")
    manifest = assert_documents_fit(tmp_path / "tree")
    sizes = sorted(entry["size_bytes"] for entry in manifest["files"].values() if entry["kind"] == "feature")
    assert len(manifest["files"]) == 300
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
    assert assert_documents_fit(tmp_path / "published") == assert_documents_fit(tmp_path / "direct")
    assert (tmp_path / "published/data/shuffle").read_bytes() == (tmp_path / "direct/data/shuffle").read_bytes()
