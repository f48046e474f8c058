"""Each scenario comes out as its file says, and a mistake in a file is told in one line with its place."""

import functools
import subprocess
import sys
from pathlib import Path

import pytest
from conftest import BUILD_DIRECTORY

import desk as desk_module
import scenario as scenario_module
import traffic

PROGRAMS_FILE = desk_module.programs_file_of(BUILD_DIRECTORY)

# A scenario that comes out, for the mistakes to be made in.
GOOD = """summary: A box is registered
steps:
  - start: {}
    exit: 0
    reply: {result: ok, user_token: "/user-.*/", device_id: box-1}
published:
  - {result: ok, user_token: "/user-.*/", device_id: box-1}
requests:
  - connect
  - register_box
"""


def play(path, record_directory=None):
    make_desk = functools.partial(desk_module.Desk, PROGRAMS_FILE)
    scenario_module.Player(scenario_module.Scenario(path), make_desk, record_directory=record_directory).play()


def problem_of(text, tmp_path, read=play):
    path = tmp_path / "mistaken.yaml"
    path.write_text(text, encoding="utf-8")
    with pytest.raises(scenario_module.ScenarioError) as error:
        read(path)
    message = str(error.value)
    assert "\n" not in message
    assert message.startswith(f"{path}:")
    return message.removeprefix(f"{path}:")


@pytest.mark.parametrize("path", scenario_module.files(), ids=lambda path: path.stem)
def test_scenario(path, tmp_path):
    play(path, tmp_path)
    assert traffic.check_all(tmp_path) > 0


@pytest.mark.parametrize("text, problem", [
    ("", "1: a scenario is a mapping with summary, steps and requests"),
    ("summary: [", "1: "),
    ("summary: S\nsteps: []\n", "1: 'requests' is missing"),
    (GOOD + "colour: red\n", "11: no part is called 'colour'"),
    (GOOD + "summary: again\n", "11: 'summary' is there twice"),
    (GOOD.replace("- start: {}", "- sing: {}"), "3: a step is one of"),
    (GOOD.replace("- start: {}", "- start: {colour: red}"), "3: 'start' takes no 'colour'"),
    (GOOD.replace("    exit: 0\n", ""), "4: 'reply' needs 'exit'"),
    (GOOD.replace("steps:\n", "steps:\n  - start: {as: other}\n"), "3: no step 'answer' waits for the end of 'other'"),
    (GOOD.replace("steps:\n", "steps:\n  - answer: other\n    exit: 0\n"), "3: no cvex runs under the name 'other'"),
    (GOOD.replace("- connect", "- [connect]"), "9: a request is METHOD"),
    (GOOD.replace("- connect", "- connect*many"), "9: 'many' is not a count"),
])
def test_a_mistake_is_told_with_its_place(tmp_path, text, problem):
    assert problem_of(text, tmp_path, scenario_module.Scenario).startswith(problem)


@pytest.mark.parametrize("old, new, problem", [
    ("exit: 0", "exit: 3", "3: cvex must end with exit code 3 and ended with 0"),
    ("device_id: box-1}\npublished", "device_id: box-2}\npublished", "3: the reply must be "),
    ('  - {result: ok, user_token: "/user-.*/", device_id: box-1}\nrequests', "  - {result: no}\nrequests",
     '7: {"result": "no"} must be published'),
    ('published:\n  - {result: ok, user_token: "/user-.*/", device_id: box-1}\n', "",
     "1: 0 messages must be published and there were 1"),
    ("- connect", "- get_device_token", "9: request 1 must be get_device_token"),
    ("  - register_box\n", "", "9: no further request must come"),
    ("  - register_box\n", "  - register_box*2\n", "10: request 3 must be register_box"),
    ("- connect", "- connect: {}", "9: the params must be {} and were "),
    ("- start: {}", "- faults: [connect=gone]\n  - start: {}", "3: no fault is called 'gone'"),
    ("  - register_box\n", "  - register_box: {}\n", "10: the params must be"),
])
def test_what_does_not_come_out_is_told_with_its_place(tmp_path, old, new, problem):
    assert old in GOOD
    assert problem_of(GOOD.replace(old, new), tmp_path).startswith(problem)


def run(*arguments):
    cvdesk = Path(desk_module.__file__).with_name("cvdesk.py")
    return subprocess.run([sys.executable, "-B", cvdesk, "--build-dir", BUILD_DIRECTORY, *arguments],
                          stdin=subprocess.DEVNULL, capture_output=True, encoding="utf-8", check=False,
                          timeout=desk_module.START_TIMEOUT)


def test_the_list_has_a_line_for_each_scenario():
    lines = run("--list").stdout.splitlines()
    assert len(lines) >= 42
    assert [line.split()[0] for line in lines] == [path.stem for path in scenario_module.files()]
    assert all(len(line.split("  ", 1)[1].strip()) > 20 for line in lines)


def test_a_scenario_tells_what_happens(tmp_path):
    result = run("--scenario", "login-exhausted-then-resumed", "--record", tmp_path / "kept")
    assert (result.returncode, result.stderr) == (0, "")
    lines = result.stdout.splitlines()
    assert lines[0].startswith("scenario           login-exhausted-then-resumed: ")
    assert lines[-1] == "passed             8 requests, 1 messages published"
    assert sum("connect/login connect: fault error:simulated failure" in line for line in lines) == 5
    assert (tmp_path / "kept" / "record.jsonl").stat().st_size > 0


def test_an_unknown_scenario_is_told_in_one_line():
    result = run("--scenario", "no-such-day")
    assert (result.returncode, result.stdout) == (1, "")
    assert result.stderr == "./run: no scenario is called 'no-such-day'; --list shows them\n"
