"""One box from its first boot on, through bad days and a reboot: it stays registered under the same device id."""

import re
from pathlib import Path

import pytest
from conftest import REGISTRATION, SETTINGS, TOKEN

import box as box_module

DEVICE_ID = "box-1"

pytestmark = pytest.mark.xdist_group("bad-days")


def test_registers_under_its_own_address(box):
    assert box.register() == DEVICE_ID
    address = box.output("cat", "/sys/class/net/eth2/address").strip()
    assert address == box_module.ADDRESSES[2]
    assert box.stored() == [address.upper()]


def test_retry_after_the_cloud_was_away(box):
    port = box.cloud_url.rsplit(":", 1)[1]
    box.cloud.stop()
    failed = box.cvex("start", "--json", *TOKEN)
    assert (failed.returncode, "error_" in failed.stdout) == (1, True), failed
    box.start_cloud(port)
    assert box.register("retry") == DEVICE_ID


def test_retry_after_its_network_was_down(box):
    box.output("ip", "link", "set", "eth0", "down")
    failed = box.cvex("start", "--json", *TOKEN)
    assert (failed.returncode, "error_" in failed.stdout) == (1, True), failed
    box.output("ip", "link", "set", "eth0", "up")
    assert box.register("retry") == DEVICE_ID


def test_init_starts_a_killed_daemon(box):
    before = box.output("pidof", "cvcloudd")
    started = box_module.Service(box)
    box.output("killall", "-KILL", "cvcloudd")
    assert started.wait_for_line(box_module.ENDED_LINE)[1] == "137"
    started.wait_for_line(box_module.READY_LINE)
    assert box.output("pidof", "cvcloudd") != before
    assert box.register() == DEVICE_ID


@pytest.mark.parametrize("date", ["2037-06-01 12:00:00", "2001-01-01 00:00:00"])
def test_the_clock_is_set_during_a_registration(box, date):
    """The one request waits for its answer, is not given up and not sent again."""
    seen = len(box.ask_cloud("GET", "/requests"))
    box.ask_cloud("POST", "/faults", ["connect*1=delay:1.5"])
    client = box.start(box.cvex_command("start", "--json", *TOKEN))
    box.cloud.wait_for_line("connect/login connect: .*delay", 1 if date > "2030" else 2)
    box.output("date", "-s", date)
    assert client.wait() == 0, client.lines
    assert DEVICE_ID in client.lines[-1]
    box.count("registrations")
    assert [request["method"] for request in box.ask_cloud("GET", "/requests")[seen:]] == ["connect", "register_box"]
    assert date[:4] in box.output("tail", "-n", "1", "/data/cvcloudd.log")


def test_the_disk_is_full(box):
    before = box.output("cat", box_module.SETTINGS_FILE)
    box.run("dd", "if=/dev/zero", "of=/data/filler", "bs=4k")
    key = REGISTRATION + "box_name"
    refused = box.run(*box.setting_command(key, "a name " * 1000))
    assert refused.returncode == 2 and "No space left on device" in refused.stdout, refused
    assert box.output("cat", box_module.SETTINGS_FILE) == before
    assert box.register() == DEVICE_ID
    box.output("rm", "/data/filler")
    box.output(*box.setting_command(key, "named"))
    assert box.settings() == {**SETTINGS, key: "named"}
    assert "settings.json." not in box.output("ls", "/data")


@pytest.mark.parametrize("program", ["cvcloudregisterhandler_unit_tests", "library_test"])
def test_the_modules_tests_on_this_kernel(box, program):
    path = Path("build/armhf/bin").resolve() / program
    listed = box.output(path, "--gtest_list_tests")
    number = sum(1 for line in listed.splitlines() if line.startswith("  "))
    output = box.output(path, "--gtest_brief=1")
    assert re.search(rf"^\[==========\] {number} tests from ", output, re.M), output
    assert re.search(rf"^\[  PASSED  \] {number} tests\.$", output, re.M), output
    box.count("tests", number)


def test_reboots_with_the_same_device_id(box):
    before = box.settings()
    log = box.output("wc", "-l", "/data/cvcloudd.log")
    box.reboot()
    assert box.settings() == before
    assert int(box.output("wc", "-l", "/data/cvcloudd.log").split()[0]) > int(log.split()[0])
    assert box.register() == DEVICE_ID
    assert len(box.stored()) == 1
