"""The daemon under a service manager: it reports its readiness as the manager asks for it."""

import os
import socket

import pytest


@pytest.mark.parametrize("name", ["{}/notify", "@cvcloudd-test-{}"])
def test_reports_readiness(appliance, monkeypatch, tmp_path, name):
    name = name.format(tmp_path if name.startswith("{") else os.getpid())
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
        manager.bind(name.replace("@", "\0"))
        manager.settimeout(30)
        monkeypatch.setenv("NOTIFY_SOCKET", name)
        appliance.start_cloud()
        appliance.start_daemon()
        assert manager.recv(100) == b"READY=1"
        manager.setblocking(False)
        appliance.daemon.stop()
        with pytest.raises(BlockingIOError):
            manager.recv(100)


@pytest.mark.parametrize("name", ["/nowhere/notify", "x" * 108])
def test_serves_without_the_manager(appliance, monkeypatch, name):
    monkeypatch.setenv("NOTIFY_SOCKET", name)
    appliance.start_cloud()
    appliance.start_daemon()
    appliance.daemon.wait_for_line(f"error .*cannot report readiness to NOTIFY_SOCKET {name}: ")
    appliance.register()
