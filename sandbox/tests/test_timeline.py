"""The record of a run, and cvex timeline, which draws it for a terminal."""

import json
import os
import shlex
import stat
import subprocess
from pathlib import Path

import pytest

import desk as desk_module
from conftest import BUILD_DIRECTORY

CVEX = json.loads(desk_module.programs_file_of(BUILD_DIRECTORY).read_text(encoding="utf-8"))["cvex"]
HEAD = {"record": "cvcloudd 1", "started": "2026-11-21T01:38:26.718Z"}


class Events(list):
    """The events of a record made by hand."""

    def add(self, time, thread, event, **members):
        self.append({"time": time, "thread": thread, "event": event, **members})
        return self

    def command(self, time, request_id, name, payload="", kind=2):
        return self.add(time, "dispatch", "command", request_id=request_id, name=name, type=kind, payload=payload)

    def request(self, time, number, method, service="connect/login", params="{}"):
        body = json.dumps({"jsonrpc": "2.0", "id": number, "method": method, "params": json.loads(params)})
        self.add(time, "worker", "build", request=number, method=method, params=params, connect_fields=False)
        return self.add(time, "worker", "request", request=number, service=service, method=method, body=body)

    def response(self, time, number, method, body='{"result": {}}', status=0, error="", service="connect/login"):
        return self.add(time, "callback", "response", request=number, service=service, method=method,
                        status=status, error=error, body=body)

    def reply(self, time, request_id, payload, thread="worker"):
        return self.add(time, thread, "reply", request_id=request_id, payload=payload)

    def publish(self, time, payload, name="cloud_registration_done"):
        return self.add(time, "worker", "publish", name=name, payload=payload)

    def refused(self, time, of, **members):
        return self.add(time, "worker", "refused", of=of, **members)

    def log(self, time, line, level=2):
        return self.add(time, "worker", "log", level=level, line=line)


def two_failed_logins():
    """A registration whose cloud is down at first, and a retry that comes when there is nothing to retry."""
    token = json.dumps({"token": "a-token", "token_type": "partner"})
    done = '{"result": "ok", "user_token": "user-1", "device_id": "box-1"}'
    down = {"body": "", "status": 7, "error": "http://127.0.0.1:1/connect/login: Couldn't connect to server"}
    return (Events()
            .command(0.05, 1, "start_cloud_registration", token)
            .log(0.051, "[file.cpp:1][function()]: Received start_cloud_registration message")
            .request(0.052, 1, "connect")
            .response(0.053, 1, "connect", **down)
            .request(1.054, 2, "connect")
            .response(1.055, 2, "connect", body='{"error": {"message": "try later"}}')
            .request(2.056, 3, "connect")
            .response(2.3, 3, "connect", body='{"result": {"user_token": "user-1"}}')
            .request(2.301, 4, "register_box", service="connect/box_mgmt")
            .response(2.302, 4, "register_box", service="connect/box_mgmt", body='{"result": {"device_id": "box-1"}}')
            .publish(2.303, done)
            .reply(2.304, 1, done)
            .command(8.5, 2, "retry_cloud_registration")
            .reply(8.501, 2, '{"result": "error_other", "reason": "Retry called, but current state is not FAIL"}',
                   thread="dispatch"))


def write_record(path, events):
    path.write_text("".join(json.dumps(line) + "\n" for line in [HEAD, *events]), encoding="utf-8")
    return path


def timeline(path, *options, locale="C.UTF-8"):
    return subprocess.run([CVEX, "timeline", str(path), *map(str, options)], stdin=subprocess.DEVNULL,
                          capture_output=True, check=False, encoding="utf-8",
                          env={**os.environ, "LC_ALL": locale}, timeout=desk_module.START_TIMEOUT)


def drawn(path, events, *options, **keywords):
    result = timeline(write_record(path, events), *options, **keywords)
    assert (result.returncode, result.stderr) == (0, "")
    return result.stdout.splitlines()


@pytest.fixture
def record_file(tmp_path):
    return tmp_path / "record.jsonl"


