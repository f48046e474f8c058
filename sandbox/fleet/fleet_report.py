"""The report of a rehearsed fleet: a document of plain numbers, with a text and a plot made from it.

Times are in seconds after the start, and the lists under "per_second" have one count for each second after it.
"""

import argparse
import collections
import itertools
import math
import statistics

# The statuses that boxes meet, as cvcloudd numbers them.
STATUSES = {0: "answered", 7: "could not connect", 28: "timed out", 52: "connection closed", 56: "connection lost"}


class Parser(argparse.ArgumentParser):
    """Tells a mistake in one line."""

    def error(self, message):
        self.exit(2, f"{self.prog}: {message}; see {self.prog} --help\n")


class Recorder:
    """Takes the lines that the boxes and the cloud print, and knows at any time how far the fleet is."""

    def __init__(self, boxes, settings):
        self.boxes = boxes
        self.start = None
        self.outage = None
        self._settings = settings
        self._ready_seconds = None
        self._memory_kib = None
        self._tries = []
        self._ends = {}
        self._died = set()
        self._requests = []

    def ready(self, seconds, memory_kib):
        self._ready_seconds = seconds
        self._memory_kib = memory_kib

    def tried(self, begin, end, status):
        self._tries.append((begin - self.start, end - begin, status))

    def ended(self, box, time, device_id):
        """`device_id` is None when the box could not register."""
        self._ends[box] = time - self.start, device_id

    def died(self, box):
        self._died.add(box)

    def requested(self, time):
        """The cloud has got a request; it may say so before the boxes have said that they start."""
        self._requests.append(time)

    @property
    def registered(self):
        return sum(device_id is not None for _, device_id in self._ends.values())

    @property
    def failed(self):
        return len(self._ends) - self.registered

    @property
    def finished(self):
        return len(self._ends.keys() | self._died)

    def report(self):
        answered = [seconds for _, seconds, status in self._tries if status == 0]
        registered = [time for time, device_id in self._ends.values() if device_id is not None]
        failed = [time for time, device_id in self._ends.values() if device_id is None]
        died = self._died - self._ends.keys()
        series = {"tries": [time for time, _, _ in self._tries],
                  "answered": [time for time, _, status in self._tries if status == 0],
                  "registered": registered, "failed": failed}
        if self._requests:
            series["cloud"] = [time - self.start for time in self._requests]
        length = 1 + max((math.floor(max(times)) for times in series.values() if times), default=0)
        return {
            **self._settings,
            "boxes": self.boxes,
            "outage": self.outage,
            "start": self.start,
            "ready_seconds": self._ready_seconds,
            "memory_kib": self._memory_kib,
            "registered": len(registered),
            "device_ids": len({device_id for _, device_id in self._ends.values() if device_id is not None}),
            "failed": len(failed),
            "died": len(died),
            "unfinished": self.boxes - len(self._ends) - len(died),
            "last_end": max(registered + failed, default=None),
            "statuses": dict(sorted(collections.Counter(str(status) for _, _, status in self._tries).items())),
            "answer_seconds": {"median": statistics.median(answered), "longest": max(answered)} if answered else None,
            "per_second": {name: _counts(times, length) for name, times in series.items()},
        }


def _counts(times, length):
    counts = [0] * length
    for time in times:
        counts[max(0, math.floor(time))] += 1
    return counts


def join(reports):
    """One report of the slices of a fleet."""
    start = min(report["start"] for report in reports)
    joined = {key: value for key, value in reports[0].items() if key not in ("jobs", "index")}
    for key in ("boxes", "memory_kib", "registered", "device_ids", "failed", "died", "unfinished"):
        joined[key] = sum(report[key] for report in reports)
    joined["start"] = start
    joined["ready_seconds"] = max(report["ready_seconds"] for report in reports)
    joined["last_end"] = max((report["last_end"] + report["start"] - start for report in reports
                              if report["last_end"] is not None), default=None)
    statuses = collections.Counter()
    for report in reports:
        statuses.update(report["statuses"])
    joined["statuses"] = dict(sorted(statuses.items()))
    # The medians of the parts do not give the median of the whole.
    answers = [report["answer_seconds"]["longest"] for report in reports if report["answer_seconds"]]
    joined["answer_seconds"] = {"median": None, "longest": max(answers)} if answers else None
    joined["per_second"] = {}
    for name in reports[0]["per_second"]:
        total = collections.Counter()
        for report in reports:
            shift = round(report["start"] - start)
            for second, count in enumerate(report["per_second"][name]):
                total[second + shift] += count
        joined["per_second"][name] = [total[second] for second in range(max(total) + 1)]
    return joined


