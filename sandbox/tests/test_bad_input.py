"""Whatever is wrong gets one line that names it, an exit code other than 0, and leaves nothing running."""

import contextlib
import os
import socket
import stat
import subprocess

import pytest
from conftest import RawClient

import desk as desk_module


def run(command):
    return subprocess.run([str(word) for word in command], stdin=subprocess.DEVNULL, capture_output=True,
                          encoding="utf-8", check=False, timeout=desk_module.START_TIMEOUT)


def assert_one_line(result, exit_code, *parts):
    assert result.returncode == exit_code, result
    assert result.stdout == ""
    assert len(result.stderr.splitlines()) == 1, result.stderr
    for part in parts:
        assert str(part) in result.stderr


@pytest.fixture
def without_cloud(appliance):
    """A desk whose daemon can be started, since a daemon needs no cloud to start."""
    appliance.cloud_url = "http://127.0.0.1:9"
    appliance.write_settings({})
    return appliance


@pytest.mark.parametrize("program", ["cvcloudd", "cvcloud-sim", "cvex"])
def test_unknown_option(appliance, program):
    assert_one_line(run([appliance.programs[program], "--colour"]), 2, f"{program}: ", f"{program} --help")


@pytest.mark.parametrize("program", ["cvcloudd", "cvcloud-sim", "cvex"])
def test_help(appliance, program):
    result = run([appliance.programs[program], "--help"])
    assert result.returncode == 0
    assert "Exit codes:" in result.stdout
    assert result.stderr == ""


@pytest.mark.parametrize("options, name", [
    (["start", "--token", "t", "--token-type", "Partner"], "--token-type"),
    (["start"], "--token"),
    (["start", "--token", "t", "--timeout", "soon"], "--timeout"),
    ([], "subcommand"),
    (["sing"], "sing"),
])
def test_client_options(appliance, options, name):
    assert_one_line(run(appliance.cvex_command(*options)), 2, name)


def test_all_missing_options_are_named(appliance):
    assert_one_line(run([appliance.programs["cvcloudd"]]), 2, "--run-dir, --handler, --cloud-url are required")


def test_run_directory_is_missing(appliance):
    assert_one_line(run([appliance.programs["cvex"], "retry"]), 2, "--run-dir")


def test_handler_library_is_missing(without_cloud):
    assert_one_line(run(without_cloud.daemon_command(handler="/nowhere/libhandler.so")), 1,
                    "/nowhere/libhandler.so", "--handler")


def test_handler_library_is_no_library(without_cloud):
    path = without_cloud.settings_file
    assert_one_line(run(without_cloud.daemon_command(handler=path)), 1, path, "--handler")


def test_handler_library_without_entry(without_cloud, handlers):
    assert_one_line(run(without_cloud.daemon_command(handler=handlers["without_entry"])), 1,
                    handlers["without_entry"], "does not export get_handler_api")


def test_mandatory_handler_is_not_ready(without_cloud, handlers):
    assert_one_line(run(without_cloud.daemon_command(handler=handlers["unready_mandatory"])), 1,
                    handlers["unready_mandatory"], "mandatory", "not ready")


@pytest.mark.parametrize("text, place, problem", [
    ('{\n    "a": 1,\n    b\n}\n', "3:5", "'b'"),
    ("", "1:1", ""),
    ("[1]\n", "1:1", "object"),
])
def test_settings_are_not_json(without_cloud, text, place, problem):
    without_cloud.settings_file.write_text(text, encoding="utf-8")
    assert_one_line(run(without_cloud.daemon_command()), 1, f"{without_cloud.settings_file}:{place}: ", problem)


def test_settings_are_missing(without_cloud):
    without_cloud.settings_file.unlink()
    assert_one_line(run(without_cloud.daemon_command()), 1, without_cloud.settings_file,
                    "No such file or directory")


@pytest.mark.parametrize("number", [2147483648, -2147483649, 2**62])
def test_an_integer_setting_out_of_range(without_cloud, number):
    without_cloud.write_settings({"/daemons/cvcloudd/registration/retry_num": number})
    assert_one_line(run(without_cloud.daemon_command()), 1, f"{without_cloud.settings_file}:", "retry_num",
                    f"is {number}, but an integer is -2147483648 to 2147483647")


@pytest.mark.parametrize("option, problem", [("--settings", "not a regular file"), ("--record", "No such device")])
def test_a_pipe_in_the_place_of_a_file(without_cloud, option, problem):
    pipe = without_cloud.run_directory / "pipe"
    os.mkfifo(pipe)
    command = without_cloud.daemon_command("--record", without_cloud.run_directory / "record.jsonl")
    command[command.index(option) + 1] = pipe
    assert_one_line(run(command), 1, pipe, problem)


def test_a_device_in_the_place_of_a_record(without_cloud):
    mode = os.stat("/dev/full").st_mode
    assert_one_line(run(without_cloud.daemon_command("--record", "/dev/full")), 1, "/dev/full", "No such device")
    assert os.stat("/dev/full").st_mode == mode


def test_a_run_directory_of_another_user(without_cloud):
    directory = without_cloud.run_directory
    if os.geteuid() == 0:
        os.chown(directory, 65534, 65534)
    else:
        directory = "/"
    command = without_cloud.daemon_command()
    command[command.index("--run-dir") + 1] = directory
    for words in (command, [without_cloud.programs["cvex"], "--run-dir", directory, "retry"]):
        assert_one_line(run(words), 1, directory, "belongs to user", "of your own")


