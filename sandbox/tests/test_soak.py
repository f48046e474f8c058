"""A bounded part of scripts/soak, which runs for as long as one likes by hand."""

import signal
import subprocess
import sys

import pytest
import soak
from conftest import BUILD_DIRECTORY

import desk as desk_module

# Holds more of each kind on a signal.
LEAK = f"""
import os, signal, threading
signals = {{signal.SIGUSR1}}
signal.pthread_sigmask(signal.SIG_BLOCK, signals)
for kind in ("nothing", "descriptors", "threads"):
    print(kind)
    signal.sigwait(signals)
    for _ in range({soak.DESCRIPTOR_SLACK + 1}):
        if kind == "descriptors":
            os.dup(1)
        elif kind == "threads":
            threading.Thread(target=signal.pause, daemon=True).start()
    print(kind + " held")
signal.sigwait(signals)
"""

# Seconds; a round takes about a tenth of one on a quiet machine.
TIME_LIMIT = 100


def test_random_faults_lose_nothing():
    result = subprocess.run([sys.executable, "-B", soak.__file__, "--build-dir", BUILD_DIRECTORY, "--count", "60"],
                            stdin=subprocess.DEVNULL, capture_output=True, encoding="utf-8", check=False,
                            timeout=TIME_LIMIT)
    assert result.returncode == 0, result.stdout + result.stderr
    assert "60 rounds, " in result.stdout


def test_a_program_that_keeps_descriptors_or_threads_is_found():
    with desk_module.Desk(desk_module.programs_file_of(BUILD_DIRECTORY)) as appliance:
        program = appliance.start([sys.executable, "-u", "-c", LEAK])
        for kind in ("nothing", "descriptors", "threads"):
            program.wait_for_line(f"^{kind}$")
            usage = soak.Usage(program)
            for _ in range(soak.WARM_UP_ROUNDS + 1):
                usage.check()
            program.process.send_signal(signal.SIGUSR1)
            program.wait_for_line(f"^{kind} held$")
            if kind == "nothing":
                usage.check()
            else:
                with pytest.raises(desk_module.DeskError, match="holds"):
                    usage.check()
