"""The simulated cloud as a person uses it: faults from the command line, at the start and while it runs, and https."""

import contextlib
import http.client
import json
import os
import re
import select
import socket
import subprocess

import conftest
import pytest

import desk as desk_module


def run(command):
    return subprocess.run([str(word) for word in command], stdin=subprocess.DEVNULL, capture_output=True,
                          encoding="utf-8", check=False, timeout=desk_module.START_TIMEOUT)


def ctl(appliance, *arguments):
    result = run([appliance.programs["cvcloud-sim"], "ctl", "--admin-url", appliance.admin_url, *arguments])
    assert (result.returncode, result.stderr) == (0, ""), result
    return result.stdout.splitlines()


def start(appliance, *options):
    """The answer to a start. One before may be over a moment after its own answer only."""
    for _ in range(1000):
        result = appliance.cvex("start", "--json", "--token", desk_module.TOKENS["partner"], *options)
        answer = json.loads(result.stdout)
        if answer["result"] != "error_in_progress":
            return answer
    raise AssertionError("the registration before stays in progress")


def test_faults_are_set_at_the_start_and_while_it_runs(appliance):
    appliance.start_cloud(options=["--fault", "connect*2=status:503", "--fault", "register_box=error:no room"])
    appliance.start_daemon()
    assert ctl(appliance, "faults") == ["connect*2=status:503", "register_box=error:no room"]
    assert start(appliance)["reason"] == "Response status 503"
    assert start(appliance)["reason"] == "no room"
    assert ctl(appliance, "faults") == ["register_box=error:no room"]
    assert ctl(appliance, "fault", "connect*3=drop", "connect=empty") == [
        "register_box=error:no room", "connect*3=drop", "connect=empty"]
    assert ctl(appliance, "clear") == []
    assert ctl(appliance, "faults") == []
    assert start(appliance)["result"] == "ok"
    requests = [json.loads(line) for line in ctl(appliance, "requests")]
    assert [(request["method"], request["outcome"].split(",")[0]) for request in requests] == [
        ("connect", "fault status:503"), ("connect", "fault status:503"), ("connect", "ok"),
        ("register_box", "fault error:no room"), ("register_box", "fault error:no room"), ("connect", "ok"),
        ("register_box", "ok")]
    assert requests[-1]["params"]["macs"] == ["02:00:00:C0:FF:EE"]


def test_each_request_is_logged_in_one_line(ready_desk):
    ctl(ready_desk, "fault", "register_box*1=drop")
    ready_desk.register()
    ready_desk.cloud.wait_for_line(" connect/", count=3)
    lines = [line for line in ready_desk.cloud.lines if " connect/" in line]
    assert [re.sub(r"^[-0-9]+T[:0-9.]+Z ", "", line) for line in lines] == [
        "connect/login connect: ok",
        "connect/box_mgmt register_box: ok, 02:00:00:C0:FF:EE is box-1, fault drop",
        "connect/box_mgmt register_box: ok, 02:00:00:C0:FF:EE is box-1"]


def test_a_request_whose_names_have_controls_is_logged_in_one_line(ready_desk):
    host = ready_desk.cloud_url.removeprefix("http://")
    connection = http.client.HTTPConnection(host, timeout=desk_module.START_TIMEOUT)
    connection.request("POST", "/connect/login", json.dumps({"jsonrpc": "2.0", "id": 1, "method": "a\nb\033[2J"}))
    connection.getresponse().read()
    connection.close()
    ready_desk.cloud.wait_for_line(r" connect/login a b\?\[2J: ")


def test_an_unanswered_request_holds_up_neither_others_nor_the_stop(ready_desk):
    ctl(ready_desk, "fault", "connect=silence")
    # More than a web server has threads, commonly.
    address = ready_desk.cloud_url.removeprefix("http://")
    clients = [http.client.HTTPConnection(address, timeout=desk_module.START_TIMEOUT) for _ in range(20)]
    for client in clients:
        client.request("POST", "/connect/login", '{"method": "connect", "params": {}}')
    ready_desk.cloud.wait_for_line("fault silence$", count=20)
    assert json.loads(ready_desk.register("temporary"))["result"] == "ok"
    assert ready_desk.cloud.stop() == 0
    for client in clients:
        with pytest.raises(http.client.RemoteDisconnected):
            client.getresponse()
        client.close()


