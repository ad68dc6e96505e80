"""The plots of fleets: how many clients are in step when, what a herd asks, what a rotation leaves to the origin."""

from __future__ import annotations

import math
from collections.abc import Callable
from pathlib import Path
from typing import Any

from matplotlib import pyplot  # type: ignore[import-not-found]

Measured = dict[str, Any]
Save = Callable[[Any, Path], None]
WAYS = {"one server": "--", "caches in front": "-"}
COLOURS = ("#c9b458", "#7fa650", "#1f5fa8", "#7b3f8c")


def followers(measured: Measured, path: Path, save: Save) -> None:
    """Real clients as dots, simulated ones as a line."""
    figure, panels = pyplot.subplots(ncols=2, figsize=(10, 3.6), layout="constrained", sharey=True)
    for axes, name in zip(panels, ("new version", "new era"), strict=True):
        for seconds in measured["seen"][name]["in_step"]:
            axes.plot(sorted(seconds), shares(len(seconds)), ".", color=COLOURS[0], markersize=4)
        [simulated, *_] = measured["seen"][f"{name}, simulated"]["in_step"]
        axes.plot(simulated, shares(len(simulated)), color=COLOURS[2])
        axes.plot([], [], ".", color=COLOURS[0], label=f"{len(simulated)} real clients")
        axes.plot([], [], color=COLOURS[2], label="as many simulated ones")
        dress(axes, f"a {name}: seconds since it was published", "clients in step")
        axes.set_xlim(left=0)
        axes.legend()
    save(figure, path)


def in_step(measured: Measured, path: Path, save: Save) -> None:
    """One panel for each polling interval, one colour for each size."""
    seen = measured["seen"]
    intervals = list(dict.fromkeys(name.split(", ")[1] for name in seen))
    sizes = list(dict.fromkeys(name.split(", ")[0] for name in seen))
    figure, panels = pyplot.subplots(ncols=len(intervals), figsize=(11, 4.6), layout="constrained", sharey=True, sharex=True)
    for axes, interval in zip(panels, intervals, strict=True):
        for colour, size in zip(COLOURS, sizes, strict=True):
            for way, style in WAYS.items():
                [curve] = seen[f"{size}, {interval}, {way}"]["curve"]
                points = [(moment, share) for moment, share in zip(curve, shares(len(curve)), strict=True) if math.isfinite(moment)]
                label = f"{int(size.split()[0]):,} clients, {way}"
                axes.plot(*zip(*points, strict=True) if points else ([], []), style, color=colour, label=label)
        dress(axes, f"seconds since the publication, polls every {interval}", "clients in step")
        axes.set_xscale("log")
        axes.xaxis.set_major_formatter("{x:,.0f}")
    figure.legend(*panels[0].get_legend_handles_labels(), loc="outside lower center", ncols=len(sizes), fontsize=8)
    figure.suptitle(measured["title"], fontsize=10)
    save(figure, path)


def herd(measured: Measured, path: Path, save: Save) -> None:
    """Requests in each second, one panel for each fleet."""
    seen = measured["seen"]
    figure, panels = pyplot.subplots(nrows=math.ceil(len(seen) / 2), ncols=2, figsize=(11, 6), layout="constrained", sharex=True, sharey=True)
    for axes, (name, figures) in zip(panels.flat, seen.items(), strict=False):
        [seconds] = figures["every_second"]
        axes.stairs(seconds, fill=True, color=COLOURS[2])
        axes.set_title(f"{name}: peak over mean {figures['peak_over_mean'][0]:.1f}", fontsize=9)
        dress(axes, "", "requests in a second")
        axes.yaxis.set_major_formatter("{x:,.0f}")
        axes.set_xlim(0, 70)
    for axes in panels[-1]:
        axes.set_xlabel("seconds since the publication")
    save(figure, path)


def rotation(measured: Measured, path: Path, save: Save) -> None:
    """What the origin serves, by the size of the caches; and when clients that began together rotate."""
    figure, (left, right) = pyplot.subplots(ncols=2, figsize=(11, 5), layout="constrained")
    curves: dict[tuple[str, str], list[tuple[int, float]]] = {}
    for name, figures in measured["seen"].items():
        if "caches for" in name:
            seeds, room, clients = name.split(", ")
            curves.setdefault((seeds, room), []).append((int(clients.split()[0]), figures["origin_share"][0]))
    rooms = list(dict.fromkeys(room for _, room in curves))
    for (seeds, room), points in curves.items():
        style = "-" if seeds == "a seed each" else ":"
        left.plot(*zip(*points, strict=True), style, marker="o", markersize=3, color=COLOURS[rooms.index(room)], label=f"{seeds}, {room}")
    left.set(xscale="log", yscale="log")
    dress(left, "clients", "share of the bytes that the origin serves")
    left.legend(fontsize=7, loc="upper left", bbox_to_anchor=(0, -0.15), ncols=2)
    ways = [name for name in measured["seen"] if name.startswith("rotating: ")]
    for colour, name in zip((COLOURS[0], COLOURS[1], COLOURS[2]), ways, strict=True):
        [hours] = measured["seen"][name]["by_hour"]
        right.plot([hour / 24 for hour in range(len(hours))], hours, color=colour, label=name.removeprefix("rotating: "))
    right.set_yscale("log")
    right.yaxis.set_major_formatter("{x:.1%}")
    dress(right, "days since all began", "clients that rotate in an hour")
    right.legend(fontsize=7, loc="upper left", bbox_to_anchor=(0, -0.15))
    save(figure, path)


def shares(count: int) -> list[float]:
    return [(number + 1) / count for number in range(count)]


def dress(axes: Any, below: str, beside: str) -> None:
    axes.set(xlabel=below, ylabel=beside)
    axes.grid(linewidth=0.3)
    axes.spines[["top", "right"]].set_visible(False)
    if beside == "clients in step":
        axes.yaxis.set_major_formatter("{x:.0%}")
        axes.set_ylim(0, 1.02)


PLOTS = {"followers": followers, "in-step": in_step, "herd": herd, "rotation": rotation}
