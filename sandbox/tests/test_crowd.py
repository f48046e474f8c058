"""Hundreds of commands from several clients at once: each that wants a reply gets exactly one."""

import json
import os
import signal
import subprocess

import pytest
from conftest import BUILD_DIRECTORY, RawClient, is_sanitized, most_memory_of

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


def test_commands_that_nobody_takes_are_bounded(appliance, handlers):
    appliance.start_cloud()
    daemon = appliance.start_daemon(handler=handlers["probe"])
    pipe = appliance.run_directory / "pipe"
    os.mkfifo(pipe)
    payload = b"x" * 60000
    with RawClient(appliance.run_directory) as client:
        client.send(b"probe_hold", b"0", bytes(pipe))
        # Opened when the handler has opened it to read.
        with open(pipe, "wb") as writer:
            for _ in range(2500):
                client.send(b"probe_late_subscription", b"2", payload)
            refused = [client.receive() for _ in range(1500)]
            assert set(refused) == {b'{"result": "error_other", "reason": "1000 commands wait already"}'}
            assert most_memory_of(daemon) < 120 or is_sanitized()
            writer.write(b"go on")
        assert {client.receive() for _ in range(1000)} == {b'{"result": "ok"}'}
        assert client.ask("probe_late_subscription") == b'{"result": "ok"}'
        too_long = client.ask("probe_late_subscription", b"x" * 65537)
        assert b"A command's payload has at most 65536 bytes" in too_long
    result = subprocess.run(appliance.cvex_command("send", "x", "-"), input="x" * 65537, capture_output=True, check=False,
                            encoding="utf-8", timeout=desk_module.START_TIMEOUT)
    assert result.returncode == 1
    assert "the payload has 65537 bytes, more than the 65536" in result.stderr
    assert daemon.stop() == 0


def test_a_subscriber_that_does_not_read_is_told_what_it_lost(appliance, handlers):
    appliance.start_cloud()
    daemon = appliance.start_daemon(handler=handlers["probe"])
    listener = appliance.listen()
    listener.process.send_signal(signal.SIGSTOP)
    try:
        assert appliance.cvex("send", "probe_publish", "20000").returncode == 0
        daemon.wait_for_line("a subscriber does not take what is published and loses messages, the first of them ")
    finally:
        listener.process.send_signal(signal.SIGCONT)
    for _ in range(1000):
        assert appliance.cvex("send", "probe_publish", "1").returncode == 0
        if any("messages were lost" in line for line in listener.lines):
            break
    listener.wait_for_line(r"^cvex: \d+ messages were lost: they came faster than they were read$")


@pytest.mark.parametrize("fault", ["connect*5=drop", "connect*3=error"])
def test_registrations_under_a_crowd_with_faults(appliance, fault):
    appliance.start_cloud(options=["--fault", fault])
    appliance.start_daemon(settings={"/daemons/cvcloudd/registration/retry_num": 0})
    counts = counts_of(start_crowd(appliance))
    assert sum(counts.values()) == WITH_REPLY
    assert appliance.daemon.stop() == 0
