"""Writing artifacts and reading distribution trees."""

import hashlib
import json


def write_files(folder, files):
    """files: relative path to bytes, or to a document."""
    for path, content in files.items():
        target = folder / path
        target.parent.mkdir(parents=True, exist_ok=True)
        target.write_bytes(content if isinstance(content, bytes) else json.dumps(content).encode())
    return folder


def manifest_of(tree):
    return json.loads((tree / "data" / "manifest.json").read_bytes())


def assert_complete(tree):
    """The tree holds what its manifest says and no other artifact."""
    manifest = manifest_of(tree)
    present = {str(path.relative_to(tree / "data/files")): path for path in (tree / "data/files").rglob("*") if path.is_file()}
    assert present.keys() == manifest["files"].keys()
    for path, entry in manifest["files"].items():
        content = present[path].read_bytes()
        assert (len(content), hashlib.sha256(content).hexdigest()) == (entry["size_bytes"], entry["sha256"]), path
    assert not (tree / ".publishing").exists()
    assert not any((tree / "data" / "files").rglob("*.tmp"))
    assert json.loads((tree / "data/manifest-version.json").read_bytes()) == {
        "version": manifest["version"],
        "era_number": manifest["era_number"],
    }
    assert json.loads((tree / "era/current.json").read_bytes())["era_number"] == manifest["era_number"]
    assert len((tree / "data/shuffle").read_bytes()) == 60
    return manifest
