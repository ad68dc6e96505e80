"""Runs clang-tidy over a build tree's compile commands, and only where something changed.

usage: tidy.py BUILD_TREE JOBS FOLDER...

A source came out clean once and still is while its own text, the headers of ours that it includes, its compile command
and .clang-tidy stay what they were. build/lint holds one empty file for each such state, named by its digest.
"""

import concurrent.futures
import hashlib
import json
import subprocess
import sys
from pathlib import Path

CLANG_TIDY = "clang-tidy-14"
ROOT = Path(__file__).resolve().parent.parent
CLEAN_STATES = ROOT / "build" / "lint"


def included_files(build_tree: Path) -> dict[str, list[Path]]:
    """Our own files behind each object, from the dependency log of the last build."""
    log = subprocess.run(["ninja", "-C", build_tree, "-t", "deps"], capture_output=True, text=True, check=True).stdout
    files: dict[str, list[Path]] = {}
    current: list[Path] = []
    for line in log.splitlines():
        if line.startswith("    "):
            path = build_tree / line.strip()
            if path.is_relative_to(ROOT) and ".venv" not in path.parts:
                current.append(path)
        elif "#deps" in line:
            current = files.setdefault(line.split(":")[0], [])
    return files


def state_of(command: dict[str, str], included: list[Path]) -> str:
    digest = hashlib.sha256(command["command"].encode())
    for path in [ROOT / ".clang-tidy", Path(command["file"]), *sorted(included)]:
        digest.update(path.read_bytes())
    return digest.hexdigest()


def tidy(build_tree: Path, source: str, state: str) -> str:
    """What clang-tidy found, or nothing. A clean state is remembered."""
    run = subprocess.run([CLANG_TIDY, "-p", build_tree, "--quiet", source], capture_output=True, text=True)
    if run.returncode == 0:
        (CLEAN_STATES / state).touch()
        return ""
    return run.stdout or run.stderr


def main() -> int:
    build_tree, jobs, folders = Path(sys.argv[1]).resolve(), int(sys.argv[2]), sys.argv[3:]
    CLEAN_STATES.mkdir(parents=True, exist_ok=True)
    included = included_files(build_tree)
    states: dict[str, str] = {}
    for command in json.loads((build_tree / "compile_commands.json").read_text()):
        source = Path(command["file"])
        if any(source.is_relative_to(ROOT / folder) for folder in folders):
            states[command["file"]] = state_of(command, included.get(command["output"], []))

    changed = {source: state for source, state in states.items() if not (CLEAN_STATES / state).exists()}
    print(f"{len(states)} sources, {len(changed)} to look at", flush=True)
    found = 0
    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        for text in pool.map(lambda item: tidy(build_tree, *item), changed.items()):
            if text:
                found += 1
                print(text, flush=True)
    for path in CLEAN_STATES.iterdir():
        if path.name not in states.values():
            path.unlink()
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
