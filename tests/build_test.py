"""The build keeps its promises: nothing is left out of it, and the module is one stable-ABI file with one export."""

import json
import os
import re
import subprocess
import tomllib
from pathlib import Path

import abi3info
import pytest
from abi3info.models import PyVersion, Symbol

ROOT = Path(__file__).resolve().parent.parent
BUILD = Path(os.environ.get("BRACKENFEN_BUILD_DIR", ROOT / "build" / "dev"))
MODULE = BUILD / "python" / "brackenfen" / "sync.abi3.so"


def symbols(which: str) -> set[str]:
    listing = subprocess.run(["nm", "-D", which, "--format=just-symbols", MODULE], capture_output=True, text=True, check=True).stdout
    return {line.split("@")[0] for line in listing.splitlines()}


@pytest.mark.parametrize("folder", ["sync", "python", "tools", "tests", "bench"])
def test_every_source_is_compiled(folder: str) -> None:
    commands = json.loads((BUILD / "compile_commands.json").read_text())
    compiled = {Path(command["file"]) for command in commands}
    present = set((ROOT / folder).rglob("*.cpp"))
    assert sorted(present - compiled) == []


def test_every_python_test_is_collected() -> None:
    """A file of tests under another name would never run."""
    looks_like_tests = re.compile(r"^(async )?def test_|^class Test", re.MULTILINE)
    strays = [
        path
        for path in (ROOT / "tests").rglob("*.py")
        if looks_like_tests.search(path.read_text()) and not re.fullmatch(r"test_.*|.*_test", path.stem)
    ]
    assert strays == []


def test_the_module_exports_its_entry_point_alone() -> None:
    assert symbols("--defined-only") == {"PyInit_sync"}


def test_the_module_uses_the_stable_abi_of_3_12_alone() -> None:
    used = {name for name in symbols("--undefined-only") if re.match(r"_?Py", name)}
    known = {symbol.name: entry.added for table in (abi3info.FUNCTIONS, abi3info.DATAS) for symbol, entry in table.items()}
    foreign = {name for name in used if name not in known or known[name] > PyVersion(3, 12)}
    assert Symbol("PyModuleDef_Init") in abi3info.FUNCTIONS and len(used) > 20 and foreign == set()


def test_one_version_everywhere() -> None:
    version = tomllib.loads((ROOT / "pyproject.toml").read_text())["project"]["version"]
    assert f"VERSION {version} " in (ROOT / "CMakeLists.txt").read_text()
    assert f"\n## {version}" in (ROOT / "CHANGELOG.md").read_text()


def test_the_wheel_is_built_with_what_an_isolated_build_fetches() -> None:
    wanted = tomllib.loads((ROOT / "pyproject.toml").read_text())["build-system"]["requires"]
    assert set(wanted) <= set((ROOT / "requirements-dev.txt").read_text().splitlines())
