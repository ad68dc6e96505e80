"""Where the time of one process goes: perf samples its stacks, and a tree of them is what the plot shows."""

from __future__ import annotations

import os
import re
import shutil
import subprocess
from collections.abc import Callable, Iterable, Iterator, Sequence
from pathlib import Path
from typing import Any

import fetch
import servers
from fetch import LIBRARY
from measure import Contender, Ground, Samples
from servers import NotPossibleHere
from sets import SETS, publish
from unchanged import checking, up_to_date

SAMPLES_PER_SECOND = 997
STACK_BYTES = 16_384  # of each sample, for the unwinding
FIRST_KERNEL_ADDRESS = 1 << 63
NOT_TOLD = re.compile(r"\[unknown\]|std::|clone3|start_thread|_start$|__libc_start")
INTERPRETER = re.compile(r"_?Py|pymain|run_|object_vacall|cfunction_|builtin_|_imp_|method_|slot_|type_|nanobind::detail::nb_func")
LEAST_SHARE = 0.002  # of all samples; what is less is not drawn
Node = dict[str, Any]  # name, samples (its own and those below), below: a list of nodes


def fetching(name: str) -> Callable[[Ground], Samples]:
    def measure(ground: Ground) -> Samples:
        published = publish(ground, SETS[name])
        with servers.plain(ground, published.tree) as place:
            return profile(ground, fetch.library(ground, published, place)[0])

    return measure


def nothing_to_do(ground: Ground) -> Samples:
    published = publish(ground, SETS["N"])
    with servers.plain(ground, published.tree) as place:
        directory = up_to_date(ground, published, place.url)
        return profile(ground, checking(ground, LIBRARY, "sync", place.url, directory))


def profile(ground: Ground, contender: Contender) -> Samples:
    if shutil.which("perf") is None:
        raise NotPossibleHere("not installed: perf")
    recording = ground.landing / "perf.data"
    call_graph = f"--call-graph=dwarf,{STACK_BYTES}"
    command = ["perf", "record", "--quiet", f"--freq={SAMPLES_PER_SECOND}", call_graph, f"--output={recording}", "--"]
    contender.before()
    recorded = subprocess.run(
        [*command, *map(str, contender.command)],
        env={**os.environ, **contender.environment},
        stdout=subprocess.DEVNULL,
        stderr=subprocess.PIPE,
        text=True,
    )
    if recorded.returncode != 0:
        raise NotPossibleHere(f"perf: {recorded.stderr.strip()}")
    contender.check()
    tree: Node = {"name": contender.name, "samples": 0, "below": []}
    for stack in stacks(recording):
        grow(tree, stack)
    recording.unlink()
    prune(tree, LEAST_SHARE * tree["samples"])
    samples = Samples()
    samples.add(contender.name, {"samples": tree["samples"], "tree": tree})
    return samples


def stacks(recording: Path) -> Iterator[Sequence[str]]:
    """Each sample's functions from the thread inward. `perf script` prints a thread's name, its frames from the inside, and a blank line."""
    command = ["perf", "script", f"--input={recording}", "--fields=comm,ip,sym", "--no-inline"]
    text = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, check=True).stdout
    for block in text.strip().split("\n\n"):
        thread, *frames = block.strip().splitlines()
        yield [re.sub(r"_\d+$", "", thread.strip()), *functions(reversed(frames))]


def functions(frames: Iterable[str]) -> Iterator[str]:
    """From the outside inward: of the kernel only what was asked of it, of the interpreter only that it was in between, and
    nothing of what only calls another."""
    before = ""
    for frame in frames:
        address, name = frame.split(maxsplit=1)
        if int(address, 16) >= FIRST_KERNEL_ADDRESS:
            if asked := re.match(r"asm_(?:exc_)?(\w+)|__x64_sys_(\w+)", name):
                yield f"kernel: {asked[1] or asked[2]}"
                return
        elif not NOT_TOLD.match(name):
            told = "the interpreter" if INTERPRETER.match(name) else name
            if told != before:
                yield told
            before = told


def grow(node: Node, stack: Sequence[str]) -> None:
    node["samples"] += 1
    for frame in stack:
        found: Node | None = next((below for below in node["below"] if below["name"] == frame), None)
        if found is None:
            found = {"name": frame, "samples": 0, "below": []}
            node["below"].append(found)
        node = found
        node["samples"] += 1


def prune(node: Node, least: float) -> None:
    node["below"] = [below for below in node["below"] if below["samples"] >= least]
    for below in node["below"]:
        prune(below, least)
