"""What must hold of a directory whatever happened to the program that worked on it.

Reads the folder of a case and nothing else: the data directory, what the server was asked, what the program printed and
logged, which of its calls changed files, and facts.json, which says what was published. `python checker.py FOLDER PHASE`
looks at a folder that was kept.

  data/            the directory
  facts.json       "published": worlds in their order; "start", "spoilt": digests that were there; "stays": what all worlds have
                   of them; "rotating": paths that may be left out; "token"; "era_change"; "processes"
  PHASE/requests, PHASE/log, PHASE/out, PHASE/points   of the phases "fault" and "heal"
  held.json        what was there between the two phases, written by the check of the first
"""

import base64
import collections
import contextlib
import fcntl
import hashlib
import itertools
import json
import os
import pathlib
import re
import sys
import urllib.parse
from typing import Any

OWN = re.compile(
    r"manifest\.json|\.sync_hash_cache\.json|sync-progress\.json|\.consumer_count|\.sync_flock|\.transition_lock|feature-rotation-(state|settings)\.json"
    r"|\.prefetched-features\.json|shuffle_seed\.enc(\.meta\.json)?|\.told_era"
)
STAGING = re.compile(r"(.*/)?[^/]+\.tmp(/.*)?")
ATOMIC = re.compile(r".*\.\d+\.\d+\.\d+\.tmp")
DOCUMENTS = re.compile(r"signals_index\.json|named_universes/.*")
ERRORS = re.compile(
    r"(MemoryError|OSError|PermissionError|FileNotFoundError|InterruptedError|SyncError|ManifestError|IntegrityError|EraError|DiskSpaceError"
    r"|MandatoryArtifactsTooLargeError|PermanentDownloadError|ManifestSupersededError|SyncUnavailableError|FeatureRotationStateError): .+"
)
LINES = re.compile(r"kill|restart|prefetched \d+|manifest \d+ \d+ \d+|verified|damaged .+|used \d+ \d+ \d+|allocated \d+")
INFO = "20"
SHORTEST_WAIT_NS = 390_000_000
REPEATS = 10  # of one event that differs from the others by these alone
VARYING = {"attempt", "count", "elapsed_seconds", "wait_seconds", "bytes_existing", "actual_size", "range_start", "range_end"}
HEADERS = {"host", "user-agent", "authorization", "range"}
ENDPOINTS = {"/era/current", "/data/manifest", "/data/manifest/version", "/data/shuffle"}


def forms(token: str) -> list[str]:
    """How a token may look where somebody packed it."""
    packed = {base64.b64encode(b"x" * shift + token.encode()).decode()[4:-4] for shift in range(3)}
    quoted = [urllib.parse.quote(token), urllib.parse.quote(token, "")]
    return [token, *quoted, *map(str.lower, quoted), json.dumps(token)[1:-1], *packed]


