"""Makes tables and plots of runs that ./dev bench left.

    ./dev bench draw [RUN.json ...] [--into FOLDER]

Without a name it takes the newest run. Of several, a later one counts where both have a measurement. FOLDER
(build/bench/drawn) gets tables.md and an SVG for each measurement that compares whole processes or profiles one.
"""

from __future__ import annotations

import argparse
import functools
import json
import re
import statistics
import zlib
from collections.abc import Iterator
from pathlib import Path
from typing import Any

import matplotlib  # type: ignore[import-not-found]
from matplotlib import pyplot

from fleet_plots import PLOTS as FLEET_PLOTS
from measure import INTERPRETER

WORK = Path(__file__).resolve().parent.parent / "build" / "bench"
LIBRARY, LIMITS = "brackenfen-sync", ("limit", "statx loop", "simdjson", "nginx")
COLOURS = {"limit": "#9a9a9a", "library": "#1f5fa8", "peer": "#c9b458"}
EXTRAPOLATED_FILES = 1_000_000
Measured = dict[str, Any]


def kind(contender: str) -> str:
    if contender.startswith(LIBRARY):
        return "library"
    return "limit" if contender.startswith(LIMITS) else "peer"


def title(measured: Measured, scale: float) -> str:
    """What was measured, and on how much of its set."""
    return measured["title"] if scale == 1 else f"{measured['title']}, {scale:g} of its files"


def contenders(measured: Measured) -> list[str]:
    return [name for name in measured["seen"] if name != INTERPRETER]


# --- tables ----------------------------------------------------------------------------------------------------------


def told(values: list[float] | None) -> str:
    """A median, and between which values it lies."""
    if not values:
        return ""
    middle = f"{statistics.median(values):.3g}"
    return middle if len(values) == 1 else f"{middle} ({min(values):.3g}–{max(values):.3g})"


def table(measured: Measured) -> Iterator[str]:
    yield f"### {measured['name']}: {measured['title']}\n"
    yield "| | seconds | processor time, s | its own figures |\n|---|---|---|---|"
    for name in contenders(measured):
        figures = measured["seen"][name]
        own = [
            f"{figure} {statistics.median(values):.4g}"
            for figure, values in figures.items()
            if figure not in ("seconds", "cpu_seconds") and isinstance(values[0], (int, float))
        ]
        yield f"| {name} | {told(figures.get('seconds'))} | {told(figures.get('cpu_seconds'))} | {', '.join(own)} |"
    for name, reason in measured["left_out"].items():
        yield f"| {name} | left out, {reason} | | |"
    for name, reason in measured["failed"].items():
        yield f"| {name} | failed: {reason} | | |"
    if measured["checks"]:
        yield "\n| asked | figure | bound | |\n|---|---|---|---|"
    for check in measured["checks"]:
        bound = f"{'≥' if check['at_least'] else '≤'} {check['bound']:.3g} {check['unit']}"
        yield f"| {check['what']} | {check['value']:.3g} {check['unit']} | {bound} | {'met' if check['met'] else 'not met'} |"
    yield ""


# --- plots -----------------------------------------------------------------------------------------------------------


def bars(measured: Measured, path: Path) -> None:
    """Whole processes side by side: medians with their ranges, and within each bar the client's processor time."""
    names = contenders(measured)
    figure, axes = pyplot.subplots(figsize=(8, 0.9 + 0.36 * len(names)), layout="constrained")
    for row, name in enumerate(names):
        seconds, processor = (measured["seen"][name][wanted] for wanted in ("seconds", "cpu_seconds"))
        middle = statistics.median(seconds)
        colour = COLOURS[kind(name)]
        axes.barh(row, middle, color=colour, height=0.7)
        axes.plot([min(seconds), max(seconds)], [row, row], color="black", linewidth=1)
        axes.plot(statistics.median(processor), row, marker="|", color="white", markersize=10, markeredgewidth=2)
        axes.annotate(f" {middle:.2f}", (max(seconds), row), va="center", fontsize=9)
    axes.set_yticks(range(len(names)), names)
    axes.invert_yaxis()
    axes.margins(x=0.1)
    axes.set_xlim(left=0)
    axes.set_xlabel(f"seconds: median of {len(seconds)}; black: from fastest to slowest; white: the client's processor time")
    axes.set_title(measured["title"], fontsize=10)
    axes.spines[["top", "right"]].set_visible(False)
    save(figure, path)


def lines(measured: Measured, path: Path) -> None:
    """How time and memory grow with the number of files, and dashed where they would come to at the pace of the last two."""
    figure, panels = pyplot.subplots(ncols=2, figsize=(12, 4.5), layout="constrained")
    for axes, curves, unit in zip(panels, growing(measured), ("milliseconds", "MiB held"), strict=True):
        for label, points in curves.items():
            [line] = axes.plot(*zip(*points, strict=True), marker="o", label=label, color=COLOURS["limit"] if kind(label) == "limit" else None)
            (fewer, less), (more, last) = points[-2:]
            beyond = last + (last - less) / (more - fewer) * (EXTRAPOLATED_FILES - more)
            axes.plot([more, EXTRAPOLATED_FILES], [last, beyond], linestyle="--", color=line.get_color())
            axes.annotate(f" {beyond:,.0f}", (EXTRAPOLATED_FILES, beyond), va="center", fontsize=8)
        axes.set(xscale="log", yscale="log", xlabel="files", ylabel=unit)
        axes.margins(x=0.12)
        axes.grid(which="both", linewidth=0.3)
        axes.legend()
    figure.suptitle(measured["title"])
    save(figure, path)


