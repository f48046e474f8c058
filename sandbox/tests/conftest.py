"""The desk as a fixture, and what the tests need around it. Nothing here waits by sleeping: each wait is for a line, a
message or the end of a process, and its bound is an error."""

import json
import os
import socket
import sys
import threading
import uuid
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).parents[1] / "desk"))

import desk as desk_module  # noqa: E402 (the path above comes first)

BUILD_DIRECTORY = Path(os.environ["CV_BUILD_DIR"])

# No retry pause: a test that wants one says so.
SETTINGS = {
    "/daemons/cvcloudd/registration/retry_num": 1,
    "/daemons/cvcloudd/registration/retry_interval": 0,
}


class TestDesk(desk_module.Desk):
    __test__ = False

    def write_settings(self, settings):
        super().write_settings({**SETTINGS, **settings})

    def register(self, token_type="partner", *options):
        """Starts a registration with a good token and returns the reply as text."""
        result = self.cvex("start", "--json", "--token", desk_module.TOKENS[token_type],
                           "--token-type", token_type, *options)
        assert result.returncode == 0, result
        return result.stdout.strip()

    def listen(self):
        """A listener that is subscribed when this returns."""
        listener = self.start(self.cvex_command("listen", "--json"))
        listener.wait_for_line(r"^cvex: listening$")
        return listener

    def retry(self):
        """Retries until the answer is another than that a registration is in progress: the failed one is answered
        a moment before it is over."""
        for _ in range(1000):
            result = self.cvex("retry", "--json")
            if "error_in_progress" not in result.stdout:
                return result
        raise AssertionError("the failed registration stays in progress")


def published_done(listener):
    """The payload of the next published "cloud_registration_done"."""
    line = listener.wait_for_line(r'"cloud_registration_done"').string
    return json.loads(line)["payload"]


class SilentCloud:
    """Accepts connections and answers none of them."""

    def __init__(self):
        self._listener = socket.create_server(("127.0.0.1", 0))
        self._connections = []
        self._changed = threading.Condition()
        self._thread = threading.Thread(target=self._accept, daemon=True)
        self._thread.start()

    @property
    def url(self):
        return f"http://127.0.0.1:{self._listener.getsockname()[1]}"

    def _accept(self):
        while True:
            try:
                connection = self._listener.accept()[0]
            except OSError:
                return
            with self._changed:
                self._connections.append(connection)
                self._changed.notify_all()

    def wait_for_requests(self, count):
        with self._changed:
            assert self._changed.wait_for(lambda: len(self._connections) >= count, desk_module.START_TIMEOUT)

    def close(self):
        self._listener.shutdown(socket.SHUT_RDWR)
        self._thread.join()
        self._listener.close()
        for connection in self._connections:
            connection.close()


@pytest.fixture
def silent_cloud():
    cloud = SilentCloud()
    yield cloud
    cloud.close()


@pytest.fixture
def closed_port():
    """A port of the loopback on which nobody listens and which nobody else is given."""
    with socket.socket() as holder:
        holder.bind(("127.0.0.1", 0))
        yield holder.getsockname()[1]


@pytest.fixture
def handlers():
    """The paths of the handler libraries made for these tests."""
    return json.loads((BUILD_DIRECTORY / "sandbox" / "tests" / "handlers.json").read_text(encoding="utf-8"))


@pytest.fixture
def appliance():
    """A desk on which nothing is started yet; the test fails when any process of it outlives the test."""
    mark = "CV_DESK_TEST=" + uuid.uuid4().hex
    name, value = mark.split("=")
    os.environ[name] = value
    with TestDesk(desk_module.programs_file_of(BUILD_DIRECTORY)) as test_desk:
        yield test_desk
    del os.environ[name]
    assert processes_with(mark) == []


@pytest.fixture
def ready_desk(appliance):
    """A desk with cloud and daemon."""
    appliance.start_cloud()
    appliance.start_daemon()
    return appliance


def processes_with(mark):
    """The command lines of the processes that were started with `mark` in their environment."""
    found = []
    for process in Path("/proc").iterdir():
        if not process.name.isdigit() or int(process.name) == os.getpid():
            continue
        try:
            if mark.encode() in (process / "environ").read_bytes():
                found.append((process / "cmdline").read_bytes().replace(b"\0", b" ").decode())
        except OSError:
            continue
    return found