def test_messages_tries_and_pauses_are_drawn(record_file):
    assert drawn(record_file, two_failed_logins()) == """\
Record of 2026-11-21 01:38:26.718 UTC, 8.50 s, 13 messages

    time/s  client    daemon    library   cloud
     0.050  ├─────────┼────────▶│         │  start_cloud_registration #1, wants a reply
     0.052  │         │         ├────────▶│  connect, try 1
     0.053  │         │         │◀────────┤  connect: status 7 after 1.0 ms, \
http://127.0.0.1:1/connect/login: Couldn't connect to server
            │         │         ┊         │  pause 1.00 s
     1.054  │         │         ├────────▶│  connect, try 2
     1.055  │         │         │◀────────┤  connect: try later after 1.0 ms
            │         │         ┊         │  pause 1.00 s
     2.056  │         │         ├────────▶│  connect, try 3
     2.300  │         │         │◀────────┤  connect: answer after 244 ms
     2.301  │         │         ├────────▶│  register_box, try 1
     2.302  │         │         │◀────────┤  register_box: answer after 1.0 ms
     2.303  │◀╌╌╌╌╌╌╌╌┼╌╌╌╌╌╌╌╌╌┤         │  cloud_registration_done, published
     2.304  │◀────────┼─────────┤         │  reply #1: ok
            │         │         ⋮         │  idle 6.20 s
     8.500  ├─────────┼────────▶│         │  retry_cloud_registration #2, wants a reply
     8.501  │◀────────┼─────────┤         │  reply #2: error_other, Retry called, but current state is not FAIL
""".splitlines()


def test_other_locales_get_ascii(record_file):
    lines = drawn(record_file, two_failed_logins().log(9, "Grüße"), "--log", locale="C")
    assert "     0.050  |---------+-------->|         |  start_cloud_registration #1, wants a reply" in lines
    assert "     2.303  |<........+.........|         |  cloud_registration_done, published" in lines
    assert "            |         |         :         |  pause 1.00 s" in lines
    assert "     9.000  |         |         |         |  log 2 Gr??e" in lines
    assert all(line.isascii() for line in lines)


def test_the_log_is_shown_on_demand(record_file):
    log = "     0.051  │         │         │         │  log 2 [file.cpp:1][function()]: " \
          "Received start_cloud_registration message"
    lines = drawn(record_file, two_failed_logins(), "--log")
    assert lines.index(log) == 4
    assert log not in drawn(record_file, two_failed_logins())


@pytest.mark.parametrize("body, label", [
    ("", "connect: empty answer after 0.0 ms"),
    ("nonsense", "connect: not JSON after 0.0 ms, nonsense"),
    ('{"error": {"data": {"message": "one"}, "message": "two"}}', "connect: one after 0.0 ms"),
    ('{"error": {"message": 5}}', "connect: error without a message after 0.0 ms"),
    ('{"result": {}}', "connect: answer after 0.0 ms"),
])
def test_a_response_says_what_it_is(record_file, body, label):
    lines = drawn(record_file, Events().request(1, 1, "connect").response(1, 1, "connect", body=body))
    assert lines[-1].endswith("◀────────┤  " + label)


def test_what_the_daemon_refused_ends_at_the_daemon(record_file):
    events = (Events()
              .command(1, 1, "start_cloud_registration")
              .request(1, 1, "connect").refused(1, "request", request=1, method="connect")
              .refused(2, "build", method="connect")
              .publish(2, "{}").refused(2, "publish", name="cloud_registration_done")
              .reply(2, 1, '{"result": "ok"}').refused(2, "reply", request_id=1))
    assert [line[12:] for line in drawn(record_file, events)[4:]] == [
        "│         │◀────────┤         │  connect, try 1, the daemon refused it",
        "│         │         ┊         │  pause 1.00 s",
        "│         │◀────────┤         │  connect, try 2, the daemon could not build the request",
        "│         │◀╌╌╌╌╌╌╌╌┤         │  cloud_registration_done, the daemon refused it",
        "│         │◀────────┤         │  reply #1: ok, the daemon refused it",
    ]


def test_a_command_in_mid_run_leaves_the_count_of_tries(record_file):
    down = {"status": 28, "body": "", "error": "timed out"}
    events = (Events()
              .command(0, 1, "start_cloud_registration")
              .request(0, 1, "connect").response(1, 1, "connect", **down)
              .command(4.5, 2, "start_cloud_registration")
              .reply(4.5, 2, '{"result": "error_in_progress", "reason": "busy"}', thread="dispatch")
              .request(5, 2, "connect").response(5, 2, "connect", **down)
              .reply(5, 1, '{"result": "error_cvnc", "reason": "Response status 28"}')
              .command(6, 3, "retry_cloud_registration")
              .request(6, 3, "connect").response(6, 3, "connect"))
    text = "\n".join(drawn(record_file, events))
    assert "idle" not in text
    assert [line.split("  ")[-1] for line in text.splitlines() if "try" in line or "pause" in line] == [
        "connect, try 1", "pause 4.00 s", "connect, try 2", "retry_cloud_registration #3, wants a reply",
        "connect, try 1"]


