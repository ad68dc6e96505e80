"""The time line of a report: what landed, eras, outages and when watch ran, as SVG that takes its colours from the page."""

from __future__ import annotations

import math
from collections.abc import Iterable, Iterator
from typing import Any

import vl_convert

from brackenfen.sync_command.history import History, Landed, Span

WIDTHS = (300, 460, 720)  # of a telephone, a tablet and a desk; the style sheet of the page shows one of them
LABELS_WIDTH = 62
LEAST_WIDTH = 2  # of anything that is drawn, in pixels
BAR_WIDTH = 6
LABEL_WIDTH = 44  # of a span that has room for its name
DAY = 86400.0
BYTES_LABEL = "datum.value < 1000 ? datum.value + ' B' : replace(format(datum.value, '.2~s'), regexp('([a-zA-Z])'), ' $1B')"

FONT = "system-ui, sans-serif"
CONFIG = {
    "font": FONT,
    "background": "transparent",
    "view": {"stroke": None},
    "axis": {
        "labelColor": "var(--muted)", "titleColor": "var(--muted)", "domainColor": "var(--line)", "tickColor": "var(--line)",
        "gridColor": "var(--line)", "labelFontSize": 11, "labelFont": FONT,
    },
    "concat": {"spacing": 6},
    "aria": False,
}  # fmt: skip


def merged(spans: Iterable[Span], begin: float, end: float, pixel: float) -> Iterator[Span]:
    """As many spans as can be told apart at this width, each wide enough to be seen. Those that are not lose their names."""
    last: Span | None = None
    for span in sorted(spans, key=lambda span: span.begin):
        least = LEAST_WIDTH * pixel
        start = max(span.begin, begin)
        stop = max(min(end if span.end is None else span.end, end), start + least)
        if last is not None and last.end is not None:
            is_hidden = start < last.begin + least
            if is_hidden or (start - last.end < pixel and span.label == last.label):
                last = Span(last.begin, max(last.end, stop), last.label if span.label == last.label else "")
                continue
            yield last
        last = Span(start, stop, span.label)
    if last is not None:
        yield last


def eras(history: History) -> list[Span]:
    ends = [*(begin for begin, _ in history.eras), None][1:]
    return [Span(begin, end, f"Era {number}") for (begin, number), end in zip(history.eras, ends, strict=True)]


def milliseconds(moment: float) -> int:
    return round(moment * 1000)


def lanes(history: History, begin: float, end: float, pixel: float) -> list[dict[str, Any]]:
    rows = []
    for index, span in enumerate(merged(eras(history), begin, end, pixel)):
        tone = "var(--era-odd)" if index % 2 else "var(--era-even)"
        label = span.label if ((span.end or end) - span.begin) / pixel > LABEL_WIDTH else ""
        rows.append(("Eras", span, tone, label))
    unnamed = [Span(span.begin, span.end) for span in history.outages]
    rows += [("Outages", span, "var(--bad)", "") for span in merged(unnamed, begin, end, pixel)]
    rows += [("Watched", span, "var(--quiet)", "") for span in merged(history.watched, begin, end, pixel)]
    return [
        {"lane": lane, "from": milliseconds(span.begin), "to": milliseconds(span.end or end), "tone": tone, "label": label}
        for lane, span, tone, label in rows
    ]


def bars(landed: Landed, begin: float, end: float, pixel: float) -> list[dict[str, Any]]:
    """Sums over spans of time as wide as a bar."""
    wide = max(1, math.ceil(BAR_WIDTH * pixel / landed.width)) * landed.width
    sums: dict[int, int] = {}
    for place, count in landed.buckets.items():
        bar = int(max(0.0, place * landed.width - begin) // wide)
        sums[bar] = sums.get(bar, 0) + count
    return [
        {"from": milliseconds(begin + bar * wide), "to": milliseconds(begin + (bar + 0.8) * wide), "bytes": count}
        for bar, count in sorted(sums.items())
        if count
    ]


def time_axis(begin: float, end: float, width: int, labelled: bool) -> dict[str, Any]:
    """Hours within a few days, days within a year, else months."""
    label = "utcFormat(datum.value, utchours(datum.value) + utcminutes(datum.value) + utcseconds(datum.value) ? '%H:%M' : '%-d %b')"
    if end - begin < 600:
        label = "utcFormat(datum.value, '%H:%M:%S')"
    elif end - begin > 300 * DAY:
        label = "utcFormat(datum.value, '%b %Y')"
    axis: dict[str, Any] = {"title": None, "tickCount": max(2, width // 110), "labelExpr": label, "labels": labelled, "ticks": labelled}
    return {
        "field": "from",
        "type": "temporal",
        "scale": {"type": "utc", "domain": [milliseconds(begin), milliseconds(end)], "nice": False},
        "axis": axis | {"domain": labelled, "labelFlush": True, "labelOverlap": True},
    }


def specification(history: History, begin: float, end: float, width: int) -> dict[str, Any]:
    plot = width - LABELS_WIDTH - 10
    pixel = (end - begin) / plot
    side = {"title": None, "minExtent": LABELS_WIDTH, "maxExtent": LABELS_WIDTH, "domain": False, "ticks": False, "labelPadding": 8}
    tones = {"color": {"field": "tone", "type": "nominal", "scale": None, "legend": None}}
    across = {"x": time_axis(begin, end, plot, True), "x2": {"field": "to"}}
    lane = {"y": {"field": "lane", "type": "nominal", "sort": None, "axis": side, "scale": {"domain": ["Eras", "Outages", "Watched"]}}}
    drawn: list[dict[str, Any]] = [
        {
            "width": plot,
            "height": {"step": 24},
            "data": {"values": lanes(history, begin, end, pixel)},
            "encoding": lane,
            "layer": [
                {"mark": {"type": "bar", "height": {"band": 0.75}}, "encoding": across | tones},
                {
                    "mark": {"type": "text", "align": "left", "dx": 5, "fontSize": 11, "color": "var(--on-era)"},
                    "encoding": {"x": across["x"], "text": {"field": "label"}},
                },
            ],
        }
    ]
    if landed := bars(history.landed, begin, end, pixel):
        amounts = side | {"tickCount": 3, "labelExpr": BYTES_LABEL}
        drawn.insert(
            0,
            {
                "width": plot,
                "height": 84,
                "data": {"values": landed},
                "mark": {"type": "rect", "color": "var(--accent)"},
                "encoding": {
                    "x": time_axis(begin, end, plot, False),
                    "x2": {"field": "to"},
                    "y": {"field": "bytes", "type": "quantitative", "axis": amounts},
                    "y2": {"datum": 0},
                },
            },
        )
    return {"config": CONFIG, "padding": {"left": 0, "top": 6, "right": 10, "bottom": 2}, "vconcat": drawn}


def timeline(history: History, now: float) -> dict[int, str]:
    """An SVG for each width; none where the log tells of no time at all."""
    if history.first is None or history.last is None:
        return {}
    end = max(history.last, now) if history.is_watched else history.last
    end = max(end, history.first + 1.0)
    return {
        width: vl_convert.vegalite_to_svg(specification(history, history.first, end, width), show_warnings=False) for width in WIDTHS
    }
