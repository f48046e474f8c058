"""The daemon's end, at every moment of a registration."""

import json
import os
import signal

import pytest

import desk as desk_module


@pytest.mark.parametrize("stop_signal", [signal.SIGTERM, signal.SIGINT])
def test_stops_when_idle(ready_desk, stop_signal):
    ready_desk.daemon.process.send_signal(stop_signal)
    assert ready_desk.daemon.wait() == 0


def test_stops_after_a_registration(ready_desk):
    ready_desk.register()
    assert ready_desk.daemon.stop() == 0


def test_stops_during_a_pending_request(appliance, silent_cloud):
    appliance.cloud_url = silent_cloud.url
    daemon = appliance.start_daemon()
    client = appliance.start(appliance.cvex_command("start", "--json", "--token", "any"))
    silent_cloud.wait_for_requests(1)
    assert daemon.stop() == 0
    # The requester is told, by the handler or, when that was stopped first, by the daemon.
    reply = json.loads(client.wait_for_line("^{").string)
    assert reply["result"] in ("error_cvnc", "error_internal")
    assert client.wait() == 1


def test_stops_during_a_retry_pause(appliance, closed_port):
    appliance.cloud_url = f"http://127.0.0.1:{closed_port}"
    # Real pauses, to stop in the first of three.
    daemon = appliance.start_daemon("--log-level", "3",
                                    settings={"/daemons/cvcloudd/registration/retry_num": 3,
                                              "/daemons/cvcloudd/registration/retry_interval": 1})
    client = appliance.start(appliance.cvex_command("start", "--json", "--token", "any"))
    # The second time that the handler counts its tries, the first has failed and the pause begins.
    daemon.wait_for_line("Number of tries left is: 3$")
    assert daemon.stop() == 0
    # A request for each pause that was waited for, behind the first.
    assert len([line for line in daemon.lines if "full request: " in line]) == 2
    assert json.loads(client.wait_for_line("^{").string)["result"] in ("error_cvnc", "error_internal")
    assert client.wait() == 1


@pytest.mark.parametrize("option", ["--handler", "--ca-file"])
def test_stops_while_it_starts(appliance, option):
    appliance.cloud_url = "http://127.0.0.1:9"
    appliance.write_settings({})
    pipe = appliance.run_directory / "pipe"
    os.mkfifo(pipe)
    daemon = appliance.start(appliance.daemon_command(option, pipe))
    # Opened when the daemon has opened it to read: it waits for what is never written.
    writer = os.open(pipe, os.O_WRONLY)
    assert daemon.stop() == 0
    os.close(writer)


def test_restarts_in_the_same_run_directory(ready_desk):
    ready_desk.daemon.stop()
    ready_desk.start_daemon()
    assert json.loads(ready_desk.register())["result"] == "ok"


def test_restarts_after_it_was_killed(ready_desk):
    ready_desk.daemon.process.kill()
    ready_desk.daemon.wait()
    assert (ready_desk.run_directory / "commands").is_socket()
    ready_desk.start_daemon()
    assert json.loads(ready_desk.register())["result"] == "ok"


def test_a_client_is_told_when_the_daemon_was_killed(appliance, silent_cloud):
    appliance.cloud_url = silent_cloud.url
    daemon = appliance.start_daemon()
    client = appliance.start(appliance.cvex_command("start", "--json", "--token", "any"))
    silent_cloud.wait_for_requests(1)
    daemon.process.kill()
    client.wait_for_line("^cvex: the cvcloudd in the run directory .* ended before it answered: start it again$")
    assert client.wait() == 5


def test_the_cloud_stops_cleanly(ready_desk):
    ready_desk.register()
    assert ready_desk.cloud.stop() == 0


def test_a_client_is_told_of_a_time_out(appliance, silent_cloud):
    appliance.cloud_url = silent_cloud.url
    appliance.start_daemon()
    result = appliance.cvex("start", "--timeout", "0.1", "--token", desk_module.TOKENS["partner"])
    assert result.returncode == 4
    assert result.stderr == ("cvex: no reply to start_cloud_registration came within the time-out: look at the "
                             "daemon's log or raise --timeout\n")
