"""Fleets that are larger than a machine can hold, simulated: what a new version, a new era and the rotation ask of a server.

One path serves every size: a *cohort* is a number of clients that do the same at the same moment, one client where the fleet is no
larger than COHORTS. Cohorts walk through the requests of a client one after the other (bench/followers.py measures that real ones
do) and wait for two things of a site that others want too: its processors, and its line. What an answer costs of either is measured.
Small answers do not wait for the line, where they would be packets among many; larger ones wait their turn as whole files.

What it leaves out: lost packets, clients that start or end meanwhile, and the small shifts that keep polls from staying in step
for ever. A request that times out here has cost the server nothing, so an overloaded site does better here than it would.
"""

from __future__ import annotations

import math
import random
from collections import Counter, OrderedDict
from collections.abc import Callable, Generator, Iterator
from dataclasses import dataclass, field
from typing import Any

import simpy

COHORTS = 300
WORKERS = 8  # files of a pass that are fetched at once
STEPS = 40  # into which a cohort's files are divided at most
FIRST_FLIGHT_BYTES = 14_600  # what a new connection sends before it hears from the other end
DOCUMENT_SECONDS = 30.0  # after which a request is given up
POLL_TIMEOUT_SECONDS = 5.0
WEEK_HOURS = 168
Steps = Generator[simpy.Event, Any, None]


# --- what there is ---------------------------------------------------------------------------------------------------


@dataclass(frozen=True)
class Costs:
    """Measured: what an answer over TLS takes, on a new connection that resumes a session unless something else is said."""

    answer_s: float  # processor time
    kept_answer_s: float  # on a connection that is there
    byte_s: float  # processor time of each byte of a body
    overhead_bytes: float  # sent beside a body: headers, TLS, TCP, IP
    request_bytes: float = 0  # received, likewise


@dataclass(frozen=True)
class Site:
    """Servers that share the load evenly."""

    servers: int = 1
    cores: float = 4
    line_bits_per_s: float = 10e9


@dataclass(frozen=True)
class Publication:
    """What there is to fetch. An era asks the server before each file that a client holds, changed or not."""

    new_files: int = 40
    changed_files: int = 0  # within an era they come one pass later
    file_bytes: int = 250_000
    held_files: int = 2_000
    manifest_bytes_per_file: int = 190
    is_era: bool = False

    @property
    def manifest_bytes(self) -> int:
        return (self.held_files + self.new_files) * self.manifest_bytes_per_file


@dataclass(frozen=True)
class Fleet:
    clients: int
    poll_s: float = 5.0
    poll_variation: float = 0.0  # a client's own interval differs from it by up to this share
    started_within_s: float | None = None  # all polls fall into this part of an interval; None: into all of it
    started_ago_s: float = 3600.0  # how long before the publication
    share: float = 1.0  # of the features that a client holds, chosen by a seed of its own
    workers: int = WORKERS
    keeps_connections: bool = False  # from file to file of a pass
    round_trip_s: float = 0.02
    line_bits_per_s: float = 100e6  # of each client


@dataclass
class Traffic:
    """What was asked of a site."""

    requests: int = 0
    bytes_sent: float = 0
    given_up: int = 0
    by_second: Counter[int] = field(default_factory=Counter)
    waiting: int = 0
    most_waiting: int = 0


# --- servers ---------------------------------------------------------------------------------------------------------


