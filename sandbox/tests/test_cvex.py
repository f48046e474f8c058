"""The client as a person and as a program use it."""

import contextlib
import fcntl
import json
import os
import pty
import re
import signal
import socket
import struct
import subprocess
import termios

import pytest

import desk as desk_module

PARTNER_TOKEN = desk_module.TOKENS["partner"]


def status_of(desk):
    result = desk.cvex("status", "--json")
    assert result.returncode == 0, result
    return json.loads(result.stdout)


def send_input(desk, text, *arguments):
    return subprocess.run(desk.cvex_command("send", *arguments), input=text, capture_output=True, encoding="utf-8",
                          check=False, timeout=desk_module.START_TIMEOUT)


def test_status_of_a_fresh_daemon(ready_desk):
    status = status_of(ready_desk)
    assert status["pid"] == ready_desk.daemon.process.pid
    assert status["log_level"] == 2
    assert status["handlers"] == [{"library": ready_desk.programs["handler"], "mandatory": True,
                                   "commands": ["retry_cloud_registration", "start_cloud_registration"]}]
    assert status["registration"] == {"state": "idle"}
    assert status["last_result"] is None


def test_status_during_a_request(appliance, silent_cloud):
    appliance.cloud_url = silent_cloud.url
    appliance.start_daemon()
    appliance.start(appliance.cvex_command("start", "--token", "any"))
    silent_cloud.wait_for_requests(1)
    registration = status_of(appliance)["registration"]
    assert registration.pop("seconds") >= 0
    assert registration == {"state": "request", "command": "start_cloud_registration", "step": "connect", "try": 1,
                            "error": ""}
    # Another start changes nothing of it.
    assert appliance.cvex("start", "--token", "any").returncode == 3
    status = status_of(appliance)
    assert status["registration"]["state"] == "request"
    assert status["last_result"] is None
    lines = appliance.cvex("status").stdout.splitlines()
    assert [line.split("  ")[0] for line in lines] == ["cvcloudd", "handler", "registration", "last result"]
    assert "start_cloud_registration: connect try 1, at work for " in lines[2]


@pytest.mark.parametrize("options, state", [([], "pause"), (["--no-reply"], "unknown")])
def test_status_during_a_pause(appliance, closed_port, options, state):
    appliance.cloud_url = f"http://127.0.0.1:{closed_port}"
    daemon = appliance.start_daemon(settings={"/daemons/cvcloudd/registration/retry_interval": 60})
    listener = appliance.listen()
    appliance.start(appliance.cvex_command("start", "--token", "any", *options))
    listener.wait_for_line("ended")
    registration = status_of(appliance)["registration"]
    assert registration["state"] == state
    assert registration["try"] == 1
    assert closed_port and str(closed_port) in registration["error"]
    daemon.process.kill()


def test_status_tells_the_last_result_without_the_tokens(ready_desk):
    ready_desk.register()
    assert status_of(ready_desk)["registration"] == {"state": "idle"}
    assert status_of(ready_desk)["last_result"] == {"command": "start_cloud_registration", "result": "ok"}
    ready_desk.retry()
    assert status_of(ready_desk)["last_result"] == {
        "command": "retry_cloud_registration", "result": "error_other",
        "reason": "Retry called, but current state is not FAIL"}
    assert ready_desk.cvex("status").stdout.endswith(
        "retry_cloud_registration: error_other: Retry called, but current state is not FAIL\n")


def test_status_after_a_start_without_reply(ready_desk):
    listener = ready_desk.listen()
    ready_desk.cvex("start", "--no-reply", "--token", PARTNER_TOKEN)
    listener.wait_for_line("cloud_registration_done")
    assert status_of(ready_desk)["last_result"] == {"command": "start_cloud_registration", "result": "ok"}


@pytest.mark.parametrize("command", [["status"], ["status", "--json"], ["log-level", "1"]])
def test_no_daemon(appliance, command):
    result = appliance.cvex(*command)
    assert (result.returncode, result.stdout) == (5, "")
    assert len(result.stderr.splitlines()) == 1


def test_send_reads_its_payload(ready_desk):
    payload = json.dumps({"token": PARTNER_TOKEN, "token_type": "partner"})
    result = send_input(ready_desk, payload, "start_cloud_registration", "-")
    assert result.returncode == 0, result
    assert json.loads(result.stdout)["result"] == "ok"


