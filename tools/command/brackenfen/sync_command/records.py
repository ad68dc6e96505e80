"""A record of the library's log as an event, as the file of events has it."""

from __future__ import annotations

import logging
from typing import Any


def event_of(record: logging.LogRecord) -> dict[str, Any] | None:
    event = getattr(record, "brackenfen_sync_event", None)
    return event if isinstance(event, dict) else None


def told(record: logging.LogRecord) -> dict[str, Any]:
    """Its event, or "log" for a line that is none."""
    if (event := event_of(record)) is not None:
        return event
    return {"event_type": "log", "message": record.getMessage(), "format": str(record.msg), "args": list(record.args or ())}


def cause(event: dict[str, Any]) -> str:
    """What the server said last, else what the network did."""
    seen = [f"HTTP {status}" for status in event.get("status_sequence", ())] + [*event.get("exception_sequence", ())]
    words = [event.get("last_server_error_code"), event.get("reason")]
    return ", ".join(dict.fromkeys(str(word) for word in [*seen, *words] if word))
