"""Small fleets: real boxes, a real cloud."""

import json
import os
import pty
import re
import select
import shutil
import signal
import socket
import subprocess
import sys
import termios
import time
import uuid
from pathlib import Path

import pytest

import desk
import fleet_report
from fleet_simulation import GOLDEN_RATIO, Scenario, simulate

FLEET = Path(__file__).parents[1]
BUILD_DIRECTORY = Path(os.environ["CV_BUILD_DIR"])
CVFLEET = [sys.executable, "-B", FLEET / "cvfleet", "--build-dir", BUILD_DIRECTORY]
HANDLER = json.loads((BUILD_DIRECTORY / "sandbox/programs.json").read_text(encoding="utf-8"))["handler"]
BOXES = 20
TIMEOUT = 60


@pytest.fixture
def mark():
    """To be found in the environment of every process of a test; none may be left at its end."""
    name, value = "CV_FLEET_TEST", uuid.uuid4().hex
    os.environ[name] = value
    yield f"{name}={value}"
    del os.environ[name]


def processes_with(mark):
    """The processes that were started with `mark` in their environment."""
    found = []
    for process in Path("/proc").iterdir():
        try:
            if process.name.isdigit() and mark.encode() in (process / "environ").read_bytes():
                found.append(int(process.name))
        except OSError:
            continue
    return found


def run(*arguments):
    return subprocess.run([*map(str, CVFLEET), *map(str, arguments)], stdin=subprocess.DEVNULL, capture_output=True,
                          encoding="utf-8", check=False, timeout=TIMEOUT)


def rehearse(*arguments):
    result = run(BOXES, "--json", "-", *arguments)
    assert result.returncode == 0, result.stderr
    report = json.loads(result.stdout)
    assert result.stderr.splitlines() == list(fleet_report.summarise(report))
    return report


def test_all_at_once(mark, tmp_path):
    report = rehearse("--plot", tmp_path / "fleet.svg")
    assert (report["registered"], report["device_ids"], report["failed"]) == (BOXES, BOXES, 0)
    assert report["statuses"] == {"0": 2 * BOXES}
    assert sum(report["per_second"]["cloud"]) == 2 * BOXES
    assert sum(report["per_second"]["registered"]) == BOXES
    assert report["answer_seconds"]["longest"] <= report["last_end"]
    assert "20 boxes, all at once, 3 retries 1 s apart" in (tmp_path / "fleet.svg").read_text(encoding="utf-8")
    assert processes_with(mark) == []


def test_spread_over_a_time(mark):
    report = rehearse("--spread", "1.5")
    assert report["registered"] == BOXES
    assert report["last_end"] >= max(1.5 * (box * GOLDEN_RATIO % 1) for box in range(BOXES))
    assert report["per_second"]["cloud"][1] > 0
    assert processes_with(mark) == []


def test_a_cloud_that_stays_down(mark):
    report = rehearse("--outage", "0:3600", "--retry-num", "2", "--retry-interval", "0")
    assert (report["registered"], report["failed"]) == (0, BOXES)
    assert report["statuses"] == {"7": 3 * BOXES}
    assert "cloud" not in report["per_second"]
    calculated = simulate(Scenario(BOXES, 2, 0, outage=tuple(report["outage"])))
    assert (calculated.failed, calculated.tries.sum()) == (BOXES, 3 * BOXES)
    assert processes_with(mark) == []


def test_a_cloud_that_comes_back(mark):
    report = rehearse("--outage", "0:0.3", "--retry-num", "1000000", "--retry-interval", "0")
    assert (report["registered"], report["device_ids"]) == (BOXES, BOXES)
    assert report["outage"][0] == 0 and report["outage"][1] >= 0.3
    # What met the cloud while it went down or came up may have been lost in other ways.
    assert report["statuses"]["0"] == 2 * BOXES
    assert report["statuses"]["7"] >= BOXES
    assert processes_with(mark) == []


def test_a_cloud_that_goes_and_knows_its_boxes_when_it_is_back(mark):
    report = rehearse("--spread", "1", "--outage", "0.4:0.7", "--retry-num", "1000000", "--retry-interval", "0")
    assert (report["registered"], report["device_ids"]) == (BOXES, BOXES)
    assert sum(report["per_second"]["cloud"]) >= 2 * BOXES
    assert 0.4 <= report["outage"][0] < report["outage"][1]
    assert processes_with(mark) == []