class Checker:
    def __init__(self, folder: pathlib.Path, phase: str) -> None:
        self.folder, self.phase, self.data = folder, folder / phase, folder / "data"
        self.facts = json.loads((folder / "facts.json").read_text())
        self.published: list[dict[str, Any]] = self.facts["published"]
        self.problems: list[str] = []
        self.files = {path.relative_to(self.data).as_posix(): path for path in self.data.rglob("*") if path.is_file()}
        self.digests = {name: hashlib.sha256(path.read_bytes()).hexdigest() for name, path in self.files.items()}
        self.manifest = self.document("manifest.json")
        self.requests = [json.loads(line) for line in self.lines("requests")]
        self.out = self.lines("out")

    def lines(self, name: str) -> list[str]:
        path = self.phase / name
        return path.read_text(errors="replace").splitlines() if path.exists() else []

    def document(self, name: str) -> dict[str, Any]:
        with contextlib.suppress(FileNotFoundError):
            try:
                return dict(json.loads((self.data / name).read_bytes()))
            except ValueError as error:
                self.problems.append(f"{name} does not parse: {error}")
        return {}

    def claim(self, holds: object, problem: str) -> None:
        if not holds:
            self.problems.append(problem)

    # ---- at any moment ----

    def check_manifest_was_published(self) -> None:
        stated = (self.manifest.get("era_number"), self.manifest.get("version"))
        self.claim(not self.manifest or stated in {(world["era"], world["version"]) for world in self.published}, f"manifest of {stated}")

    def check_no_file_is_torn(self) -> None:
        whole = collections.defaultdict(set, {"shuffle_seed.enc": {world["seed"] for world in self.published}})
        for world in self.published:
            for path, digest in world["files"].items():
                whole[path].add(digest)
        rewritten = {"signals_index.json"} if any(world["lost"] for world in self.published) else set()
        for name, digest in self.digests.items():
            if name in whole:
                self.claim(digest in whole[name] or digest in self.facts["spoilt"] or name in rewritten, f"{name} is torn")
            elif not OWN.fullmatch(name) and not STAGING.fullmatch(name):
                self.claim(name in self.facts["start"], f"{name} is nobody's")

    def check_manifest_comes_last(self) -> None:
        """What stays is never away, a manifest is there only when its files are, and a new era's when they are the new ones."""
        self.claim(self.files.keys() >= set(self.facts["stays"]), f"away: {set(self.facts['stays']) - self.files.keys()}")
        for world in self.published[1:] if self.facts["era_change"] else []:
            if world["era"] == self.manifest.get("era_number"):
                wrong = {path for path, digest in world["files"].items() if path not in self.facts["rotating"] and self.digests.get(path) != digest}
                self.claim(not wrong, f"manifest.json is there before {wrong}")
        if "manifest.json" in self.files and self.digests["manifest.json"] != self.facts["start"].get("manifest.json"):
            missing = {path for path in self.manifest.get("files", {}) if not path.startswith("features/")} - self.files.keys()
            self.claim(not missing, f"manifest.json is there before {missing}")

    def check_no_selection_is_newer_than_the_manifest(self) -> None:
        state = self.document("feature-rotation-state.json")
        known = {path for world in self.published for path in world["files"]}
        if self.manifest:
            committed = (self.manifest["era_number"], self.manifest["version"])
            known = {path for world in self.published if (world["era"], world["version"]) <= committed for path in world["files"]}
        newer = set(state.get("active_relative_paths", [])) - known
        self.claim(not newer, f"the rotation state is newer than the manifest: {newer}")

    def check_cache_answers_for_what_it_read(self) -> None:
        entries = self.document(".sync_hash_cache.json").get("files", {})
        for name, entry in entries.items():
            if name not in self.files:
                continue
            status = self.files[name].stat()
            same = (status.st_size, status.st_mtime_ns, status.st_ctime_ns, status.st_ino)
            if same == tuple(entry[key] for key in ("size_bytes", "mtime_ns", "ctime_ns", "inode")):
                self.claim(entry["sha256"] == self.digests[name], f"the hash cache is wrong about {name}")

    def check_token_went_to_the_server_alone(self) -> None:
        places = {str(path): path.read_bytes() for path in [*self.files.values(), *(self.phase / name for name in ("log", "out"))] if path.exists()}
        for place, content in places.items():
            self.claim(not any(form.encode() in content for form in forms(self.facts["token"])), f"the token is in {place}")

    def check_nothing_lies_beside(self) -> None:
        beside = {path.name for path in self.folder.iterdir()} - {"data", "facts.json", "fault", "heal", "held.json", "shared"}
        self.claim(not beside, f"beside the directory lies {beside}")

    def check_requests(self) -> None:
        for request in self.requests:
            path, headers = request["path"], request["headers"]
            known = path in ENDPOINTS or any(path.removeprefix("/data/files/") in world["files"] for world in self.published)
            right = headers.keys() <= HEADERS and headers.get("authorization") == f"Bearer {self.facts['token']}"
            self.claim(known and right and self.facts["token"] not in path, f"request {request}")

    def check_what_was_said(self) -> None:
        for line in self.out:
            self.claim(LINES.fullmatch(line) or ERRORS.fullmatch(line), f"it printed: {line}")
        if "restart" in self.out:
            self.claim(self.out.index("kill") < self.out.index("restart"), "searches restart that nobody stopped")
            self.claim(self.manifest.get("era_number") == self.published[-1]["era"], "searches restart in an era that is not here, or over")

    def check_each_outage_is_told_once(self) -> None:
        """Its begin, unless it is one of many, and its end; and nothing of a kind comes more than ten times."""
        events = [line.split(" ", 3) for line in self.lines("log") if " brackenfen_sync_event {" in line]
        kinds: collections.Counter[str] = collections.Counter()
        told: dict[str, collections.Counter[str]] = collections.defaultdict(collections.Counter)
        for level, process, _, text in events:
            event = json.loads(text)
            told[event["event_type"]][event.get("endpoint", "")] += 1
            if level == INFO and event["event_type"] != "sync_recovered_status":
                kinds[process + json.dumps({name: value for name, value in event.items() if name not in VARYING}, sort_keys=True)] += 1
        self.claim(max(kinds.values(), default=0) <= REPEATS, f"too often: {kinds.most_common(1)}")
        if self.facts["processes"] > 1:
            return
        pairs = [(first, second) for first, second in itertools.pairwise(self.requests) if first["status"] == 0 < second["status"]]
        ends = [second for first, second in pairs if second["ns"] - first["ns"] >= SHORTEST_WAIT_NS]  # nobody waits for a probe
        outages = collections.Counter(request["path"] for request in ends)
        cured = collections.Counter(request["path"] for request in ends if request["status"] < 300)
        few = {path: min(count, REPEATS) for path, count in outages.items()}
        self.claim(told["sync_unavailable_status"] == few, f"outages {outages} began {told['sync_unavailable_status']}")
        self.claim(told["sync_recovered_status"] == cured, f"outages {cured} ended {told['sync_recovered_status']}")

    def check_no_sanitizer_complains(self) -> None:
        complaints = [line for line in self.lines("log") if re.search(r"(Address|Thread|Leak)Sanitizer|: runtime error: ", line)]
        self.claim(not complaints, f"{complaints[:1]}")

    def check_locks_are_free(self) -> None:
        for name in (".", ".sync_flock"):
            with contextlib.suppress(FileNotFoundError):
                descriptor = os.open(self.data / name, os.O_RDONLY)
                try:
                    fcntl.flock(descriptor, fcntl.LOCK_EX | fcntl.LOCK_NB)
                except BlockingIOError:
                    self.problems.append(f"{name} is locked by nobody that lives")
                finally:
                    os.close(descriptor)

    def check_eras_change_after_confirmation(self) -> None:
        """Nothing live moves before a confirmation that came after the last fetched byte."""
        if not self.facts["era_change"] or self.phase.name != "fault":
            return
        known = {path for world in self.published for path in world["files"]} | {"shuffle_seed.enc", "manifest.json"}
        points = [line.split(" ", 2) for line in self.lines("points")]  # tried, whether or not it came to it
        moves = [int(ns) for call, ns, path in points if call in ("rename", "unlink") and path.split("/data/", 1)[1] in known]
        if not moves:
            changed = {path for path, digest in self.facts["start"].items() if path in known and self.digests.get(path) != digest}
            self.claim(not changed, f"changed before the era was confirmed: {changed}")
            return
        before = [request for request in self.requests if request["ns"] < min(moves)]
        self.claim(before and before[-1]["path"] == "/era/current", "files moved before the era was confirmed again")

    # ---- after a healthy run ----

    def healed_all_is_here(self) -> None:
        world = self.published[-1]
        files = {path: digest for path, digest in world["files"].items() if path not in world["lost"]}
        stated = {path: entry.get("sha256") for path, entry in self.manifest.get("files", {}).items()}
        loose = {"signals_index.json"} if world["lost"] else set()
        self.claim(stated.keys() == files.keys() and all(stated[path] == files[path] for path in files.keys() - loose), "manifest.json is not the server's")
        self.claim((self.manifest.get("era_number"), self.manifest.get("version")) == (world["era"], world["version"]), "an older manifest")
        self.claim("verified" in self.out, f"it does not verify: {self.out}")
        self.claim(f"manifest {world['era']} {world['version']} {len(stated)}" in self.out, f"memory is not manifest.json: {self.out}")
        active = self.document("feature-rotation-state.json").get("active_relative_paths", stated)
        wrong = {path for path in active if path not in loose and self.digests.get(path) != files.get(path)}
        self.claim(not wrong, f"not as the manifest says: {wrong}")
        self.claim(self.digests.get("shuffle_seed.enc") == world["seed"], "the seed is not this era's")

    def healed_nothing_is_left_behind(self) -> None:
        """But for what the next pass that downloads, or the next transition, removes, and what was staged of an era that is over."""
        era = self.published[-1]["era"]
        was_here = self.held()["committed"][0] == era
        departed = self.published[0]["files"].keys() - self.published[-1]["files"].keys() if self.facts["era_change"] and not was_here else set()
        self.claim(not departed & self.files.keys(), f"departed with their era: {departed & self.files.keys()}")
        for name in self.files:
            left = STAGING.fullmatch(name) or name in ("sync-progress.json", ".sync_flock", ".transition_lock")
            over = name.startswith(tuple(f".transition_era{number}.tmp/" for number in range(era)))
            later = ATOMIC.fullmatch(name) or (was_here and name.startswith(".transition")) or over
            of_a_pass = "restart" in self.out and not name.startswith(".")  # which was killed; a transition leaves that to the next pass
            self.claim(not left or later or of_a_pass, f"{name} is left behind")

    def healed_nothing_is_fetched_twice(self) -> None:
        held, asked = self.held(), set()
        for request in self.requests:
            path = request["path"].removeprefix("/data/files/")
            if path in asked or DOCUMENTS.fullmatch(path):
                continue
            asked.add(path)
            first = int(request["headers"].get("range", "bytes=0-").removeprefix("bytes=").split("-")[0])
            self.claim(path not in held["whole"], f"{path} was fetched although it was here")
            self.claim(first == held["begun"].get(path, first), f"{path} was fetched from {first}, {held['begun'].get(path)} bytes were here")

    # ---- between the two ----

    def hold(self) -> None:
        """Notes what need not be fetched again: whole files, and staged ones that begin as they shall."""
        goal = self.published[-1]["files"]
        begun = {name.removesuffix(".tmp"): path.stat().st_size for name, path in self.files.items() if name.removesuffix(".tmp") in goal and name.endswith(".tmp")}
        whole = [name for name, digest in self.digests.items() if goal.get(name) == digest]
        committed = [self.manifest.get("era_number"), self.manifest.get("version")]
        same_era = not self.manifest or committed[0] == self.published[-1]["era"]
        known = {"committed": committed, "whole": whole, "begun": begun if same_era and not self.facts["spoilt"] else {}}
        (self.folder / "held.json").write_text(json.dumps(known))

    def held(self) -> dict[str, Any]:
        return dict(json.loads((self.folder / "held.json").read_text()))


def problems_of(folder: pathlib.Path, phase: str) -> list[str]:
    checker = Checker(folder, phase)
    for name, check in vars(Checker).items():
        if name.startswith("check_") or (phase == "heal" and name.startswith("healed_")):
            check(checker)
    if phase == "fault":
        checker.hold()
    return checker.problems


if __name__ == "__main__":
    found = problems_of(pathlib.Path(sys.argv[1]), sys.argv[2])
    print("\n".join(found) or "all holds")
    sys.exit(bool(found))