def connect_to(desk):
    host, port = desk.cloud_url.rsplit("/", 1)[1].split(":")
    return socket.create_connection((host, int(port)), timeout=desk_module.START_TIMEOUT)


HEAD = b"POST /connect/login HTTP/1.1\r\nHost: x\r\n"
NESTED = b"[" * 30000 + b"]" * 30000

# What is sent, and what is sent after it for as long as the cloud takes it.
HOSTILE_REQUESTS = {
    "a header without end": (HEAD + b"X: ", b"x" * 65536),
    "headers without end": (HEAD, b"X: y\r\n" * 8192),
    "a body in chunks without end": (HEAD + b"Transfer-Encoding: chunked\r\n\r\n", b"10000\r\n" + b"x" * 65536 + b"\r\n"),
    "a chunk of an impossible size": (HEAD + b"Transfer-Encoding: chunked\r\n\r\nffffffffffffffffff\r\n", b"x" * 65536),
    "a body of an impossible length": (HEAD + b"Content-Length: 99999999999999999999\r\n\r\n", b"x" * 65536),
    "a body that is too long": (HEAD + b"Content-Length: 1073741824\r\n\r\n", b"x" * 65536),
    "no request": (b"\0" * 65536, b"\0" * 65536),
}


@pytest.mark.parametrize("begin, then", HOSTILE_REQUESTS.values(), ids=HOSTILE_REQUESTS)
def test_a_request_without_end_is_cut_off(ready_desk, begin, then):
    with connect_to(ready_desk) as connection:
        connection.sendall(begin)
        with pytest.raises(OSError) as error:
            for _ in range(4096):
                connection.sendall(then)
        assert not isinstance(error.value, TimeoutError)
    assert conftest.most_memory_of(ready_desk.cloud) < 100
    ready_desk.register()


@pytest.mark.parametrize("request_text", [
    b'{"id": ' + NESTED + b', "method": "connect"}',
    b'{"id": 1, "method": "connect", "params": {"a": ' + NESTED + b"}}",
    NESTED,
], ids=["id", "params", "all"])
def test_a_nested_request_is_refused(ready_desk, request_text):
    with connect_to(ready_desk) as connection:
        connection.sendall(HEAD + b"Content-Length: %d\r\n\r\n" % len(request_text) + request_text)
        assert b"nested deeper than 100 levels" in connection.recv(65536)
    ready_desk.register()


def test_clients_that_do_not_go_on_are_neither_kept_nor_waited_for(appliance):
    appliance.start_cloud(options=["--time-limit", "0.5"])
    appliance.start_daemon()
    with contextlib.ExitStack() as clients:
        slow = [clients.enter_context(connect_to(appliance)) for _ in range(300)]
        for client in slow:
            client.sendall(HEAD)
        threads = len(os.listdir(f"/proc/{appliance.cloud.process.pid}/task"))
        assert threads < 10
        # Whoever sends a byte now and then is cut off as well.
        with contextlib.suppress(OSError):
            while not select.select([slow[0]], [], [], 0.01)[0]:
                slow[0].sendall(b"X")
        for client in slow:
            assert client.recv(1) == b""
        appliance.register()
        for client in [clients.enter_context(connect_to(appliance)) for _ in range(300)]:
            client.sendall(HEAD)
        assert appliance.cloud.stop() == 0


