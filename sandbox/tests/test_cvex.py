"""The client as a person and as a program use it."""

import json
import subprocess

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
