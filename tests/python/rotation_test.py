"""The rotation as a host sees it: records, searches, and a planner of its own made of plain objects."""

import dataclasses
import datetime
import json
import os
import pathlib
import subprocess
import sys
import types
from collections.abc import Callable
from typing import Any

import brackenfen.sync as sync
import pytest

PNL, FUNCTIONS, VOCABULARY = "found_signals/p/one/signal_is/pnl.arrow", "functions.json", "named_universes/us/vocabulary.json"


def publish(server: Any, features: int = 12) -> None:
    server.add(PNL, b"pnl", kind="found_signal_is_pnl")
    for number in range(features):
        server.add(f"features/us/signal_is/f{number:02}.arrow", b"." * 100)
    vocabulary = json.loads(server.documents[VOCABULARY]) | {"features": {f"f{number:02}": {} for number in range(features)}}
    server.add(VOCABULARY, json.dumps(vocabulary).encode(), kind="vocabulary")


def held(manager: sync.SyncManager) -> set[str]:
    return {path.stem for path in pathlib.Path(manager._data_dir).glob("features/**/*.arrow")}


def make_due(manager: sync.SyncManager) -> None:
    os.utime(sync.feature_rotation_state_path(manager._data_dir), (0, 0))


class Search:
    named_universe = "us"

    def __init__(self, look: Callable[[], object] = list) -> None:
        self.told: list[tuple[Any, Any]] = []
        self.look, self.seen = look, list[Any]()

    def refresh_rotation_scope(self, rotation_state: Any, scoped_vocabulary: Any) -> None:
        self.told.append((rotation_state, scoped_vocabulary))
        self.seen.append(self.look())


def test_a_rotation_reaches_the_running_search(manager: sync.SyncManager, server: Any) -> None:
    publish(server)
    settings = {"feature_budget_gb": 450 / 2**30, "rotation_seed": 7}
    pathlib.Path(manager._data_dir, "feature-rotation-settings.json").write_text(json.dumps(settings))
    stray = pathlib.Path(manager._data_dir, "features/stray.arrow")
    stray.parent.mkdir()
    stray.touch()
    search = Search(lambda: (sync.load_feature_rotation_state(manager._data_dir), stray.exists()))
    manager.register_rotation_search_consumer(search)
    manager.register_rotation_search_consumer(object())
    search.named_universe = "nowhere"
    with pytest.raises(sync.VocabularyScopeError, match="^running search consumer requested unknown vocabulary universe: 'nowhere'$"):
        manager.sync()
    assert search.look() == (None, True), "nothing is promoted that no search could follow"
    search.named_universe = "us"
    result = manager.sync()
    assert len(held(manager)) == 4 and (result.rotation_seed, result.feature_budget_bytes) == (7, 450)
    assert search.seen == [(search.told[0][0], False)], "once the state is written and the rest deleted"
    make_due(manager)
    [wanted] = sorted({f"f{number:02}" for number in range(12)} - held(manager))[:1]
    assert manager.fetch_features([wanted]) == [f"{manager._data_dir}/features/us/signal_is/{wanted}.arrow"]
    manager._running = True
    assert manager.request_feature_files_for_sync([wanted]) == manager.fetch_features([wanted])
    manager.sync()
    for generation, (state, vocabulary) in enumerate(search.told, 1):
        assert state.generation == generation and len(vocabulary["features"]) == 4
    assert state == manager._active_rotation_state == sync.load_feature_rotation_state(manager._data_dir) and generation == 2
    assert held(manager) == vocabulary["features"].keys() | {wanted}
    for _ in range(2):
        manager.unregister_rotation_search_consumer(search)
    assert [type(consumer) for consumer in manager._rotation_search_consumer_snapshot()] == [object]


ADDER = """
import sys, threading
import brackenfen.sync as sync
manager = sync.SyncManager(sys.argv[1], "http://127.0.0.1:1", str)
def add(paths):
    for path in paths: assert path in manager.add_active_feature_paths([path])
threads = [threading.Thread(target=add, args=(sys.argv[first::4],)) for first in range(2, 6)]
for thread in threads: thread.start()
for thread in threads: thread.join()
"""