def test_parts_of_a_fleet_make_one_report(tmp_path):
    lines = []
    with desk.Desk(desk.programs_file_of(BUILD_DIRECTORY)) as appliance:
        appliance.start_cloud()
        start = int(time.time()) + 2  # Told in microseconds; a whole second is the same again.
        parts = [subprocess.Popen([*map(str, CVFLEET), "7", "--jobs", "3", "--cloud-url", appliance.cloud_url,
                                   "--start-at", str(start), "--json", "-"], stdin=subprocess.DEVNULL,
                                  stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, encoding="utf-8",
                                  env={**os.environ, "JOB_COMPLETION_INDEX": str(index)}) for index in range(3)]
        for part in parts:
            lines.append(part.communicate(timeout=TIMEOUT)[0])
            assert part.returncode == 0
        macs = [request["params"]["macs"][0] for request in appliance.ask_cloud("GET", "/requests")
                if request["method"] == "register_box"]
    assert sorted(macs) == [f"02:00:00:00:00:{box:02X}" for box in range(7)]
    assert [json.loads(line)["boxes"] for line in lines] == [2, 2, 3]

    def join(text):
        return subprocess.run([sys.executable, "-B", FLEET / "join", "--json", tmp_path / "fleet.json"],
                              input=text, capture_output=True, encoding="utf-8", check=False, timeout=TIMEOUT)
    result = join("a line of a log\n" + "".join(lines))
    assert (result.returncode, result.stderr) == (0, "")
    assert result.stdout.startswith("7 boxes, all at once")
    joined = json.loads((tmp_path / "fleet.json").read_text(encoding="utf-8"))
    assert (joined["registered"], joined["device_ids"], joined["statuses"]) == (7, 7, {"0": 14})
    assert sum(joined["per_second"]["tries"]) == 14
    assert joined["start"] >= start
    result = join(lines[0] + lines[2])
    assert (result.returncode, result.stderr) == (1, "join: the reports of the parts 1 of 3 are missing\n")


class Terminal:
    """cvfleet in a terminal of its own, with boxes that do not end."""

    def __init__(self):
        self._master, slave = pty.openpty()
        termios.tcsetwinsize(slave, (24, 120))
        self.text = ""
        self.process = subprocess.Popen(
            [*map(str, CVFLEET), str(BOXES), "--outage", "0:3600", "--retry-num", "1000"],
            stdin=slave, stdout=slave, stderr=slave, start_new_session=True)
        os.close(slave)

    def read_until(self, pattern):
        end = time.monotonic() + TIMEOUT
        while not re.search(pattern, self.text):
            assert select.select([self._master], [], [], max(0, end - time.monotonic()))[0], self.text[-1000:]
            try:
                self.text += os.read(self._master, 4096).decode()
            except OSError:  # Nobody has the terminal any more.
                break

    def close(self):
        os.close(self._master)


@pytest.mark.parametrize("number, exit_code", [(signal.SIGINT, 130), (signal.SIGTERM, 143)])
def test_interrupted_it_stops_all_and_tells_what_was_reached(mark, number, exit_code):
    terminal = Terminal()
    terminal.read_until("0 of 20 boxes ended.*0 registered, 0 failed")
    terminal.process.send_signal(number)
    terminal.read_until("(?!)")
    assert terminal.process.wait(TIMEOUT) == exit_code
    assert "cvfleet: interrupted when 0 of 20 boxes had ended, 0 registered and 0 failed; all are stopped" \
        in terminal.text
    assert processes_with(mark) == []
    terminal.close()


def test_killed_it_leaves_nothing(mark):
    terminal = Terminal()
    terminal.read_until("0 of 20 boxes ended.*0 registered, 0 failed")
    processes = processes_with(mark)
    assert len(processes) > BOXES
    started = [os.pidfd_open(process) for process in processes]
    command_lines = [Path(f"/proc/{process}/cmdline").read_text(encoding="utf-8") for process in processes]
    settings = re.search(r"--settings\0([^\0]+)", "".join(command_lines))[1]
    terminal.process.kill()
    terminal.process.wait(TIMEOUT)
    for process in started:
        assert select.select([process], [], [], TIMEOUT)[0]
        os.close(process)
    assert processes_with(mark) == []
    shutil.rmtree(Path(settings).parent)  # Nobody was left to do it.
    terminal.close()


@pytest.mark.parametrize("arguments, problem", [
    ([], "N"),
    (["0"], "'0' is not a number from 1 on"),
    (["many"], "'many' is not a number from 1 on"),
    (["1", "--spread", "-1"], "'-1' is not a number from 0 on"),
    (["1", "--spread", "nan"], "'nan' is not a number from 0 on"),
    (["1", "--outage", "5"], "'5' is not FROM:TO"),
    (["1", "--outage", "5:4"], "'5:4' is not FROM:TO"),
    (["1", "--outage", "1:2", "--cloud-url", "http://127.0.0.1:1"], "--outage is for the cloud that cvfleet starts"),
    (["1", "--cloud-url", "127.0.0.1:1"], "127.0.0.1:1 is not a URL of the form http://host:port"),
    (["4", "--jobs", "2", "--index", "2"], "--index 2 is none of the 2 parts"),
    (["1", "--jobs", "2", "--index", "0"], "part 0 of 2 has none of the 1 boxes"),
    (["1", "--colour"], "--colour"),
])
def test_a_mistake_is_told_in_one_line(arguments, problem):
    result = run(*arguments)
    assert (result.returncode, result.stdout) == (2, "")
    assert len(result.stderr.splitlines()) == 1 and problem in result.stderr


