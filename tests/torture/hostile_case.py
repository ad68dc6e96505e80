"""A case of a hostile server: what it does, what must come of it, and what must hold whatever came of it."""

import atexit
import contextlib
import dataclasses
import functools
import json
import pathlib
import re
import shutil
import ssl
import subprocess
import threading
from collections.abc import Callable

from torture.case import SANITIZED
from torture.checker import HEADERS, forms
from torture.hostile_client import Arena, Report
from torture.hostile_server import PLACES, SMALL, TOKEN, Attack, Server, small_world
from torture.world import CHUNK_BYTES, World, digest

TIMEOUTS = ("BRACKENFEN_SYNC_HTTP_TIMEOUT_SECONDS", "BRACKENFEN_SYNC_MANIFEST_VERSION_HTTP_TIMEOUT_SECONDS")
SETTINGS = {"BRACKENFEN_SYNC_HTTP_CHUNK_BYTES": str(CHUNK_BYTES)} | dict.fromkeys(TIMEOUTS, "60")  # for a busy machine
HASTE = dict.fromkeys(TIMEOUTS, "0.5")  # where a timeout is what is looked at
MEMORY_KIB = (64 << 10) + 2 * 8 * CHUNK_BYTES // 1024
OPERATIONS = {
    "sync": "manager().sync()",
    "later": "manager().sync()",
    "verified": "m = manager(); m.sync(); result = m.verify().valid",
    "needs_sync": "result = manager().needs_sync()",
    "repair": f"os.unlink(directory + '/{SMALL}'); manager().repair(['{SMALL}'])",
    "transition": "manager().trigger_era_transition(8)",
    "watch": """
watcher = sync.EraThread(url, lambda: token, manager())
watcher._last_known_era_id = 7
watcher._poll_once()
result = watcher._last_known_era_id
""",
    "stopped": """
asked = []
try:
    with sync.backoff_context(stop_requested=lambda: asked.append(1) or len(asked) > 4): manager().sync()
except sync.SyncBackoffCancelled: pass
""",
    "features": f"os.unlink(directory + '/{SMALL}'); m = manager(); m._running = True; m.request_feature_files_for_sync(['small'])",
}
# What is published where an operation begins in a directory at version 1 of era 7; the others begin in an empty one.
STARTED = {"later": (7, 2), "needs_sync": (7, 1), "repair": (7, 1), "features": (7, 1), "transition": (8, 2), "watch": (8, 2)}


BAD_JSON = "ManifestError: Invalid manifest JSON: .*"
# What may come of a shape that has no text of its own.
NAMED = r"((?!Runtime|System|Memory|Key|Index|Buffer)(\w+Error|LibraryUpdateRequired): .+)?"


def one_of(*classes: str) -> str:
    return f"({'|'.join(classes)})Error: .+"


@dataclasses.dataclass(frozen=True)
class Row:
    """`expected`: "" for a success, "waits REASON" for one after a wait, else class and text of the error, as a pattern."""

    text: str
    place: str  # what is attacked: a name of PLACES, or several
    attack: Attack
    expected: str
    operation: str = "sync"
    times: float = 0  # 0: once where it is waited out, else always
    world: World | None = None  # instead of that of the operation
    memory_kib: int = MEMORY_KIB
    handshake: Attack | str = ""  # over TLS: what the first connections get, or a name of CERTIFICATES
    asks_stranger: bool = False  # whether requests go to another origin
    before: Callable[[pathlib.Path], object] = lambda _: None  # what happens to the directory
    damaged: str = ""  # the file of the directory that an error is about, which then goes
    stays: tuple[str, ...] = ()  # how names end that need not be gone or right afterwards

    @property
    def reason(self) -> str:
        """What it waits for, as a pattern; or nothing."""
        return self.expected.removeprefix("waits ") if self.expected.startswith("waits ") else ""

    @property
    def count(self) -> float:
        return self.times or (1 if self.reason else float("inf"))


arena, ALONE = Arena(), threading.Lock()


@atexit.register
def clear() -> None:
    for each in Arena.all:
        each.client.end()
        shutil.rmtree(each.root, ignore_errors=True)


def perform(operation: str, directory: pathlib.Path, server: Server, settings: dict[str, str] = SETTINGS) -> Report:
    return arena.client.run(OPERATIONS[operation], settings, directory=str(directory), url=server.url, token=TOKEN)


def template(name: str) -> str:
    """A directory at version 1 of era 7, made once."""
    if name and name not in arena.templates:
        directory = arena.directory()
        with contextlib.closing(Server()) as server:
            report = perform("sync", directory, server)
        assert not report.error, report.error
        arena.templates[name] = directory
    return name


def assert_whole(directory: pathlib.Path, world: World, besides: tuple[str, ...] = ()) -> None:
    """It holds what the world publishes, and nothing of the way there."""
    entries = json.loads((directory / "manifest.json").read_bytes())["files"]
    published = world.manifest["files"]
    assert entries.keys() == published.keys(), entries.keys() ^ published.keys()
    state = directory / "feature-rotation-state.json"
    active = json.loads(state.read_bytes())["active_relative_paths"] if state.exists() else entries
    for path, known in published.items():
        if path in active or not path.startswith("features/"):  # what came while the state was lost waits for the next rotation
            assert digest((directory / path).read_bytes()) == known["sha256"] == entries[path]["sha256"], path
    assert (directory / "shuffle_seed.enc").read_bytes() == world.seed or "shuffle_seed.enc" in besides
    of_work = (".tmp", "sync-progress.json", ".sync_flock", ".transition_lock")
    left = {path.name for path in directory.rglob("*") if path.name.endswith(of_work) and not path.name.endswith(besides)}
    assert not left, f"left behind: {left}"


