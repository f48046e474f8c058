"""What bench/run measures: each function starts the programs of bench/ and returns plain figures."""

import json
import os
import re
import subprocess
import tempfile
from pathlib import Path
from statistics import median

from elftools.elf.constants import SH_FLAGS
from elftools.elf.elffile import ELFFile
from elftools.elf.relocation import RelocationSection

ROOT = Path(__file__).resolve().parent.parent
PROGRAMS = ROOT / "build" / "release" / "bin"
EMPTY_LIBRARY = ROOT / "build" / "release" / "lib" / "libbench_empty_library.so"
ARM_LIBRARY = ROOT / "build" / "armhf" / "lib" / "libcvcloudregisterhandler.so"

SCENARIOS = ["partner", "temporary", "unknown_command", "not_json", "empty_token", "in_progress",
             "retry_without_failure"]
WAKE_UPS = 3  # of a registration that succeeds
CALLS = ["poll", "write", "select", "read"]
LENGTHS = [64 * 4**exponent for exponent in range(8)]
DEADLINE = 300

# The same string functions are chosen on every processor, so that they take the same instructions.
SAME_EVERYWHERE = {
    "GLIBC_TUNABLES": "glibc.cpu.hwcaps=-AVX512F,-AVX512VL,-AVX2,-AVX,-ERMS,-FSRM,-SSE4_2,-SSE4_1,-SSSE3,"
                      "-BMI2,-BMI1,-LZCNT,-MOVBE:glibc.cpu.x86_non_temporal_threshold=0xc0000"}


class Failure(Exception):
    """A measurement that could not be made."""


def run_all(commands, **environment):
    """Runs the commands at the same time and returns what they printed."""
    processes = []
    try:
        for command in commands:
            processes.append(subprocess.Popen(
                [str(word) for word in command], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                stderr=subprocess.PIPE, text=True, errors="replace", env={**os.environ, **environment}))
        printed = []
        for process in processes:
            output, errors = process.communicate(timeout=DEADLINE)
            if process.returncode != 0:
                lines = errors.strip().splitlines() or [f"exit code {process.returncode}"]
                raise Failure(f"{Path(process.args[0]).name} has failed: {lines[-1]}")
            printed.append(output)
        return printed
    except subprocess.TimeoutExpired as error:
        raise Failure(f"{Path(error.cmd[0]).name} has not ended after {DEADLINE} s") from None
    finally:
        for process in processes:
            process.kill()
            process.wait()


def program(name, *arguments):
    return [PROGRAMS / f"bench_{name}", *arguments]


def result_of(name, *arguments):
    return json.loads(run_all([program(name, *arguments)])[0])


def idle(library, seconds):
    """Switches and processor time of the worker in three phases."""
    return [json.loads(output) for output in
            run_all([program("idle", library, phase, seconds) for phase in ("before", "waiting", "after")])]


def calls(library):
    """System calls of the module for each wake-up. The host's own are those to its eventfd."""
    counts = []
    with tempfile.TemporaryDirectory() as directory:
        for times in (20, 120):
            trace = Path(directory) / str(times)
            run_all([["strace", "-f", "-y", "-o", trace, *program("registrations", library, "partner", times)]])
            found = dict.fromkeys(CALLS, 0)
            others = []
            for line in trace.read_text(errors="replace").splitlines():
                match = re.match(r"\d+ +(\w+)\(", line)
                if not match or "anon_inode:[eventfd]" in line:
                    continue
                name = "select" if match[1] == "pselect6" else match[1]
                if name in CALLS and "pipe:[" in line:
                    found[name] += 1
                    if name == "write":
                        others.append(0)
                elif others:
                    others[-1] += 1
            # Others than these are made when the program starts, in its first registration, and when it ends with
            # the byte that stops the worker.
            found["other"] = sum(others[WAKE_UPS:-1])
            counts.append(found)
    few, many = counts
    return {name: (many[name] - (few[name] if name in CALLS else 0)) / (100 * WAKE_UPS) for name in many}


OBJECTS = [("module", "libcvcloudregisterhandler"), ("jansson", "libjansson"), ("C++ library", "libstdc++"),
           ("C library", "libc.so"), ("libcvutils", "libcvutils"), ("host", "bench_registrations")]


def instructions_by_object(profile):
    """Instructions of a callgrind profile, by the object that they are in."""
    found = {}
    name = None
    inclusive = False
    for line in profile.read_text(errors="replace").splitlines():
        if line.startswith("ob="):
            path = Path(line[3:]).name
            name = next((short for short, prefix in OBJECTS if path.startswith(prefix)), "other")
        elif line.startswith("calls="):
            inclusive = True  # The next line is the cost of the callee.
        elif line[:1].isdigit():
            if not inclusive:
                found[name] = found.get(name, 0) + int(line.split()[1])
            inclusive = False
    return found


