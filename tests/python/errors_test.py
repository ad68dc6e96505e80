"""The classes of errors, and errors on their way through the core."""

import copy
import json
import pickle
from typing import Any

import brackenfen.sync as sync
import pytest


def test_fields_given_by_the_host() -> None:
    said = {"server_error_code": "BUSY", "dependency": "db", "retryable": False, "recovery": "later", "reason": "r"}
    error = sync.SyncUnavailableError(url="https://h/a?b", attempts="3", statuses=(503,), failures=["TimeoutError"], **said)
    assert str(error) == error._build_message() == (
        "BrackenFen data sync unavailable after 3 attempt(s). endpoint=/a url=https://h/a?b statuses=[503] failures=['TimeoutError'] "
        "server_error=BUSY dependency=db retryable=False recovery=later reason=r"
    )
    assert (error.attempts, error.statuses, error.typed_details) == (3, [503], True) and {name: getattr(error, name) for name in said} == said
    assert ["retryable=" + word in str(sync.SyncUnavailableError(retryable=value)) for value, word in ((0, "False"), ("no", "True"))] == [True, True]
    for fields in ({"server_error_code": "X"}, {"retryable": False, "typed_details": 0}):
        assert sync.SyncUnavailableError(url="u", **fields).typed_details is False
    gone = sync.PermanentDownloadError("gone", "a/b", 404.9)
    assert (str(gone), gone.file_path, gone.status) == ("gone", "a/b", 404) and sync.PermanentDownloadError("x", status="x").status is None


def test_a_status_becomes_the_error_that_it_means() -> None:
    for status, error in ((401.0, sync.AuthError), ("503", sync.SyncError), (403, sync.PermanentDownloadError), (None, sync.PermanentDownloadError)):
        with pytest.raises(Exception, match=f"^(Authentication|Download) failed .* a: HTTP {status}$") as caught:
            sync._raise_download_http_status("a", status)
        assert type(caught.value) is error and getattr(caught.value, "status", status) == status


class Child(sync.SyncUnavailableError):
    pass


@pytest.mark.parametrize("error", [
    sync.EraError("text"),
    sync.PermanentDownloadError("text", file_path="a", status=410),
    sync.SyncUnavailableError(url="http://h/", statuses=[503], recovery="later"),
    Child(url="http://h/", attempts=2),
    sync.AuthError("no"),
    sync.MandatoryArtifactsTooLargeError(5, available_bytes=3, selected_paths=("a",)),
])  # fmt: skip
def test_pickle_and_copy(error: Exception) -> None:
    for other in (pickle.loads(pickle.dumps(error)), copy.copy(error)):
        assert type(other) is type(error) and str(other) == str(error) and other.__dict__ == error.__dict__


def raising(error: BaseException) -> Any:
    def call(*_: object, **__: object) -> None:
        raise error

    return call


class HostTimeout(TimeoutError):
    pass


class BadText(Exception):
    def __str__(self) -> str:
        raise RuntimeError("no text")


class Meta(type):
    def __getattribute__(cls, name: str) -> Any:
        if name in ("__module__", "__bases__"):
            raise RuntimeError(name)
        return super().__getattribute__(name)


class Evasive(Exception, metaclass=Meta):
    pass


def with_unreadable_field() -> sync.SyncUnavailableError:
    error = sync.SyncUnavailableError(url="u")
    error.dependency = BadText()
    return error


@pytest.mark.parametrize(
    "error",
    [
        ValueError("v"), HostTimeout("t"), ConnectionResetError(104, "reset"), sync.EraError("e"), sync.StateError("s"), BadText(),
        sync.SyncUnavailableError(url="u", retryable=False), KeyboardInterrupt(), SystemExit(3), GeneratorExit(), BaseException("b"),
        Evasive("e"), with_unreadable_field(),
    ],
    ids=lambda error: type(error).__name__,
)  # fmt: skip
def test_an_exception_of_the_host_comes_out_as_the_same_object(manager: sync.SyncManager, error: BaseException) -> None:
    manager._get_token = raising(error)
    with pytest.raises(type(error)) as caught:
        manager._http_get("http://127.0.0.1:1/x")
    assert caught.value is error


