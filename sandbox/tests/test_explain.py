"""cvex explain: what it says of logs and records, and what --mask takes out of them."""

import json
import subprocess

import pytest

import desk as desk_module

REPLY = '{"result": "error_connect", "reason": "unknown partner token"}'
LOG = f"""\
2026-11-21T18:47:33.010Z info    [a.cpp:81][set_input_params()]: Registration input params: token=tok"en-1, mac=02:00, token_type=partner
2026-11-21T18:47:33.020Z error   [a.cpp:80][extract_token()]: {REPLY}
2026-11-21T18:47:33.030Z error   [a.cpp:80][extract_token()]: {REPLY}
2026-11-21T18:47:33.040Z warning [a.cpp:9][do_work()]: No more tries left. connect failed
2026-11-21T18:47:33.050Z warning cvcloudd: request 4 failed: http://127.0.0.1:9/x: \x1b[2J
"""


@pytest.fixture
def explain(appliance):
    def run(*arguments, text=""):
        return subprocess.run([appliance.programs["cvex"], "explain", *map(str, arguments)], input=text,
                              capture_output=True, encoding="utf-8", check=False, timeout=desk_module.START_TIMEOUT)
    return run


def test_a_log_is_explained_where_it_matters(explain):
    result = explain("-", text=LOG)
    assert result.returncode == 0
    lines = result.stdout.splitlines()
    assert lines[0] == "2: " + REPLY
    assert lines[1:3] == ["    The cloud refuses the token", "    What to do: A retry sends the same token again: send a "
                          "new start with another token"]
    assert lines[3:5] == ["3: " + REPLY, "    as above"]
    assert lines[5] == "4: No more tries left. connect failed"
    assert lines[-1] == "4 of 5 lines matter"
    assert "\x1b" not in result.stdout


@pytest.mark.parametrize("reason, action", [
    ("Response status 7", "is the cloud up?"),
    ("Response status 63", "What answers in the cloud's place?"),
    ("Response status 404", "The box's network, names and clock"),
    ("Response is not JSON: <html>", "sign in"),
])
def test_the_row_that_says_most_is_taken(explain, reason, action):
    result = explain("-", text=json.dumps({"result": "error_cvnc", "reason": reason}) + "\n")
    assert action in result.stdout
    assert result.stdout.endswith("1 of 1 lines matter\n")


def test_a_record_of_a_refused_token_is_explained(ready_desk, explain, record_directory):
    assert ready_desk.cvex("start", "--json", "--token", "stolen").returncode == 1
    ready_desk.daemon.stop()
    result = explain(record_directory / "record-1.jsonl")
    assert result.stdout.count(f": {REPLY}\n") == 3, result.stdout
    assert "send a new start with another token" in result.stdout


def test_a_success_needs_no_explanation(ready_desk, explain, record_directory):
    ready_desk.register()
    ready_desk.daemon.stop()
    result = explain(record_directory / "record-1.jsonl")
    assert result.stdout.startswith("0 of ")


def test_mask_takes_the_tokens_out_of_log_and_record(ready_desk, explain, record_directory):
    reply = json.loads(ready_desk.register())
    ready_desk.daemon.stop()
    for name, text in [("log", "\n".join(ready_desk.daemon.lines)),
                       ("record", (record_directory / "record-1.jsonl").read_text(encoding="utf-8"))]:
        masked = explain("--mask", "-", text=text).stdout
        for token in (desk_module.TOKENS["partner"], reply["user_token"]):
            assert token in text, name
            assert token not in masked, name
        assert len(masked.splitlines()) == len(text.splitlines())
    assert [json.loads(line) for line in masked.splitlines()]


def test_mask_knows_a_token_with_quotes_and_one_that_is_cut(explain):
    masked = explain("--mask", "-", text=LOG + 'a line that ends within it: tok"en-\n' + 'and a longer one: tok"en-12\n'
                     '{"token": "a-long-token"}\ncut: a-long-to\n').stdout
    assert 'tok"en-1' not in masked
    assert "cut: ***\n" in masked


@pytest.mark.parametrize("content", [None, ""])
def test_a_file_that_says_nothing_is_an_error(explain, tmp_path, content):
    file = tmp_path / "log"
    if content is not None:
        file.write_text(content)
    result = explain(file)
    assert (result.returncode, result.stdout) == (2, "")
    assert str(file) in result.stderr
