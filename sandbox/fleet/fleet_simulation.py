"""A fleet of any size, calculated: what cvfleet does with processes, in arrays.

A box does what the handler library does: two steps, connect and register_box, each tried at most retry_num + 1 times
with retry_interval seconds before every try but the first; a box whose step has no try left has failed. The cloud
answers one request after another in the order of their arrival, each in 1 / rate seconds; while it is down every try
fails at once. A try that is not answered within the time-out fails, and the cloud answers it all the same.

Time goes on in ticks: what a box does next counts from the exact time of what came before, but is looked at in a later
tick, so that requests of one tick may overtake each other.
"""

import dataclasses
import math

import numpy

TIMEOUT = 10.0
GOLDEN_RATIO = 0.6180339887498949


@dataclasses.dataclass(frozen=True)
class Scenario:
    boxes: int
    retry_num: int
    retry_interval: float
    #: Seconds over which the starts are spread evenly.
    spread: float = 0.0
    #: When the cloud is down, seconds after the start.
    outage: tuple = None
    #: Requests that the cloud answers in a second; infinite when it is not to hold anybody up.
    rate: float = math.inf
    #: A pause between tries is drawn from 1 - jitter to 1 + jitter of retry_interval. The library has none.
    jitter: float = 0.0
    #: Seconds.
    tick: float = 0.01


@dataclasses.dataclass
class Outcome:
    registered: int
    failed: int
    #: Seconds after the start.
    last_end: float
    #: Counts for each second: all tries, those that came to the cloud while it was up, and boxes that registered.
    tries: numpy.ndarray
    requests: numpy.ndarray
    registrations: numpy.ndarray

    @property
    def peak(self):
        """The most tries in a second, whether the cloud was up or not."""
        return int(self.tries.max())


class _Schedule:
    """The tries to come, by the tick in which they come."""

    def __init__(self, tick):
        self._tick = tick
        self._ticks = {}
        self.left = 0

    def add(self, earliest_tick, times, boxes):
        if not len(boxes):
            return
        self.left += len(boxes)
        ticks = numpy.maximum((times / self._tick).astype(numpy.int64), earliest_tick)
        order = numpy.argsort(ticks, kind="stable")
        ticks, times, boxes = ticks[order], times[order], boxes[order]
        borders = numpy.flatnonzero(numpy.diff(ticks)) + 1
        for part in zip(numpy.split(ticks, borders), numpy.split(times, borders), numpy.split(boxes, borders)):
            self._ticks.setdefault(int(part[0][0]), []).append(part[1:])

    def take(self, tick):
        """Times and boxes of the tick in the order of their times, or None."""
        parts = self._ticks.pop(tick, None)
        if parts is None:
            return None
        times = numpy.concatenate([part[0] for part in parts])
        boxes = numpy.concatenate([part[1] for part in parts])
        self.left -= len(boxes)
        order = numpy.argsort(times, kind="stable")
        return times[order], boxes[order]


def simulate(scenario, seed=1):
    random = numpy.random.default_rng(seed)
    service = 1 / scenario.rate
    down_from, down_to = scenario.outage or (math.inf, math.inf)
    logged_in = numpy.zeros(scenario.boxes, dtype=bool)
    tries_left = numpy.full(scenario.boxes, scenario.retry_num + 1, dtype=numpy.int32)
    counts = {"tries": [], "requests": [], "registrations": []}
    registered = failed = 0
    last_end = free = 0.0

    def count(name, times):
        counts[name].append(numpy.bincount(times.astype(numpy.int64)))

    schedule = _Schedule(scenario.tick)
    schedule.add(0, scenario.spread * (numpy.arange(scenario.boxes) * GOLDEN_RATIO % 1), numpy.arange(scenario.boxes))
    tick = 0
    while schedule.left:
        taken = schedule.take(tick)
        tick += 1
        if taken is None:
            continue
        times, boxes = taken
        tries_left[boxes] -= 1
        is_up = (times < down_from) | (times >= down_to)
        count("tries", times)
        count("requests", times[is_up])

        # Each answer is service seconds behind the one before it, or behind its request.
        places = numpy.arange(1, is_up.sum() + 1) * service
        answers = places + numpy.maximum(numpy.maximum.accumulate(times[is_up] - places + service), free)
        if len(answers):
            free = answers[-1]
        ends = times.copy()
        ends[is_up] = answers
        is_answered = is_up & (ends - times <= TIMEOUT)
        ends[is_up & ~is_answered] = times[is_up & ~is_answered] + TIMEOUT

        is_done = is_answered & logged_in[boxes]
        count("registrations", ends[is_done])
        registered += is_done.sum()
        is_next = is_answered & ~is_done
        logged_in[boxes[is_next]] = True
        tries_left[boxes[is_next]] = scenario.retry_num + 1
        schedule.add(tick, ends[is_next], boxes[is_next])

        is_again = ~is_answered & (tries_left[boxes] > 0)
        pauses = numpy.full(is_again.sum(), float(scenario.retry_interval))
        if scenario.jitter:
            pauses *= random.uniform(1 - scenario.jitter, 1 + scenario.jitter, len(pauses))
        schedule.add(tick, ends[is_again] + pauses, boxes[is_again])

        failed += (~is_answered & ~is_again).sum()
        if (~is_next & ~is_again).any():
            last_end = max(last_end, ends[~is_next & ~is_again].max())
    return Outcome(int(registered), int(failed), float(last_end),
                   **{name: _sum(parts) for name, parts in counts.items()})


def _sum(parts):
    total = numpy.zeros(max(map(len, parts), default=1), dtype=numpy.int64)
    for part in parts:
        total[:len(part)] += part
    return total
