"""What the pieces of the campaign share: a case, where things are built, and a fixed draw of a table."""

import contextlib
import dataclasses
import os
import pathlib
import random
import shutil
import tempfile
from collections.abc import Callable, Iterator, Sequence

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ.get("BRACKENFEN_BUILD_DIR", ROOT / "build/dev"))
SANITIZED = BUILD.name in ("asan", "tsan")  # programs are slow then, and what they hold is not the library's own


@dataclasses.dataclass(frozen=True)
class Case:
    """One thing that happens. Behind the name of its module, `text` (seed, point, action) repeats it alone."""

    text: str
    run: Callable[[], str | None]  # raises on failure; a figure worth printing may come back
    alone: bool = False  # nothing else runs meanwhile


def chosen_seed() -> int:
    return int(os.environ.get("TORTURE_SEED", "1"))


def draw[Row](rows: Sequence[Row], count: int) -> list[Row]:
    """The same `count` of them each time that the seed is the same, in their order."""
    chosen = random.Random(chosen_seed()).sample(range(len(rows)), min(count, len(rows)))
    return [rows[index] for index in sorted(chosen)]


def module_environment() -> dict[str, str]:
    """Of a process that loads the module. The interpreter is not instrumented, so that a sanitizer's runtime is preloaded."""
    preload = os.environ.get("TORTURE_PRELOAD")
    return {"PYTHONDONTWRITEBYTECODE": "1"} | ({"LD_PRELOAD": preload, "PYTHONMALLOC": "malloc"} if preload else {})


@contextlib.contextmanager
def scratch() -> Iterator[pathlib.Path]:
    """A folder for one case, gone behind it; with TORTURE_KEEP set that of a failure stays to be looked at."""
    folder = pathlib.Path(tempfile.mkdtemp(prefix="brackenfen-torture-"))
    keeps = False
    try:
        yield folder
    except BaseException:
        keeps = "TORTURE_KEEP" in os.environ
        if keeps:
            print(f"kept {folder}")
        raise
    finally:
        if not keeps:
            shutil.rmtree(folder, ignore_errors=True)