class Server:
    """A site's processors and its line. Requests wait their turn for the one, then for the other."""

    def __init__(self, env: simpy.Environment, site: Site, costs: Costs) -> None:
        self.env, self.costs, self.traffic = env, costs, Traffic()
        self.cores = site.servers * site.cores
        self.line_bytes_per_s = site.servers * site.line_bits_per_s / 8
        self.processors, self.line = simpy.Resource(env), simpy.Resource(env)

    def answer(self, requests: int, body: float, limit: float, turns: float, backoff: random.Random, kept: bool = False) -> Steps:
        """So many equal requests, of so many bytes each. What is not answered in time is asked again after a wait.

        Clients make theirs one after the other, in so many turns, and have as much time for each.
        """
        at_once = round(requests / turns)
        sent = requests * (body + self.costs.overhead_bytes)
        spent = requests * ((self.costs.kept_answer_s if kept else self.costs.answer_s) + body * self.costs.byte_s) / self.cores
        stages = [(self.processors, spent)]
        if body > FIRST_FLIGHT_BYTES:
            stages.append((self.line, sent / self.line_bytes_per_s))
        traffic = self.traffic
        traffic.by_second[int(self.env.now)] += at_once
        traffic.waiting += at_once
        traffic.most_waiting = max(traffic.most_waiting, traffic.waiting)
        for resource, seconds in stages:
            attempt = 0
            while True:
                with resource.request() as turn:
                    yield turn | self.env.timeout(limit * turns)
                    if turn.triggered:
                        yield self.env.timeout(seconds)
                        break
                traffic.given_up += at_once
                yield self.env.timeout(min(30.0, 0.5 * 2**attempt) * backoff.uniform(0.8, 1.2))
                traffic.by_second[int(self.env.now)] += at_once
                attempt += 1
        traffic.by_second[int(self.env.now)] += requests - at_once
        traffic.waiting -= at_once
        traffic.requests += requests
        traffic.bytes_sent += sent


class Cache:
    """What lies in front of an origin: of those who ask for what it has not, one reaches the origin and the rest wait for its answer."""

    def __init__(self, fresh_s: float = 1.0) -> None:
        self.fresh_s = fresh_s  # how long a document is given out; files stay
        self.until: dict[str, float] = {}
        self.coming: dict[str, simpy.Event] = {}

    def has(self, key: str, now: float) -> bool:
        return self.until.get(key, -1.0) >= now


class Kept:
    """The files that a cache of limited size has: it drops the one that was asked for longest ago."""

    def __init__(self, files: float) -> None:
        self.files, self.held = files, OrderedDict[int, None]()

    def ask(self, file: int) -> bool:
        """Whether it had it."""
        had = file in self.held
        self.held[file] = None
        self.held.move_to_end(file)
        if len(self.held) > self.files:
            self.held.popitem(last=False)
        return had


# --- clients ---------------------------------------------------------------------------------------------------------


@dataclass
class Outcome:
    clients: int
    poll_s: float
    in_step: list[tuple[float, int]] = field(default_factory=list)  # moments, and how many clients then came into step
    origin: Traffic = field(default_factory=Traffic)
    front: Traffic = field(default_factory=Traffic)  # what the clients asked; the origin's own where there is no cache
    fetched_bytes: float = 0  # of files, by the clients

    def seconds_until(self, share: float) -> float:
        """Until this share of all clients was in step; infinite where it never was."""
        wanted = share * self.clients
        seen = 0
        for moment, count in sorted(self.in_step):
            seen += count
            if seen >= wanted:
                return moment
        return math.inf

    def peak_over_mean(self) -> float:
        """Of the requests in a second, between the publication and the moment when 99 % are in step, an interval at least."""
        by_second = self.front.by_second
        seconds = min(max(self.seconds_until(0.99), self.poll_s), max(by_second) + 1)
        asked = [count for second, count in by_second.items() if second < seconds]
        return max(asked) * seconds / sum(asked)


