"""Power losses: what a disk holds of a pass in the middle, when only some of what was written has come down to it."""

import contextlib
import functools
import os
import pathlib
import random
import shutil
import subprocess
import threading
import time
from collections.abc import Iterator

from torture.case import Case, scratch
from torture.checker import Checker
from torture.workloads import FIRST, PARALLEL, Trial, Workload, generations, trial
from torture.world import world

MODES = {"ext4": "commit=1", "no-flush-at-rename": "commit=1,noauto_da_alloc", "writeback": "commit=1,noauto_da_alloc,data=writeback"}
IMAGES = 6  # of each pass
MANY = world(1, 2, generations(mandatory=1, pnl=1, calendar=1) | {f"data/more{number}.arrow": 0 for number in range(24)})
PASS = Workload("power", FIRST, (MANY,), ("pass",))


def command(*words: object) -> None:
    done = subprocess.run([str(word) for word in words], capture_output=True, text=True)
    assert done.returncode == 0, f"{words}: {done.stderr}"


def disk(image: pathlib.Path, content: pathlib.Path) -> None:
    with image.open("wb") as file:
        file.truncate(24 << 20)
    command("mkfs.ext4", "-q", "-F", "-d", content, image)


@contextlib.contextmanager
def mounted(image: pathlib.Path, at: pathlib.Path, options: str) -> Iterator[None]:
    command("mount", "-o", f"loop,{options}", image, at)
    try:
        yield
    finally:
        command("umount", at)


def images_of_a_pass(made: Trial, mode: str, draw: random.Random) -> list[pathlib.Path]:
    """The disk at moments of a pass, while parts of what it writes come down to it."""
    image, over = made.folder / "fault/image", threading.Event()
    images: list[pathlib.Path] = []

    def take() -> None:
        while not over.is_set() and len(images) < IMAGES:
            time.sleep(draw.random() * 0.06)
            if draw.random() < 0.5:
                with open(made.data / "other.tmp", "wb") as other:  # commits the journal, and nothing of others' bytes
                    other.write(b"x")
                    os.fsync(other.fileno())
            elif draw.random() < 0.5:
                command("sync", "-f", made.data)
            images.append(image.with_name(f"image{len(images)}"))
            command("cp", "--sparse=always", image, images[-1])

    disk(image, made.data)
    made.site.at_request = lambda *_: time.sleep(draw.random() * 0.02)
    with mounted(image, made.data, MODES[mode]):
        taker = threading.Thread(target=take)
        taker.start()
        outcome = made.fault(PARALLEL)
        over.set()
        taker.join()
    assert outcome.code == 0, made.told("fault")
    return images


def run(mode: str, seed: int) -> str:
    """Each image is mounted, started on and healed."""
    with trial(PASS) as made:
        images, emptied = images_of_a_pass(made, mode, random.Random(seed)), 0
        made.site.settle()
        made.note()
        for image in images:
            with mounted(image, made.data, MODES[mode]):
                written = [path for path in made.data.rglob("*") if path.is_file() and not path.name.endswith((".tmp", ".sync_flock"))]
                emptied += any(path.stat().st_size == 0 for path in written)
                Checker(made.folder, "fault").hold()
                for _ in range(2):
                    started = made.run_host("heal", ("pass",), {})
                    assert started.code == 0, "a start after the loss" + made.told("heal")
                made.check("heal")
        return f"{mode} {seed}: {len(images)} images, {emptied} with files of no length"


def why_not() -> str:
    """Why this machine cannot have it, or nothing."""
    if os.geteuid() != 0 or shutil.which("mkfs.ext4") is None:
        return "left out: it takes root and mkfs.ext4"
    with scratch() as folder:
        (folder / "disk").mkdir()
        try:
            disk(folder / "image", folder / "disk")
            with mounted(folder / "image", folder / "disk", "commit=1"):
                return ""
        except AssertionError as error:
            return f"left out, as this machine mounts no image: {error}"


def cases(long: bool) -> Iterator[Case]:
    reason = why_not()
    if reason:
        yield Case("left out", lambda: reason)
        return
    for mode in MODES:
        for seed in range(12 if long else 1):
            yield Case(f"{mode} {seed}", functools.partial(run, mode, seed), alone=True)
