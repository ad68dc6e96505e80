"""A case of a hostile server: what it does, what must come of it, and what must hold whatever came of it."""

import atexit
import dataclasses
import functools
import json
import pathlib
import re
import ssl
import subprocess
import threading
import time
from collections.abc import Callable
from typing import Any

from torture.case import SANITIZED
from torture.hostile_client import Arena, Report, clear, forms
from torture.hostile_server import CHUNK, PLACES, SMALL, TOKEN, Attack, Server, World, digest_of

TIMEOUTS = ("BRACKENFEN_SYNC_HTTP_TIMEOUT_SECONDS", "BRACKENFEN_SYNC_MANIFEST_VERSION_HTTP_TIMEOUT_SECONDS")
SETTINGS = {"BRACKENFEN_SYNC_HTTP_CHUNK_BYTES": str(CHUNK)} | dict.fromkeys(TIMEOUTS, "60")  # for a busy machine
HASTE = dict.fromkeys(TIMEOUTS, "0.5")  # where a timeout is what is looked at
MEMORY_KIB = (64 << 10) + 2 * 8 * CHUNK // 1024
BAD_JSON = "ManifestError: Invalid manifest JSON: .*"

# What may come of a shape that is no case of its own in any text: a success, or an error of one of these classes, with a text.
NAMED = (
    "((Sync|Manifest|Era|Integrity|PermanentDownload|ManifestSuperseded|DiskSpace|MandatoryArtifactsTooLarge|Auth|SyncUnavailable|Value|Type|Attribute|JSONDecode|UnicodeDecode"
    "|OS|NotADirectory|IsADirectory)Error: .+)?"
)
OPERATIONS = {
    "sync": "manager().sync()",
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
with sync.backoff_context(stop_requested=lambda: asked.append(1) or len(asked) > 4): manager().sync()
""",
    "features": f"os.unlink(directory + '/{SMALL}'); m = manager(); m._running = True; m.request_feature_files_for_sync(['small'])",
}


@dataclasses.dataclass(frozen=True)
class Row:
    """`expected`: "" for a success, "waits REASON" for one after a wait, else class and text of the error, as a pattern."""

    name: str
    place: str  # what is attacked: a name of PLACES, or several
    attack: Attack
    expected: str
    operation: str = "sync"
    times: float = float("inf")
    start: str = ""  # an empty directory, or "old": one at version 1 of era 7
    world: Callable[[], World] = World
    memory_kib: int = MEMORY_KIB
    then: Callable[[Server, Report], None] | None = None  # looks at more
    is_hasty: bool = False  # whether it times out, besides those that wait for it
    handshake: Attack | str = ""  # over TLS: what the first connections get, or a name of CERTIFICATES


def next_world(operation: str) -> Callable[[], World]:
    return lambda: World(8, 2) if operation in ("transition", "watch") else World()


arena, ALONE = Arena(), threading.Lock()
atexit.register(clear)


def template(name: str) -> str:
    """A directory at version 1 of era 7, made once."""
    if name and name not in arena.templates:
        server, directory = Server(), arena.directory()
        report = arena.client.run(OPERATIONS["sync"], directory=str(directory), url=server.url, token=TOKEN)
        assert not report.error, report.error
        server.close()
        arena.templates[name] = directory
    return name


def assert_whole(directory: pathlib.Path, world: World, besides: tuple[str, ...] = ()) -> None:
    """It holds what the world publishes, and nothing of the way there."""
    entries = json.loads((directory / "manifest.json").read_bytes())["files"]
    assert entries.keys() == world.entries.keys(), entries.keys() ^ world.entries.keys()
    state = directory / "feature-rotation-state.json"
    active = json.loads(state.read_bytes())["active_relative_paths"] if state.exists() else entries
    for path, known in world.entries.items():
        if path not in active and path.startswith("features/"):
            continue  # what came while the state was lost waits for the next rotation
        found = digest_of(directory / path)
        assert found == known["sha256"] == entries[path]["sha256"], f"{path} of {(directory / path).stat().st_size} bytes: {found}, {known}, {entries[path]}"
    assert (directory / "shuffle_seed.enc").read_bytes() == world.seed[:60] or "shuffle_seed.enc" in besides
    left = {path.name for path in directory.rglob("*") if path.suffix == ".tmp" or path.name in ("sync-progress.json", ".sync_flock", ".transition_lock")}
    left = {name for name in left if not name.endswith(besides)}
    assert not left, f"left behind: {left}"


def assert_kept_secret(report: Report, directory: pathlib.Path, server: Server) -> None:
    places = {"the exception": report.shown, "the log": report.log, "an event": repr(report.events)}
    places |= {str(path): path.read_bytes().decode("latin-1") for path in directory.rglob("*") if path.is_file() and path.stat().st_size < 1 << 20}
    places |= {"another host": repr((server.stranger.requests, server.stranger.odd))}
    places |= {"a URL": repr([path for path, _ in server.requests])}
    for place, text in places.items():
        found = [form for form in forms(TOKEN) if form in text]
        assert not found, f"{place} holds the token as {found}: {text[max(0, text.find(found[0]) - 200):][:400]}"
    assert not server.odd, server.odd
    for path, headers in server.requests:
        assert headers.get("Authorization") in (f"Bearer {TOKEN}", None), (path, headers)
        assert headers.keys() <= {"Host", "Authorization", "User-Agent", "Range"}, headers


def assert_expected(row: Row, report: Report) -> None:
    if row.expected.startswith("waits "):
        assert not report.error, report.error
        reasons = report.reasons("http_retry", "sync_backoff_wait", "checksum_repair")
        assert any(re.fullmatch(row.expected[6:], reason) for reason in reasons), reasons
        outages = sum(count for fields, count in report.events if "unavailable" in fields["event_type"])  # warnings are not counted
        ends = sum("sync_recovered_status" in line for line in report.log.splitlines())
        assert outages <= ends and (ends <= row.times or re.search("Timeout|Refused", row.expected)), f"{outages} outages, {ends} ends: {report.events}"
    else:
        assert re.fullmatch(NAMED if row.expected == ".*" else row.expected, report.error, re.DOTALL), f"expected {row.expected!r}, got {report.error!r}"


def run(row: Row) -> str | None:
    with ALONE:  # certificates are made once
        context = tls_context("good") if row.handshake else None
    server = Server(World() if row.start else row.world(), context)
    if context:
        server.handshakes = [tls_context(row.handshake) if isinstance(row.handshake, str) else row.handshake] * int(row.times)
    server.stranger = Server()
    directory = arena.directory(template(row.start))
    before = arena.around(directory)
    server.world = row.world()
    for place in row.place.split():
        server.attacks[PLACES.get(place, place)] = (row.attack, row.times)
    variables: dict[str, Any] = dict(directory=str(directory), url=server.url, token=TOKEN)
    hasty = HASTE if row.is_hasty or "TimeoutError" in row.expected else {}
    trust = {"SSL_CERT_FILE": str(certificates() / "good")} if context else {}
    began = time.monotonic()
    try:
        report = arena.client.run(OPERATIONS[row.operation], SETTINGS | trust | hasty, **variables)
        figure = f"{row.name}: {time.monotonic() - began:.1f} s, {report.grown >> 10} MiB" if row.memory_kib > MEMORY_KIB else None
        assert_expected(row, report)
        assert_kept_secret(report, directory, server)
        assert report.grown < row.memory_kib or SANITIZED, f"it took {report.grown >> 10} MiB"
        if row.then:
            row.then(server, report)
        server.heal()
        server.world = healthy = World(8, 2) if server.world.era == 8 else World(7, 1_000_000)
        healthy.version = 1_000_000
        healthy.fields = {"base_url": server.url + "/data/files"}  # without one, that of the manifest before would stay
        operation = "transition" if healthy.era == 8 else "sync"
        report = arena.client.run(OPERATIONS[operation], SETTINGS | trust, **variables)
        assert not report.error, f"a healthy pass afterwards: {report.error}"
        if any(digest_of(directory / path) != known["sha256"] for path, known in healthy.entries.items() if (directory / path).exists()):
            report = arena.client.run(OPERATIONS[operation], SETTINGS | trust, **variables)  # what the pass kept within the era
        assert_whole(directory, healthy)
        assert arena.around(directory) == before, "something outside of the directory changed"
        return figure
    finally:
        server.close()
        server.stranger.close()


# ---- certificates ---------------------------------------------------------------------------------------------------

# Host name, and whether its time is over; all are signed by themselves.
CERTIFICATES = {"good": ("localhost", False), "unknown": ("localhost", False), "other-host": ("example.com", False), "expired": ("localhost", True)}
AUTHORITY = "[ca]\ndefault_ca=x\n[x]\ndatabase=index\nserial=serial\nnew_certs_dir=.\npolicy=p\nx509_extensions=e\n[p]\ncommonName=supplied\n[e]\nsubjectAltName=DNS:{}\n"


@functools.cache
def certificates() -> pathlib.Path:
    """A folder with key and certificate of each name in one file; the client trusts that of "good"."""
    folder = arena.root / "certificates"
    folder.mkdir()
    for name, (host, is_over) in CERTIFICATES.items():
        for file, content in {"index": "", "serial": "01", "ca": AUTHORITY.format(host)}.items():
            (folder / file).write_text(content)
        request = "openssl req -new -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout key -out request -subj /CN=" + host
        sign = "openssl ca -batch -selfsign -config ca -keyfile key -in request -out made -notext -md sha256 -startdate 20200101000000Z -enddate "
        for line in (request, sign + ("20200202000000Z" if is_over else "20990101000000Z")):
            subprocess.run(line.split(), cwd=folder, check=True, capture_output=True)
        (folder / name).write_bytes((folder / "made").read_bytes() + (folder / "key").read_bytes())
    return folder


@functools.cache
def tls_context(name: str) -> ssl.SSLContext:
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(certificates() / ("good" if name == "old-protocol" else name))
    if name == "old-protocol":
        context.set_ciphers("ALL:@SECLEVEL=0")
        context.minimum_version, context.maximum_version = ssl.TLSVersion.TLSv1, ssl.TLSVersion.TLSv1_1
    return context