@pytest.mark.parametrize("payload", ['{"token": "t",\n "token_type" partner}', "[1, 2", " {"])
def test_send_refuses_a_payload_that_is_meant_to_be_json_and_is_none(ready_desk, payload):
    for result in (send_input(ready_desk, payload, "start_cloud_registration", "-"),
                   ready_desk.cvex("send", "start_cloud_registration", payload)):
        assert (result.returncode, result.stdout) == (2, "")
        assert len(result.stderr.splitlines()) == 1
        line = payload.count("\n") + 1
        assert f"not JSON: parse error at line {line}, column " in result.stderr
        assert "--raw" in result.stderr
    raw = ready_desk.cvex("send", "--raw", "--json", "start_cloud_registration", payload)
    assert raw.returncode == 3
    assert json.loads(raw.stdout)["result"] == "error_invalid_arguments"


def test_a_reply_that_does_not_come_in_time(appliance, silent_cloud):
    appliance.cloud_url = silent_cloud.url
    appliance.start_daemon()
    result = appliance.cvex("start", "--token", "any", "--timeout", "0.1")
    assert result.returncode == 4
    assert "--timeout" in result.stderr


def test_listening_ends_with_its_time_out(ready_desk):
    listener = ready_desk.start(ready_desk.cvex_command("listen", "--json", "--timeout", "0.2"))
    assert listener.wait() == 0
    assert listener.lines == ["cvex: listening"]


def on_terminal(desk, *arguments, term="xterm", locale="C.UTF-8", columns=200, **environment):
    """Runs cvex on a terminal; returns its exit code, what it wrote, and the lines that one sees in the end."""
    controller, terminal = pty.openpty()
    fcntl.ioctl(terminal, termios.TIOCSWINSZ, struct.pack("HHHH", 24, columns, 0, 0))
    variables = {name: value for name, value in os.environ.items() if name not in ("NO_COLOR", "LANG")}
    with subprocess.Popen(desk.cvex_command(*arguments), stdin=terminal, stdout=terminal, stderr=terminal,
                          env={**variables, "TERM": term, "LC_ALL": locale, **environment}) as client:
        os.close(terminal)
        written = b""
        # The end of the terminal is an error on this side of it.
        with contextlib.suppress(OSError):
            while data := os.read(controller, 65536):
                written += data
    os.close(controller)
    text = written.decode()
    lines = [re.sub("\033\\[[0-9]+m", "", line.rsplit("\r\033[K", 1)[-1]).rstrip("\r") for line in text.split("\n")]
    assert lines.pop() == ""
    return client.returncode, text, lines


def assert_lines(lines, *patterns):
    assert len(lines) == len(patterns), lines
    for line, pattern in zip(lines, patterns):
        assert re.fullmatch(pattern, line), (line, pattern)


TIME = r"  \d+\.\d s"


def test_spinners_become_ticks_on_a_terminal(ready_desk):
    exit_code, text, lines = on_terminal(ready_desk, "start", "--token", PARTNER_TOKEN)
    assert exit_code == 0
    assert_lines(lines, f"✔ connect  try 1{TIME}", f"✔ register_box  try 1{TIME}",
                 f"✔ published  cloud_registration_done{TIME}",
                 f'✔ start_cloud_registration{TIME}  {{"result": "ok", .*"device_id": "box-1"}}')
    assert "\r\033[K\033[36m◐\033[0m connect  try 1  0.0 s" in text
    assert "\033[32m✔\033[0m connect" in text


def test_a_failed_try_becomes_a_cross_and_a_pause(appliance):
    appliance.start_cloud(options=["--fault", "connect*1=status:503"])
    appliance.start_daemon(settings={"/daemons/cvcloudd/registration/retry_interval": 2})
    exit_code, text, lines = on_terminal(appliance, "start", "--token", PARTNER_TOKEN)
    assert exit_code == 0
    assert_lines(lines[:2], f"✘ connect  try 1{TIME}  http.*: HTTP status 503", f"✔ connect  try 2{TIME}")
    assert len(lines) == 5
    assert "\033[31m✘\033[0m connect  try 1" in text
    # The spinner turns, and the time passes.
    frames = re.findall("\033\\[36m(.)\033\\[0m connect  pause before try 2  (\\d\\.\\d) s", text)
    assert {"◐", "◓", "◑", "◒"} == {sign for sign, _ in frames}
    times = [float(time) for _, time in frames]
    assert times == sorted(times)
    assert times[-1] >= 1