def test_the_core_sees_the_family_of_a_host_exception(manager: sync.SyncManager, neighbour: Any, records: pytest.LogCaptureFixture) -> None:
    """A refusal by the host's rule is a ManifestError only where it is a ValueError."""

    class Refused(UnicodeError):
        pass

    neighbour("_transport_security", validate_bearer_transport_url=raising(Refused("not that one")))
    with pytest.raises(sync.ManifestError, match="^not that one$"):
        sync._manifest_file_url("http://h", "a")
    broken = LookupError("broken rule")
    neighbour("_transport_security", validate_bearer_transport_url=raising(broken))
    with pytest.raises(LookupError) as caught:
        sync._manifest_file_url("http://h", "a")
    assert caught.value is broken

    lost = sync.PermanentDownloadError("x", file_path="found_signals/p/e/signal_is/pnl.arrow", status=404)
    plan = {lost.file_path: {"kind": "found_signal_is_pnl"}}
    assert sync._missing_found_pnl_download_path(lost, plan) == lost.file_path
    assert sync._missing_found_pnl_download_path(ValueError(404), plan) is None


def test_an_error_of_the_system_is_the_hosts_own(tmp_path: Any) -> None:
    with pytest.raises(IsADirectoryError) as caught:
        sync._sha256_file(tmp_path)
    assert caught.value.errno == 21 and caught.value.filename == str(tmp_path)
    for call in (lambda: sync._http_get("http://127.0.0.1/a b", "t"), lambda: sync._sha256_file("a\0b")):
        with pytest.raises(ValueError):
            call()
    with pytest.raises(AttributeError):
        sync._sanitize_manifest_data_for_sync([])


def test_a_json_error_is_the_hosts_own(manager: sync.SyncManager, server: Any) -> None:
    server.answers["/data/manifest"] = (200, b"{nope")
    with pytest.raises(sync.ManifestError) as caught:
        manager.sync()
    with pytest.raises(json.JSONDecodeError) as expected:
        json.loads("{nope")
    assert str(caught.value) == f"Invalid manifest JSON: {expected.value}"
    server.answers["/data/manifest"] = (200, b'{"a": "\xff"}')
    with pytest.raises(UnicodeDecodeError) as undecodable:
        manager.sync()
    assert undecodable.value.start == 7 and undecodable.value.object == b'{"a": "\xff"}'


def test_notes_tell_where_it_failed_and_what_to_do(manager: sync.SyncManager, server: Any) -> None:
    at, seed = server.url + "/data/manifest", server.url + "/data/shuffle"
    without_functions = {**server.manifest(), "functions": None}
    for answer, facts, notes in (
        ((404, b""), {"url": at, "status": 404}, [f"url={at}"]),
        ((200, json.dumps(server.manifest()).encode()), {"url": seed, "status": 404}, [f"url={seed}"]),
        ((200, json.dumps(without_functions).encode()), {"file_path": "functions.json"}, []),
        ((200, json.dumps(server.manifest()).encode()), {}, None),
        ((200, json.dumps({**server.manifest(), "era_number": 8}).encode()), {"local_era_number": 7, "server_era_number": 8},
         ["call trigger_era_transition(8), or acquire() a manager whose directory has had its first pass: it follows eras by itself"]),
    ):  # fmt: skip
        server.answers["/data/manifest"] = answer
        server.answers["/data/manifest/version"] = (404, b"")
        server.answers["/data/shuffle"] = (404, b"") if facts.get("url") == seed else None
        if notes is None:
            manager.sync()
            continue
        with pytest.raises(sync.SyncError) as caught:
            manager.sync()
        assert vars(caught.value) == facts | ({"__notes__": notes} if notes else {})