def test_no_addition_is_lost_between_threads_processes_and_passes(manager: sync.SyncManager, server: Any) -> None:
    publish(server, 80)
    pathlib.Path(manager._data_dir, "feature-rotation-settings.json").write_text('{"feature_budget_gb": 0}')
    manager.sync()
    features = [path for path in server.entries if path.startswith("features/")]
    rotated_at = os.stat(sync.feature_rotation_state_path(manager._data_dir)).st_mtime_ns
    adders = [subprocess.Popen([sys.executable, "-c", ADDER, manager._data_dir, *features[half::2]]) for half in range(2)]
    while any(adder.poll() is None for adder in adders):
        manager.sync()
    assert [adder.wait() for adder in adders] == [0, 0]
    manager.sync()
    state = sync.load_feature_rotation_state(manager._data_dir)
    assert state == manager._active_rotation_state and set(features) < set(state.active_relative_paths) and len(held(manager)) == 80
    assert os.stat(sync.feature_rotation_state_path(manager._data_dir)).st_mtime_ns == rotated_at


@pytest.mark.parametrize("rotated_before", [False, True])
def test_where_nothing_rotates_searches_hear_all_and_files_still_count(manager: sync.SyncManager, server: Any, rotated_before: bool) -> None:
    def publish_mandatory() -> None:
        publish(server, 2)
        for entry in server.entries.values():
            entry["mandatory"] = True

    if rotated_before:
        publish(server, 2)
        manager.sync()
        server.version += 1
    search = Search()
    manager.register_rotation_search_consumer(search)
    publish_mandatory()
    manager.sync()
    manager.sync()
    assert not manager.needs_sync(), "no poll runs a pass"
    lost = pathlib.Path(manager._data_dir, "features/us/signal_is/f01.arrow")
    lost.unlink()
    assert manager.needs_sync() and manager.verify().missing_files == ["features/us/signal_is/f01.arrow"]

    server.era_number = server.version = 8
    publish_mandatory()
    server.answers["/era/current"] = (200, b'{"era_number": 8, "state": "active"}')
    search.named_universe = "nowhere"
    with pytest.raises(sync.VocabularyScopeError, match="unknown vocabulary universe: 'nowhere'$"):
        manager.trigger_era_transition(8)
    assert manager.get_manifest().era_number == 7
    search.named_universe = "us"
    manager.trigger_era_transition(8)
    assert lost.exists() and [vocabulary["era_number"] for _, vocabulary in search.told] == [7, 7, 8]
    for state, vocabulary in search.told:
        assert held(manager) == vocabulary["features"].keys() == {pathlib.Path(path).stem for path in state.active_relative_paths if "features/" in path}


def test_records_of_the_built_in_rotation(manager: sync.SyncManager, server: Any) -> None:
    publish(server, 3)
    manifest = sync.Manifest(server.manifest())
    descriptors = sync._rotation_manifest_artifacts(manifest)
    assert descriptors[0] == sync.ArtifactDescriptor("features/us/signal_is/f00.arrow", "feature", "feature", 100, False, "", "us", "", "")
    assert sync._rotation_artifacts_require_scoped_settings(descriptors) and not sync._rotation_artifacts_require_scoped_settings([object()])
    assert sync._rotation_catalog_context_from_manifest(manifest)["named_universes"] == ["us"]

    settings, rotation_settings = manager._feature_rotation_settings_for_manifest(manifest, free_disk_bytes=10**6)
    assert settings.model_dump()["rotation_frequency"] == "weekly" and settings.named_universes == ("us",)
    assert rotation_settings.scope == sync.SelectionScope(named_universes=("us",)) and rotation_settings.free_disk_bytes == 10**6
    assert sync._rotation_feature_budget_bytes(dataclasses.replace(settings, feature_budget_gb=1.5)) == 3 * 2**29
    plan, explicit = manager._plan_feature_rotation_for_manifest(manifest, free_disk_bytes=10**6)
    selection, state = plan.selection, plan.candidate_state
    assert not explicit and isinstance(plan, sync.RotationPlan) and state.generation == 1
    result = sync.SyncResult()
    sync._apply_rotation_result_fields(result, selection)
    assert result.mandatory_relative_paths == (PNL, FUNCTIONS, VOCABULARY) and result.rotation_seed == selection.seed
    wanted = sync.SyncManager._rotation_scoped_files_to_download(manifest, selection, existing_relative_paths={"features/us/signal_is/f00.arrow"})
    assert list(wanted) == ["features/us/signal_is/f01.arrow", "features/us/signal_is/f02.arrow"]

    promoted = sync._promote_artifact_rotation_candidate(active_state=None, candidate_state=state, available_relative_paths=[PNL, "gone"])
    assert promoted == dataclasses.replace(state, active_relative_paths=(PNL,))
    assert sync.write_feature_rotation_state(manager._data_dir, state) == sync.feature_rotation_state_path(manager._data_dir)
    assert sync.load_feature_rotation_state(manager._data_dir) == state


