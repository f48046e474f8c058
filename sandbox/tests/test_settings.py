"""cvex settings: the store's file, read and edited by command, also under a running daemon."""

import json
import os
import stat
import subprocess
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import pytest

RETRIES = "/daemons/cvcloudd/registration/retry_num"
NAME = "/daemons/cvcloudd/registration/box_name"
MAC = "/network/interfaces/eth2/mac"


@pytest.fixture
def store(appliance):
    """Writes the store's text as it is, and gives a client for it."""
    class Store:
        file = appliance.settings_file

        def write(self, text):
            self.file.write_text(text, encoding="utf-8")

        def read(self):
            return self.file.read_text(encoding="utf-8")

        def run(self, *arguments):
            return appliance.cvex("settings", *arguments)

    return Store()


def assert_one_line(result, exit_code, *parts):
    assert result.returncode == exit_code, result
    assert result.stdout == ""
    assert len(result.stderr.splitlines()) == 1, result.stderr
    for part in parts:
        assert str(part) in result.stderr


@pytest.mark.parametrize("before, arguments, after", [
    # In place; every other byte stays.
    ('{ "z" : 1e2,"%s":3 ,"a": {"b": ["}", "\\"", 1.10]}}' % RETRIES, [RETRIES, "5"],
     '{ "z" : 1e2,"%s":5 ,"a": {"b": ["}", "\\"", 1.10]}}' % RETRIES),
    ('{"%s": {"x": [1, "]"]}}\n' % NAME, [NAME, 'a "box" ü'], '{"%s": "a \\"box\\" ü"}\n' % NAME),
    # The key is the member of the outermost object, however it is written.
    ('{"x": {"k": 1}, "\\u006b": 2}', ["k", "3"], '{"x": {"k": 1}, "\\u006b": 3}'),
    # A new key becomes the last one.
    ("{}", ["k", "v"], '{\n    "k": "v"\n}'),
    (' {\n    "a": 1\n}\n', ["k", "v"], ' {\n    "a": 1,\n    "k": "v"\n}\n'),
    # Integer or text.
    ('{"k": 1}', ["k", "12x"], '{"k": "12x"}'),
    ('{"k": 1}', ["--text", "k", "12"], '{"k": "12"}'),
    ('{"k": 1}', ["k", "99999999999"], '{"k": "99999999999"}'),
    ('{"%s": "x"}' % NAME, [NAME, "12"], '{"%s": "12"}' % NAME),
    ('{"%s": 3}' % RETRIES, [RETRIES, "--", "-1"], '{"%s": -1}' % RETRIES),
    ('{"k": 1}', ["k", ""], '{"k": ""}'),
])
def test_set_changes_the_value_and_nothing_else(store, before, arguments, after):
    store.write(before)
    result = store.run("set", "--force", *arguments)
    assert (result.returncode, result.stdout, result.stderr) == (0, "", "")
    assert store.read() == after
    json.loads(after)


def test_get_and_list(store):
    store.write(json.dumps({RETRIES: 5, NAME: "a box", MAC: "02:00:00:00:00:01", "other": -7}))
    assert store.run("get", RETRIES).stdout == "5\n"
    assert store.run("get", NAME).stdout == "a box\n"
    assert store.run("list").stdout == f"{RETRIES} = 5\n{NAME} = a box\n{MAC} = 02:00:00:00:00:01\nother = -7\n"


def test_json(store):
    store.write(json.dumps({RETRIES: 5, NAME: "a box"}))
    assert json.loads(store.run("--json", "get", RETRIES).stdout) == {"key": RETRIES, "value": 5}
    assert json.loads(store.run("set", "--json", NAME, "x").stdout) == {"key": NAME, "value": "x"}
    assert json.loads(store.run("list", "--json").stdout) == {RETRIES: 5, NAME: "x"}


def test_a_key_that_is_not_set(store):
    store.write("{}")
    assert_one_line(store.run("get", RETRIES), 1, RETRIES, store.file)


@pytest.mark.parametrize("arguments", [[RETRIES, "many"], [RETRIES, "3.5"], [RETRIES, "2147483648"],
                                       ["--text", RETRIES, "3"]])
def test_a_known_key_takes_only_its_type(store, arguments):
    store.write("{}")
    assert_one_line(store.run("set", *arguments), 2, RETRIES, "integer")
    assert store.read() == "{}"


def test_a_key_of_the_registration_needs_only_its_name(store):
    store.write("{}")
    assert store.run("set", "retry_num", "5").returncode == 0
    assert store.run("get", "retry_num").stdout == "5\n"
    assert json.loads(store.read()) == {RETRIES: 5}


@pytest.mark.parametrize("key, value, meant", [
    ("retry_nmu", "5", "(retry_num?)"),
    (RETRIES.replace("retry_num", "rety_num"), "5", f"({RETRIES}?)"),
    ("colour", "red", 'the key "colour"; '),
    ("retry_num", "-1", "0 to 2147483646"),
    ("retry_num", "2147483647", "0 to 2147483646"),
    ("retry_interval", "86401", "0 to 86400"),
])
def test_an_unknown_key_or_a_value_out_of_range_needs_force(store, key, value, meant):
    store.write("{}")
    assert_one_line(store.run("set", key, "--", value), 2, meant, "--force")
    assert store.read() == "{}"
    assert store.run("set", "--force", key, "--", value).returncode == 0
    assert json.loads(store.read()) != {}