def test_a_request_without_response_is_told(record_file):
    lines = drawn(record_file, Events().request(1, 1, "connect").log(4.5, "stopping"))
    assert lines[-1].endswith("no answer for 3.50 s, to the end of the record")


def test_a_record_without_messages_is_drawn(record_file):
    assert drawn(record_file, [])[0] == "Record of 2026-11-21 01:38:26.718 UTC, 0.0 ms, 0 messages"


def test_a_record_cannot_steer_the_terminal(record_file):
    lines = drawn(record_file, Events().command(1, 1, "\x1b[31mred\r\n\u202ename").log(1, "\x9b2J\x07"), "--log")
    assert lines[3].endswith("│  ?[31mred? ?name #1, wants a reply")
    assert lines[4].endswith("log 2 ?2J?")


REFUSAL = {"time": 1, "thread": "worker", "event": "refused", "name": "name"}
GOOD_LINE = json.dumps(Events().command(1, 1, "name")[0])


@pytest.mark.parametrize("text, line, problem", [
    ("", 1, "the file is empty"),
    ("no JSON\n", 1, "not a JSON object"),
    ("[1]\n", 1, "not a JSON object"),
    ('{"record": "other"}\n', 1, "a record begins with"),
    (json.dumps(HEAD) + "\n" + GOOD_LINE + "\n" + GOOD_LINE[:40], 3, "is it cut off?"),
    (json.dumps(HEAD) + "\n\n", 2, "not a JSON object"),
    (json.dumps(HEAD) + "\n" + GOOD_LINE.replace('"time": 1,', ""), 2, '"time"'),
    (json.dumps(HEAD) + "\n" + GOOD_LINE + "\n" + GOOD_LINE.replace('"time": 1', '"time": 0.5'), 3, '"time"'),
    (json.dumps(HEAD) + "\n" + GOOD_LINE.replace('"dispatch"', "5"), 2, '"thread"'),
    (json.dumps(HEAD) + "\n" + GOOD_LINE.replace('"command"', '"other"'), 2, 'the event "other" is unknown'),
    (json.dumps(HEAD) + "\n" + GOOD_LINE.replace('"payload": ""', '"payload": 5'), 2, '"payload"'),
    (json.dumps(HEAD) + "\n" + GOOD_LINE.replace('"request_id": 1', '"request_id": -1'), 2, '"request_id"'),
    (json.dumps(HEAD) + "\n" + json.dumps({**REFUSAL, "of": "other"}), 2, '"of"'),
    (json.dumps(HEAD) + "\n" + json.dumps({**REFUSAL, "of": "request"}), 2, '"method"'),
    (json.dumps(HEAD) + "\n" + json.dumps({**REFUSAL, "of": "build"}), 2, '"method"'),
    (json.dumps(HEAD) + "\n" + GOOD_LINE.replace("{", '{"deep": ' + "[" * 100000 + "]" * 100000 + ", "), 2,
     "not a JSON object"),
    (json.dumps(HEAD) + "\n" + GOOD_LINE.replace("name", "\udcff"), 2, "not a JSON object"),
], ids=lambda value: ascii(value)[-30:])
@pytest.mark.parametrize("with_page", [False, True])
def test_a_broken_record_is_named_with_its_line(record_file, text, line, problem, with_page):
    record_file.write_text(text, encoding="utf-8", errors="surrogateescape")
    page = record_file.with_name("page.html")
    result = timeline(record_file, *(["--html", page] if with_page else []))
    assert (result.returncode, result.stdout) == (2, "")
    assert result.stderr.startswith(f"cvex: {record_file}:{line}: ")
    assert problem in result.stderr
    assert len(result.stderr.splitlines()) == 1
    assert not page.exists()


def test_an_unreadable_record_is_named(tmp_path):
    for path, reason in [(tmp_path / "missing", "No such file or directory"), (tmp_path, "Is a directory")]:
        result = timeline(path)
        assert (result.returncode, result.stdout) == (2, "")
        assert result.stderr == f"cvex: cannot read the record {path}: {reason}\n"


def test_an_unwritable_page_is_named(record_file):
    for page in (record_file.with_name("missing") / "page.html", "/dev/full"):
        result = timeline(write_record(record_file, []), "--html", page)
        assert (result.returncode, result.stdout) == (2, "")
        assert result.stderr == f"cvex: cannot write the page {page}; --html names a file that this user may write\n"