def test_the_status_is_what_the_documentation_shows(tmp_path: pathlib.Path) -> None:
    documentation = pathlib.Path(__file__).parents[2] / "docs" / "rotation.md"
    shown = json.loads(documentation.read_text().split("```json")[1].split("```")[0])
    empty = sync.feature_rotation_status_payload(tmp_path)
    assert empty["state"] == "uninitialized" and list(empty) == list(shown) and empty["next_rotation_due"] is None
    assert {key for key, value in empty.items() if value} == {"state", "status_accounting"}
    state = sync.RotationState(shown["active_relative_paths"], shown["generation"], shown["seed"], shown["rng_state"])
    rotated_at = datetime.datetime.fromisoformat(shown["next_rotation_at"]).timestamp() - 604800
    os.utime(sync.write_feature_rotation_state(tmp_path, state), (rotated_at, rotated_at))
    files = dict.fromkeys(("features/a.arrow", "features/b.arrow"), {"kind": "feature", "size_bytes": 0})
    (tmp_path / "manifest.json").write_text(json.dumps({"era_number": 7, "version": 4, "files": files}))
    (tmp_path / "features").mkdir()
    (tmp_path / "features/a.arrow").touch()
    status = sync.feature_rotation_status_payload(tmp_path, settings_payload={"rotation_frequency": "weekly"})
    assert status.pop("next_rotation_due") is not None and shown.pop("next_rotation_due") is not None, "which depends on the day"
    assert json.dumps(status) == json.dumps(shown)


def test_errors_are_classes_of_this_module_until_the_host_brings_its_own(manager: sync.SyncManager, neighbour: Callable[..., Any]) -> None:
    selection = type("Selection", (), {"mandatory_bytes": 51, "feature_budget_bytes": None})
    with pytest.raises(sync.MandatoryArtifactsTooLargeError) as caught:
        manager._precheck_rotation_disk_budget(selection, free_disk_bytes=100)
    assert isinstance(caught.value, sync.DiskSpaceError) and (caught.value.mandatory_bytes, caught.value.available_bytes, caught.value.selected_paths) == (51, 50, ())
    assert "no budget" in caught.value.__notes__[0], "which is of features alone"

    theirs = dataclasses.make_dataclass("TooLarge", ["mandatory_bytes", "available_bytes", "selected_paths"], bases=(Exception,))
    neighbour("_artifact_rotation", MandatoryArtifactsTooLargeError=theirs)
    assert sync.MandatoryArtifactsTooLargeError is theirs and issubclass(sync.VocabularyScopeError, sync.SyncError)
    with pytest.raises(theirs) as raised:
        manager._precheck_rotation_disk_budget(selection, free_disk_bytes=100)
    assert raised.value == theirs(51, 50, ())
    manager._precheck_rotation_disk_budget(object(), free_disk_bytes=0)  # what it lacks counts as nothing


def test_unusual_searches(manager: sync.SyncManager) -> None:
    class Raising:
        @property
        def refresh_rotation_scope(self) -> Any:
            raise LookupError("not now")

    class Equal(Search):
        def __eq__(self, other: object) -> bool:
            raise AssertionError("searches are told apart by identity")

    state, vocabulary = sync.RotationState((), 1, 2, ""), {"features": {"a": 1}}
    assert manager._rotation_search_refresh_payloads(state, None) == ()
    with pytest.raises(LookupError, match="not now"):
        manager._rotation_search_refresh_payloads(state, vocabulary, consumers=[Raising()])
    first, second = Equal(), Equal()
    for search in (first, second, first):
        manager.register_rotation_search_consumer(search)
    manager.refresh_running_searches_for_rotation(state, vocabulary)
    assert first.told == second.told == [(state, vocabulary)]
    assert manager._rotation_search_refresh_payloads(state, vocabulary, consumers=[first]) == ((first.refresh_rotation_scope, state, vocabulary),)
    with pytest.raises(sync.VocabularyScopeError):
        manager.refresh_running_searches_for_rotation(state, 5)
    assert manager._rotation_vocabulary_for_consumer(vocabulary, object()) is vocabulary
    assert manager._rotation_consumer_named_universe(type("S", (), {"_named_universe": 5, "universe": "u"})) == "5"