def growing(measured: Measured) -> tuple[dict[str, list[tuple[int, float]]], dict[str, list[tuple[int, float]]]]:
    """The curves of milliseconds and those of mebibytes, by their labels: points of files and the figure."""
    times: dict[str, list[tuple[int, float]]] = {}
    sizes: dict[str, list[tuple[int, float]]] = {}
    for contender, figures in measured["seen"].items():
        name, files = contender.removesuffix(" files").rsplit(", ", 1)
        shown = [(times, "statx_ms", name), (times, "call_ms", name), (sizes, "held_mib", name)]
        if not name.endswith("pass"):
            shown.append((times, "construct_ms", f"{LIBRARY}, construction"))
        for curves, wanted, label in shown:
            if wanted in figures:
                curves.setdefault(label, []).append((int(files), statistics.median(figures[wanted])))
    return times, sizes


def flame(measured: Measured, path: Path) -> None:
    """Stacks from the thread inward, each function as wide as its share; wide ones bear their names."""
    [figures] = measured["seen"].values()
    [tree] = figures["tree"]
    figure, axes = pyplot.subplots(figsize=(12, 1 + 0.17 * depth(tree)), layout="constrained")

    def place(node: Measured, left: float, level: int) -> None:
        width = node["samples"] / tree["samples"]
        kernel = node["name"].startswith("kernel: ")
        # The same function has the same colour wherever it stands.
        warmth = zlib.crc32(node["name"].encode()) % 100 / 100
        axes.barh(level, width, left=left, height=0.95, align="edge", color=(pyplot.cm.Greys if kernel else pyplot.cm.YlOrBr)(0.15 + 0.35 * warmth), linewidth=0)
        label = short_name(node["name"])
        if width > 0.012:
            axes.text(left + 0.001, level + 0.5, label[: int(width * 215)], va="center", fontsize=6, clip_on=True)
        for below in sorted(node["below"], key=lambda one: str(one["name"])):
            place(below, left, level + 1)
            left += below["samples"] / tree["samples"]

    place(tree, 0, 0)
    axes.set(xlim=(0, 1), yticks=[], title=f"{measured['title']}: {tree['samples']} samples")
    axes.xaxis.set_major_formatter("{x:.0%}")
    axes.invert_yaxis()
    axes.spines[["top", "right", "left"]].set_visible(False)
    save(figure, path)


def depth(node: Measured) -> int:
    return 1 + max((depth(below) for below in node["below"]), default=0)


def short_name(function: str) -> str:
    """Without what every name has in common, without arguments of templates."""
    name = re.sub(r"\(anonymous namespace\)::|brackenfen::sync::|\{lambda\([^)]*\)#\d+\}::", "", function)
    while (shorter := re.sub(r"<[^<>]*>", "", name)) != name:
        name = shorter
    return name


def save(figure: Any, path: Path) -> None:
    figure.savefig(path, metadata={"Date": None})
    pyplot.close(figure)


plots = {"processes": bars, "growth": lines, "flame": flame}
plots |= {name: functools.partial(plot, save=save) for name, plot in FLEET_PLOTS.items()}


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("runs", nargs="*", type=Path, metavar="RUN.json")
    parser.add_argument("--into", type=Path, default=WORK / "drawn", metavar="FOLDER")
    options = parser.parse_args()
    paths = options.runs or sorted(WORK.glob("run-*.json"))[-1:]
    if not paths:
        raise SystemExit("there is no run: ./dev bench makes one")
    runs = [json.loads(path.read_text()) for path in paths]
    measurements = {measured["name"]: measured | {"title": title(measured, run["scale"])} for run in runs for measured in run["measurements"]}

    matplotlib.use("svg")
    # The same run gives the same bytes, and text stays text.
    matplotlib.rcParams.update({"svg.hashsalt": "brackenfen", "svg.fonttype": "none", "font.size": 9})
    options.into.mkdir(parents=True, exist_ok=True)
    text = []
    for run in runs:
        machine = ", ".join(f"{what} {value}" for what, value in run["machine"].items())
        text.append(f"{run['rounds']} rounds, {run['scale']:g} of each set's files. {machine}.\n")
    for name, measured in measurements.items():
        if measured["plot"] != "flame":
            text.extend(table(measured))
        if measured["plot"] and measured["seen"]:
            plots[measured["plot"]](measured, options.into / f"{name}.svg")
    (options.into / "tables.md").write_text("\n".join(text))
    print(f"{options.into}: tables.md, and plots where processes are compared or profiled")


if __name__ == "__main__":
    main()