def test_a_daemon_without_a_writable_record_does_not_start(appliance, tmp_path):
    appliance.cloud_url = "http://127.0.0.1:1"
    appliance.write_settings({})
    path = tmp_path / "missing" / "record"
    result = subprocess.run([str(word) for word in appliance.daemon_command("--record", path)],
                            capture_output=True, encoding="utf-8", check=False)
    assert (result.returncode, result.stdout) == (1, "")
    assert result.stderr == (f"cvcloudd: cannot write the record {path}: No such file or directory; "
                             "--record names a file that this user may write\n")


def test_a_run_is_recorded_and_drawn(appliance, record_file):
    """Everything that crossed the boundary is in the record, once, as it crossed."""
    appliance.start_cloud()
    port = int(appliance.cloud_url.rsplit(":", 1)[1])
    appliance.cloud.stop()
    daemon = appliance.start_daemon("--record", record_file, "--log-level", "3")
    failed = appliance.cvex("start", "--json", "--token", desk_module.TOKENS["partner"]).stdout.strip()
    appliance.start_cloud(port)
    done = appliance.retry().stdout.strip()
    daemon.stop()

    assert stat.S_IMODE(record_file.stat().st_mode) == 0o600
    head, *lines = map(json.loads, record_file.read_text(encoding="utf-8").splitlines())
    assert head["record"] == "cvcloudd 1"
    assert [line["time"] for line in lines] == sorted(line["time"] for line in lines)
    events = [line for line in lines
              if line["event"] != "log" and "error_in_progress" not in line.get("payload", "")]
    started, = [event for event in events if event.get("name") == "start_cloud_registration"]
    assert json.loads(started["payload"])["token"] == desk_module.TOKENS["partner"]
    assert (started["type"], started["thread"]) == (2, "dispatch")

    trips = [(event["event"], event["thread"], event.get("method"), event.get("status"))
             for event in events if event["event"] in ("build", "request", "response")]

    def trip(method, status):
        return [("build", "worker", method, None), ("request", "worker", method, None),
                ("response", "callback", method, status)]

    assert trips == [*trip("connect", 7), *trip("connect", 7), *trip("connect", 0), *trip("register_box", 0)]
    request, = [event for event in events if event["event"] == "request" and event["method"] == "register_box"]
    assert json.loads(request["body"])["params"]["macs"] == ["02:00:00:C0:FF:EE"]
    assert request["service"] == "connect/box_mgmt"
    assert [event["payload"] for event in events if event["event"] == "reply"] == [failed, done]
    assert [(event["name"], event["payload"]) for event in events if event["event"] == "publish"] == [
        ("cloud_registration_done", done)]
    log = [line for line in lines if line["event"] == "log"]
    # The daemon prints its log to the same place as its line of readiness.
    assert [line for line in daemon.lines if line.endswith("]: Received start_cloud_registration message")][0] \
        .endswith(next(line["line"] for line in log if "Received start" in line["line"]))
    assert len(log) == len(daemon.lines) - 1

    text = timeline(record_file).stdout
    assert text.count("connect: status 7 after ") == 2
    assert text.count(", published\n") == 1


def register_box(*options):
    """Runs what ./run runs once it has built the programs."""
    script = Path(desk_module.__file__).with_name("cvdesk.py")
    command = ["/usr/bin/python3", "-B", str(script), "--build-dir", str(BUILD_DIRECTORY), *map(str, options)]
    return subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, encoding="utf-8",
                          check=False, timeout=desk_module.START_TIMEOUT)


def test_run_keeps_the_record_where_it_is_told(tmp_path):
    result = register_box("--record", tmp_path / "new" / "directory")
    assert (result.returncode, result.stderr) == (0, "")
    program, *arguments = shlex.split(result.stdout.splitlines()[-1].removeprefix("record"))
    assert (program, arguments) == (CVEX, ["timeline", str(tmp_path / "new" / "directory" / "record.jsonl")])
    assert "  reply #1: ok\n" in timeline(arguments[1]).stdout


def test_run_names_a_directory_that_it_cannot_make(tmp_path):
    (tmp_path / "file").touch()
    result = register_box("--record", tmp_path / "file" / "directory")
    assert (result.returncode, result.stdout) == (1, "")
    assert result.stderr == f"./run: cannot make the directory {tmp_path}/file/directory of --record: Not a directory\n"