def test_an_answer_that_is_not_read_takes_no_memory(ready_desk):
    ctl(ready_desk, "fault", "connect=oversized:1073741824")
    with connect_to(ready_desk) as connection:
        request = b'{"method": "connect", "params": {}}'
        connection.sendall(HEAD + b"Content-Length: %d\r\n\r\n" % len(request) + request)
        assert connection.recv(100).startswith(b"HTTP/1.1 200")
        assert conftest.most_memory_of(ready_desk.cloud) < 100


def test_the_last_request_alone_explains_a_failure(ready_desk):
    ctl(ready_desk, "fault", "connect*1=drop", "connect=error:closed")
    result = ready_desk.cvex("start", "--token", desk_module.TOKENS["partner"])
    assert result.returncode == 1
    assert "error_connect: closed" in result.stderr
    assert "Empty reply" not in result.stderr
    ctl(ready_desk, "clear")
    ctl(ready_desk, "fault", "connect=drop")
    assert "Empty reply" in ready_desk.cvex("start", "--token", desk_module.TOKENS["partner"]).stderr


def test_the_latest_thousand_requests_are_remembered(appliance):
    appliance.start_cloud()
    for number in range(1002):
        connection = http.client.HTTPConnection(appliance.cloud_url.removeprefix("http://"),
                                                timeout=desk_module.START_TIMEOUT)
        connection.request("POST", "/connect/login", json.dumps({"method": f"method {number}"}))
        assert connection.getresponse().status == http.client.OK
        connection.close()
    assert [request["method"] for request in appliance.ask_cloud("GET", "/requests")] == [
        f"method {number}" for number in range(2, 1002)]


@pytest.mark.parametrize("fault, problem", [
    ("connect", "is not METHOD[*COUNT]=KIND[:ARGUMENT]"),
    ("=drop", "no method is called ''"),
    ("conect*2=drop", "no method is called 'conect' (connect?)"),
    ("connect=dorp", "no fault is called 'dorp' (drop?)"),
    ("connect*0=drop", "'0' is not a count of requests"),
    ("connect=gone", "no fault is called 'gone'"),
    ("connect=drop:now", "drop takes no argument"),
    ("connect=status", "status needs its argument"),
    ("connect=status:99", "'99' is not a number that status takes"),
    ("connect=delay:soon", "'soon' is not a number that delay takes"),
])
def test_a_mistaken_fault_is_refused(appliance, fault, problem):
    appliance.start_cloud()
    for command in (["--fault", fault], ["ctl", "--admin-url", appliance.admin_url, "fault", fault]):
        result = run([appliance.programs["cvcloud-sim"], *command])
        assert (result.returncode, result.stdout) == (2, "")
        assert len(result.stderr.splitlines()) == 1
        assert problem in result.stderr


def test_help_describes_every_fault(appliance):
    text = run([appliance.programs["cvcloud-sim"], "--help"]).stdout
    for kind in ("error", "error-plain", "error-number", "status", "empty", "text", "result-empty", "result-number",
                 "delay", "drop", "silence", "oversized"):
        assert re.search(rf"^  {kind}(\[?:[A-Z]+\]?)? {{2,}}\w", text, re.MULTILINE), kind


def test_no_cloud_is_administered(appliance, closed_port):
    url = f"http://127.0.0.1:{closed_port}"
    result = run([appliance.programs["cvcloud-sim"], "ctl", "--admin-url", url, "clear"])
    assert (result.returncode, result.stdout) == (1, "")
    assert len(result.stderr.splitlines()) == 1
    assert url in result.stderr


def test_boxes_cannot_be_kept(appliance):
    for path in (appliance.run_directory, "/nowhere/boxes"):
        result = run([appliance.programs["cvcloud-sim"], "--boxes", path])
        assert (result.returncode, result.stdout) == (1, "")
        assert len(result.stderr.splitlines()) == 1
        assert str(path) in result.stderr and "--boxes" in result.stderr
    no_database = appliance.run_directory / "text"
    no_database.write_text("no database " * 100, encoding="utf-8")
    result = run([appliance.programs["cvcloud-sim"], "--boxes", no_database])
    assert result.returncode == 1
    assert "file is not a database" in result.stderr


