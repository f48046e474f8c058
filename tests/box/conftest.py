"""A virtual box for the tests. Nothing here waits by sleeping: each wait is for a line or for the end of a program, and its
bound is an error."""

import contextlib
import json
import os
import sqlite3
from pathlib import Path

import pytest

import box as box_module
import desk

IMAGE = Path("build/box-image").resolve()
PROGRAMS_FILE = desk.programs_file_of("build/dev")

REGISTRATION = "/daemons/cvcloudd/registration/"
SETTINGS = {REGISTRATION + "retry_num": 0, REGISTRATION + "retry_interval": 0}
TOKEN = ("--token", desk.TOKENS["partner"])


class TestBox(box_module.Box):
    """Its cloud keeps the boxes; what is counted goes to `check`, a line each."""
    __test__ = False
    # As on a slow flash: the power fails amid the writes of one setting.
    writes_per_second = 100

    def __init__(self):
        super().__init__(IMAGE, PROGRAMS_FILE, lambda head, text: print(head, text, flush=True))

    def count(self, what, number=1):
        with open(os.environ.get("CV_BOX_FIGURES", os.devnull), "a", encoding="utf-8") as file:
            file.write(f"{what} {number}\n")

    def _await_start(self):
        super()._await_start()
        self.count("boots")

    @property
    def boxes(self):
        return self.run_directory / "boxes.sqlite"

    def start_cloud(self, port=0):
        return super().start_cloud(port, options=["--boxes", self.boxes])

    def stored(self):
        """The addresses that the cloud has, in the order of their device ids."""
        with contextlib.closing(sqlite3.connect(self.boxes)) as database:
            return [address for address, in database.execute("SELECT mac FROM boxes ORDER BY number")]

    def output(self, *words):
        """Of a command in the box that succeeds."""
        result = self.run(*words)
        assert result.returncode == 0, result
        return result.stdout

    def register(self, command="start"):
        """Registers, or with `retry` goes on; the device id."""
        result = self.cvex(command, "--json", *(TOKEN if command == "start" else ()))
        assert result.returncode == 0, result
        self.count("registrations")
        return json.loads(result.stdout)["device_id"]

    def settings(self):
        return json.loads(self.output("cat", box_module.SETTINGS_FILE))

    def setting_command(self, key, value):
        return ["cvex", "settings", "--file", box_module.SETTINGS_FILE, "set", key, value]


@pytest.fixture(scope="module")
def box():
    with TestBox() as started:
        started.start_cloud()
        started.start_daemon("--log-level", "2", settings=SETTINGS)
        yield started
