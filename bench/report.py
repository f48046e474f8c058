"""Shows the figures of bench/run, and writes them to docs/performance.md with plots in docs/performance/."""

import os
import platform
import subprocess
from pathlib import Path
from statistics import quantiles

from measurements import ROOT, middle, ratios, total

PAGE = ROOT / "docs" / "performance.md"
PLOTS = ROOT / "docs" / "performance"
STEPS = {"start": "`handle` to the first request", "login": "login answer to the second request",
         "box": "box answer to the published result"}
OBJECTS = ["module", "jansson", "C library", "C++ library", "libcvutils"]
BLOCKING = ["condition variable", "promise with time-out", "event loop"]


def table(header, rows):
    lines = [header, ["---"] + ["---:"] * (len(header) - 1), *rows]
    return "\n".join("| " + " | ".join(str(cell) for cell in row) + " |" for row in lines)


def number(value):
    return f"{round(value):,}"


def microseconds(nanoseconds):
    return f"{nanoseconds / 1000:.1f}"


def spread(ratio):
    return f"{ratio['median']:.2f} ({ratio['least']:.2f} to {ratio['most']:.2f})"


def percentile(samples, percent):
    return quantiles(samples, n=100)[percent - 1]


def idle(figures):
    return table(["Worker", "Seconds", "Voluntary switches", "Involuntary", "CPU time, ns"],
                 [[{"before": "before a registration", "waiting": "waiting for a response",
                    "after": "after a registration"}[phase["phase"]], phase["seconds"], phase["voluntary_switches"],
                   phase["involuntary_switches"], phase["cpu_nanoseconds"]] for phase in figures])


def calls(figures):
    return table(["System call", "For each wake-up"], [[name, f"{count:g}"] for name, count in figures.items()])


def instructions(figures):
    rows = [[f"`{scenario}`", number(total(by_object)), *(number(by_object.get(name, 0)) for name in OBJECTS)]
            for scenario, by_object in figures.items()]
    return table(["", "Instructions", *OBJECTS], rows)


def growth(figures):
    return table(["Growing text", "Instructions for each byte", "Beside them", "Largest deviation"],
                 [[{"payload": "token in the payload", "response": "user token in the response"}[name],
                   f"{line['slope']:.1f}", number(line["start"]), f"{100 * line['deviation']:.1f} %"]
                  for name, line in figures.items()])


def allocations(figures):
    rows = [[f"`{scenario}`", number(figure["allocations"]), number(figure["bytes"])]
            for scenario, figure in figures["scenarios"].items()]
    rows += [[f"`partner`, {length['length']:,} bytes of {name}", number(length[name]["allocations"]),
              number(length[name]["bytes"])] for length in figures["growth"][::7] for name in ("payload", "response")]
    run = figures["long_run"]
    return table(["", "Allocations", "Bytes asked for"], rows) + (
        f"\n\nAlive after {run['registrations']:,} registrations, beyond what was after {run['first']:,}: "
        f"{run['blocks']} blocks, {run['bytes']} bytes. "
        f"The module that is ready holds {figures['live_bytes_after_init']:,} bytes of the heap.")


def footprint(figures):
    names = {"loaded": "loaded", "ready": "ready", "registered": "after a registration", "unloaded": "unloaded"}
    sizes = table(["Stripped library, bytes", "Text", "Data", "Relocations"],
                  [[architecture, number(size["text"]), number(size["data"]), size["relocations"]]
                   for architecture, size in figures["sections"].items()])
    stages = table(["In a process, amd64", "Private memory, kB", "Descriptors", "Threads"],
                   [[names[stage], *(figure[name] for name in ("private_kilobytes", "descriptors", "threads"))]
                    for stage, figure in figures["stages"].items()])
    times = table(["", "Module, µs", "Empty library, µs", "Ratio"],
                  [[action, *(microseconds(middle(figures["times"], library, lambda times: times[action]))
                              for library in ("module", "empty")),
                    spread(ratios(figures["times"], "module", "empty", lambda times: times[action]))]
                   for action in ("load", "unload")])
    return "\n\n".join([sizes, stages, times])


def latency(repeats):
    names = ("module", "floor", "building floor")
    return table(["Step", *(f"{name.capitalize()}, µs" for name in names), *(f"Ratio to the {name}" for name in names[1:])],
                 [[what, *(microseconds(middle(repeats, name, lambda steps: steps[step])) for name in names),
                   *(spread(ratios(repeats, "module", name, lambda steps: steps[step])) for name in names[1:])]
                  for step, what in STEPS.items()])


latency_logged = latency


def dispatch(repeats):
    rows = []
    for name in repeats[0]:
        samples = [sample for repeat in repeats for sample in repeat[name]]
        rows.append([name, microseconds(middle(repeats, name)), microseconds(percentile(samples, 99)),
                     spread(ratios(repeats, name, "floor", lambda times: times))])
    return table(["Command", "Median, µs", "99 %, µs", "Ratio to the floor"], rows)


def mechanisms(figures):
    repeats = figures["latency"]
    rows = []
    for name, idle_figure in figures["idle"].items():
        samples = [sample for repeat in repeats for sample in repeat[name]]
        rows.append([name, microseconds(middle(repeats, name)), microseconds(percentile(samples, 99)),
                     spread(ratios(repeats, name, "module", lambda times: times)),
                     f"{idle_figure['switches'] / figures['seconds']:.1f}", idle_figure["threads"]])
    return table(["Mechanism", "Median, µs", "99 %, µs", "Ratio to the module", "Idle wake-ups per second", "Threads"],
                 rows)