def test_a_refused_try_becomes_a_cross_with_its_reason(ready_desk):
    exit_code, _, lines = on_terminal(ready_desk, "start", "--token", "stolen")
    assert exit_code == 1
    assert_lines(lines, *(f"✘ connect  try {number}{TIME}  unknown partner token" for number in (1, 2)),
                 f"✘ start_cloud_registration{TIME}",
                 ".*: unknown partner token; what to do: A retry sends the same token again: send a new start with "
                 "another token")


def test_an_answer_without_a_result_becomes_a_cross(appliance):
    appliance.start_cloud(options=["--fault", "connect*1=result-empty"])
    appliance.start_daemon()
    exit_code, _, lines = on_terminal(appliance, "start", "--token", PARTNER_TOKEN)
    assert exit_code == 0
    assert_lines(lines[:2], f"✘ connect  try 1{TIME}  the answer was of no use", f"✔ connect  try 2{TIME}")


def test_tries_are_shown_without_a_terminal_too(ready_desk):
    lines = ready_desk.cvex("start", "--token", "stolen").stdout.splitlines()
    assert lines[1:] == [f"connect            try {number} {what}" for number in (1, 2)
                         for what in ("sent to connect/login", "failed: unknown partner token")]


def test_a_pause_is_shown_only_where_there_is_one(appliance):
    appliance.start_cloud(options=["--fault", "connect=status:503"])
    appliance.start_daemon(settings={"/daemons/cvcloudd/registration/retry_interval": 1})
    _, text, _ = on_terminal(appliance, "start", "--token", PARTNER_TOKEN)
    assert "pause before try 2" in text
    assert "pause before try 3" not in text


def test_a_failure_ends_with_a_cross_and_its_line(appliance, closed_port):
    appliance.cloud_url = f"http://127.0.0.1:{closed_port}"
    appliance.start_daemon(settings={"/daemons/cvcloudd/registration/retry_num": 0})
    exit_code, _, lines = on_terminal(appliance, "start", "--token", "any")
    assert exit_code == 1
    assert_lines(lines, f"✘ connect  try 1{TIME}  .*connect.*", f"✘ start_cloud_registration{TIME}",
                 "cvex: start_cloud_registration failed: error_cvnc: .*")


def test_a_time_out_ends_with_a_cross(appliance, silent_cloud):
    appliance.cloud_url = silent_cloud.url
    appliance.start_daemon()
    exit_code, _, lines = on_terminal(appliance, "start", "--token", "any", "--timeout", "0.3")
    assert exit_code == 4
    assert_lines(lines, f"✘ connect  try 1{TIME}", r"✘ start_cloud_registration  0\.[3-9] s",
                 "cvex: no reply to start_cloud_registration .*")


def test_a_refusal_on_a_terminal(ready_desk):
    exit_code, _, lines = on_terminal(ready_desk, "retry")
    assert exit_code == 3
    assert_lines(lines, f"✘ retry_cloud_registration{TIME}", "cvex: retry_cloud_registration was refused: .*")


def test_ascii_without_a_utf8_locale(ready_desk):
    _, text, lines = on_terminal(ready_desk, "start", "--token", PARTNER_TOKEN, locale="C")
    assert text.isascii()
    assert lines[0].startswith("+ connect  try 1")
    assert "|\033[0m connect" in text
    _, text, lines = on_terminal(ready_desk, "retry", locale="C")
    assert lines[0].startswith("x retry_cloud_registration")


def test_no_color(ready_desk):
    _, text, lines = on_terminal(ready_desk, "start", "--token", PARTNER_TOKEN, NO_COLOR="1")
    assert not re.search("\033\\[[0-9;]*m", text)
    assert lines[0].startswith("✔ connect  try 1")


