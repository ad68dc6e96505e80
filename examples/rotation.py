"""Shows the rotation of features: a budget below the data set's size, a rotation, a running search, a feature on demand.

    rotation.py DIRECTORY SERVER_URL

The bearer token is read from BRACKENFEN_TOKEN.
"""

from __future__ import annotations

import json
import logging
import os
import sys
import time
from pathlib import Path
from typing import Any

from brackenfen import sync

WEEK_SECONDS = 7 * 24 * 60 * 60


class Search:
    """Stands for a search that runs while the data below it change."""

    def __init__(self, named_universe: str) -> None:
        self.named_universe = named_universe

    def refresh_rotation_scope(self, rotation_state: Any, scoped_vocabulary: dict[str, Any]) -> None:
        print(f"  the search in {self.named_universe} goes on with {len(scoped_vocabulary['features'])} features (generation {rotation_state.generation})")


def features(directory: Path) -> set[str]:
    return {path.relative_to(directory).as_posix() for path in directory.glob("features/**/*.arrow")}


def main() -> int:
    directory, server_url = Path(sys.argv[1]), sys.argv[2]
    directory.mkdir(parents=True, exist_ok=True)
    logging.getLogger("brackenfen.sync").setLevel(logging.ERROR)  # files that a rotation adds are reported as missing first
    settings = directory / "feature-rotation-settings.json"
    token = os.environ.get("BRACKENFEN_TOKEN", "")
    manager = sync.SyncManager.get_or_create(directory, server_url, lambda: token)

    settings.write_text(json.dumps({"feature_budget_gb": 0.03, "rotation_seed": 7}))
    result = manager.sync()
    held = features(directory)
    listed = len(result.skipped_relative_paths) + len(held)
    print(f"  a budget of {result.feature_budget_bytes or 0:,} bytes holds {len(held)} of {listed} features")

    search = Search(named_universe=sorted(held)[0].split("/")[1])
    manager.register_rotation_search_consumer(search)

    print("  a week passes, and the next pass rotates:")
    week_ago = time.time() - WEEK_SECONDS
    os.utime(sync.feature_rotation_state_path(directory), (week_ago, week_ago))
    manager.sync()
    rotated = features(directory)
    print(f"  {len(rotated - held)} features came, {len(held - rotated)} went, {len(rotated & held)} stayed")

    wanted = sorted(held - rotated)[0]
    manager.acquire()  # features on demand are for managers that run
    _, universe, epoch, name = wanted.split("/")
    paths = manager.request_feature_files_for_sync([name.removesuffix(".arrow")], expression_type=epoch, named_universe=universe)
    print(f"  asked for {name}: fetched with its companions, {len(paths)} files")
    os.utime(sync.feature_rotation_state_path(directory), (week_ago, week_ago))
    manager.sync()
    print(f"  another rotation later it is {'still' if wanted in features(directory) else 'no longer'} here")
    manager.unregister_rotation_search_consumer(search)
    manager.release()
    return 0


if __name__ == "__main__":
    sys.exit(main())
