"""The server of a workload: one world at a time, a log of requests, and what else is to happen at a request."""

import json
import pathlib
import time
from collections.abc import Callable

from torture.hostile_server import Exchange, Server, head
from torture.world import World


class Site(Server):
    def __init__(self, log: pathlib.Path, worlds: list[World]) -> None:
        self.log, self.published, self.later = log, worlds[:1], worlds[1:]
        self.cut = False  # every connection is reset
        self.cuts: set[int] = set()  # those of these requests, counted from 1
        self.asked = 0
        self.at_request: Callable[[Site, str], None] = lambda site, path: None
        super().__init__()

    def settle(self) -> None:
        """From now on nothing moves."""
        self.at_request = lambda site, path: None
        self.cuts = set()
        self.published += self.later
        self.later = []

    def usual(self, exchange: Exchange) -> None:
        """The log has it before anybody sees the answer; its status is 0 where the connection is reset."""
        request = {"ns": time.monotonic_ns(), "path": exchange.path, "headers": exchange.headers}
        with self.lock:
            self.asked += 1
            cut = self.cut or self.asked in self.cuts
        if not cut:
            self.at_request(self, exchange.path)
        status, more, body = self.published[-1].answer(exchange.path, exchange.headers.get("range"))
        with self.lock, self.log.open("a") as file:
            file.write(json.dumps(request | {"status": 0 if cut else status}) + "\n")
        if cut:
            exchange.reset()
        else:
            exchange.send(head(status, **more, Content_Length=len(body)), body)
