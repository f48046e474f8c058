"""What the daemon owes to any handler that it loads."""

import contextlib
import http.server
import json
import os
import subprocess
import threading
from pathlib import Path

import pytest


def test_each_accepted_request_is_called_back_once(appliance, handlers):
    appliance.start_cloud()
    daemon = appliance.start_daemon(handler=handlers["probe"])
    result = appliance.cvex("send", "probe_cloud", "200")
    assert json.loads(result.stdout) == {"result": "ok", "failed": 0}
    assert daemon.stop() == 0
    daemon.wait_for_line("probe: accepted 200, called back 200$")
    daemon.wait_for_line("probe: a request of its callback gets 1$")
    daemon.wait_for_line("probe: a request at the end gets 0 and 1 callback$")


def test_outstanding_requests_are_called_back_before_uninit(appliance, handlers, silent_cloud):
    appliance.cloud_url = silent_cloud.url
    daemon = appliance.start_daemon(handler=handlers["probe"])
    # More than the daemon has connections: some are outstanding at the cloud, some still wait in the daemon.
    client = appliance.start(appliance.cvex_command("send", "probe_cloud", "9"))
    silent_cloud.wait_for_requests(4)
    daemon.wait_for_line("probe: sent$")
    assert daemon.stop() == 0
    daemon.wait_for_line("probe: accepted 9, called back 9$")
    client.wait_for_line(r'^{"result": "ok", "failed": 9}$')
    assert client.wait() == 0


def test_a_handler_may_subscribe_later_than_in_init(appliance, handlers):
    appliance.start_cloud()
    appliance.start_daemon(handler=handlers["probe"])
    assert appliance.cvex("send", "probe_late_subscription").returncode == 0


def test_a_log_that_nobody_reads_does_not_end_the_daemon(appliance):
    appliance.start_cloud()
    appliance.write_settings({})
    unread, log = os.pipe()
    os.close(unread)
    with subprocess.Popen(appliance.daemon_command("--log-level", "3"), stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=log) as daemon:
        os.close(log)
        try:
            assert daemon.stdout.readline() == b"cvcloudd: ready\n"
            appliance.register()
        finally:
            daemon.terminate()
    assert daemon.returncode == 0


def test_a_request_ends_at_its_time_out(appliance, silent_cloud):
    appliance.cloud_url = silent_cloud.url
    appliance.start_daemon("--request-timeout", "0.1")
    result = appliance.cvex("start", "--json", "--token", "any")
    assert result.returncode == 1
    assert json.loads(result.stdout) == {"result": "error_cvnc", "reason": "Response status 28"}


def test_an_http_error_is_a_failed_request(appliance):
    appliance.start_cloud()
    # The web server of the simulated cloud refuses a path of this length.
    appliance.cloud_url += "/" + "x" * 9000
    appliance.start_daemon()
    result = appliance.cvex("start", "--json", "--token", "any")
    assert result.returncode == 1
    assert json.loads(result.stdout) == {"result": "error_cvnc", "reason": "Response status 414"}


class AnsweringCloud(http.server.BaseHTTPRequestHandler):
    """Gives every request the same answer."""
    protocol_version = "HTTP/1.1"
    status = None
    body = b""

    def do_POST(self):
        self.rfile.read(int(self.headers["Content-Length"]))
        self.send_response(self.status)
        self.send_header("Content-Length", str(len(self.body)))
        self.end_headers()
        self.wfile.write(self.body)

    def log_message(self, *_):
        pass


@pytest.fixture
def answering_cloud(appliance):
    """Starts a cloud of that status and body, and makes it the desk's."""
    with contextlib.ExitStack() as stack:
        def start(status, body):
            answer = type("Answer", (AnsweringCloud,), {"status": status, "body": body})
            server = stack.enter_context(http.server.ThreadingHTTPServer(("127.0.0.1", 0), answer))
            server.daemon_threads = True
            threading.Thread(target=server.serve_forever, args=[0.01], daemon=True).start()
            stack.callback(server.shutdown)
            appliance.cloud_url = f"http://127.0.0.1:{server.server_port}"
        yield start


@pytest.mark.parametrize("status", [201, 204, 404])
def test_only_http_200_is_a_success(appliance, answering_cloud, status):
    answering_cloud(status, b"" if status == 204 else b'{"result": {"user_token": "u", "device_id": "d"}}')
    appliance.start_daemon()
    result = appliance.cvex("start", "--json", "--token", "any")
    assert json.loads(result.stdout) == {"result": "error_cvnc", "reason": f"Response status {status}"}


def test_a_failed_answer_has_its_body(appliance, handlers, answering_cloud):
    answering_cloud(503, b"come back later")
    daemon = appliance.start_daemon(handler=handlers["probe"])
    assert json.loads(appliance.cvex("send", "probe_cloud", "1").stdout) == {"result": "ok", "failed": 1}
    daemon.wait_for_line("probe: status 503, body: come back later$")


def run_times(process):
    """Nanoseconds on a processor of each thread."""
    return {task.name: (task / "schedstat").read_text(encoding="ascii").split()[0]
            for task in Path(f"/proc/{process.pid}/task").iterdir()}


@pytest.mark.skipif("thread" in os.environ.get("CV_SANITIZE", ""), reason="the sanitizer has a thread that wakes up")
def test_an_idle_daemon_takes_no_processor_time(ready_desk):
    ready_desk.register()
    for _ in range(20):  # What the registration left to do may still end in the first rounds.
        before = run_times(ready_desk.daemon.process)
        for _ in range(5):
            subprocess.run([ready_desk.programs["cvex"], "--help"], check=True, stdout=subprocess.DEVNULL)
        after = run_times(ready_desk.daemon.process)
        if after == before:
            return
    raise AssertionError(f"nanoseconds of each thread, before and after five other programs ran: {before}, {after}")


def test_a_command_that_no_handler_takes_is_answered(ready_desk):
    result = ready_desk.cvex("send", "reboot")
    assert result.returncode == 3
    assert json.loads(result.stdout) == {"result": "error_other",
                                         "reason": "No handler takes the command reboot"}


def test_a_command_with_an_impossible_name_is_answered(ready_desk):
    result = ready_desk.cvex("send", "x" * 260)
    assert result.returncode == 3
    assert "1 to 259 bytes" in json.loads(result.stdout)["reason"]


def test_the_daemon_does_without_an_optional_handler(appliance, handlers):
    appliance.start_cloud()
    daemon = appliance.start_daemon("--handler", handlers["probe"], handler=handlers["unready_optional"])
    daemon.wait_for_line("unready_optional_handler.so is not ready and is left out$")
    assert appliance.cvex("send", "never_delivered").returncode == 3
    assert appliance.cvex("send", "probe_late_subscription").returncode == 0