@pytest.mark.parametrize("text, place, wanted", [
    ('{\n    "%s": "3"\n}' % RETRIES, "2:%d" % (len(RETRIES) + 9), "an integer"),
    ('{"ü": 1, "%s": 2147483648}' % RETRIES, "1:%d" % (len(RETRIES) + 14), "an integer"),
])
def test_a_stored_value_of_the_wrong_type_is_reported_with_its_place(store, text, place, wanted):
    store.write(text)
    assert_one_line(store.run("get", RETRIES), 2, f"{store.file}:{place}: ", RETRIES, wanted)
    listed = store.run("list")
    assert listed.returncode == 2
    assert f"{store.file}:{place}: " in listed.stderr
    assert RETRIES not in listed.stdout
    # The report says how to correct it.
    assert store.run("set", RETRIES, "3").returncode == 0
    assert store.run("get", RETRIES).stdout == "3\n"


def test_other_types_are_reported_for_unknown_keys_too(store):
    store.write('{"k": [1]}')
    assert_one_line(store.run("get", "k"), 2, f"{store.file}:1:7: ", "an integer or a text")


@pytest.mark.parametrize("text, place", [
    ('{\n    "a": 1,\n    b\n}\n', "3:5"),
    ('{"a": 1, "a": 2}', "1:"),
    ("[1]", "1:1"),
    ("", "1:1"),
])
def test_a_file_that_is_not_a_store_is_reported_with_its_place(store, text, place):
    store.write(text)
    for arguments in (["get", "a"], ["set", RETRIES, "1"], ["list"]):
        assert_one_line(store.run(*arguments), 2, f"{store.file}:{place}")
    assert store.read() == text


def test_a_file_that_cannot_be_read(store, appliance):
    for arguments in (["get", "a"], ["set", RETRIES, "1"], ["list"]):
        assert_one_line(store.run(*arguments), 2, store.file, "No such file or directory")
        assert_one_line(store.run("--file", appliance.run_directory, *arguments), 2, appliance.run_directory)
    store.file.symlink_to(store.file.name)
    for arguments in (["get", "a"], ["set", RETRIES, "1"], ["list"]):
        assert_one_line(store.run(*arguments), 2, store.file, "cannot be read: Too many levels of symbolic links")


def test_a_failed_replacement_leaves_the_old_file_and_nothing_else(store, appliance):
    store.write("{}")
    # No file may grow beyond one byte; Python ignores the signal of that, and so does what it starts.
    result = subprocess.run(["prlimit", "--fsize=1", *appliance.cvex_command("settings", "set", RETRIES, "1")],
                            stdin=subprocess.DEVNULL, capture_output=True, encoding="utf-8", check=False, timeout=60,
                            restore_signals=False)
    assert_one_line(result, 2, store.file, "File too large")
    assert store.read() == "{}"
    assert os.listdir(appliance.run_directory) == ["settings.json"]


def test_what_a_power_cut_has_left_is_replaced(store, appliance):
    store.write("{}")
    Path(f"{store.file}.new").write_text('{"a": ', encoding="utf-8")
    assert store.run("set", "--force", "a", "1").returncode == 0
    assert json.loads(store.read()) == {"a": 1}
    assert os.listdir(appliance.run_directory) == ["settings.json"]


def test_the_file_keeps_its_mode_and_a_link_stays_one(store, appliance):
    store.write("{}")
    store.file.chmod(0o640)
    link = appliance.run_directory / "link.json"
    link.symlink_to(store.file.name)
    assert store.run("--file", link, "set", RETRIES, "1").returncode == 0
    assert link.is_symlink()
    assert stat.S_IMODE(store.file.stat().st_mode) == 0o640
    assert json.loads(store.read()) == {RETRIES: 1}
    assert sorted(os.listdir(appliance.run_directory)) == ["link.json", "settings.json"]


def test_no_writer_undoes_another(store):
    store.write("{}")
    with ThreadPoolExecutor(8) as clients:
        results = list(clients.map(lambda number: store.run("set", "--force", f"k{number}", number), range(40)))
    assert {result.returncode for result in results} == {0}
    assert json.loads(store.read()) == {f"k{number}": number for number in range(40)}


def test_the_next_start_of_a_daemon_sees_the_setting(ready_desk):
    def macs():
        return ready_desk.cloud.wait_for_line(r"register_box: ok, (\S+) is", count=count)[1]

    count = 1
    ready_desk.register()
    assert macs() == "02:00:00:C0:FF:EE"
    assert ready_desk.cvex("settings", "set", MAC, "02:00:00:00:00:05").returncode == 0
    count = 2
    ready_desk.register()
    assert macs() == "02:00:00:00:00:05"


def test_a_store_must_be_named(appliance):
    result = subprocess.run([appliance.programs["cvex"], "settings", "list"], capture_output=True, encoding="utf-8",
                            stdin=subprocess.DEVNULL, check=False, timeout=60)
    assert_one_line(result, 2, "--file", "--run-dir")
