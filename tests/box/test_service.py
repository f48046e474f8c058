"""The daemon's package under systemd, in a virtual box: for tests/box/check --service, since it takes minutes."""

import json
import os
import re
import shutil
from pathlib import Path

import pytest
from conftest import PROGRAMS_FILE, TOKEN

import box as box_module
import desk

IMAGE = Path("build/box-service").resolve()

pytestmark = pytest.mark.skipif("CV_BOX_SERVICE" not in os.environ, reason="tests/box/check --service")


class ServiceBox(box_module.Box):
    """Its init is systemd, on the disk."""
    memory = 256
    init = "rdinit=/etc/start systemd.show_status=false"

    def _await_start(self):
        for shell in (1, 2, 3):
            self.wait_for_line(f"^box: systemd has started shell {shell}$")

    def output(self, *words):
        result = self.run(*words)
        assert result.returncode == 0, (result, self.run("journalctl", "--no-pager", "--unit", "cvcloudd").stdout)
        return result.stdout.strip()

    def of_service(self, name):
        return self.output("systemctl", "show", "--value", "--property", name, "cvcloudd")

    def register(self):
        user = self.output("busybox", "stat", "-c", "%u", box_module.RUN_DIRECTORY)
        result = self.run("setpriv", "--reuid", user, "--regid", user, "--clear-groups",
                          "cvex", "--run-dir", box_module.RUN_DIRECTORY, "start", "--json", *TOKEN)
        assert result.returncode == 0, result
        return json.loads(result.stdout)["device_id"]


def test_the_service():
    with ServiceBox(IMAGE, PROGRAMS_FILE, lambda head, text: print(head, text, flush=True)) as box:
        box.start_cloud()
        shutil.copy(IMAGE / "disk", box.disk)
        box.switch_on()
        for words in (("link", "set", "eth0", "up"), ("address", "add", "10.0.2.15/24", "dev", "eth0")):
            box.output("busybox", "ip", *words)
        url = f"http://{box_module.GATEWAY}:{box.cloud_url.rsplit(':', 1)[1]}"
        box.output("sh", "-c", "echo 'CVCLOUDD_OPTIONS=--cloud-url "
                               f"{url} --partner-id {desk.PARTNER_ID}' >/etc/default/cvcloudd")

        # Ready at once.
        box.output("systemctl", "start", "cvcloudd")
        assert box.register() == "box-1"
        process = box.of_service("MainPID")
        user = re.search(r"^Uid:\t([0-9]+)\t", box.output("cat", f"/proc/{process}/status"), re.M)[1]
        assert int(user) > 60000, "a user made for the service"
        assert "settings.json" in box.output("busybox", "ls", "/var/lib/cvcloudd/")
        security = box.output("systemd-analyze", "security", "--no-pager", "cvcloudd")
        print(security.splitlines()[-1])
        assert float(re.search(r"Overall exposure level for cvcloudd.service: ([0-9.]+)", security)[1]) <= 3.0

        box.output("kill", "-SEGV", process)
        for _ in range(200):
            if box.of_service("NRestarts") == "1" and box.of_service("ActiveState") == "active":
                break
        assert box.of_service("MainPID") != process
        assert box.register() == "box-1"

        box.output("systemctl", "stop", "cvcloudd")
        assert (box.of_service("Result"), box.of_service("ExecMainStatus")) == ("success", "0")
        assert "cvcloudd" not in box.output("busybox", "ls", "/run").split()
