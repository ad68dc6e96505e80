"""How a directory stands, in one word and one sentence: in step, behind, waiting, ... and since when."""

from __future__ import annotations

from dataclasses import dataclass
from typing import Any

from brackenfen import sync

from brackenfen.sync_command.checks import Patient
from brackenfen.sync_command.history import History
from brackenfen.sync_command.session import Session
from brackenfen.sync_command.texts import counted, utc

GOOD, CARE, BAD = "good", "care", "bad"


@dataclass(frozen=True)
class Server:
    """What the server said when it was asked once. `refusal` says why it told nothing; then era and version are None."""

    refusal: str | None
    is_away: bool = False
    """Waiting may cure it."""
    era_number: int | None = None
    version: int | None = None


@dataclass(frozen=True)
class Standing:
    state: str
    """For programs: "in_step", "behind", "waiting", "working", "failing", "damaged", "empty" or "unknown"."""
    level: str
    word: str
    sentence: str
    since: float | None = None


def asked(session: Session) -> Server | None:
    """One request that does not wait; None where no server is set."""
    if not session.settings.server:
        return None
    with Patient.of(session) as patient:
        probe = patient.version
        if patient.refusal is not None:
            return Server("its address is not acceptable")
        if probe is None:
            return Server("there is no token to be had")
        if probe.failure is not None:
            return Server(f"it does not answer ({probe.failure.reason})", is_away=True)
        if probe.status in (401, 403):
            return Server(f"it refuses the token (HTTP {probe.status})")
        if probe.status != 200 or probe.answer is None:
            return Server(f"it answers HTTP {probe.status}")
        try:
            told = probe.answer.document()
        except sync.ManifestError:
            told = {}
        era_number, version = told.get("era_number"), told.get("version")
        if not isinstance(era_number, int) or not isinstance(version, int):
            return Server("its answer is not understood")
        return Server(None, era_number=era_number, version=version)


def standing(here: dict[str, Any], server: Server | None, history: History | None, found: dict[str, Any] | None, now: float) -> Standing:
    """here: the document of status; found: that of a verify made just now."""
    at_work = f"{here['holder']} works on it now." if here["holder"] else ""
    if here["damage"]:
        return Standing("damaged", BAD, "Damaged", f"{here['damage']}. brackenfen-sync doctor tells what mends it.")
    if found and not found["valid"]:
        count = len(found["corrupted_files"]) + len(found["missing_files"])
        return Standing("damaged", BAD, "Damaged", f"{counted(count, 'file')} not right. brackenfen-sync repair fetches them anew.", now)
    if here["version"] is None:
        if here["holder"]:
            return Standing("working", CARE, "Being filled", at_work)
        return Standing("empty", CARE, "Empty", "There is no manifest yet. brackenfen-sync sync fills the directory.")
    since = here["written_at"]
    if server is not None and server.version is not None:
        return compared(here, server, at_work)
    if server is not None and not server.is_away:
        return Standing("failing", BAD, "Cannot tell", f"The server was asked whether it has something newer: {server.refusal}.")
    if (waiting := wait(here, server, history)) is not None:
        return waiting
    if at_work:
        return Standing("working", CARE, "At work", at_work, since)
    if history and (failure := history.lasting_failure(now)):
        return Standing("failing", BAD, "Failing", f"The background work fails: {failure[1]}", failure[0])
    if missing := here["missing"]:
        return Standing("behind", CARE, "Behind", f"{counted(missing, 'file')} of what shall be held missing.", since)
    if history and history.is_watched:
        return Standing("in_step", GOOD, "In step", f"Watch runs and tells of no trouble; its last line is of {utc(history.last)}.", since)
    if history and history.last:
        told = f"The log of watch ends on {utc(history.last)}, so whether the server has something newer is not known."
    else:
        told = "Whether the server has something newer is not known: it was not asked, and there is no log of watch."
    return Standing("unknown", CARE, f"Synced {utc(since)}", told, since)


def compared(here: dict[str, Any], server: Server, at_work: str) -> Standing:
    since = here["written_at"]
    if server.era_number != here["era_number"]:
        return Standing("behind", CARE, "Behind", f"The server is in era {server.era_number}. {at_work}", since)
    if server.version != here["version"]:
        return Standing("behind", CARE, "Behind", f"The server has version {server.version} of this era. {at_work}", since)
    if here["missing"]:
        return Standing("behind", CARE, "Behind", f"{counted(here['missing'], 'file')} of what shall be held missing. {at_work}", since)
    return Standing("in_step", GOOD, "In step", "The server was asked and has nothing newer.", since)


def wait(here: dict[str, Any], server: Server | None, history: History | None) -> Standing | None:
    """Whether the server is waited for: it was asked just now, a pass says so in the directory, or the log does."""
    outage = history.outage if history and history.is_watched else None
    if server is not None:
        reason = server.refusal
    elif here["wait"]:
        reason = f"the request fails with {here['wait']['reason']}"
    elif outage:
        reason = f"the log of watch tells of {outage.label or 'an outage'}"
    else:
        return None
    told = f"Not reached: {reason}. What is here stays whole."
    return Standing("waiting", BAD, "Waiting for the server", told, outage.begin if outage else None)
