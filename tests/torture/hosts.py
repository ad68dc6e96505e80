"""Every callable of a host in every operation, misbehaving in every way: no hang, no crash, an error with a name, and a whole directory afterwards."""

import functools
from collections.abc import Iterator
from typing import Any

from torture.case import Case, draw
from torture.hostile_case import SETTINGS, arena, assert_heals, template
from torture.hosts_client import BEHAVIOURS
from torture.hostile_server import PLACES, TOKEN, Server, answer, small_world

CELL = "from hosts_client import cell\nresult = cell(directory, url, token, slot, operation, behaviour)"
DEADLINE_SECONDS = 90  # a stop may wait for 10 s for the watcher; the rest is for a busy machine


def run(slot: str, operation: str, behaviour: str) -> None:
    server, directory = Server(), arena.directory(template("old"))
    (directory / "feature-rotation-state.json").unlink()  # the host brings a planner of its own
    server.world = small_world(8 if operation in ("transition", "watch", "follow") else 7, 2)
    for place in ("version", "manifest", "small", "era"):
        server.attacks[PLACES[place]] = (answer(503, b'{"error": "BUSY"}'), 1)
    before = arena.around(directory)
    variables: dict[str, Any] = dict(directory=str(directory), url=server.url, token=TOKEN)
    try:
        try:
            report = arena.client.run(CELL, SETTINGS, DEADLINE_SECONDS, **variables, slot=slot, operation=operation, behaviour=behaviour)
            assert not report.error, f"the host itself: {report.shown}"
            assert report.result["calls"], "it was not called"
            assert not report.result["unnamed"], f"an error without a name: {report.result['unnamed']}"
            assert set(report.result["children"]) <= {0}, f"the child ended with {report.result['children']}"
        except AssertionError as error:
            if behaviour != "exits" or not str(error).startswith("the client ended with 7"):
                raise
        (directory / "feature-rotation-state.json").unlink(missing_ok=True)
        assert_heals(directory, server)
        assert arena.around(directory) == before, "something outside of the directory changed"
    finally:
        server.close()


PASSES = "sync repair transition watch request features acquire"
REQUESTS = f"{PASSES} needs_sync ensure"
EVERYWHERE = f"{REQUESTS} verify add cleanup construct"
# Which operations call what.
REACHED = {
    "token": REQUESTS, "filter": REQUESTS, "handler": REQUESTS, "context": REQUESTS, "delay": REQUESTS, "sleep": REQUESTS,
    "wait-event": REQUESTS, "reason": REQUESTS, "transport": EVERYWHERE, "manifest_file_kind": EVERYWHERE,
    "vocabulary_named_universe_from_path": EVERYWHERE, "merge": EVERYWHERE, "search": PASSES, "settings": PASSES,
    "artifact_descriptor_from_manifest_file": PASSES, "plan_rotation": PASSES, "promote_rotation_candidate": PASSES,
    "rotation_state_payload": PASSES, "rotation_cleanup_keep_paths": PASSES, "scope_vocabulary_to_active_rotation": PASSES,
    "guard": "sync repair transition watch ensure features acquire", "size": "sync repair features",
    "stop": "sync repair needs_sync transition watch ensure request features", "scope": "sync transition", "dump": "acquire",
    "plan_from_active_rotation_state": "acquire", "kill": "transition watch", "restart": "transition watch", "era": "follow",
    "nudge": "watch follow",
} | dict.fromkeys(("identity", "notify", "tracker", "tracker.close", "tracker.handle", "update", "update-check", "versions"), "transition watch follow")  # fmt: skip


def cases(long: bool) -> Iterator[Case]:
    cells = [(slot, operation, behaviour) for slot, operations in REACHED.items() for operation in operations.split() for behaviour in BEHAVIOURS]
    for cell in draw(cells, 2500 if long else 250):
        yield Case(" ".join(cell), functools.partial(run, *cell))
