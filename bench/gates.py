"""Holds the counts against the committed budgets, budgets.toml."""

import tomllib

import measurements
from measurements import ROOT

BUDGETS = ROOT / "bench" / "budgets.toml"
LIMITS = ROOT / "tests" / "abi" / "limits.toml"


class Gates:
    """The comparisons made so far."""

    def __init__(self):
        self.budgets = tomllib.loads(BUDGETS.read_text())
        self.missing = {f"{section}.{name}" for section, budgets in self.budgets.items() for name in budgets
                        if name != "tolerance_percent"}
        self.passed = 0
        self.problems = []

    def check(self, what, measured, section, name):
        """A count is its budget; what has a tolerance exceeds it by no more."""
        self.missing.discard(f"{section}.{name}")
        budget = self.budgets[section][name]
        tolerance = self.budgets[section].get("tolerance_percent")
        most = budget * (1 + (tolerance or 0) / 100)
        self.compare(what, measured, budget if tolerance is None else least(budget), most,
                     f"{section}.{name} in bench/budgets.toml")

    def compare(self, what, measured, at_least, at_most, where):
        if at_least <= measured <= at_most:
            self.passed += 1
        else:
            self.problems.append(f"{what}: {measured:.10g}, and not {at_least:.10g} to {at_most:.10g}; to accept it on "
                                 f"purpose, change {where}")


def least(budget):
    """No change of the module makes so much of it go away: less was not measured."""
    return budget / 2


def idle(gates, figures):
    for phase in figures:
        for name, unit in (("voluntary_switches", "context switches of its own accord"),
                           ("cpu_nanoseconds", "nanoseconds on a processor")):
            gates.check(f"idle worker, {phase['phase']}, {phase['seconds']} s: {unit}", phase[name], "idle", name)


def calls(gates, figures):
    for name, count in figures.items():
        what = "other system calls" if name == "other" else f"calls of {name}"
        gates.check(f"{what} for each wake-up", count, "calls", name)


def instructions(gates, figures):
    for scenario in measurements.SCENARIOS:
        gates.check(f"instructions of {scenario}", measurements.total(figures[scenario]), "instructions", scenario)


def growth(gates, figures):
    for name, line in figures.items():
        gates.check(f"instructions for each byte of the {name}", line["slope"], "growth", name)


def allocations(gates, figures):
    for scenario in measurements.SCENARIOS:
        gates.check(f"allocations of {scenario}", figures["scenarios"][scenario]["allocations"], "allocations", scenario)
    for name in ("blocks", "bytes"):
        gates.check(f"growth of the heap over {figures['long_run']['registrations']} registrations in {name}",
                    figures["long_run"][name], "long_run", name)


def footprint(gates, figures):
    sizes = figures["sections"]["amd64"]
    for name in ("text", "data"):
        limit = tomllib.loads(LIMITS.read_text())["amd64"][name]
        gates.compare(f"library, stripped, bytes of {name}", sizes[name], least(limit), limit,
                      f"amd64.{name} in tests/abi/limits.toml")
    gates.check("relocations of the library", sizes["relocations"], "footprint", "relocations")
    for stage in ("loaded", "registered"):
        gates.check(f"private kilobytes of the library, {stage}", figures["stages"][stage]["private_kilobytes"],
                    "private_kilobytes", stage)
    for name in ("descriptors", "threads"):
        gates.check(f"{name} after a registration", figures["stages"]["registered"][name], "footprint", name)
        gates.check(f"{name} left after unloading", figures["stages"]["unloaded"][name], "footprint", f"{name}_left")
