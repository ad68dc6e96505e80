"""The simulated fleets of the benchmarks: nothing is lost or counted twice, whatever lies between the clients and the origin."""

from __future__ import annotations

import pytest
from fleet import COHORTS, Costs, Fleet, Publication, Simulation, Site, rotation_share

COSTS = Costs(answer_s=200e-6, kept_answer_s=20e-6, byte_s=1e-9, overhead_bytes=1000)


@pytest.mark.parametrize("front", [None, Site(servers=2)], ids=["one server", "a cache"])
@pytest.mark.parametrize("clients", [7, 3 * COHORTS + 1])
@pytest.mark.parametrize("is_era", [False, True], ids=["version", "era"])
def test_every_client_comes_into_step_with_all_that_is_new(clients: int, is_era: bool, front: Site | None) -> None:
    publication = Publication(new_files=20, changed_files=0 if is_era else 5, file_bytes=30_000, held_files=100, is_era=is_era)
    outcome = Simulation(Fleet(clients), publication, Site(), COSTS, front).run(3600)
    assert sum(count for _, count in outcome.in_step) == clients
    files = publication.new_files + publication.changed_files
    assert outcome.fetched_bytes == clients * files * publication.file_bytes
    assert outcome.front.bytes_sent > outcome.fetched_bytes
    assert outcome.front.requests == sum(outcome.front.by_second.values())
    assert outcome.front.waiting == outcome.front.given_up == 0
    if front is not None:
        assert files * publication.file_bytes < outcome.origin.bytes_sent < 2 * files * publication.file_bytes


def test_a_server_that_is_too_small_makes_clients_ask_again_and_loses_none() -> None:
    outcome = Simulation(Fleet(1000), Publication(), Site(line_bits_per_s=3e8), COSTS, None).run(3600)
    assert outcome.front.given_up > 0
    assert 1000 * 40 * 250_000 * 8 / 3e8 < outcome.seconds_until(1) < 600


def test_the_more_clients_the_less_of_a_rotation_reaches_the_origin() -> None:
    shares = [rotation_share(clients, 0.2, 100, cached=1) for clients in (3, 30, 300)]
    assert shares == sorted(shares, reverse=True)
    assert rotation_share(300, 0.2, 100, cached=0.1) > shares[-1]
