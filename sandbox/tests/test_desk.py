"""What ./run does once everything is built."""

import os
import re
import signal
import subprocess
import sys
import uuid
from pathlib import Path

import pytest
from conftest import BUILD_DIRECTORY, processes_with

import desk as desk_module

ROOT = Path(__file__).parents[2]


@pytest.fixture
def mark():
    return "CV_DESK_TEST=" + uuid.uuid4().hex


def start_register_box(mark, *arguments):
    name, value = mark.split("=")
    return subprocess.Popen(
        [sys.executable, "-B", ROOT / "sandbox/desk/cvdesk.py", "--build-dir", BUILD_DIRECTORY, *arguments],
        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, encoding="utf-8",
        env={**os.environ, name: value})


@pytest.mark.parametrize("arguments, method", [
    ([], "connect"),
    (["--token-type", "temporary"], "get_device_token"),
    (["--token", "T", "--mac", "02:00:00:00:00:0a"], "connect"),
])
def test_registers_and_leaves_nothing(mark, arguments, method):
    process = start_register_box(mark, *arguments)
    output, errors = process.communicate(timeout=desk_module.START_TIMEOUT)
    assert (process.returncode, errors) == (0, "")
    assert re.search(rf"^{method} +try 1 answered$", output, re.MULTILINE)
    assert re.search(r'^published +cloud_registration_done {"result": "ok", ', output, re.MULTILINE)
    run_directory = re.search(r"^cvcloudd +ready in (\S+)$", output, re.MULTILINE)[1]
    assert not Path(run_directory).exists()
    assert processes_with(mark) == []


@pytest.mark.parametrize("stop_signal, exit_code", [(signal.SIGINT, 130), (signal.SIGTERM, 143)])
def test_stops_everything_when_it_is_stopped(mark, stop_signal, exit_code):
    process = start_register_box(mark)
    first_line = process.stdout.readline()
    assert first_line.startswith("cloud ")
    process.send_signal(stop_signal)
    process.communicate(timeout=desk_module.START_TIMEOUT)
    # It may have been done already when the signal came.
    assert process.returncode in (0, exit_code)
    assert processes_with(mark) == []


def test_a_program_that_cannot_start_is_reported_in_one_line(mark, tmp_path):
    process = subprocess.run(
        [sys.executable, "-B", ROOT / "sandbox/desk/cvdesk.py", "--build-dir", tmp_path],
        capture_output=True, encoding="utf-8", check=False, timeout=desk_module.START_TIMEOUT)
    assert process.returncode == 1
    assert process.stderr == f"./run: cannot read {tmp_path}/sandbox/programs.json: No such file or directory; " \
                             "build the project first\n"


@pytest.mark.parametrize("arguments, exit_code, text", [
    (["--help"], 0, "usage: ./run"),
    (["--colour"], 2, "--colour"),
    (["--token-type", "Partner"], 2, "--token-type"),
    (["--mac"], 2, "--mac"),
    (["--scenario", "no-such-day"], 2, "'no-such-day'"),
    (["--scenario", "partner-token", "--mac", "m"], 2, "--mac"),
])
def test_run_reads_its_options_before_anything_else(arguments, exit_code, text):
    result = subprocess.run([ROOT / "run", *arguments], capture_output=True, encoding="utf-8", check=False,
                            timeout=desk_module.START_TIMEOUT, env={"PATH": "/usr/bin:/bin"})
    assert result.returncode == exit_code
    assert text in result.stdout + result.stderr
    if exit_code != 0:
        assert len(result.stderr.splitlines()) == 1
