"""Four processes with two managers each on one directory, at work in every way at once; the server changes version and era,
and a nemesis kills, stops and cuts the network. Shared memory counts who holds the directory.
"""

import functools
import random
import signal
import struct
import subprocess
import threading
import time
from collections.abc import Iterable

from torture.case import SANITIZED, Case
from torture.workloads import DEADLINE_SECONDS, FIRST, SPOILT, Trial, Workload, trial
from torture.world import DATA, World, digest, world

PROCESSES = 4
ERA_SECONDS, VERSION_SECONDS = 10.0, 0.5
PAUSE_SECONDS = 2.0 if SANITIZED else 0.2  # at most, between two blows; a slow program must come to its work


def world_after(draw: random.Random, before: World, new_era: bool) -> World:
    """Two files change, and sometimes one is gone."""
    changed = {path: draw.randrange(1, 1000) for path in draw.sample(DATA, 2)}
    if draw.random() < 0.3:
        changed[draw.choice(DATA[3:])] = -1
    return world(before.era + new_era, before.version + 1, changed)


class Round:
    def __init__(self, trial: Trial, seed: int, seconds: float) -> None:
        self.trial, self.draw = trial, random.Random(seed)
        self.end = time.monotonic() + seconds
        self.kills = 0
        (trial.folder / "shared").write_bytes(bytes(32))
        self.running = [self.start() for _ in range(PROCESSES)]

    def start(self) -> subprocess.Popen[bytes]:
        command = ("soak", str(int(self.end * 1e9)), str(self.draw.randrange(10**6)))
        return self.trial.start_host("fault", command, {"FAULT_SHARED": f"{self.trial.folder}/shared"})

    def publish(self) -> None:
        site, draw = self.trial.site, random.Random(self.draw.random())
        era_until = time.monotonic() + ERA_SECONDS
        while time.monotonic() < self.end - 1:
            time.sleep(VERSION_SECONDS)
            new_era = time.monotonic() > era_until
            era_until += ERA_SECONDS if new_era else 0
            site.published.append(world_after(draw, site.published[-1], new_era))

    def strike(self) -> None:
        """One blow of the nemesis."""
        index = self.draw.randrange(PROCESSES)
        blow = self.draw.random()
        if blow < 0.7:
            self.running[index].kill()
            self.running[index].wait()
            self.running[index] = self.start()
            self.kills += 1
        elif blow < 0.85:
            self.running[index].send_signal(signal.SIGSTOP)
            time.sleep(self.draw.uniform(0, 0.5))
            self.running[index].send_signal(signal.SIGCONT)
        elif blow < 0.95:
            (self.trial.data / self.draw.choice(DATA[:3])).write_bytes(SPOILT)
        else:
            self.trial.site.cut = True
            time.sleep(self.draw.uniform(0, 0.5))
            self.trial.site.cut = False
        time.sleep(self.draw.uniform(0, PAUSE_SECONDS))

    def run(self) -> str:
        publisher = threading.Thread(target=self.publish)
        publisher.start()
        try:
            while time.monotonic() < self.end - 2:
                self.strike()
            codes = [process.wait(DEADLINE_SECONDS) for process in self.running]
        finally:
            publisher.join()
            for process in self.running:
                process.kill()
                process.wait()
        assert codes == [0] * PROCESSES, f"exit codes {codes}" + self.trial.told("fault")
        _, holds, overlaps, unlocked = struct.unpack("4q", (self.trial.folder / "shared").read_bytes())
        points = self.trial.folder / "fault/points"
        loose = points.read_text() if points.exists() else ""
        assert (overlaps, unlocked) == (0, 0) and holds > 0, f"{holds} holds, {overlaps} overlaps, {unlocked} changes without the lock\n{loose[:3000]}"
        return f"{self.kills} kills, {holds} holds of the directory, never two at once"


def soak(seed: int, seconds: float) -> str:
    with trial(Workload("soak", FIRST, (FIRST,), ("soak",))) as made:
        made.spoilt, made.processes = [digest(SPOILT)], PROCESSES
        told = Round(made, seed, seconds).run()
        last = made.site.published[-1]
        made.site.published.append(world(last.era, last.version + 1))  # so that the healthy pass looks at every file
        made.heal()
        return told


def cases(long: bool) -> Iterable[Case]:
    for seed in range(15 if long else 1):
        yield Case(f"seed={seed} seconds=20", functools.partial(soak, seed, 20), alone=True)