@pytest.mark.parametrize("term", ["dumb", ""])
def test_plain_lines_on_a_terminal_that_can_do_no_more(ready_desk, term):
    exit_code, text, lines = on_terminal(ready_desk, "start", "--token", PARTNER_TOKEN, term=term)
    assert exit_code == 0
    assert "\033" not in text
    assert lines[:2] == ["start_cloud_registration sent", "connect            try 1 sent to connect/login"]


def test_json_is_the_reply_alone_on_a_terminal_too(ready_desk):
    exit_code, text, _ = on_terminal(ready_desk, "start", "--json", "--token", PARTNER_TOKEN)
    assert exit_code == 0
    assert json.loads(text)["result"] == "ok"


def test_a_live_line_does_not_wrap(ready_desk):
    _, text, _ = on_terminal(ready_desk, "start", "--token", PARTNER_TOKEN, columns=20)
    frames = re.findall("\033\\[36m.\033\\[0m ([^\r\n]*)", text)
    assert frames
    assert all(len(frame) + 2 < 20 for frame in frames)


@pytest.fixture
def stopped_daemon(ready_desk):
    """A desk whose daemon is stopped, with as many connections waiting for it as there is room for."""
    ready_desk.daemon.process.send_signal(signal.SIGSTOP)
    waiting = []
    with contextlib.suppress(BlockingIOError):
        while True:
            waiting.append(socket.socket(socket.AF_UNIX))
            waiting[-1].setblocking(False)
            waiting[-1].connect(str(ready_desk.run_directory / "commands"))
    yield ready_desk
    ready_desk.daemon.process.send_signal(signal.SIGCONT)
    for connection in waiting:
        connection.close()


def test_a_daemon_that_is_stopped_holds_nobody_up(stopped_daemon):
    result = stopped_daemon.cvex("start", "--token", "any", "--timeout", "1")
    assert (result.returncode, result.stdout) == (5, "")
    assert f"{stopped_daemon.run_directory} does not answer" in result.stderr


@pytest.mark.parametrize("source", ["file", "standard input", "environment"])
def test_a_token_that_the_list_of_processes_does_not_show(ready_desk, source):
    token_file = ready_desk.run_directory / "token"
    token_file.write_text(PARTNER_TOKEN + "\n", encoding="utf-8")
    arguments = {"file": ["--token-file", token_file], "standard input": ["--token-file", "-"], "environment": []}
    result = subprocess.run(ready_desk.cvex_command("start", "--json", *arguments[source]), check=False,
                            input=f"{PARTNER_TOKEN}\nnothing" if source == "standard input" else "",
                            env={**os.environ, "CVEX_TOKEN": PARTNER_TOKEN if source == "environment" else "wrong"},
                            capture_output=True, encoding="utf-8", timeout=desk_module.START_TIMEOUT)
    assert result.returncode == 0, result
    assert json.loads(result.stdout)["result"] == "ok"


@pytest.mark.parametrize("arguments", [[], ["--token-file", "/nowhere/token"], ["--token-file", "-"]])
def test_no_token(ready_desk, arguments):
    result = ready_desk.cvex("start", *arguments)
    assert (result.returncode, result.stdout) == (2, "")
    assert len(result.stderr.splitlines()) == 1
    assert "--token-file" in result.stderr


# Each closes the reason's quotes and goes on: with members that a parser of JSON takes for the reply's own, or with
# more levels than one that recurses can go down.
FOOLING = {
    "another result": '", "result": "ok',
    "a whole success": '"}{"result": "ok", "user_token": "t", "device_id": "d',
    "deep arrays": '", "deep": ' + "[" * 30000 + "]" * 30000 + ', "x": "',
}


@pytest.mark.parametrize("words", FOOLING.values(), ids=FOOLING)
def test_words_of_the_cloud_do_not_change_the_result(ready_desk, words):
    ready_desk.ask_cloud("POST", "/faults", [f"connect=error:{words}"])
    result = ready_desk.cvex("start", "--json", "--token", PARTNER_TOKEN)
    assert (result.returncode, result.stdout) == (1, f'{{"result": "error_connect", "reason": "{words}"}}\n')
    shown = ready_desk.cvex("start", "--token", PARTNER_TOKEN)
    assert shown.returncode == 1
    assert f"failed: error_connect: {words}" in shown.stderr
    assert status_of(ready_desk)["last_result"] == {
        "command": "start_cloud_registration", "result": "error_connect", "reason": words}


