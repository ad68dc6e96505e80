"""One request that does not wait: does the server answer, and if not, why."""

from __future__ import annotations

from dataclasses import dataclass
from email.utils import parsedate_to_datetime
from typing import Any

from brackenfen import sync

from brackenfen.sync_command import library
from brackenfen.sync_command.session import Session
from brackenfen.sync_command.texts import cause


@dataclass(frozen=True)
class Failure:
    """`reason` as in the library's events: the class of a network failure, or an HTTP status that waiting may cure."""

    reason: str
    text: str
    next_action: str


@dataclass(frozen=True)
class Probe:
    answer: library.Answer | None
    failure: Failure | None

    @property
    def status(self) -> int | None:
        return self.answer.status if self.answer else None

    @property
    def is_data(self) -> bool:
        """Whether it is the answer of a data server, and not, say, the page of one that wants a login."""
        if self.answer is None or self.answer.status != 200:
            return False
        try:
            self.answer.document()
        except sync.ManifestError:
            return False
        return True

    def clock_skew(self, now: float) -> float | None:
        """Seconds that `now` is ahead of the server's clock; None where the answer has no date."""
        try:
            return now - parsedate_to_datetime(self.answer.headers["date"]).timestamp() if self.answer else None
        except (KeyError, ValueError):
            return None

    def document(self) -> dict[str, Any]:
        failed = self.failure
        told = {"reason": failed.reason, "next_action": failed.next_action} if failed else {"reason": None, "next_action": None}
        return {"answers": self.is_data, "status": self.status, **told}


def ask(session: Session, manager: sync.SyncManager, path: str) -> Probe:
    """Raises what the token source raises, and ValueError for a token that no header can hold."""
    with session.one_try() as heard:
        try:
            return Probe(library.get(manager, path), None)
        except (sync.SyncBackoffCancelled, sync.SyncUnavailableError) as error:
            reason = str(
                heard.event("http_retry").get("reason") or heard.event("sync_unavailable_status").get("reason") or type(error).__name__
            )
            # The library tells the text of a network failure in a line of its own, which names the class too.
            text = next((line for _, line in reversed(heard.lines) if reason in line), reason)
            return Probe(None, Failure(cause(reason), text, str(heard.event("sync_unavailable_status").get("next_action", ""))))
