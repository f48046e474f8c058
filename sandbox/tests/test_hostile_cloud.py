"""A cloud that answers with whatever hurts: each answer ends in one reply, in bounded time and memory, and the daemon
goes on."""

import contextlib
import gzip
import json
import re
import socket
import struct
import subprocess
import threading

import pytest
from conftest import RawClient, is_sanitized, most_memory_of

import desk as desk_module

REQUEST_TIMEOUT = 1
START = json.dumps({"token": "t", "token_type": "partner"}).encode()
OK = b"HTTP/1.1 200 OK\r\n"
GOOD_BODY = b'{"result": {"user_token": "u", "device_id": "d"}}'
GOOD = OK + b"Content-Length: %d\r\n\r\n" % len(GOOD_BODY) + GOOD_BODY


class HostileCloud:
    """Takes one connection after another, reads a request and answers with `begin`, then with `then` again and again
    until nobody listens. `drip` waits between the two; `reset` ends with a reset."""

    def __init__(self):
        self._listener = socket.create_server(("127.0.0.1", 0))
        self.begin, self.then, self.drip, self.reset = GOOD, None, 0, False
        self._is_over = threading.Event()
        self._thread = threading.Thread(target=self._serve, daemon=True)
        self._thread.start()

    @property
    def url(self):
        return f"http://127.0.0.1:{self._listener.getsockname()[1]}"

    def _serve(self):
        while True:
            try:
                connection = self._listener.accept()[0]
            except OSError:
                return
            answer = threading.Thread(target=self._answer, args=(connection, self.begin, self.then, self.drip), daemon=True)
            answer.start()

    def _answer(self, connection, begin, then, drip):
        with connection, contextlib.suppress(OSError):
            connection.settimeout(desk_module.START_TIMEOUT)
            self._read_request(connection)
            connection.sendall(begin)
            while then is not None and not self._is_over.wait(drip):
                connection.sendall(then)
            self._end(connection)

    @staticmethod
    def _read_request(connection):
        request = b""
        while b"\r\n\r\n" not in request or len(request.partition(b"\r\n\r\n")[2]) < int(
                re.search(rb"Content-Length: (\d+)", request)[1]):
            part = connection.recv(65536)
            if not part:
                raise ConnectionError("the request is cut off")
            request += part

    def _end(self, connection):
        if self.reset:
            connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            return
        connection.shutdown(socket.SHUT_WR)
        # Not a reset: what was sent is read.
        while connection.recv(65536):
            pass

    def close(self):
        self._is_over.set()
        self._listener.shutdown(socket.SHUT_RDWR)
        self._thread.join()
        self._listener.close()


@pytest.fixture
def hostile_cloud():
    cloud = HostileCloud()
    yield cloud
    cloud.close()


@pytest.fixture
def hostile_desk(appliance, hostile_cloud):
    """A desk whose daemon registers with the hostile cloud, each step with one try."""
    appliance.cloud_url = hostile_cloud.url
    appliance.start_daemon("--request-timeout", REQUEST_TIMEOUT,
                           settings={"/daemons/cvcloudd/registration/retry_num": 0})
    return appliance


def start(client):
    """The reply to one start. One before may be over a moment after its reply only."""
    for _ in range(10000):
        reply = client.ask("start_cloud_registration", START)
        if not reply.startswith(b'{"result": "error_in_progress", '):
            return reply
    raise AssertionError("the registration before stays in progress")


BOMB = gzip.compress(b" " * 100_000_000, 9)
DEEP = b"[" * 60000

