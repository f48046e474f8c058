"""Hundreds of commands from several clients at once: each that wants a reply gets exactly one."""

import json

import pytest
from conftest import BUILD_DIRECTORY

import desk as desk_module

CLIENTS = 8
COMMANDS = 50
# Of ten commands one wants no reply, one is for nobody, one is a retry.
WITH_REPLY = CLIENTS * COMMANDS * 9 // 10
FOR_NOBODY = CLIENTS * COMMANDS // 10


def start_crowd(appliance):
    return appliance.start([BUILD_DIRECTORY / "bin" / "crowd", appliance.run_directory, CLIENTS, COMMANDS])


def counts_of(crowd):
    counts = json.loads(crowd.wait_for_line("^{", timeout=2 * desk_module.START_TIMEOUT).string)
    assert crowd.wait() == 0, counts
    return counts


def test_two_registrations_by_hundreds_of_commands(ready_desk):
    listener = ready_desk.listen()
    for number in (1, 2):
        # The first start that comes is held in the cloud until all other commands are answered.
        ready_desk.ask_cloud("POST", "/faults", ["connect*1=silence"])
        crowd = start_crowd(ready_desk)
        crowd.wait_for_line("^one reply is missing$")
        ready_desk.ask_cloud("DELETE", "/faults")
        counts = counts_of(crowd)
        assert counts.pop("ok") == 1
        # A retry that comes before every start is refused like a command for nobody, by its name.
        assert FOR_NOBODY <= counts["error_other"] <= FOR_NOBODY * 2
        assert sum(counts.values()) == WITH_REPLY - 1
        assert set(counts) <= {"error_in_progress", "error_other", "missing", "surplus"}
        listener.wait_for_line('"cloud_registration_done"', count=number)
    assert [request["method"] for request in ready_desk.ask_cloud("GET", "/requests")] == [
        "connect", "register_box"] * 2


@pytest.mark.parametrize("fault", ["connect*5=drop", "connect*3=error"])
def test_registrations_under_a_crowd_with_faults(appliance, fault):
    appliance.start_cloud(options=["--fault", fault])
    appliance.start_daemon(settings={"/daemons/cvcloudd/registration/retry_num": 0})
    counts = counts_of(start_crowd(appliance))
    assert sum(counts.values()) == WITH_REPLY
    assert appliance.daemon.stop() == 0