WANTED = "running search consumer requested unknown vocabulary universe: "
X, Y = {"features": ["x"]}, {"features": ["y"]}


@pytest.mark.parametrize(("vocabulary", "attributes", "expected"), [
    ({"features": ["z"], "a": 1}, {"universe": "q"}, {"features": ["z"], "a": 1}),
    ({"a": X, "other": {"no": 1}}, {}, X),
    ({"a": X, "b": Y}, {"named_universe": " ", "_named_universe": " b ", "universe": "a"}, Y),
    ({"a": X, "b": Y}, {"_universe": "a"}, X),
    ({"a": X, "b": Y}, {"universe": "it's"}, WANTED + '"it\'s"'),
    ({"a": X, "other": {"no": 1}}, {"universe": "other"}, WANTED + "'other'"),
    ({"a": X, "b": Y}, {}, "running search consumer must declare named_universe when multiple vocabularies are loaded"),
    ({"a": 1}, {}, "running search rotation refresh requires vocabulary documents with features"),
    ([], {}, "running search rotation refresh requires loaded vocabulary"),
])  # fmt: skip
def test_a_search_gets_the_vocabulary_of_its_universe(manager: sync.SyncManager, vocabulary: Any, attributes: Any, expected: Any) -> None:
    try:
        assert manager._rotation_vocabulary_for_consumer(vocabulary, types.SimpleNamespace(**attributes)) == expected
    except sync.VocabularyScopeError as error:
        assert str(error) == expected


# A planner of the host's own: everything of kind "feature" whose number divides by the generation.


@dataclasses.dataclass(frozen=True)
class HostState:
    active_relative_paths: tuple[str, ...]
    generation: int
    seed: int
    rng_state: str
    note: str = "mine"


# All else that it hands over or is given.
Plain = types.SimpleNamespace


def host_plan(state: HostState, **selection: Any) -> Plain:
    fields = {"active_relative_paths": state.active_relative_paths} | dict.fromkeys(("selected_artifacts", "mandatory_artifacts", "eligible_artifacts"), ())
    return Plain(selection=Plain(**fields | selection, mandatory_bytes=0, feature_budget_bytes=0, seed=5), candidate_state=state)