# What the cloud says first, what then without end, with which pause, and how the reply begins after its result.
ANSWERS = {
    "a body without end": (OK + b"\r\n", b"x" * 65536, 0, "Response status 63"),
    "a body without end and of a length": (OK + b"Content-Length: 4294967297\r\n\r\n", b"x" * 65536, 0,
                                           "Response status 63"),
    "a slow body": (OK + b"\r\n", b"x", 0.01, "Response status 28"),
    "a slow header": (OK, b"x", 0.01, "Response status 28"),
    "silence": (b"", b"", 0.05, "Response status 28"),
    "nothing": (b"", None, 0, "Response status 52"),
    "a length that is too long": (OK + b"Content-Length: 100\r\n\r\n{}", None, 0, "Response status 18"),
    "a length that is too short": (OK + b"Content-Length: 1\r\n\r\n{}", None, 0, "Response is not JSON: {"),
    "a negative length": (OK + b"Content-Length: -1\r\n\r\n{}", None, 0, "Response status 8"),
    "a length without end": (OK + b"Content-Length: " + b"9" * 5000 + b"\r\n\r\n{}", None, 0, ""),
    "no length at all": (OK + b"\r\n{}", None, 0, "user_token not found in response"),
    "a chunk of no size": (OK + b"Transfer-Encoding: chunked\r\n\r\nzz\r\n", None, 0, "Response status 56"),
    "a chunk of an impossible size": (OK + b"Transfer-Encoding: chunked\r\n\r\n" + b"f" * 40 + b"\r\n", None, 0,
                                      "Response status 56"),
    "a chunk that is cut off": (OK + b"Transfer-Encoding: chunked\r\n\r\n64\r\n{}", None, 0, "Response status 18"),
    "a chunk without its line end": (OK + b"Transfer-Encoding: chunked\r\n\r\n2\r\n{}x", None, 0, "Response status "),
    "chunks without end": (OK + b"Transfer-Encoding: chunked\r\n\r\n", b"1000\r\n" + b"x" * 4096 + b"\r\n", 0,
                           "Response status 63"),
    "a trailer without end": (OK + b"Transfer-Encoding: chunked\r\n\r\n0\r\n", b"X: y\r\n" * 1000, 0, "Response status 63"),
    "a redirect to itself": (b"HTTP/1.1 301 Gone\r\nLocation: /connect/login\r\nContent-Length: 0\r\n\r\n", None, 0,
                             "Response status 301"),
    "a redirect to a file": (b"HTTP/1.1 302 Gone\r\nLocation: file:///etc/passwd\r\nContent-Length: 0\r\n\r\n", None, 0,
                             "Response status 302"),
    "provisional answers without end": (b"", b"HTTP/1.1 103 Early Hints\r\n\r\n" * 100, 0, "Response status 63"),
    "a header without end": (OK + b"X: ", b"x" * 65536, 0, "Response status "),
    "headers without end": (OK, b"X: y\r\n" * 10000, 0, "Response status "),
    "NUL in a header": (OK + b"X: a\0b\r\n\r\n{}", None, 0, ""),
    "no HTTP": (b"SSH-2.0-OpenSSH\r\n", None, 0, "Response status 1"),
    "HTTP/0.9": (b"{}", None, 0, "Response status 1"),
    "an upgrade to HTTP/2": (b"HTTP/1.1 101 Switching Protocols\r\nUpgrade: h2c\r\nConnection: Upgrade\r\n\r\n"
                             b"\0\0\0\4\0\0\0\0\0", None, 0, "Response status "),
    "HTTP/2 at once": (b"HTTP/2 200\r\n\r\n{}", None, 0, ""),
    "a compressed bomb": (OK + b"Content-Encoding: gzip\r\nContent-Length: %d\r\n\r\n" % len(BOMB) + BOMB, None, 0,
                          "Response is not JSON: \x1f"),
    "arrays in arrays": (OK + b"\r\n" + DEEP + b"]" * len(DEEP), None, 0, "Response is not JSON: [["),
    "objects in objects": (OK + b"\r\n" + b'{"result": ' * 10000 + b"1" + b"}" * 10000, None, 0,
                           "Response is not JSON: {"),
    "a message that goes on behind its quotes": (
        OK + b"\r\n" + json.dumps(
            {"error": {"message": '", "x": ' + DEEP.decode() + "]" * len(DEEP) + ', "y": "'}}).encode(),
        None, 0, '", "x": ['),
    "bytes that are no UTF-8": (OK + b"\r\nbefore\xff\xfe\0behind", None, 0, "Response is not JSON: before"),
}


