"""Cuts the power while a registration is unanswered and settings are written. Only what was being written may be lost."""

import re

import pytest
from conftest import REGISTRATION, SETTINGS, TOKEN

import box as box_module
import scenario

KEY = REGISTRATION + "box_name"
# Each moment is a number of writes to the disk, counted from when the settings begin to be written. A setting takes about
# ten.
MOMENTS = {"first": (1, 4, 7, 10, 13), "second": (16, 19, 22, 25, 28)}
FILES = {"cvcloudd.log", "cvcloudd.options", "lost+found", "settings.json"}


class Writer:
    """Sets the key to "box N", with N from `first` on, as long as there is power."""

    def __init__(self, box, first):
        self._first = first
        self._program = box.start(box.command(
            "sh", "-c", f'n={first}; while cvex settings --file {box_module.SETTINGS_FILE} set {KEY} "box $n"; '
                        'do echo "set $n"; n=$((n + 1)); done'))

    def last(self):
        """The last number that was set, when the power has gone."""
        self._program.wait()
        lines = [line for line in self._program.lines if line.startswith("set ")]
        assert self._program.lines == [*lines, "box: the box has gone"]
        return self._first + len(lines) - 1


@pytest.mark.parametrize("half", [pytest.param(half, marks=pytest.mark.xdist_group(half)) for half in MOMENTS])
def test_power_cuts(box, half):
    device_id = box.register()
    last = 0
    box.output(*box.setting_command(KEY, f"box {last}"))
    for moment in MOMENTS[half]:
        box.ask_cloud("POST", "/faults", ["connect=silence"])
        requests = sum(1 for line in box.cloud.lines if re.search(scenario.REQUEST_LINE, line))
        client = box.start(box.cvex_command("start", "--json", *TOKEN))
        box.cloud.wait_for_line(scenario.REQUEST_LINE, requests + 1)
        watch = box.start(["inotifywait", "--monitor", "--event", "modify", "--format", "written", box.disk])
        watch.wait_for_line("Watches established")
        writer = Writer(box, last + 1)
        watch.wait_for_line("^written$", moment)
        box.cut_power()
        watch.stop()
        box.count("cuts")
        assert client.wait() == 1 and client.lines == ["box: the box has gone"]

        box.switch_on()
        settings = box.settings()
        assert settings in ({**SETTINGS, KEY: f"box {number}"} for number in (writer.last(), writer.last() + 1))
        last = int(settings[KEY].split()[1])
        # Of a write that was cut off, one file may be left: the next one removes it.
        assert set(box.output("ls", "/data").split()) <= {*FILES, "settings.json.new"}
        box.ask_cloud("DELETE", "/faults")
        assert box.register() == device_id
    assert len(box.stored()) == 1
    box.output(*box.setting_command(KEY, "named"))
    assert set(box.output("ls", "/data").split()) == FILES