@pytest.mark.parametrize("mode", [0o770, 0o702, 0o1777])
def test_a_run_directory_that_others_may_write(without_cloud, mode):
    without_cloud.run_directory.chmod(mode)
    for command in (without_cloud.daemon_command(), without_cloud.cvex_command("retry")):
        assert_one_line(run(command), 1, without_cloud.run_directory, "chmod go-w")
    without_cloud.run_directory.chmod(0o755)
    assert_one_line(run(without_cloud.cvex_command("retry")), 5, without_cloud.run_directory)


def test_files_are_their_owners_alone(appliance):
    record, boxes = appliance.run_directory / "record.jsonl", appliance.run_directory / "boxes.sqlite"
    # A record of before, that everybody could read.
    record.touch(0o666)
    umask = os.umask(0)
    try:
        appliance.start_cloud(options=["--boxes", boxes])
        appliance.start_daemon("--record", record)
    finally:
        os.umask(umask)
    appliance.register()
    modes = {path.name: stat.S_IMODE(path.stat().st_mode) & 0o077 for path in appliance.run_directory.iterdir()
             if path != appliance.settings_file}
    assert modes.keys() >= {"record.jsonl", "boxes.sqlite", "commands", "published", "cvcloudd.lock"}
    assert set(modes.values()) == {0}, modes


def test_a_record_follows_no_link(without_cloud):
    other = without_cloud.run_directory / "other"
    other.write_text("kept", encoding="utf-8")
    link = without_cloud.run_directory / "record.jsonl"
    link.symlink_to(other)
    assert_one_line(run(without_cloud.daemon_command("--record", link)), 1, link, "--record")
    assert other.read_text(encoding="utf-8") == "kept"


@pytest.mark.parametrize("program", ["cvcloudd", "cvcloud-sim", "cvex"])
def test_too_few_descriptors(without_cloud, program):
    command = {"cvcloudd": without_cloud.daemon_command(), "cvcloud-sim": [without_cloud.programs["cvcloud-sim"]],
               "cvex": without_cloud.cvex_command("retry")}[program]
    assert_one_line(run(["prlimit", "--nofile=16", *command]), 1, f"{program}: ", "Too many open files", "ulimit -n")


def test_more_clients_than_descriptors(appliance):
    appliance.cloud_url = "http://127.0.0.1:9"
    appliance.write_settings({})
    daemon = appliance.start(["prlimit", "--nofile=70", *appliance.daemon_command()])
    daemon.wait_for_line("^cvcloudd: ready$")
    with contextlib.ExitStack() as clients:
        for _ in range(70):
            clients.enter_context(RawClient(appliance.run_directory))
        daemon.wait_for_line("a client is turned away: no descriptor is left")
    # The first to go make room for another.
    for _ in range(100):
        if appliance.cvex("status").returncode == 0:
            break
    assert daemon.stop() == 0


def test_setting_of_the_wrong_type_is_reported(appliance):
    appliance.start_cloud()
    daemon = appliance.start_daemon(settings={"/daemons/cvcloudd/registration/box_name": 5})
    daemon.wait_for_line(rf'{appliance.settings_file}:5:48: "/daemons/cvcloudd/registration/box_name" is not a text')
    appliance.register()


@pytest.mark.parametrize("url", ["nonsense", "ftp://127.0.0.1", "http://"])
def test_cloud_url_is_none(without_cloud, url):
    without_cloud.cloud_url = url
    assert_one_line(run(without_cloud.daemon_command()), 1, "--cloud-url", url)


def test_port_is_in_use(appliance):
    with socket.create_server(("127.0.0.1", 0)) as taken:
        port = taken.getsockname()[1]
        assert_one_line(run([appliance.programs["cvcloud-sim"], "--port", port]), 1, f"127.0.0.1:{port}", "--port")


def test_port_is_in_use_by_another_cloud(appliance):
    appliance.start_cloud()
    port = appliance.cloud_url.rsplit(":", 1)[1]
    assert_one_line(run([appliance.programs["cvcloud-sim"], "--port", port]), 1, f"127.0.0.1:{port}", "--port")


def test_cloud_cannot_be_reached(appliance, closed_port):
    appliance.cloud_url = f"http://127.0.0.1:{closed_port}"
    appliance.start_daemon()
    result = appliance.cvex("start", "--token", "any")
    assert result.returncode == 1
    assert len(result.stderr.splitlines()) == 1
    assert "error_cvnc: Response status 7" in result.stderr
    assert f"{appliance.cloud_url}/connect/login: " in result.stderr
    assert "Then retry" in result.stderr


def test_second_daemon_in_the_same_run_directory(ready_desk):
    assert_one_line(run(ready_desk.daemon_command()), 1, "another cvcloudd", ready_desk.run_directory)
    ready_desk.register()


def test_run_directory_does_not_exist(without_cloud):
    command = without_cloud.daemon_command()
    command[command.index("--run-dir") + 1] = "/nowhere"
    assert_one_line(run(command), 2, "--run-dir", "/nowhere")


def test_run_directory_is_too_long_for_a_socket(without_cloud):
    deep = without_cloud.run_directory / ("d" * 100)
    deep.mkdir()
    command = without_cloud.daemon_command()
    command[command.index("--run-dir") + 1] = deep
    assert_one_line(run(command), 1, deep, "--run-dir")
    assert_one_line(run([without_cloud.programs["cvex"], "--run-dir", deep, "retry"]), 1, deep, "--run-dir")


def test_no_daemon(without_cloud):
    for arguments in (["start", "--token", "any"], ["retry"], ["send", "x"], ["listen"]):
        assert_one_line(run(without_cloud.cvex_command(*arguments)), 5, without_cloud.run_directory, "--run-dir")


def test_killed_daemon_is_no_daemon(ready_desk):
    ready_desk.daemon.process.kill()
    ready_desk.daemon.wait()
    assert_one_line(run(ready_desk.cvex_command("retry")), 5, ready_desk.run_directory)