class Simulation:
    def __init__(self, fleet: Fleet, publication: Publication, origin: Site, costs: Costs, front: Site | None, fresh_s: float = 1.0) -> None:
        self.fleet, self.publication, self.costs = fleet, publication, costs
        self.draw = random.Random(1)
        self.env = simpy.Environment()
        self.origin = Server(self.env, origin, costs)
        self.cache = Cache(fresh_s) if front else None
        self.visible_s = fresh_s if front else 0.0  # until then a cache may tell of the version before
        self.front = Server(self.env, front, costs) if front else self.origin
        self.outcome = Outcome(fleet.clients, fleet.poll_s, origin=self.origin.traffic, front=self.front.traffic)

    def run(self, horizon_s: float) -> Outcome:
        sizes = list(parts(self.fleet.clients, COHORTS))
        cohorts = [self.env.process(self.cohort((number + 0.5) / len(sizes), size)) for number, size in enumerate(sizes)]
        self.env.run(until=self.env.all_of(cohorts) | self.env.timeout(horizon_s))
        return self.outcome

    def first_poll(self, place: float, interval: float) -> float:
        """The seconds from the publication to a cohort's first poll after it."""
        fleet = self.fleet
        within = interval if fleet.started_within_s is None else fleet.started_within_s
        return (place * within - fleet.started_ago_s) % interval

    def cohort(self, place: float, clients: int) -> Steps:
        fleet = self.fleet
        interval = fleet.poll_s * (1 + self.draw.uniform(-1, 1) * fleet.poll_variation)
        yield self.env.timeout(self.first_poll(place, interval))
        yield from self.documents("poll", 2, 0, clients)
        while self.env.now < self.visible_s:
            yield self.env.timeout(interval)
            yield from self.documents("poll", 2, 0, clients)
        if self.publication.is_era:
            yield from self.era(clients)
        else:
            yield from self.version(clients, self.publication.new_files)
            if self.publication.changed_files:
                yield self.env.timeout(interval)
                yield from self.documents("poll", 2, 0, clients)
                yield from self.version(clients, self.publication.changed_files, kind="changed")
        self.outcome.in_step.append((self.env.now, clients))
        while sum(count for _, count in self.outcome.in_step) < fleet.clients:
            yield self.env.timeout(interval)
            yield from self.documents("poll", 2, 0, clients)

    def version(self, clients: int, files: int, kind: str = "new") -> Steps:
        yield from self.documents("version", 1, 0, clients)
        yield from self.documents("manifest", 1, self.publication.manifest_bytes, clients)
        yield from self.files(kind, files, clients, at_once=self.fleet.workers)

    def era(self, clients: int) -> Steps:
        publication = self.publication
        yield from self.documents("era", 2, 0, clients)
        yield from self.documents("manifest", 1, publication.manifest_bytes, clients)
        yield from self.files("new", publication.new_files, clients, at_once=1)
        unchanged = publication.held_files - publication.new_files
        for part in parts(unchanged, STEPS):
            yield from self.documents("era", part, 0, clients)
        yield from self.documents("vocabularies and seed", 3, 0, clients)
        yield from self.documents("era", 3, 0, clients)

    def documents(self, key: str, requests: int, body: int, clients: int) -> Steps:
        """One after the other by each client."""
        yield self.env.timeout(requests * self.waits(body))
        limit = POLL_TIMEOUT_SECONDS if key in ("poll", "version") else DOCUMENT_SECONDS
        yield from self.through(key, requests * clients, body, self.patient(limit, requests), turns=requests, ages=True)

    def files(self, kind: str, count: int, clients: int, at_once: int) -> Steps:
        """The new files of a client's selection, some at once; a transition asks for the era before each."""
        body = self.publication.file_bytes
        first = 0
        for part in parts(count, max(1, min(STEPS, math.ceil(count / at_once)))):
            kept = self.fleet.keeps_connections and not self.publication.is_era and first > 0
            wanted = {number: self.wanting(number, clients) for number in range(first, first + part)}
            first += part
            requests = sum(wanted.values())
            if not requests:
                continue
            mine = requests / clients  # files that each of them fetches now
            rounds = mine / at_once if at_once == 1 else math.ceil(mine / at_once)
            line = mine * body / (self.fleet.line_bits_per_s / 8)
            yield self.env.timeout(max(rounds * self.waits(body, kept), line))
            if self.publication.is_era:
                yield from self.documents("era", round(mine) or 1, 0, clients)
            if self.cache is None:
                turns = max(1, mine / at_once)
                yield from self.front.answer(requests, body, self.patient(DOCUMENT_SECONDS, turns), turns, self.draw, kept)
            else:
                for number, clients_wanting in wanted.items():
                    if clients_wanting:
                        yield from self.through(f"{kind} {number}", clients_wanting, body, self.patient(DOCUMENT_SECONDS, 1), turns=1, ages=False, kept=kept)
            self.outcome.fetched_bytes += requests * body

    def patient(self, limit: float, turns: float) -> float:
        """The limit of one of so many turns. In an era what stands before a request are the many turns of others, of which in
        truth each would let it pass after one."""
        longest = self.publication.held_files / STEPS if self.publication.is_era else 1
        return limit * max(1, longest / turns)

    def wanting(self, number: int, clients: int) -> int:
        if self.fleet.share == 1:
            return clients
        return self.draw.binomialvariate(clients, self.fleet.share)

    def through(self, key: str, requests: int, body: int, limit: float, turns: float, ages: bool, kept: bool = False) -> Steps:
        """Answered by the origin, or by the cache, which may have to ask the origin first."""
        if self.cache is not None and not self.cache.has(key, self.env.now):
            if key in self.cache.coming:
                yield self.cache.coming[key]
            else:
                self.cache.coming[key] = self.env.event()
                yield from self.origin.answer(1, body, limit, 1, self.draw)
                self.cache.until[key] = self.env.now + self.cache.fresh_s if ages else math.inf
                self.cache.coming.pop(key).succeed()
        yield from self.front.answer(requests, body, limit, turns, self.draw, kept)

    def waits(self, body: int, kept: bool = False) -> float:
        """For a request and its answer, without what the site takes: connection and TLS, and as many flights as the body needs."""
        flights = math.ceil(math.log2(max(body, 1) / FIRST_FLIGHT_BYTES + 1))
        return (max(1, flights) + (0 if kept else 2)) * self.fleet.round_trip_s