class HostRotation:
    """The operations of `_artifact_rotation`; the calls that arrive are kept."""

    FEATURE_ARTIFACT_KINDS = frozenset({"feature"})
    FULL_DOWNLOAD = object()
    ArtifactRotationSettings = SelectionScope = Plain
    RotationStatePayloadError, ActiveRotationStateError = type("PayloadError", (Exception,), {}), type("StateError", (Exception,), {})

    def __init__(self) -> None:
        self.described = 0
        self.calls: list[tuple[Any, ...]] = []

    @staticmethod
    def manifest_file_kind(record: Any) -> str:
        return str(record.get("kind", ""))

    @staticmethod
    def vocabulary_named_universe_from_path(path: str) -> str | None:
        return path.split("/")[1] if path.startswith("named_universes/") else None

    def artifact_descriptor_from_manifest_file(self, path: str, record: dict[str, Any], *, feature_kinds: frozenset[str]) -> Plain:
        self.described += 1
        kind = record["kind"]
        return Plain(relative_path=path, kind=kind, artifact_kind=kind, mandatory=kind not in feature_kinds, named_universe="us")

    def plan_rotation(self, artifacts: tuple[Plain, ...], settings: Plain, *, previous_state: HostState | None, reason: str) -> Plain:
        self.calls.append((settings, previous_state, reason))
        generation = previous_state.generation + 1 if previous_state else 2
        mandatory = tuple(artifact for artifact in artifacts if artifact.mandatory)
        eligible = tuple(artifact for artifact in artifacts if not artifact.mandatory)
        selected = tuple(artifact for artifact in eligible if int(artifact.relative_path[-8:-6]) % generation == 0)
        active = tuple(artifact.relative_path for artifact in mandatory + selected)
        return host_plan(HostState(active, generation, 5, "g"), selected_artifacts=selected, mandatory_artifacts=mandatory, eligible_artifacts=eligible)

    def plan_from_active_rotation_state(self, artifacts: tuple[Plain, ...], settings: Plain, state: HostState) -> Plain:
        if state.note == "broken":
            raise self.ActiveRotationStateError("no plan for this")
        return host_plan(state, eligible_artifacts=artifacts)

    @staticmethod
    def promote_rotation_candidate(*, active_state: HostState | None, candidate_state: HostState, available_relative_paths: tuple[str, ...]) -> HostState:
        return dataclasses.replace(candidate_state, active_relative_paths=available_relative_paths)

    @staticmethod
    def rotation_state_payload(state: HostState, *, schema_version: int) -> dict[str, Any]:
        return {"version": schema_version, **dataclasses.asdict(state)}

    def rotation_state_from_payload(self, payload: dict[str, Any], *, source: str, schema_version: int) -> HostState:
        if payload.pop("version", None) != schema_version:
            raise self.RotationStatePayloadError(f"{source}: another version")
        return HostState(**{**payload, "active_relative_paths": tuple(payload["active_relative_paths"])})

    @staticmethod
    def rotation_status_accounting(artifacts: Any, state: Any, settings: Any, *, existing_relative_paths: tuple[str, ...]) -> Any:
        assert settings == {"feature_budget_gb": HostRotation.FULL_DOWNLOAD}
        missing = [path for path in state.active_relative_paths if path not in existing_relative_paths]
        others = dict.fromkeys(("eligible_relative_paths", "selected_relative_paths", "skipped_relative_paths", "departed_relative_paths"), ())
        return types.SimpleNamespace(**others, missing_active_relative_paths=missing)

    @staticmethod
    def rotation_cleanup_keep_paths(files: dict[str, Any], protected: set[str], *, metadata_relative_paths: tuple[str, ...]) -> set[str]:
        return protected | set(metadata_relative_paths)

    @staticmethod
    def scope_vocabulary_to_active_rotation(vocabulary: Any, *, active_relative_paths: set[str], manifest_artifacts: Any) -> Any:
        return ("scoped", vocabulary, active_relative_paths, manifest_artifacts)

    def install(self, neighbour: Callable[..., Any]) -> None:
        neighbour("_artifact_rotation", **{name: getattr(self, name) for name in dir(self) if not name.startswith("__")})


def test_a_planner_of_the_host(manager: sync.SyncManager, server: Any, neighbour: Callable[..., Any]) -> None:
    publish(server)
    host = HostRotation()
    host.install(neighbour)
    features = server.entries.copy()
    server.entries["features/us/signal_is/f00.arrow"] = {**features["features/us/signal_is/f00.arrow"], "size_bytes": 10**30}
    with pytest.raises(sync.DiskSpaceError, match=r"^Insufficient disk space: need 10{26}\d{4} bytes, have "):
        manager.sync()
    server.entries = features
    host.calls.clear()
    search = Search()
    manager.register_rotation_search_consumer(search)
    result = manager.sync()
    assert held(manager) == {"f00", "f02", "f04", "f06", "f08", "f10"} and result.rotation_seed == 5
    [(settings, previous, reason)] = host.calls
    assert (settings.artifact_kind, settings.feature_budget_bytes, previous, reason) == ("feature", None, None, "sync")
    assert settings.scope.named_universes == ("us",) and settings.free_disk_bytes > 0
    assert vars(settings).keys() == {"artifact_kind", "scope", "algorithm", "seed", "feature_budget_bytes", "free_disk_bytes"}
    assert vars(settings.scope).keys() == {"market", "named_universes", "family", "subfamily"}
    state, (word, vocabulary, active, artifacts) = search.told[0]
    assert type(state) is HostState and state is manager._active_rotation_state and word == "scoped" and active == set(state.active_relative_paths)
    assert artifacts == sync._rotation_manifest_artifacts(manager._manifest)

    described = host.described
    assert not manager.needs_sync() and manager.sync().bytes_downloaded == 0
    assert (host.described, len(host.calls)) == (described, 1), "descriptors are made once for a manifest"
    assert sync.load_feature_rotation_state(manager._data_dir) == state
    assert manager.add_active_feature_paths(["features/extra.arrow"])[-1] == "features/extra.arrow"
    assert manager._active_rotation_state == dataclasses.replace(state, active_relative_paths=(*state.active_relative_paths, "features/extra.arrow"))
    status = sync.feature_rotation_status_payload(manager._data_dir, settings_payload={"feature_budget_gb": host.FULL_DOWNLOAD})
    assert status["missing_active_relative_paths"] == ["features/extra.arrow"]

    make_due(manager)
    manager.sync()
    assert held(manager) == {"f00", "f03", "f06", "f09"} and host.calls[1][1].generation == 2

    manager._active_rotation_state = dataclasses.replace(manager._active_rotation_state, note="broken")
    with pytest.raises(sync.SyncError, match="^no plan for this$"):
        manager.sync()
    pathlib.Path(sync.feature_rotation_state_path(manager._data_dir)).write_text("{}")
    with pytest.raises(sync.FeatureRotationStateError, match="another version$"):
        sync.load_feature_rotation_state(manager._data_dir)