def show(figures):
    for name, values in figures.items():
        print(f"\n{name}\n\n{globals()[name](values)}")


# ---- The plots

def steps_of(samples):
    """The distribution in microseconds, without its slowest hundredth: that is the machine's."""
    ordered = sorted(samples)
    return [ordered[round(percent / 100 * (len(ordered) - 1))] / 1000 for percent in range(100)], range(100)


def plots(figures):
    import matplotlib
    matplotlib.use("svg")
    matplotlib.rcParams.update({"svg.hashsalt": "performance", "svg.fonttype": "none", "figure.dpi": 80,
                                "axes.grid": True, "grid.alpha": 0.3, "font.size": 9})
    from matplotlib import pyplot

    def save(name):
        pyplot.tight_layout()
        PLOTS.mkdir(exist_ok=True)
        pyplot.savefig(PLOTS / f"{name}.svg", metadata={"Date": None})
        pyplot.close()

    axes = pyplot.subplots(1, 3, figsize=(11, 3.2), sharey=True)[1]
    for axis, (step, what) in zip(axes, STEPS.items()):
        for name in ("floor", "building floor", "module"):
            axis.plot(*steps_of([sample for repeat in figures["latency"] for sample in repeat[name][step]]), label=name)
        axis.set(title=what.replace("`", ""), xlabel="µs", xlim=0)
    axes[0].set_ylabel("% of the registrations")
    axes[0].legend()
    save("latency")

    pyplot.figure(figsize=(8, 3.6))
    for name in figures["mechanisms"]["idle"]:
        pyplot.plot(*steps_of([sample for repeat in figures["mechanisms"]["latency"] for sample in repeat[name]]),
                    label=name)
    pyplot.xscale("log")
    pyplot.xlabel("µs from a command or an answer to what is sent because of it")
    pyplot.ylabel("% of the steps")
    pyplot.legend()
    save("mechanisms")

    pyplot.figure(figsize=(8, 3.4))
    bottom = [0.0] * len(figures["instructions"])
    for name in OBJECTS:
        values = [by_object.get(name, 0) / 1000 for by_object in figures["instructions"].values()]
        pyplot.barh(list(figures["instructions"]), values, left=bottom, label=name)
        bottom = [low + value for low, value in zip(bottom, values)]
    pyplot.gca().invert_yaxis()
    pyplot.xlabel("thousand instructions")
    pyplot.legend()
    save("instructions")

    pyplot.figure(figsize=(8, 3.6))
    for (name, line), marker in zip(figures["growth"].items(), "o+"):
        points = pyplot.loglog(line["lengths"], line["values"], marker, markersize=10, fillstyle="none", label=name)[0]
        pyplot.loglog(line["lengths"], [line["start"] + line["slope"] * length for length in line["lengths"]],
                      color=points.get_color())
    pyplot.xlabel("bytes of the token or the user token")
    pyplot.ylabel("instructions of a registration")
    pyplot.legend()
    save("growth")


# ---- The page

def machine():
    model = next(line.partition(":")[2].strip() for line in Path("/proc/cpuinfo").read_text().splitlines()
                 if line.startswith("model name"))
    compiler = subprocess.run(["c++", "--version"], check=True, stdout=subprocess.PIPE, text=True).stdout.splitlines()[0]
    virtual = ", a virtual machine" if "hypervisor" in Path("/proc/cpuinfo").read_text() else ""
    debian = Path("/etc/debian_version").read_text().strip()
    return (f"{model}{virtual}, {os.cpu_count()} processors, Linux {platform.release()}, Debian {debian}, {compiler}; "
            f"load average during the run {os.getloadavg()[1]:.1f}")


def verdict(reached):
    return "reached" if reached else "not reached"


def findings(figures):
    lines = []
    for step, what in STEPS.items():
        for floor, goal in (("floor", 1.15), ("building floor", 1.05)):
            ratio = ratios(figures["latency"], "module", floor, lambda steps: steps[step])["median"]
            lines.append(f"- {what}: {ratio:.2f} times the {floor}; goal {goal}: {verdict(round(ratio, 2) <= goal)}")
    repeats = figures["mechanisms"]["latency"]
    best = min(BLOCKING, key=lambda name: middle(repeats, name))
    poll = ratios(repeats, "poll every 1 ms", "module", lambda times: times)["median"]
    to_best = ratios(repeats, "module", best, lambda times: times)["median"]
    best_poll = ratios(repeats, "poll every 1 ms", best, lambda times: times)["median"]
    poll_median = middle(repeats, "poll every 1 ms")
    warm = poll_median / max(middle(figures["latency"], "module", lambda steps: steps[step]) for step in STEPS)
    lines.append(f"- the 1 ms poll takes {poll:.0f} times as long as the module; goal 50: {verdict(poll >= 50)}"
                 f" ({best_poll:.0f} times as long as the best of the blocking mechanisms, and {warm:.0f} times as long"
                 " as the slowest step of the module when no pause is before it)")
    lines.append(f"- {to_best:.2f} times the best of the blocking mechanisms, the {best}; goal 1.3: "
                 f"{verdict(to_best <= 1.3)}")
    return "\n".join(lines)


def write(figures):
    plots(figures)
    text = (ROOT / "bench" / "performance.md.in").read_text()
    values = {name: globals()[name](figure) for name, figure in figures.items()}
    values["machine"] = machine()
    values["findings"] = findings(figures)
    for name, value in values.items():
        text = text.replace(f"@{name}@", value)
    PAGE.write_text(text)
    print(f"\nWrote {PAGE.relative_to(ROOT)} and {PLOTS.relative_to(ROOT)}")