@pytest.fixture
def proxy(monkeypatch):
    """A listening socket that the environment names as the proxy."""
    with socket.create_server(("127.0.0.1", 0)) as listener:
        listener.settimeout(desk_module.START_TIMEOUT)
        monkeypatch.setenv("http_proxy", f"http://127.0.0.1:{listener.getsockname()[1]}")
        yield listener


def test_a_cloud_elsewhere_is_reached_through_the_proxy(appliance, proxy):
    appliance.cloud_url = "http://cloud.invalid"
    appliance.start_daemon(settings={"/daemons/cvcloudd/registration/retry_num": 0})
    client = appliance.start(appliance.cvex_command("start", "--token", "any"))
    with proxy.accept()[0] as connection:
        assert connection.recv(4096).startswith(b"POST http://cloud.invalid/connect/login ")
        connection.sendall(b"HTTP/1.1 502 Bad Gateway\r\nContent-Length: 0\r\n\r\n")
        assert client.wait() == 1


def test_a_cloud_on_the_loopback_is_reached_without_the_proxy(proxy, ready_desk):
    ready_desk.register()


def make_certificate(directory, name, address="127.0.0.1"):
    certificate, key = directory / f"{name}.pem", directory / f"{name}.key"
    subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
                    "-keyout", key, "-out", certificate, "-days", "2", "-subj", f"/CN={name}",
                    "-addext", f"subjectAltName=IP:{address}"], check=True, capture_output=True)
    return certificate, key


def start_secure_cloud(appliance, certificate, key, *options):
    appliance.start_cloud(options=["--tls-cert", certificate, "--tls-key", key, *options])
    assert appliance.cloud_url.startswith("https://")


def test_registers_over_https(appliance, tmp_path):
    certificate, key = make_certificate(tmp_path, "cloud")
    start_secure_cloud(appliance, certificate, key, "--fault", "connect*1=drop", "--fault", "connect*1=delay:0.01")
    appliance.start_daemon("--ca-file", certificate)
    assert start(appliance)["result"] == "ok"


def test_a_certificate_of_another_authority_is_refused(appliance, tmp_path):
    start_secure_cloud(appliance, *make_certificate(tmp_path, "cloud"))
    other, _ = make_certificate(tmp_path, "other")
    for options in (["--ca-file", other], []):
        appliance.start_daemon(*options)
        assert start(appliance) == {"result": "error_cvnc", "reason": "Response status 60"}
        appliance.daemon.stop()
    assert ctl(appliance, "requests") == []


def test_a_certificate_for_another_address_is_refused(appliance, tmp_path):
    certificate, key = make_certificate(tmp_path, "cloud", "127.0.0.2")
    start_secure_cloud(appliance, certificate, key)
    appliance.start_daemon("--ca-file", certificate)
    assert start(appliance) == {"result": "error_cvnc", "reason": "Response status 60"}
    assert ctl(appliance, "requests") == []


def test_certificates_that_cannot_be_used_are_told(appliance, tmp_path):
    certificate, _ = make_certificate(tmp_path, "cloud")
    _, other_key = make_certificate(tmp_path, "other")
    result = run([appliance.programs["cvcloud-sim"], "--tls-cert", certificate, "--tls-key", other_key])
    assert (result.returncode, len(result.stderr.splitlines())) == (1, 1)
    assert str(certificate) in result.stderr and "--tls-key" in result.stderr
    result = run([appliance.programs["cvcloud-sim"], "--tls-cert", certificate])
    assert (result.returncode, len(result.stderr.splitlines())) == (2, 1)

    appliance.cloud_url = "https://127.0.0.1:9"
    appliance.write_settings({})
    for path in (other_key, "/nowhere/authorities.pem"):
        result = run(appliance.daemon_command("--ca-file", path))
        assert (result.returncode, len(result.stderr.splitlines())) == (1, 1)
        assert str(path) in result.stderr and "--ca-file" in result.stderr
