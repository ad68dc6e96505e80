"""`advance`: from era to era over a tree that is being served."""

import json
import subprocess

import pytest

from tree_files import assert_complete, manifest_of

ACTIVE = {"era_number": 1, "state": "active", "next_closing_at": None, "min_library_version": "0.0.0"}


@pytest.fixture(scope="module")
def eras(tool, tmp_path_factory):
    folder = tmp_path_factory.mktemp("eras") / "eras"
    tool("sample", folder, "--source", "--files", 24, "--bytes", "60kB", "--eras", 3)
    return folder


@pytest.fixture
def tree(tool, eras, tmp_path):
    tool("publish", eras / "era-1", tmp_path / "tree", "--era", 1, "--version", 1, "--pnl-columns", 8, "--link")
    return tmp_path / "tree"


def era_of(tree):
    return json.loads((tree / "era/current.json").read_bytes())


def test_each_step_alone(tool, eras, tree):
    documents = [tree / "era/current.json", tree / "data/shuffle"]

    def step(name, *more):
        dates = [int(document.stat().st_mtime) for document in documents]
        tool("advance", tree, *more, "--step", name)
        # as after publish: to a server that makes validators of size and second, each is another document
        later = [int(document.stat().st_mtime) > date for document, date in zip(documents, dates, strict=True)]
        assert all(later) if name == "open" else later[0]
        return era_of(tree)

    assert era_of(tree) == ACTIVE
    assert step("announce")["next_closing_at"].endswith("Z") and era_of(tree)["state"] == "active"
    assert step("close") == {**ACTIVE, "state": "closing"}
    assert step("reopen") == ACTIVE
    assert step("gap") == {**ACTIVE, "era_number": None, "state": "between_eras"}
    assert step("gap", "--shape", "wrapped") == {"era": None, "state": "between_eras"}
    assert manifest_of(tree)["era_number"] == 1  # the data of the era that is over stay until the next one opens
    assert step("open", eras / "era-2", "--min-library-version", "1.2") == {**ACTIVE, "era_number": 2, "min_library_version": "1.2"}
    manifest = assert_complete(tree)
    assert (manifest["era_number"], manifest["version"], manifest["pnl_column_count"]) == (2, 2, 8)
    era = {"era_number": 2, "next_closing_at": None, "min_library_version": "1.2"}
    assert step("close", "--shape", "wrapped") == {"era": era, "state": "closing"}
    opened = {**era, "era_number": 3, "min_library_version": "0.0.0"}
    assert step("open", eras / "era-3", "--shape", "wrapped") == {"era": opened, "state": "active"}


def test_the_whole_course_on_a_schedule(tool_path, serve, eras, tree):
    peer = serve(tree)
    command = [tool_path, "advance", tree, eras / "era-2", eras / "era-3", "--active", "0.2", "--announced", "0.1", "--closing", "0.1", "--gap", "0.1"]
    with subprocess.Popen(list(map(str, command)), stdout=subprocess.PIPE, text=True) as course:
        told = [(line.partition(":")[0], peer.get("/era/current").json()) for line in course.stdout]
    assert [head for head, _ in told] == ["era 1", "era 1", "between eras", "era 2", "era 2", "era 2", "between eras", "era 3"]
    assert told[-1][1] == {**ACTIVE, "era_number": 3}
    assert assert_complete(tree)["era_number"] == 3


@pytest.mark.parametrize(("arguments", "code", "complaint"), [
    ((), 2, "a folder of artifacts is needed"),
    (("--step", "open"), 2, "a folder of artifacts is needed"),
    (("{eras}/era-2", "--step", "open", "--base-url", "http://cdn.example.com"), 2, "no client accepts it"),
    (("--step", "close", "x"), 2, "more folders than this step can use"),
    (("--step", "sleep"), 2, "--step"),
    (("--step", "open", "{eras}/era-3"), 1, "era"),  # its documents belong to another era than the next
    (("{eras}/era-2", "{eras}/era-2"), 1, "era 3 is being published"),  # found before the first era ends
    (("{eras}/era-2", "{eras}/era-9"), 1, "era-9 is not a folder"),
])  # fmt: skip
def test_what_is_refused_changes_nothing(tool, eras, tree, arguments, code, complaint):
    assert complaint in tool("advance", tree, *(argument.format(eras=eras) for argument in arguments), code=code)
    assert era_of(tree) == ACTIVE and manifest_of(tree)["era_number"] == 1
