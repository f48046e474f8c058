"""The log: its lines, its level while the daemon runs, and tokens masked in it."""

import contextlib
import json
import os
import pty
import re
import subprocess

import pytest

import desk as desk_module

PARTNER_TOKEN = desk_module.TOKENS["partner"]
LINE = r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z (error  |warning|info   |detail ) \S.*"


def log_of(desk):
    """The whole log of the daemon, which ends here."""
    assert desk.daemon.stop() == 0
    return [line for line in desk.daemon.lines if line != "cvcloudd: ready"]


def test_each_line_has_time_level_and_text(appliance):
    appliance.start_cloud()
    appliance.start_daemon("--log-level", "3")
    appliance.register()
    lines = log_of(appliance)
    assert {re.fullmatch(LINE, line) is not None for line in lines} == {True}
    assert {line.split()[1] for line in lines} == {"info", "detail"}


def test_the_level_changes_while_the_daemon_runs(appliance):
    appliance.start_cloud()
    daemon = appliance.start_daemon("--log-level", "0")
    appliance.register()
    assert daemon.lines == ["cvcloudd: ready"]

    result = appliance.cvex("log-level", "3")
    assert result.returncode == 0
    assert json.loads(result.stdout) == {"result": "ok", "log_level": 3}
    appliance.register()
    # The worker's last line; the thread of the response may print one more.
    daemon.wait_for_line(" detail  .*Successfully sent cloud_registration_done cvex message")

    assert appliance.cvex("log-level", "1").returncode == 0
    before = len(daemon.lines)
    appliance.register()
    assert all(" detail " in line for line in log_of(appliance)[before:])


def test_a_terminal_gets_no_controls(appliance):
    appliance.start_cloud()
    appliance.ask_cloud("POST", "/faults", ["connect=error:\033[2J\u009b2J\nü"])
    appliance.write_settings({})
    controller, terminal = pty.openpty()
    with subprocess.Popen([str(word) for word in appliance.daemon_command()], stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=terminal) as daemon:
        os.close(terminal)
        assert daemon.stdout.readline() == b"cvcloudd: ready\n"
        assert appliance.cvex("start", "--json", "--token", PARTNER_TOKEN).returncode == 1
        daemon.terminate()
        log = b""
        # The end of the terminal is an error on this side of it.
        with contextlib.suppress(OSError):
            while data := os.read(controller, 65536):
                log += data
    os.close(controller)
    text = log.decode()
    assert "\\x1b[2J\\x9b2J\\x0aü" in text
    assert "\033" not in text and "\u009b" not in text
    assert all(re.fullmatch(LINE, line) for line in text.rstrip().split("\r\n"))


def test_words_of_the_cloud_begin_no_line_of_their_own(appliance):
    forged = "2026-01-01T00:00:00.000Z error   all is well"
    appliance.start_cloud()
    appliance.ask_cloud("POST", "/faults", [f"connect=error:x\n{forged}"])
    appliance.start_daemon()
    assert appliance.cvex("start", "--json", "--token", PARTNER_TOKEN).returncode == 1
    lines = log_of(appliance)
    assert forged not in lines
    assert any(f"\\x0a{forged}" in line for line in lines)


@pytest.mark.parametrize("level", ["4", "-1", "much"])
def test_a_level_that_there_is_not(ready_desk, level):
    result = ready_desk.cvex("log-level", "--", level)
    assert result.returncode == 2
    assert len(result.stderr.splitlines()) == 1
    refused = ready_desk.cvex("send", "cvcloudd_log_level", level)
    assert refused.returncode == 3
    assert json.loads(refused.stdout)["result"] == "error_invalid_arguments"


def start_and_log(appliance, token, *options):
    appliance.start_cloud(tokens={"partner": token})
    appliance.start_daemon("--log-level", "3", *options)
    result = appliance.cvex("start", "--json", "--token", token)
    assert result.returncode == 0, result
    return json.loads(result.stdout)["user_token"], "\n".join(log_of(appliance))


def test_the_handlers_own_lines_stay_as_they_are(appliance):
    user_token, log = start_and_log(appliance, PARTNER_TOKEN)
    assert f"Registration input params: token={PARTNER_TOKEN}, mac=" in log
    assert user_token in log


@pytest.mark.parametrize("token", [PARTNER_TOKEN, 'quoted "\\ token ü', "t" * 600])
def test_masked_tokens_are_in_no_line(appliance, token):
    user_token, log = start_and_log(appliance, token, "--mask-tokens")
    assert "Registration input params: token=***" in log
    assert user_token not in log
    assert token not in log
    assert json.dumps(token, ensure_ascii=False)[1:-1] not in log
    assert "t" * 8 not in log
    # The rest of the lines is there.
    assert re.search(r'"device_id": ?"box-1"', log)


@pytest.mark.parametrize("payload", ['{"token": "a secret", "token_type": "partner"', '{"token" : "a secret'])
def test_tokens_of_a_payload_that_is_no_json_are_masked(appliance, payload):
    appliance.start_cloud()
    appliance.start_daemon("--log-level", "3", "--mask-tokens")
    assert appliance.cvex("send", "--raw", "start_cloud_registration", payload).returncode == 3
    log = "\n".join(log_of(appliance))
    assert "Could not parse" in log
    assert "secret" not in log


def test_a_token_that_begins_with_another_is_masked_whole(appliance):
    appliance.start_cloud()
    appliance.start_daemon("--log-level", "3", "--mask-tokens")
    payload = '{"token": "first", "old_token": "first-and-rest" no JSON'
    assert appliance.cvex("send", "--raw", "start_cloud_registration", payload).returncode == 3
    assert appliance.cvex("send", "first-and-rest").returncode == 3
    log = "\n".join(log_of(appliance))
    assert "no handler takes the command ***\n" in log
    assert "rest" not in log


def test_a_record_has_the_log_as_it_was_masked(appliance):
    record = appliance.run_directory / "record.jsonl"
    user_token, _ = start_and_log(appliance, PARTNER_TOKEN, "--mask-tokens", "--record", record)
    events = [json.loads(line) for line in record.read_text(encoding="utf-8").splitlines()[1:]]
    lines = [event["line"] for event in events if event["event"] == "log"]
    assert any("token=***" in line for line in lines)
    assert not any(user_token in line or PARTNER_TOKEN in line for line in lines)