def callgrind(cases):
    """Instructions of one more of each case (LIBRARY, SCENARIO, ARGUMENTS...), by object: what twice as many take
    more. A case's `count` times are measured first."""
    with tempfile.TemporaryDirectory() as directory:
        found = []
        for library, scenario, count, *lengths in cases:
            profiles = [Path(directory) / f"{times}.out" for times in (count, 2 * count)]
            run_all([["valgrind", "--tool=callgrind", f"--callgrind-out-file={profile}", "--compress-strings=no",
                      "--compress-pos=no", *program("registrations", library, scenario, times, *lengths)]
                     for profile, times in zip(profiles, (count, 2 * count))], **SAME_EVERYWHERE)
            few, many = map(instructions_by_object, profiles)
            found.append({name: (many[name] - few.get(name, 0)) / count for name in many})
        return found


def total(by_object):
    """All instructions but those of the measuring host."""
    return sum(value for name, value in by_object.items() if name != "host")


def instructions(library):
    """Instructions by scenario and object; the floor's, too."""
    cases = [(library, scenario, 100) for scenario in SCENARIOS] + [("floor", "partner", 100)]
    return dict(zip([*SCENARIOS, "floor"], callgrind(cases)))


def fit(lengths, values):
    """The straight line of the least squares of the relative deviations: start, slope, largest deviation."""
    weights = [1 / value**2 for value in values]
    def mean(numbers):
        return sum(weight * number for weight, number in zip(weights, numbers)) / sum(weights)
    x, y = mean(lengths), mean(values)
    slope = (mean([a * b for a, b in zip(lengths, values)]) - x * y) / (mean([a * a for a in lengths]) - x * x)
    start = y - slope * x
    deviation = max(abs(start + slope * length - value) / value for length, value in zip(lengths, values))
    return {"start": start, "slope": slope, "deviation": deviation}


def growth(library, lengths):
    """Instructions of a registration by the length of its token, and by that of the user token."""
    found = {}
    for name in ("payload", "response"):
        values = []
        for length in lengths:
            arguments = [length, 32] if name == "payload" else [32, length]
            values.append(total(callgrind([(library, "partner", 2, *arguments)])[0]))
        found[name] = {"lengths": lengths, "values": values, **fit(lengths, values)}
    return found


def allocations(library):
    return result_of("allocations", library, 100000)


def sections(library):
    """Bytes that stripping leaves, as tests/abi/check_size.py counts them, and relocations."""
    sizes = {"text": 0, "data": 0, "relocations": 0}
    with open(library, "rb") as file:
        for section in ELFFile(file).iter_sections():
            if isinstance(section, RelocationSection):
                sizes["relocations"] += section.num_relocations()
            if section["sh_flags"] & SH_FLAGS.SHF_ALLOC and section["sh_type"] != "SHT_NOBITS":
                sizes["data" if section["sh_flags"] & SH_FLAGS.SHF_WRITE else "text"] += section["sh_size"]
    return sizes


def footprint(library, repeats):
    """Sections, and what the library takes of a process: after loading, when ready, after a registration."""
    found = result_of("footprint", library, EMPTY_LIBRARY, repeats)
    before = found["before"]
    stages = {stage: {name: found[stage][name] - before[name] for name in before}
              for stage in ("loaded", "ready", "registered", "unloaded")}
    architectures = {"amd64": sections(library)}
    if ARM_LIBRARY.exists():
        architectures["armhf"] = sections(ARM_LIBRARY)
    return {"sections": architectures, "stages": stages, "times": found["times"]}


def ratios(repeats, of, to, pick):
    """Of each repeat, how the medians of two contenders compare; then the median, the least and the most."""
    found = sorted(median(pick(repeat[of])) / median(pick(repeat[to])) for repeat in repeats)
    return {"median": median(found), "least": found[0], "most": found[-1]}


def middle(repeats, contender, pick=lambda samples: samples):
    """The median over the repeats of the medians."""
    return median(median(pick(repeat[contender])) for repeat in repeats)


def latency(library, repeats=9, registrations=1000):
    return result_of("latency", library, repeats, registrations)


def latency_logged(library):
    """The latency with every line logged, to where it costs nothing more."""
    command = program("latency", library, 9, 300, 3)
    return json.loads(run_all([["sh", "-c", 'exec "$@" 2>/dev/null', "latency", *command]])[0])


def dispatch(library, repeats=9, commands=300):
    return result_of("dispatch", library, repeats, commands)


def mechanisms(library, repeats=101, registrations=8, seconds=10):
    return result_of("mechanisms", library, repeats, registrations, seconds)

