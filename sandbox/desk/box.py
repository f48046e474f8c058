"""A virtual box: a whole 32-bit ARM machine under QEMU, whose init starts the daemon, on a desk whose simulated cloud is
this machine's. What the box has to keep is on its disk; all else it forgets when its power goes."""

import contextlib
import json
import os
import re
import shlex
import shutil
import subprocess
import sys
import time
from pathlib import Path

import box_shell
import desk

# Bounds on a busy machine for what takes 10 s on a quiet one.
BOOT_TIMEOUT = 240
CONSOLE_LINES_SHOWN = 20
# For a cloud request of the box.
SHORTEST_TIMEOUT = 1

# Of the cards, first to last. The last one has the address that the desk's settings simulate: what registers it expects
# the same on a desk and in a box.
ADDRESSES = ("02:00:00:c0:ff:ec", "02:00:00:c0:ff:ed", "02:00:00:c0:ff:ee")
DISK_SIZE = 8 << 20
# In the box.
GATEWAY = "10.0.2.2"
RUN_DIRECTORY = "/run/cvcloudd"
SETTINGS_FILE = "/data/settings.json"
OPTIONS_FILE = "/data/cvcloudd.options"
RECORD_FILE = "/run/record.jsonl"

READY_LINE = r"^cvcloudd: ready$"
ENDED_LINE = r"^cvcloudd ended with exit code ([0-9]+)$"


class Service:
    """The daemon that the box's init keeps running, with what the desk asks of a started program."""

    def __init__(self, box):
        self._box = box
        self._begin = len(box.machine.lines)
        self.process = self
        self.returncode = None

    def wait_for_line(self, pattern, count=1):
        earlier = sum(1 for line in self._box.machine.lines[:self._begin] if re.search(pattern, line))
        return self._box.wait_for_line(pattern, earlier + count)

    def poll(self):
        return self.returncode

    def stop(self):
        """Ends the daemon by SIGTERM and keeps init from starting it again until Box.start_daemon()."""
        self._box.run("mkfifo", "/run/hold")
        self._box.run("killall", "cvcloudd")
        self.returncode = int(self.wait_for_line(ENDED_LINE)[1])
        self._box.fetch_record()
        return self.returncode