def assert_kept_secret(report: Report, directory: pathlib.Path, server: Server) -> None:
    files = [path for path in directory.rglob("*") if path.is_file() and path.stat().st_size < 1 << 20]
    places = {str(path): path.read_bytes().decode("latin-1") for path in files} | {
        "the exception": report.shown, "the log": report.log, "an event": repr(report.events),
        "a URL": repr([path for path, _ in server.requests]), "another host": repr(server.stranger.requests),
    }  # fmt: skip
    for place, text in places.items():
        found = [form for form in (*forms(TOKEN), TOKEN[:9]) if form in text]  # nor a part, where a word was cut
        assert not found, f"{place} holds the token as {found}: {text[max(0, text.find(found[0]) - 200):][:400]}"
    for asked, tokens in ((server, {f"Bearer {TOKEN}", None}), (server.stranger, {None})):
        for path, headers in asked.requests:
            assert path.startswith("/") and headers.get("authorization") in tokens and headers.keys() <= HEADERS, (path, headers)


def assert_expected(row: Row, report: Report) -> None:
    if not row.reason:
        assert re.fullmatch(row.expected, report.error, re.DOTALL), f"expected {row.expected!r}, got {report.error!r}"
        return
    assert not report.error, report.error
    reasons = report.reasons("http_retry", "sync_backoff_wait", "checksum_repair")
    assert any(re.fullmatch(row.reason, reason) for reason in reasons), reasons
    outages = sum(count for fields, count in report.events if "unavailable" in fields["event_type"])  # warnings are not counted
    ends = sum("sync_recovered_status" in line for line in report.log.splitlines())
    told_once = outages <= ends and (ends <= row.count or re.search("Timeout|Refused", row.reason))
    assert told_once or row.operation == "stopped", f"{outages} outages, {ends} ends: {report.events}"


def assert_heals(directory: pathlib.Path, server: Server, settings: dict[str, str] = SETTINGS, stays: tuple[str, ...] = ()) -> None:
    """A newer version from a server that is well again sets all right."""
    server.heal()
    crosses = server.world.era == 8
    server.world = healthy = dataclasses.replace(small_world(8 if crosses else 7, 2), version=1_000_000)
    healthy.manifest["base_url"] = server.url + "/data/files"  # without one, that of the manifest before would stay
    for operation in ("transition" if crosses else "sync", "verified"):  # the second brings what the first kept within the era
        report = perform(operation, directory, server, settings)
        assert not report.error and report.result is not False, f"a healthy pass afterwards: {report.error}"
    assert_whole(directory, healthy, stays)


def run(row: Row) -> None:
    with ALONE:  # certificates are made once
        context = tls_context("good") if row.handshake else None
    server = Server(tls=context)
    if context:
        server.handshakes = [tls_context(row.handshake) if isinstance(row.handshake, str) else row.handshake] * int(row.count)
    server.stranger = Server()
    directory = arena.directory(template("old" if row.operation in STARTED else ""))
    row.before(directory)
    before = arena.around(directory)
    server.world = row.world or small_world(*STARTED.get(row.operation, (7, 1)))
    server.attacks = {PLACES.get(place, place): (row.attack, row.count) for place in row.place.split()}
    settings = SETTINGS | ({"SSL_CERT_FILE": str(certificates() / "trusted")} if context else {})
    haste = HASTE if "TimeoutError" in row.expected else {}
    try:
        report = perform(row.operation, directory, server, settings | haste)
        assert_expected(row, report)
        assert_kept_secret(report, directory, server)
        assert bool(server.stranger.requests) == row.asks_stranger, server.stranger.requests
        assert report.grown < row.memory_kib or SANITIZED, f"it took {report.grown >> 10} MiB"
        if row.damaged and (report.error or (directory / row.damaged).is_dir()):  # a person does this, whom an error tells of it
            subprocess.run(["rm", "-r", directory / row.damaged], check=True)
        assert_heals(directory, server, settings, row.stays)
        assert arena.around(directory) == before, "something outside of the directory changed"
    finally:
        server.close()
        server.stranger.close()


# ---- certificates ---------------------------------------------------------------------------------------------------

# Host name, and for how many days; each is signed by itself, and the client trusts all but one.
CERTIFICATES = {"good": ("localhost", 9), "unknown": ("localhost", 9), "other-host": ("example.com", 9), "expired": ("localhost", -1)}


@functools.cache
def certificates() -> pathlib.Path:
    """A folder with key and certificate of each name in one file."""
    folder = arena.root / "certificates"
    folder.mkdir()
    for name, (host, days) in CERTIFICATES.items():
        ask = f"openssl req -newkey rsa:2048 -nodes -out asked -keyout {name} -subj /CN={name} -addext subjectAltName=DNS:{host}"
        sign = f"openssl x509 -req -in asked -signkey {name} -copy_extensions copy -days {days} -out made"
        for line in (ask, sign):
            subprocess.run(line.split(), cwd=folder, check=True, capture_output=True)
        for file in [name] if name == "unknown" else [name, "trusted"]:
            with (folder / file).open("ab") as out:
                out.write((folder / "made").read_bytes())
    return folder


@functools.cache
def tls_context(name: str) -> ssl.SSLContext:
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(certificates() / ("good" if name == "old-protocol" else name))
    if name == "old-protocol":
        context.set_ciphers("ALL:@SECLEVEL=0")
        context.minimum_version, context.maximum_version = ssl.TLSVersion.TLSv1, ssl.TLSVersion.TLSv1_1
    return context