def parts(count: int, most: int) -> Iterator[int]:
    """A count in at most so many parts that differ by one at most."""
    pieces = min(count, most)
    for number in range(pieces):
        yield count * (number + 1) // pieces - count * number // pieces


# --- rotation --------------------------------------------------------------------------------------------------------


def rotation_share(clients: int, share: float, files: int, cached: float, one_seed: bool = False) -> float:
    """The share of the bytes of four weeks of rotation that the origin serves, to empty caches with room for this share of all features.

    Each client comes once a week, at a moment of its own, for the features of its new selection that its old one did not have. It
    asks in the manifest's order.
    """
    draw = random.Random(3)
    kept = Kept(files * cached)
    asked = missed = 0
    held: list[set[int]] = [set()] * clients
    for _ in range(4):
        common = draw.sample(range(files), round(files * share))
        for client in range(clients):
            chosen = set(common if one_seed else draw.sample(range(files), round(files * share)))
            for file in sorted(chosen - held[client]):
                asked += 1
                missed += not kept.ask(file)
            held[client] = chosen
    return missed / asked


def rotations(clients: int, begun_within_h: float, hours: Callable[[random.Random], float], weeks: int) -> list[float]:
    """The share of a fleet that rotates in each hour, where all began within some hours and each has a frequency of its own."""
    env, draw = simpy.Environment(), random.Random(5)
    by_hour: Counter[int] = Counter()

    def rotate(frequency: float) -> Steps:
        yield env.timeout(draw.random() * begun_within_h)
        while True:
            by_hour[int(env.now)] += 1
            yield env.timeout(frequency)

    for _ in range(clients):
        env.process(rotate(hours(draw)))
    env.run(until=weeks * WEEK_HOURS)
    return [by_hour[hour] / clients for hour in range(weeks * WEEK_HOURS)]
