"""The desk as a fixture, and what the tests need around it. Nothing here waits by sleeping: each wait is for a line, a
message or the end of a process, and its bound is an error."""

import json
import os
import re
import socket
import threading
import uuid
from pathlib import Path

import pytest
import zmq

import desk as desk_module
import traffic

BUILD_DIRECTORY = Path(os.environ["CV_BUILD_DIR"])

# No retry pause: a test that wants one says so.
SETTINGS = {
    "/daemons/cvcloudd/registration/retry_num": 1,
    "/daemons/cvcloudd/registration/retry_interval": 0,
}


class TestDesk(desk_module.Desk):
    """Each of its daemons keeps a record in `record_directory`."""
    __test__ = False

    def __init__(self, programs_file, record_directory):
        super().__init__(programs_file)
        self._record_directory = record_directory
        self._daemons = 0

    def write_settings(self, settings):
        super().write_settings({**SETTINGS, **settings})

    def daemon_command(self, *options, handler=None):
        # What a handler of the tests sends is its own matter.
        if handler is None and "--record" not in options:
            self._daemons += 1
            options = (*options, "--record", self._record_directory / f"record-{self._daemons}.jsonl")
        return super().daemon_command(*options, handler=handler)

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
        self._peers = []
        self._changed = threading.Condition()
        self._thread = threading.Thread(target=self._accept, daemon=True)
        self._thread.start()

    @property
    def url(self):
        return f"http://127.0.0.1:{self._listener.getsockname()[1]}"

    def _accept(self):
        while True:
            try:
                connection, peer = self._listener.accept()
            except OSError:
                return
            with self._changed:
                self._connections.append(connection)
                self._peers.append(peer)
                self._changed.notify_all()

    def wait_for_requests(self, count):
        with self._changed:
            assert self._changed.wait_for(lambda: len(self._connections) >= count, desk_module.START_TIMEOUT)

    def connections(self):
        """How many connections have been made."""
        with socket.create_connection(self._listener.getsockname()) as last, self._changed:
            # They are accepted in their order.
            assert self._changed.wait_for(lambda: last.getsockname() in self._peers, desk_module.START_TIMEOUT)
            return self._peers.index(last.getsockname())

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


class RawClient:
    """A client of the exchange that sends whatever frames it is given and reads when it is told to."""

    def __init__(self, run_directory):
        self._context = zmq.Context()
        self._socket = self._context.socket(zmq.DEALER)
        self._socket.linger = 0
        self._socket.rcvtimeo = self._socket.sndtimeo = desk_module.START_TIMEOUT * 1000
        self._socket.connect(f"ipc://{run_directory}/commands")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._context.destroy()

    def send(self, *frames):
        self._socket.send_multipart(frames)

    def receive(self):
        """The payload of the next reply."""
        return self._socket.recv_multipart()[0]

    def ask(self, name, payload=b""):
        """Sends a command and returns the reply."""
        self.send(name.encode(), b"2", payload)
        return self.receive()


def is_sanitized():
    """Whether the programs are built with a sanitizer, which multiplies their memory."""
    return "CV_SANITIZE:STRING=\n" not in (BUILD_DIRECTORY / "CMakeCache.txt").read_text(encoding="utf-8")


def most_memory_of(program):
    """The most memory in MiB that a program has held until now."""
    status = Path(f"/proc/{program.process.pid}/status").read_text(encoding="utf-8")
    return int(re.search(r"^VmHWM:\s*(\d+) kB$", status, re.MULTILINE)[1]) / 1024


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
def record_directory(tmp_path_factory):
    return tmp_path_factory.mktemp("records")


@pytest.fixture
def appliance(record_directory):
    """A desk on which nothing is started yet; the test fails when any process of it outlives the test, or when
    anything that crossed the handler's boundary is not as docs/schemas say."""
    mark = "CV_DESK_TEST=" + uuid.uuid4().hex
    name, value = mark.split("=")
    os.environ[name] = value
    with TestDesk(desk_module.programs_file_of(BUILD_DIRECTORY), record_directory) as test_desk:
        yield test_desk
    del os.environ[name]
    assert processes_with(mark) == []
    traffic.check_all(record_directory)


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