class Box(desk.Desk):
    """A desk with a virtual box in place of the daemon's process. Leaving it switches the box off."""

    memory = 128
    writes_per_second = 0  # As many as it can.
    init = ""

    def __init__(self, image_directory, programs_file, say=lambda head, text: None, on_line=None):
        """`say` is called with each stage of a boot, in a head and a text, on another thread."""
        super().__init__(programs_file, on_line)
        self._image = Path(image_directory)
        self._say = say
        self._record = None
        self.machine = None

    def __exit__(self, kind, value, traceback):
        with desk.signals_held():
            try:
                if self.machine and kind and not issubclass(kind, SystemExit):
                    self._show_console()
                if self.machine and not kind:
                    self.switch_off()
            finally:
                self.cut_power()
                super().__exit__(kind, value, traceback)

    def _show_console(self):
        print("The end of the box's console:", *map(desk.printable, self.machine.lines[-CONSOLE_LINES_SHOWN:]),
              sep="\n  ", file=sys.stderr, flush=True)

    @property
    def disk(self):
        return self.run_directory / "disk"

    @property
    def place(self):
        return f"{RUN_DIRECTORY} of the box"

    def _daemon_options(self, options):
        """The options as they are in the box, which keeps a record of its own until fetch_record()."""
        if "--record" in options:
            index = options.index("--record") + 1
            self._record = Path(options[index])
            options[index] = RECORD_FILE
        url = re.sub(r"//[^:/]+", f"//{GATEWAY}", self.cloud_url)
        return ["--cloud-url", url, "--partner-id", desk.PARTNER_ID, *options]

    def start_daemon(self, *options, settings=None):
        """Starts the daemon with these options and settings: switches the box on, or lets the running one start it."""
        if foreign := [key for key in settings or {} if key.startswith("/network/interfaces/")]:
            raise desk.DeskError(f"the setting {foreign[0]} simulates a network card, and the box has its own: play this "
                                 "scenario with --target native or armhf")
        options = [str(option) for option in options]
        if "--request-timeout" in options and float(options[options.index("--request-timeout") + 1]) < SHORTEST_TIMEOUT:
            raise desk.DeskError(f"no request of an emulated machine is sure to be answered within less than "
                                 f"{SHORTEST_TIMEOUT} s: play this scenario with --target native or armhf")
        files = {SETTINGS_FILE: json.dumps(settings or {}, indent=4) + "\n",
                 OPTIONS_FILE: "".join(f"{option}\n" for option in self._daemon_options(options))}
        if not self.machine:
            self._make_disk(files)
            self.switch_on()
        else:
            for name, text in files.items():
                self.run("sh", "-c", f"printf %s {shlex.quote(text)} >{name}")
            self.daemon = Service(self)
            self.run("sh", "-c", "echo >/run/hold")
            self.daemon.wait_for_line(READY_LINE)
        return self.daemon

    def _make_disk(self, files):
        content = self.run_directory / "data"
        content.mkdir()
        for name, text in files.items():
            (content / Path(name).name).write_text(text, encoding="utf-8")
        self.disk.touch()
        os.truncate(self.disk, DISK_SIZE)
        subprocess.run(["/sbin/mke2fs", "-q", "-F", "-t", "ext4", "-d", content, self.disk], check=True)
        shutil.rmtree(content)

    def switch_on(self):
        """Boots, and waits until the daemon takes commands."""
        for pipe in self.run_directory.glob("port-*"):
            pipe.unlink()
        command = ["qemu-system-arm", "-machine", "virt", "-cpu", "cortex-a7", "-m", str(self.memory),
                   "-nodefaults", "-display", "none",
                   "-kernel", self._image / "kernel", "-initrd", self._image / "root.cpio", "-append",
                   f"console=ttyAMA0 quiet loglevel=3 panic=-1 {self.init}", "-serial", "stdio",
                   "-drive", f"if=none,id=disk,format=raw,file={self.disk},"
                             f"throttling.iops-write={self.writes_per_second}",
                   "-device", "virtio-blk-device,drive=disk", *box_shell.make_ports(self.run_directory)]
        # The machine numbers its devices from the last to the first.
        for number, address in reversed(list(enumerate(ADDRESSES))):
            command += ["-netdev", f"user,id=net{number}" + (",restrict=on" if number else ""),
                        "-device", f"virtio-net-device,netdev=net{number},mac={address}"]
        self._began = time.monotonic()
        self._say("box", "switched on")
        with desk.signals_held():
            self.machine = desk.Program(command, self._on_console)
        self._await_start()

    def reboot(self):
        """Ends the system and starts it again; waits until the daemon takes commands."""
        self._began = time.monotonic()
        self.run("reboot")
        self._await_start()

    def _await_start(self):
        self.daemon = Service(self)
        self.daemon.wait_for_line(READY_LINE)

    def _on_console(self, line):
        if line.startswith("box: "):
            self._say("box", f"{line.removeprefix('box: ')} after {time.monotonic() - self._began:.1f} s")
        if self._on_line:
            self._on_line(line)

    def wait_for_line(self, pattern, count=1):
        """Waits for a line of the console, counted since the box was switched on."""
        return self.machine.wait_for_line(pattern, count, BOOT_TIMEOUT)

    def switch_off(self):
        """Ends the system as its own command does."""
        if self._record:
            self.daemon.stop()
        with contextlib.suppress(OSError):
            self.run("poweroff")
        self.machine.wait(BOOT_TIMEOUT)
        self._forget_machine()
        self._say("box", "powered off")

    def cut_power(self):
        """Ends the machine at once. Its disk has what the machine had written there; the rest is lost."""
        if self.machine:
            self.machine.process.kill()
            self.machine.wait()
            self._forget_machine()

    def _forget_machine(self):
        self.machine = self.daemon = self._record = None

    def fetch_record(self):
        """Moves the record of the daemon, which has ended, to where it was asked for."""
        if self._record:
            self._record.write_text(self.run("cat", RECORD_FILE).stdout, encoding="utf-8")
            self._record = None

    def command(self, *words):
        """What runs the command in the box and relays its output and exit code."""
        return [sys.executable, "-B", box_shell.__file__, self.run_directory, *words]

    def run(self, *words, timeout=BOOT_TIMEOUT):
        """Runs a command in the box to its end and returns what subprocess.run() returns, output as text."""
        return subprocess.run(list(map(str, self.command(*words))), stdin=subprocess.DEVNULL, capture_output=True,
                              encoding="utf-8", check=False, timeout=timeout)

    def cvex_command(self, *arguments):
        return self.command("cvex", "--run-dir", RUN_DIRECTORY, *map(str, arguments))

    def cvex(self, *arguments):
        return self.run("cvex", "--run-dir", RUN_DIRECTORY, *map(str, arguments))