def describe(report):
    """A line about what was rehearsed."""
    spread = f"spread over {report['spread']:g} s" if report["spread"] else "all at once"
    text = (f"{report['boxes']} boxes, {spread}, {report['retry_num']} retries "
            f"{report['retry_interval']} s apart")
    if report["outage"]:
        text += f", the cloud down from {report['outage'][0]:.1f} to {report['outage'][1]:.1f} s"
    return text


def summarise(report):
    """The lines that a person reads."""
    yield describe(report)
    if report["memory_kib"] is not None:
        yield (f"  ready       in {report['ready_seconds']:.1f} s, "
               f"{report['memory_kib'] / report['boxes']:.0f} KiB of memory a box")
    yield f"  registered  {report['registered']}, with {report['device_ids']} different device ids"
    yield f"  failed      {report['failed']}"
    if report["died"]:
        yield f"  died        {report['died']}"
    if report["unfinished"]:
        yield f"  unfinished  {report['unfinished']}"
    if report["last_end"] is not None:
        yield f"  last end    {report['last_end']:.1f} s after the start"
    if report["statuses"]:
        yield "  tries       " + ", ".join(f"{count} {STATUSES.get(int(status), 'status ' + status)}"
                                           for status, count in report["statuses"].items())
    if report["answer_seconds"]:
        median = report["answer_seconds"]["median"]
        yield ("  answers     after " + (f"{median * 1000:.1f} ms in the median, " if median is not None else "")
               + f"{report['answer_seconds']['longest'] * 1000:.0f} ms at most")
    requests = report["per_second"].get("cloud")
    if requests:
        yield f"  cloud       {sum(requests)} requests, at most {max(requests)} in a second"


def save_figure(figure, path):
    """Writes the SVG so that the same numbers give the same bytes."""
    figure.savefig(path, format="svg", metadata={"Date": None}, bbox_inches="tight")


def new_figure(rows, height):
    """A figure with `rows` plots under one time axis; returns it and the list of plots."""
    # Of no use to whoever wants no plot.
    import matplotlib
    matplotlib.use("svg")
    matplotlib.rcParams.update({"svg.hashsalt": "fleet", "svg.fonttype": "none", "font.size": 9,
                                "axes.spines.top": False, "axes.spines.right": False, "legend.frameon": False})
    from matplotlib import pyplot
    figure, plots = pyplot.subplots(rows, sharex=True, squeeze=False, figsize=(7, height))
    return figure, list(plots[:, 0])


def draw(axes, counts, **style):
    """Draws what was counted in each second."""
    axes.stairs(counts, range(len(counts) + 1), baseline=None, **style)


def finish(axes):
    """The scale from 0 on, and the legend beside the plot."""
    axes.set_ylim(0, 1.05 * axes.dataLim.y1)
    axes.legend(loc="upper left", bbox_to_anchor=(1, 1))


def plot(report, path):
    series = report["per_second"]
    figure, (rates, boxes) = new_figure(2, 4.5)
    unanswered = [tries - answered for tries, answered in zip(series["tries"], series["answered"])]
    if "cloud" in series:
        draw(rates, series["cloud"], color="tab:blue", label="requests that\nthe cloud got")
    else:
        draw(rates, series["answered"], color="tab:blue", label="tries answered")
    if any(unanswered):
        draw(rates, unanswered, color="tab:red", label="tries in vain")
    rates.set_ylabel("per second")
    for name, colour in (("registered", "tab:green"), ("failed", "tab:red")):
        draw(boxes, list(itertools.accumulate(series[name])), color=colour, label=name)
    boxes.set_ylabel("boxes")
    boxes.set_xlabel("seconds after the start")
    for axes in (rates, boxes):
        if report["outage"]:
            axes.axvspan(*report["outage"], color="0.9", linewidth=0, zorder=0, label="cloud down")
        finish(axes)
    rates.set_title(describe(report), fontsize=9)
    save_figure(figure, path)