@pytest.mark.parametrize("begin, then, drip, reason", ANSWERS.values(), ids=ANSWERS)
def test_an_answer_ends_in_one_reply(hostile_desk, hostile_cloud, begin, then, drip, reason):
    hostile_cloud.begin, hostile_cloud.then, hostile_cloud.drip = begin, then, drip
    with RawClient(hostile_desk.run_directory) as client:
        reply = start(client).decode(errors="surrogateescape")
        assert re.match(r'\{"result": "error_(cvnc|connect)", "reason": "' + re.escape(reason), reply), reply[:200]
        assert reply.endswith('"}')
        # What comes next is the reply to the next command: there was one only.
        status = json.loads(client.ask("cvcloudd_status"))
        assert status["last_result"]["result"] != "ok"
        hostile_cloud.begin, hostile_cloud.then = GOOD, None
        assert start(client) == b'{"result": "ok", "user_token": "u", "device_id": "d"}'
    assert most_memory_of(hostile_desk.daemon) < 60 or is_sanitized()
    assert hostile_desk.daemon.stop() == 0


def test_a_reply_with_bytes_that_are_no_utf8_comes_out_whole(hostile_desk, hostile_cloud):
    hostile_cloud.begin = OK + b"\r\nbefore\xff\xfe\0behind"
    result = subprocess.run(hostile_desk.cvex_command("start", "--json", "--token", "t"), stdin=subprocess.DEVNULL,
                            capture_output=True, check=False, timeout=desk_module.START_TIMEOUT)
    assert result.stdout == (b'{"result": "error_cvnc", "reason": "Response is not JSON: before\xff\xfe\0behind"}\n')


def test_a_reset_at_each_byte(hostile_desk, hostile_cloud):
    hostile_cloud.reset = True
    with RawClient(hostile_desk.run_directory) as client:
        for length in range(len(GOOD)):
            hostile_cloud.begin = GOOD[:length]
            reply = start(client)
            assert reply.startswith(b'{"result": "error_cvnc", "reason": "Response status '), (length, reply)
        hostile_cloud.begin, hostile_cloud.reset = GOOD, False
        assert start(client) == b'{"result": "ok", "user_token": "u", "device_id": "d"}'
    assert hostile_desk.daemon.stop() == 0


def make_expired_certificate(directory):
    """A certificate for 127.0.0.1 that was valid on one day of the past, and its key."""
    names = {name: directory / name for name in ("expired.pem", "expired.key", "request", "database", "serial", "config")}
    names["database"].touch()
    names["serial"].write_text("01\n", encoding="utf-8")
    names["config"].write_text(
        f"[ca]\ndefault_ca = here\n[here]\ndatabase = {names['database']}\nserial = {names['serial']}\n"
        f"new_certs_dir = {directory}\ndefault_md = sha256\npolicy = any\ncopy_extensions = copy\n"
        "[any]\ncommonName = supplied\n", encoding="utf-8")
    openssl = ["openssl"]
    subprocess.run([*openssl, "req", "-new", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
                    "-keyout", names["expired.key"], "-out", names["request"], "-subj", "/CN=expired",
                    "-addext", "subjectAltName=IP:127.0.0.1"], check=True, capture_output=True)
    subprocess.run([*openssl, "ca", "-batch", "-selfsign", "-config", names["config"], "-keyfile", names["expired.key"],
                    "-in", names["request"], "-out", names["expired.pem"], "-notext",
                    "-startdate", "20200101000000Z", "-enddate", "20200102000000Z"], check=True, capture_output=True)
    return names["expired.pem"], names["expired.key"]


def test_an_expired_certificate_is_refused(appliance, tmp_path):
    certificate, key = make_expired_certificate(tmp_path)
    appliance.start_cloud(options=["--tls-cert", certificate, "--tls-key", key])
    appliance.start_daemon("--ca-file", certificate)
    result = appliance.cvex("start", "--json", "--token", desk_module.TOKENS["partner"])
    assert json.loads(result.stdout) == {"result": "error_cvnc", "reason": "Response status 60"}
    assert appliance.ask_cloud("GET", "/requests") == []


def test_a_cloud_that_speaks_no_tls(appliance, hostile_cloud):
    appliance.cloud_url = hostile_cloud.url.replace("http://", "https://")
    appliance.start_daemon("--request-timeout", REQUEST_TIMEOUT)
    hostile_cloud.begin, hostile_cloud.then = b"HTTP/1.1 400 Bad Request\r\n\r\n", b""
    result = appliance.cvex("start", "--json", "--token", "t")
    assert re.fullmatch(r'\{"result": "error_cvnc", "reason": "Response status \d+"\}\n', result.stdout)