def test_what_cannot_be_started_or_written_is_told_in_one_line(mark, tmp_path):
    for arguments in (["--build-dir", tmp_path], ["--json", tmp_path / "no" / "fleet.json"],
                      ["--plot", tmp_path / "no" / "fleet.svg"]):
        result = run("1", *arguments)
        assert (result.returncode, result.stdout) == (1, "")
        assert len(result.stderr.splitlines()) == 1 and str(arguments[1]) in result.stderr
    assert processes_with(mark) == []


def test_boxes_without_a_library_are_told_in_one_line(tmp_path):
    settings = tmp_path / "settings.json"
    settings.write_text("{}", encoding="utf-8")
    library = tmp_path / "no_library.so"
    result = subprocess.run(
        [BUILD_DIRECTORY / "bin/cvbox", "--count", "3", "--cloud-url", "http://127.0.0.1:1", "--handler", library,
         "--settings", settings], capture_output=True, encoding="utf-8", check=False, timeout=TIMEOUT)
    assert (result.returncode, result.stdout, len(result.stderr.splitlines())) == (1, "", 1)
    assert str(library) in result.stderr


def test_a_cloud_elsewhere_is_reached_through_the_proxy_of_the_environment(mark, tmp_path):
    settings = tmp_path / "settings.json"
    settings.write_text('{"/daemons/cvcloudd/registration/retry_num": 0}', encoding="utf-8")
    with socket.create_server(("127.0.0.1", 0)) as proxy:
        proxy.settimeout(TIMEOUT)
        boxes = subprocess.Popen(
            [BUILD_DIRECTORY / "bin/cvbox", "--cloud-url", "http://cloud.invalid", "--handler", HANDLER,
             "--settings", settings], stdout=subprocess.PIPE, encoding="utf-8",
            env={**os.environ, "http_proxy": f"http://127.0.0.1:{proxy.getsockname()[1]}"})
        with proxy.accept()[0] as connection:
            assert connection.recv(4096).startswith(b"POST http://cloud.invalid/connect/login ")
            connection.sendall(b"HTTP/1.1 502 Bad Gateway\r\nContent-Length: 0\r\n\r\n")
            assert re.search(r"^try 0 connect \S+ \S+ 502\nend 0 \S+ failed\n\Z",
                             boxes.communicate(timeout=TIMEOUT)[0], re.MULTILINE)
    assert processes_with(mark) == []


def test_a_box_that_is_killed_is_told(mark, tmp_path):
    settings = tmp_path / "settings.json"
    settings.write_text("{}", encoding="utf-8")
    boxes = subprocess.Popen(
        [BUILD_DIRECTORY / "bin/cvbox", "--first", "7", "--count", "2", "--cloud-url", "http://127.0.0.1:1",
         "--handler", HANDLER, "--settings", settings, "--start-at", str(time.time() + 3600)], stdout=subprocess.PIPE, encoding="utf-8")
    assert re.fullmatch(r"ready 2 \d+\n", boxes.stdout.readline())
    assert boxes.stdout.readline().startswith("start ")
    first, second = Path(f"/proc/{boxes.pid}/task/{boxes.pid}/children").read_text(encoding="ascii").split()
    os.kill(int(second), signal.SIGKILL)
    assert boxes.stdout.readline() == "died 8\n"
    os.kill(int(first), signal.SIGKILL)
    assert boxes.communicate(timeout=TIMEOUT)[0] == "died 7\n"
    assert boxes.returncode == 0
    assert processes_with(mark) == []


def test_a_box_that_ends_in_another_way_is_counted():
    recorder = fleet_report.Recorder(4, {"spread": 0.0, "retry_num": 3, "retry_interval": 1})
    recorder.requested(100.25)
    recorder.start = 100.0
    recorder.tried(100.0, 100.5, 0)
    recorder.tried(100.5, 101.25, 0)
    recorder.ended(0, 101.5, "box-1")
    recorder.died(0)
    recorder.died(1)
    recorder.tried(100.0, 102.0, 7)
    recorder.ended(2, 102.0, None)
    assert (recorder.finished, recorder.registered, recorder.failed) == (3, 1, 1)
    report = recorder.report()
    assert (report["registered"], report["failed"], report["died"], report["unfinished"]) == (1, 1, 1, 1)
    assert report["per_second"] == {"tries": [3, 0, 0], "answered": [2, 0, 0], "registered": [0, 1, 0],
                                    "failed": [0, 0, 1], "cloud": [1, 0, 0]}
    assert report["last_end"] == 2.0
    assert report["answer_seconds"] == {"median": 0.625, "longest": 0.75}