def test_a_reply_with_a_nul_comes_out_whole(ready_desk):
    ready_desk.ask_cloud("POST", "/faults", ["connect=text:before\0behind"])
    result = ready_desk.cvex("start", "--json", "--token", PARTNER_TOKEN)
    assert result.stdout == '{"result": "error_cvnc", "reason": "Response is not JSON: before\0behind"}\n'


# It would name the window, clear the screen by the one character that means ESC [, and turn the writing around.
STEERING = "\033]0;owned\007\u009b2J\u202e\nnext"
HARMLESS = "?]0;owned??2J? next"


@pytest.fixture
def steering_desk(appliance):
    """A desk whose cloud has words that steer a terminal."""
    appliance.start_cloud()
    appliance.ask_cloud("POST", "/faults", [f"connect=error:{STEERING}"])
    appliance.start_daemon()
    return appliance


@pytest.mark.parametrize("command", [
    ["start", "--token", PARTNER_TOKEN],
    ["start", "--token", PARTNER_TOKEN, "--json"],
    ["send", "start_cloud_registration", json.dumps({"token": PARTNER_TOKEN, "token_type": "partner"})],
])
@pytest.mark.parametrize("term", ["xterm", "dumb"])
def test_words_of_the_cloud_do_not_steer_a_terminal(steering_desk, command, term):
    exit_code, text, lines = on_terminal(steering_desk, *command, term=term, NO_COLOR="1")
    assert exit_code == 1
    assert HARMLESS in lines[-1]
    assert "\033" not in text.replace("\033[K", "")
    assert not set(STEERING) & set(text) & {"\007", "\u009b", "\u202e"}
    _, text, lines = on_terminal(steering_desk, "status", term=term)
    assert HARMLESS in lines[-1]
    assert "\033" not in text


def test_a_program_gets_the_words_of_the_cloud_as_they_came(steering_desk):
    result = steering_desk.cvex("start", "--json", "--token", PARTNER_TOKEN)
    assert STEERING in result.stdout


def test_a_person_gets_the_words_of_the_cloud_without_controls(steering_desk):
    result = steering_desk.cvex("start", "--token", PARTNER_TOKEN)
    assert HARMLESS in result.stderr
    assert len(result.stderr.splitlines()) == 1


def test_listen_ends_after_a_count_of_named_messages(ready_desk):
    listener = ready_desk.start(ready_desk.cvex_command("listen", "cloud_registration_done", "--count", "1"))
    listener.wait_for_line("^cvex: listening$")
    reply = ready_desk.register()
    assert listener.wait() == 0
    assert listener.lines == ["cvex: listening", f"cloud_registration_done {reply}"]


def test_status_is_shown_again_when_something_happens(ready_desk):
    watcher = ready_desk.start(ready_desk.cvex_command("status", "--watch"))
    watcher.wait_for_line("^last result +none yet$")
    ready_desk.register()
    watcher.wait_for_line("^last result +start_cloud_registration: ok$")


def test_doctor_finds_everything_that_a_registration_needs(ready_desk):
    result = ready_desk.cvex("doctor")
    assert result.returncode == 0, result
    heads = [re.fullmatch(r"[+✔] (run directory|\w+) +\S.*", line)[1] for line in result.stdout.splitlines()]
    assert heads == ["run directory", "daemon", "handler", "cloud", "interface", "clock"]
    assert f"{ready_desk.cloud_url} accepts connections" in result.stdout
    assert "eth2 is simulated with 02:00:00:c0:ff:ee" in result.stdout


def test_doctor_says_what_is_missing(appliance, closed_port):
    result = appliance.cvex("doctor")
    assert result.returncode == 1
    assert re.search("^[x✘] daemon +no cvcloudd serves .*: start one there", result.stdout, re.MULTILINE)
    appliance.cloud_url = f"http://127.0.0.1:{closed_port}"
    appliance.start_daemon(settings={"/daemons/cvcloudd/registration/register_interface": "eth77"})
    result = appliance.cvex("doctor")
    assert result.returncode == 1
    assert re.search("^[x✘] cloud .*Connection refused; is the cloud up", result.stdout, re.MULTILINE)
    assert re.search("^[x✘] interface +there is no eth77; choose another", result.stdout, re.MULTILINE)