def test_a_collection_that_is_none_deletes_nothing(manager: sync.SyncManager, server: Any, neighbour: Callable[..., Any]) -> None:
    publish(server)
    manager.sync()
    state_path = pathlib.Path(sync.feature_rotation_state_path(manager._data_dir))
    state_path.unlink()
    paths = ("active_relative_paths", "mandatory_artifacts", "eligible_artifacts")
    rows: list[tuple[str, Callable[[Any], object], str]] = [
        ("rotation_state_payload", lambda odd: odd, "rotation_state_payload"),
        ("promote_rotation_candidate", lambda odd: HostState(odd, 2, 5, "g"), f"promote_rotation_candidate.{paths[0]}"),
        ("promote_rotation_candidate", lambda _: HostState(iter(()), 2, 5, "g"), f"promote_rotation_candidate.{paths[0]}"),  # type: ignore[arg-type]
        *(("plan_rotation", lambda odd, name=name: host_plan(HostState((), 2, 5, "g"), **{name: odd}), f"plan_rotation.selection.{name}") for name in paths),  # type: ignore[misc]
        ("rotation_cleanup_keep_paths", lambda odd: odd, "rotation_cleanup_keep_paths"),
    ]
    for operation, result, named in rows:
        for odd in (None, "features/us/signal_is/f00.arrow", 5):
            manager._active_rotation_state = None
            host = HostRotation()
            setattr(host, operation, lambda *_, made=result(odd), **__: made)
            host.install(neighbour)
            with pytest.raises(TypeError, match=f"^the result of {named} must be a "):
                manager.sync()
            assert len(held(manager)) == 12 and state_path.exists() == (named == "rotation_cleanup_keep_paths")


def test_settings_of_the_host(manager: sync.SyncManager, server: Any, neighbour: Callable[..., Any]) -> None:
    publish(server)

    class Settings:
        feature_budget_gb: object = 250 / 2**30
        algorithm, rotation_seed, market, named_universes, family, subfamily = "theirs", 3, None, ["us"], None, None

        def model_dump(self) -> dict[str, Any]:
            return {"rotation_frequency": "PT1H", "opaque": object()}

    asked: list[tuple[str, dict[str, Any]]] = []

    def load_rotation_settings(data_dir: str, *, catalog_context: dict[str, Any]) -> Settings:
        asked.append((data_dir, catalog_context))
        return Settings()

    neighbour("_rotation_settings", load_rotation_settings=load_rotation_settings)
    manager.sync()
    assert len(held(manager)) == 2 and manager._active_rotation_state.seed == 3
    assert asked[0][0] == manager._data_dir and asked[0][1]["named_universes"] == ["us"]
    assert not manager._feature_rotation_should_rotate(manager._manifest)
    dumped = Settings().model_dump()
    assert sync._rotation_frequency_seconds(dumped) == 3600 and sync._rotation_next_at(manager._data_dir, dumped)[1] is False
    assert sync.feature_rotation_status_payload(manager._data_dir, settings_payload=dumped)["next_rotation_due"] is False
    make_due(manager)
    assert manager._feature_rotation_should_rotate(manager._manifest)
    Settings.feature_budget_gb, Settings.rotation_seed = "FULL_DOWNLOAD", None
    assert manager._plan_feature_rotation_for_manifest(manager._manifest, free_disk_bytes=5)[0].candidate_state.seed == 3, "that of the state"
    loaded, settings = manager._feature_rotation_settings_for_manifest(manager._manifest, free_disk_bytes=5)
    assert isinstance(loaded, Settings) and (settings.feature_budget_bytes, settings.free_disk_bytes, settings.algorithm) == ("FULL_DOWNLOAD", 5, "theirs")
