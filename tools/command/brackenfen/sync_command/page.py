"""The page of a report, made from the template report.html beside this file.

Names, messages and times come from disks, servers and logs that nobody vouches for: every text that the template puts out is
cleaned, shortened and freed of credentials here, and escaped by the template engine. The page's own policy forbids scripts
and requests besides.
"""

from __future__ import annotations

import re
from pathlib import Path
from typing import Any

import jinja2
from brackenfen import sync
from markupsafe import Markup

from brackenfen.sync_command.history import Change, History
from brackenfen.sync_command.standing import Server, Standing
from brackenfen.sync_command.texts import clean, counted, duration, size, stamp, utc
from brackenfen.sync_command.timeline import eras, timeline

TEXT_SHOWN = 300
OUTAGES_SHOWN, ERAS_SHOWN, WARNINGS_SHOWN = 20, 20, 8
YEAR_SAID_SECONDS = 300 * 86400.0
SHORTEST_SECRET = 4  # a shorter one would mask what is none
CREDENTIALS = re.compile(r"(?<=://)[^/\s@]*@")


def shown(value: object, secret: str) -> object:
    """A text as the page may show it."""
    if isinstance(value, (Markup, int, float)) or value is None:
        return "" if value is None else value
    text = CREDENTIALS.sub("", str(value))
    if len(secret) >= SHORTEST_SECRET:
        text = text.replace(secret, "********")
    text = clean(text)
    return text if len(text) <= TEXT_SHOWN else text[: TEXT_SHOWN - 1] + "…"


def moment(seconds: float) -> Markup:
    return Markup('<time datetime="{}">{}</time>').format(stamp(seconds), utc(seconds))


def day(seconds: float, now: float) -> Markup:
    """For tables, whose heads say that times are UTC: without the year, where it goes without saying."""
    date, clock = utc(seconds).removesuffix(" UTC").split(", ")
    if abs(now - seconds) < YEAR_SAID_SECONDS:
        date = date.rpartition(" ")[0]
    return Markup('<time datetime="{}">{}, <span>{}</span></time>').format(stamp(seconds), date, clock)


def share(part: float, whole: float) -> str:
    """As a width for the style sheet, and as a figure for people."""
    return f"{100 * part / whole:.0f}%" if whole else "0%"


def told(change: Change) -> str:
    if change.version is None:
        return f"Transition to era {change.era_number}"
    return f"Era {change.era_number}, version {change.version}"


def happened(history: History, now: float) -> dict[str, Any]:
    """The log, newest first, with what is over and what lasts in one list."""
    outages = [
        {"begin": span.begin, "end": span.end, "lasted": duration((span.end or now) - span.begin), "cause": span.label}
        for span in reversed(history.outages)
    ]
    return {
        "changes": [{"what": told(change), "change": change} for change in reversed(history.changes)],
        "outages": outages[:OUTAGES_SHOWN],
        "down": duration(history.forgotten_seconds + sum((span.end or now) - span.begin for span in history.outages)),
        "eras": eras(history)[::-1][:ERAS_SHOWN],
        "warnings": list(reversed(history.warnings.values()))[:WARNINGS_SHOWN],
        "charts": {width: Markup(chart) for width, chart in timeline(history, now).items()},
    }


def rendered(
    here: dict[str, Any],
    standing: Standing,
    server: Server | None,
    history: History | None,
    found: dict[str, Any] | None,
    now: float,
    secret: str,
) -> str:
    """found: the document of a verify made just now. secret: a text that must not show."""
    environment = jinja2.Environment(
        loader=jinja2.FileSystemLoader(Path(__file__).parent),
        autoescape=True,
        undefined=jinja2.StrictUndefined,
        trim_blocks=True,
        lstrip_blocks=True,
        finalize=lambda value: shown(value, secret),
    )
    environment.filters |= {
        "moment": moment, "day": lambda seconds: day(seconds, now), "size": size, "duration": duration, "counted": counted, "share": share,
        "grouped": "{:,}".format,
    }  # fmt: skip
    return environment.get_template("report.html").render(
        here=here, standing=standing, server=server, history=history, found=found, now=now, version=sync.__version__,
        happened=happened(history, now) if history else None,
    )  # fmt: skip
