"""The calculated fleet, held against what it must come to and against one event after another."""

import dataclasses
import heapq

import numpy
import pytest

from fleet_simulation import GOLDEN_RATIO, TIMEOUT, Scenario, simulate


def one_by_one(scenario):
    """The same fleet in the order of its events: registered, failed, last end, tries."""
    down_from, down_to = scenario.outage or (float("inf"), float("inf"))
    tries_left = [scenario.retry_num + 1] * scenario.boxes
    logged_in = [False] * scenario.boxes
    registered = failed = tries = 0
    last_end = free = 0.0
    events = [(scenario.spread * (box * GOLDEN_RATIO % 1), box) for box in range(scenario.boxes)]
    heapq.heapify(events)
    while events:
        now, box = heapq.heappop(events)
        tries += 1
        tries_left[box] -= 1
        end, answered = now, False
        if not down_from <= now < down_to:
            free = max(free, now) + 1 / scenario.rate
            answered = free - now <= TIMEOUT
            end = free if answered else now + TIMEOUT
        if answered and not logged_in[box]:
            logged_in[box] = True
            tries_left[box] = scenario.retry_num + 1
            heapq.heappush(events, (end, box))
        elif not answered and tries_left[box] > 0:
            heapq.heappush(events, (end + scenario.retry_interval, box))
        else:
            registered += answered
            failed += not answered
            last_end = max(last_end, end)
    return registered, failed, last_end, tries


@pytest.mark.parametrize("scenario", [
    Scenario(200, 3, 1, rate=100),
    Scenario(200, 3, 1, spread=5, rate=50),
    Scenario(500, 3, 2, spread=7, rate=35),
    Scenario(300, 3, 1, spread=6, outage=(2, 4.5), rate=60),
    Scenario(300, 1, 2, spread=20, outage=(5, 9), rate=40),
    Scenario(300, 0, 2, spread=20, outage=(5, 9)),
])
def test_agrees_with_one_event_after_another(scenario):
    outcome = simulate(dataclasses.replace(scenario, tick=1e-5))
    registered, failed, last_end, tries = one_by_one(scenario)
    assert (outcome.registered, outcome.failed, outcome.tries.sum()) == (registered, failed, tries)
    assert outcome.last_end == pytest.approx(last_end, abs=1e-3)


def test_a_cloud_that_stays_down_is_tried_in_waves():
    outcome = simulate(Scenario(1000, 3, 5, outage=(0, 3600)))
    assert (outcome.registered, outcome.failed, outcome.last_end) == (0, 1000, 15)
    waves = numpy.zeros(16, dtype=int)
    waves[[0, 5, 10, 15]] = 1000
    assert outcome.tries.tolist() == waves.tolist()
    assert outcome.requests.sum() == 0


def test_jitter_takes_the_waves_apart():
    waves = simulate(Scenario(1000, 5, 10, outage=(0, 3600)))
    apart = simulate(Scenario(1000, 5, 10, outage=(0, 3600), jitter=0.5))
    assert apart.tries.sum() == waves.tries.sum() == 6000
    assert apart.tries[1:].max() < 200 < waves.tries[1:].max() == 1000


def test_a_crowd_that_the_cloud_cannot_answer_in_time_fails_altogether():
    # Half of the logins are answered in time, but then wait behind the other half.
    outcome = simulate(Scenario(1000, 0, 1, rate=50))
    assert (outcome.registered, outcome.failed) == (0, 1000)
    assert outcome.tries.sum() == 1000 + 500
