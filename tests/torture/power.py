"""Power losses: what a disk holds of a pass in the middle, when only some of what was written has come down to it."""

import functools
import os
import pathlib
import random
import shutil
import subprocess
import threading
import time
from collections.abc import Iterator
from typing import Any

from torture.case import Case, scratch
from torture.hostile_case import OPERATIONS, arena, assert_whole, template
from torture.hostile_client import Client
from torture.hostile_server import PLACES, TOKEN, Exchange, Server, World, entry

MODES = {"ext4": "commit=1", "no-flush-at-rename": "commit=1,noauto_da_alloc", "writeback": "commit=1,noauto_da_alloc,data=writeback"}
IMAGES = 6  # of each pass


def command(*words: object) -> None:
    done = subprocess.run([str(word) for word in words], capture_output=True, text=True)
    assert done.returncode == 0, f"{words}: {done.stderr}"


class Mounted:
    def __init__(self, image: pathlib.Path, at: pathlib.Path, options: str) -> None:
        self.at = at
        at.mkdir(exist_ok=True)
        command("mount", "-o", f"loop,{options}", image, at)

    def __enter__(self) -> pathlib.Path:
        return self.at

    def __exit__(self, *_: object) -> None:
        for _try in range(50):
            if subprocess.run(["umount", str(self.at)], capture_output=True).returncode == 0:
                return
            time.sleep(0.1)
        raise AssertionError(f"{self.at} stays mounted")


def published(world: World) -> World:
    for number in range(24):
        path, body = f"features/us/signal_is/more{number}.arrow", os.urandom(5000 + 700 * number)
        world.files[path], world.entries[path] = body, entry(body, "feature")
    return world


def run(mode: str, seed: int) -> str:
    """Images of the disk, taken while a pass runs and parts of it are written down; each is mounted, started on and healed."""
    draw, server = random.Random(seed), Server()
    over = threading.Event()
    with scratch() as folder:
        image = folder / "image"
        images: list[pathlib.Path] = []
        with image.open("wb") as file:
            file.truncate(24 << 20)
        command("mkfs.ext4", "-q", "-F", image)
        with Mounted(image, folder / "disk", MODES[mode]) as disk:
            data = disk / "data"
            shutil.copytree(arena.templates[template("old")], data)
            command("sync", "-f", disk)
            world = server.world = published(World(7, 2))

            def slowly(exchange: Exchange) -> None:
                time.sleep(draw.random() * 0.02)
                exchange.send(*exchange.healthy())

            for path in [*PLACES.values(), *(f"/data/files/{path}" for path in world.files)]:
                server.attacks[path] = (slowly, 1e9)

            def take() -> None:
                while not over.is_set() and len(images) < IMAGES:
                    time.sleep(draw.random() * 0.06)
                    if draw.random() < 0.5:
                        with open(disk / "other", "wb") as other:  # commits the journal, and nothing of others' bytes
                            other.write(b"x")
                            os.fsync(other.fileno())
                    elif draw.random() < 0.5:
                        command("sync", "-f", disk)
                    images.append(folder / f"image{len(images)}")
                    command("cp", "--sparse=always", image, images[-1])

            taker = threading.Thread(target=take)
            client = Client(folder, is_jailed=False)
            variables: dict[str, Any] = dict(url=server.url, token=TOKEN)
            client.run("result = sync.__version__")
            taker.start()
            report = client.run(OPERATIONS["sync"], directory=str(data), **variables)
            time.sleep(0.1 * draw.random())
            over.set()
            taker.join()
            client.end()
            assert not report.error, report.error
        server.heal()
        emptied = 0
        for each in images:
            with Mounted(each, folder / "after", MODES[mode]) as disk:
                data = disk / "data"
                emptied += any(path.stat().st_size == 0 for path in data.rglob("*") if path.is_file() and not path.name.endswith((".tmp", ".sync_flock")))
                client = Client(folder, is_jailed=False)
                for _ in range(2):
                    report = client.run(OPERATIONS["sync"], directory=str(data), **variables)
                    assert not report.error, f"a start after the loss: {report.error}"
                client.end()
                assert_whole(data, world)
            each.unlink()
    server.close()
    return f"{mode} {seed}: {len(images)} images, {emptied} with files of no length"


def why_not() -> str:
    """Why this machine cannot have it, or nothing."""
    if os.geteuid() != 0 or shutil.which("mkfs.ext4") is None:
        return "left out: it takes root and mkfs.ext4"
    with scratch() as folder:
        try:
            with (folder / "image").open("wb") as file:
                file.truncate(4 << 20)
            command("mkfs.ext4", "-q", "-F", folder / "image")
            with Mounted(folder / "image", folder / "disk", "commit=1"):
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
