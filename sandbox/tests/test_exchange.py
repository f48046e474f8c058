"""The message exchange at its sockets: what the daemon sends to a client, and a client with a daemon of the test's."""

import json
import time

import pytest
import zmq
from zmq.utils.monitor import recv_monitor_message

import desk as desk_module

TIMEOUT_MS = desk_module.START_TIMEOUT * 1000
START = json.dumps({"token": desk_module.TOKENS["partner"], "token_type": "partner"}).encode()


@pytest.fixture
def context():
    with zmq.Context() as zmq_context:
        yield zmq_context


def make_socket(context, kind):
    socket = context.socket(kind)
    socket.linger = 0
    socket.rcvtimeo = TIMEOUT_MS
    return socket


class Client:
    """A client that keeps its connection."""

    def __init__(self, context, run_directory):
        self.commands = make_socket(context, zmq.DEALER)
        self.commands.connect(f"ipc://{run_directory}/commands")
        self.published = make_socket(context, zmq.SUB)
        self.published.subscribe("")
        self.published.connect(f"ipc://{run_directory}/published")
        self.wait_for("cvex_subscribed")

    def send(self, name, payload=b""):
        self.commands.send_multipart([name.encode(), b"2", payload])

    def reply(self):
        """Payload, and the number of the last message that was published before it."""
        payload, number = self.commands.recv_multipart()
        return payload, int(number)

    def wait_for(self, name, is_wanted=lambda payload: True):
        """The payload and the number of the next published message that is wanted."""
        while True:
            message, payload, number = self.published.recv_multipart()
            if message == name.encode() and is_wanted(payload):
                return payload, int(number)


@pytest.fixture
def client(ready_desk, context):
    return Client(context, ready_desk.run_directory)


def test_a_reply_names_what_was_published_before_it(client):
    client.send("start_cloud_registration", START)
    reply, published_before = client.reply()
    assert client.wait_for("cloud_registration_done") == (reply, published_before)


def test_a_daemon_that_stops_does_not_answer_again(ready_desk, client):
    monitor = client.commands.get_monitor_socket(zmq.EVENT_DISCONNECTED)
    monitor.rcvtimeo = TIMEOUT_MS
    client.send("cvcloudd_status")
    client.reply()
    ready_desk.daemon.stop()
    # What was sent before the connection ended is there now.
    assert recv_monitor_message(monitor)["event"] == zmq.EVENT_DISCONNECTED
    assert client.commands.poll(0) == 0
    client.commands.disable_monitor()


def test_no_more_connections_to_the_cloud_than_the_limit(appliance, handlers, silent_cloud, context):
    appliance.cloud_url = silent_cloud.url
    appliance.start_daemon(handler=handlers["probe"])
    client = Client(context, appliance.run_directory)
    client.send("probe_cloud", b"9")
    for _ in range(9):
        client.wait_for("cvcloudd_progress", lambda payload: json.loads(payload)["event"] == "sent")
    # This request goes out when those before it have their connections.
    client.send("probe_cloud", b"1")
    client.wait_for("cvcloudd_progress", lambda payload: json.loads(payload)["event"] == "sent")
    silent_cloud.wait_for_requests(4)
    appliance.daemon.stop()
    assert silent_cloud.connections() == 4


class Daemon:
    """The daemon's end of the exchange, in the hands of a test."""

    def __init__(self, context, run_directory):
        self._commands = make_socket(context, zmq.ROUTER)
        self._commands.bind(f"ipc://{run_directory}/commands")
        self._published = make_socket(context, zmq.XPUB)
        self._published.bind(f"ipc://{run_directory}/published")

    def take_command(self):
        """The sender and the name of the next command, from a client that has subscribed."""
        assert self._published.recv() == b"\1"
        self.publish("cvex_subscribed", b"", 1)
        sender, name, _, _ = self._commands.recv_multipart()
        return sender, name.decode()

    def publish(self, name, payload, number):
        self._published.send_multipart([name.encode(), payload, b"%d" % number])

    def reply(self, sender, payload, published_before):
        self._commands.send_multipart([sender, payload, b"%d" % published_before])


OK = b'{"result": "ok", "user_token": "u", "device_id": "d"}'


def test_a_client_shows_what_was_published_before_the_reply_first(appliance, context):
    daemon = Daemon(context, appliance.run_directory)
    client = appliance.start(appliance.cvex_command("start", "--token", "any"))
    sender, name = daemon.take_command()
    assert name == "start_cloud_registration"
    daemon.reply(sender, OK, 2)
    daemon.publish("cloud_registration_done", OK, 2)
    assert client.wait() == 0
    assert [line.split()[0] for line in client.lines] == ["start_cloud_registration", "published", "reply"]


def test_a_client_waits_for_what_was_published_before_the_reply(appliance, context):
    daemon = Daemon(context, appliance.run_directory)
    begin = time.monotonic()
    client = appliance.start(appliance.cvex_command("start", "--json", "--token", "any", "--timeout", "1"))
    sender, _ = daemon.take_command()
    daemon.reply(sender, OK, 2)
    # It never comes, and the reply is shown when the time is over.
    assert client.wait() == 0
    assert client.lines == [OK.decode()]
    assert time.monotonic() - begin >= 1
