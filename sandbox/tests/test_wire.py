"""The exchange as an app sees it that does not use cvex: docs/wire.md, its sockets, and the examples."""

import json
import os
import socket
import subprocess
from pathlib import Path

import pytest
import zmq

import desk as desk_module

PROJECT = Path(__file__).parents[2]
BUILD_DIRECTORY = Path(os.environ["CV_BUILD_DIR"])


def session_of_the_page():
    """[(direction, bytes)] of docs/wire.md, the lines of one direction joined."""
    session = []
    for line in (PROJECT / "docs" / "wire.md").read_text(encoding="utf-8").splitlines():
        if line.startswith(("    > ", "    < ")):
            direction, data = line[4], bytes.fromhex(line[6:])
            if session and session[-1][0] == direction:
                data = session.pop()[1] + data
            session.append((direction, data))
    return session


def test_the_session_of_the_page(appliance):
    session = session_of_the_page()
    assert [direction for direction, _ in session] == [">", "<"] * 3
    appliance.start_cloud()
    appliance.start_daemon()
    with socket.socket(socket.AF_UNIX) as client:
        client.settimeout(desk_module.START_TIMEOUT)
        client.connect(str(appliance.run_directory / "commands"))
        for direction, data in session:
            if direction == ">":
                client.sendall(data)
            else:
                assert client.recv(len(data), socket.MSG_WAITALL) == data


@pytest.fixture
def req(ready_desk):
    """A REQ socket at the daemon."""
    with zmq.Context() as context, context.socket(zmq.REQ) as client:
        client.setsockopt(zmq.LINGER, 0)
        client.setsockopt(zmq.RCVTIMEO, desk_module.START_TIMEOUT * 1000)
        client.connect(f"ipc://{ready_desk.run_directory}/commands")
        yield client


@pytest.mark.parametrize("frames, reply", [
    ([b"cvcloudd_log_level", b"2", b"1"], {"result": "ok", "log_level": 1}),
    ([b"retry_cloud_registration", b"2", b""],
     {"result": "error_other", "reason": "Retry called, but current state is not FAIL"}),
    ([b"cvcloudd_log_level", b"0", b"1"],
     {"result": "error_other", "reason": "A REQ socket waits for a reply: its commands have the type 2"}),
    ([b"cvcloudd_log_level"],
     {"result": "error_other", "reason": "A command has the three frames name, type and payload"}),
])
def test_a_req_socket_gets_a_reply(req, frames, reply):
    req.send_multipart(frames)
    payload, published_before = req.recv_multipart()
    assert json.loads(payload) == reply
    assert published_before == b"0"


@pytest.fixture(params=["register.py", "register.sh", "example_register"])
def example(request, appliance):
    """Runs an example on a desk with a token, and returns how it ended."""
    program = (PROJECT / "examples" / request.param if "." in request.param
               else BUILD_DIRECTORY / "bin" / request.param)
    path = f"{Path(appliance.programs['cvex']).parent}:{os.environ['PATH']}"

    def run(token):
        return subprocess.run([program, appliance.run_directory, token], env={**os.environ, "PATH": path},
                              stdin=subprocess.DEVNULL, capture_output=True, encoding="utf-8", check=False,
                              timeout=desk_module.START_TIMEOUT)
    return run


def progress_in(output):
    lines = [line.removeprefix("progress ") for line in output.splitlines() if line.startswith("progress ")]
    return [(message["event"], message["method"]) for message in map(json.loads, lines)]


def test_an_example_registers_the_box(appliance, example):
    appliance.start_cloud()
    appliance.start_daemon()
    result = example(desk_module.TOKENS["partner"])
    assert result.returncode == 0, result
    assert progress_in(result.stdout) == [("sent", "connect"), ("ended", "connect"), ("sent", "register_box"),
                                          ("ended", "register_box")]
    assert '\nreply {"result": "ok", "user_token": "' in result.stdout


def test_an_example_reports_a_failure(appliance, example):
    appliance.start_cloud()
    appliance.start_daemon()
    result = example("stolen")
    assert result.returncode != 0
    assert 'reply {"result": "error_connect", "reason": "unknown partner token"}' in result.stdout


def test_an_example_is_short():
    for source in (PROJECT / "examples").glob("register.*"):
        assert len(source.read_text(encoding="utf-8").splitlines()) < 60, source
