"""The road of one registration, from cvex to the cloud and back."""

import json
import re
from concurrent.futures import ThreadPoolExecutor

import pytest
from conftest import published_done

import desk as desk_module


@pytest.mark.parametrize("token_type, method", [("partner", "connect"), ("temporary", "get_device_token")])
def test_registers_with_each_token_type(ready_desk, token_type, method):
    listener = ready_desk.listen()
    reply = ready_desk.register(token_type)
    document = json.loads(reply)
    assert list(document) == ["result", "user_token", "device_id"]
    assert document["result"] == "ok"
    assert document["user_token"].startswith("user-")
    assert document["device_id"] == "box-1"
    assert published_done(listener) == reply
    ready_desk.cloud.wait_for_line(rf" connect/login {method}: ok$")


def test_shows_the_steps_to_a_person(ready_desk):
    result = ready_desk.cvex("start", "--token", desk_module.TOKENS["partner"])
    assert result.returncode == 0
    done = r'{"result": "ok", "user_token": "user-[0-9a-f]{16}", "device_id": "box-1"}'
    expected = [
        "start_cloud_registration sent",
        "connect            try 1 sent to connect/login",
        "connect            try 1 answered",
        "register_box       try 1 sent to connect/box_mgmt",
        "register_box       try 1 answered",
        f"published          cloud_registration_done {done}",
        f"reply              {done}",
    ]
    lines = result.stdout.splitlines()
    assert len(lines) == len(expected)
    for line, pattern in zip(lines, expected):
        assert re.fullmatch(pattern, line)
    assert result.stderr == ""


def test_a_box_keeps_its_device_id(ready_desk):
    def device_id(*options):
        return json.loads(ready_desk.register("partner", *options))["device_id"]

    first = device_id("--mac", "02:00:00:00:00:01")
    second = device_id("--mac", "02:00:00:00:00:02")
    assert first != second
    assert device_id("--mac", "02:00:00:00:00:01") == first


def test_mac_of_the_interface_is_sent_in_upper_case(appliance):
    appliance.start_cloud()
    appliance.start_daemon(settings={"/network/interfaces/eth2/mac": "02:00:00:aa:bb:cc"})
    appliance.register()
    appliance.cloud.wait_for_line(r"register_box: ok, 02:00:00:AA:BB:CC is box-1$")


def test_mac_of_the_command_is_sent_in_upper_case(ready_desk):
    ready_desk.register("partner", "--mac", "02:00:00:dd:ee:ff")
    ready_desk.cloud.wait_for_line(r"register_box: ok, 02:00:00:DD:EE:FF is box-1$")


def test_a_start_without_reply_is_published(ready_desk):
    listener = ready_desk.listen()
    result = ready_desk.cvex("start", "--no-reply", "--token", desk_module.TOKENS["partner"])
    assert (result.returncode, result.stdout) == (0, "start_cloud_registration sent\n")
    assert json.loads(published_done(listener))["result"] == "ok"


def test_a_failed_registration_is_answered_and_resumed(appliance):
    appliance.start_cloud()
    port = int(appliance.cloud_url.rsplit(":", 1)[1])
    appliance.start_daemon()
    appliance.cloud.stop()

    listener = appliance.listen()
    failed = appliance.cvex("start", "--json", "--token", desk_module.TOKENS["partner"])
    assert failed.returncode == 1
    assert failed.stdout == '{"result": "error_cvnc", "reason": "Response status 7"}\n'

    appliance.start_cloud(port)
    resumed = appliance.retry()
    assert resumed.returncode == 0, resumed
    assert json.loads(resumed.stdout)["device_id"] == "box-1"
    assert published_done(listener) == resumed.stdout.strip()


def test_the_clouds_own_words_reach_the_requester(ready_desk):
    result = ready_desk.cvex("start", "--json", "--token", "stolen")
    assert result.returncode == 1
    assert json.loads(result.stdout) == {"result": "error_connect", "reason": "unknown partner token"}
    ready_desk.cloud.wait_for_line(r" connect/login connect: refused: unknown partner token$", count=2)


def test_a_second_start_is_refused_while_one_is_running(appliance, silent_cloud):
    appliance.cloud_url = silent_cloud.url
    appliance.start_daemon()
    appliance.cvex("start", "--no-reply", "--token", "any")
    silent_cloud.wait_for_requests(1)
    result = appliance.cvex("start", "--token", "any")
    assert result.returncode == 3
    assert result.stderr == ("cvex: start_cloud_registration was refused: error_in_progress: "
                             "Another registration process is in progress; what to do: Send it again a little later\n")


def test_a_retry_without_failure_is_refused(ready_desk):
    result = ready_desk.cvex("retry", "--json")
    assert result.returncode == 3
    assert json.loads(result.stdout) == {"result": "error_other",
                                         "reason": "Retry called, but current state is not FAIL"}


def test_a_bad_payload_is_refused(ready_desk):
    result = ready_desk.cvex("send", "start_cloud_registration", "no JSON")
    assert result.returncode == 3
    assert json.loads(result.stdout) == {"result": "error_invalid_arguments",
                                         "reason": "Could not parse input into a JSON"}


def test_starts_from_many_clients_at_once_get_one_reply_each(ready_desk):
    with ThreadPoolExecutor(8) as clients:
        results = list(clients.map(
            lambda _: ready_desk.cvex("start", "--json", "--token", desk_module.TOKENS["partner"]), range(24)))
    replies = [[json.loads(line)["result"] for line in result.stdout.splitlines()] for result in results]
    assert all(len(lines) == 1 for lines in replies)
    assert {lines[0] for lines in replies} <= {"ok", "error_in_progress"}
    assert ["ok"] in replies
