"""Plays random bad days on one desk, one after another: faults of the cloud, programs that are stopped, killed or halted,
full disks, too few descriptors, a second daemon, corrupt settings. Every command that wants a reply must get one, a box
must keep its device id, every daemon must end cleanly, the file of boxes must stay whole, and neither the daemon nor the
cloud may lose descriptors or threads.

The same seed gives the same faults and commands again, though not the same timing.
"""

import argparse
import contextlib
import json
import os
import random
import re
import resource
import signal
import sqlite3
import subprocess
import sys
import time
from pathlib import Path

import desk

SETTINGS = {
    "/daemons/cvcloudd/registration/retry_num": 1,
    "/daemons/cvcloudd/registration/retry_interval": 0,
}
FAULTS = ["error", "error-plain", "error-number", "status:404", "status:503", "empty", "text", 'text:a "quoted" word',
          "result-empty", "result-number", "delay:0.02", "delay:0.1", "drop", "drop", "silence", "oversized"]
METHODS = ["connect", "get_device_token", "register_box"]
REQUEST_TIMEOUT = "0.15"

# A command that is not answered within this time counts as not answered, in seconds.
ANSWER_TIMEOUT = 30
# What a program may hold for the moment beyond what it holds when it is idle: connections that are being closed.
DESCRIPTOR_SLACK = 8
# The rounds after which a program holds what it keeps.
WARM_UP_ROUNDS = 3


# The rounds, by what happens in them, and how often each is played in comparison.
KINDS = {"command": 40, "crowd": 15, "cloud_stop": 4, "cloud_kill": 4, "cloud_halt": 4, "daemon_stop": 4, "daemon_kill": 4,
         "daemon_halt": 6, "second_daemon": 4, "corrupt_settings": 3, "full_disk": 6, "no_descriptors": 6}


@contextlib.contextmanager
def halted(program):
    """Stops the program as a debugger does, for the length of the block."""
    program.process.send_signal(signal.SIGSTOP)
    try:
        yield
    finally:
        program.process.send_signal(signal.SIGCONT)


class Usage:
    """Watches what a program holds."""

    def __init__(self, program, thread_slack=0):
        # The program replaces the launcher that was started, so its number is the same.
        self._program = program
        self._thread_slack = thread_slack
        self._rounds = 0
        self._idle = None

    def check(self):
        """Called between rounds; raises DeskError when the program holds more than it did at first."""
        process = Path("/proc") / str(self._program.process.pid)
        descriptors = len(os.listdir(process / "fd"))
        threads = int(re.search(r"^Threads:\s*(\d+)$", (process / "status").read_text("utf-8"), re.MULTILINE)[1])
        self._rounds += 1
        if self._rounds <= WARM_UP_ROUNDS:
            return
        if self._idle is None:
            self._idle = descriptors, threads
        if descriptors > self._idle[0] + DESCRIPTOR_SLACK or threads > self._idle[1] + self._thread_slack:
            raise desk.DeskError(f"{self._program.name} holds {descriptors} descriptors and {threads} threads after "
                                 f"{self._rounds} rounds; it held {self._idle[0]} and {self._idle[1]}")


class Soak:
    def __init__(self, programs_file, seed):
        self._random = random.Random(seed)
        self._desk = desk.Desk(programs_file)
        self._device_ids = {}
        self.rounds = 0
        self.commands = 0
        self.kinds = dict.fromkeys(KINDS, 0)

    def run(self, is_over):
        """Plays rounds until `is_over()`; raises DeskError when something is wrong."""
        with self._desk:
            self._start_cloud()
            self._start_daemon()
            while not is_over():
                self.rounds += 1
                try:
                    self._play_round()
                    self._daemon_usage.check()
                    self._cloud_usage.check()
                except desk.DeskError as error:
                    raise desk.DeskError(f"round {self.rounds}: {error}") from None
            self._stop(self._desk.daemon)
            self._stop(self._desk.cloud)

    def _start_cloud(self):
        port = self._desk.cloud_url.rsplit(":", 1)[1] if self._desk.cloud_url else 0
        self._desk.start_cloud(port, options=["--boxes", self._desk.run_directory / "boxes.sqlite"])
        # The cloud has a thread for each connection.
        self._cloud_usage = Usage(self._desk.cloud, thread_slack=DESCRIPTOR_SLACK)

    def _start_daemon(self):
        self._desk.start_daemon("--log-level", "0", "--request-timeout", REQUEST_TIMEOUT, settings=SETTINGS)
        self._daemon_usage = Usage(self._desk.daemon)

    def _stop(self, program):
        if program.stop() != 0:
            raise desk.DeskError(f"{program.name} ended with exit code {program.process.returncode}")

    def _play_round(self):
        self._desk.ask_cloud("DELETE", "/faults")
        self._desk.ask_cloud("POST", "/faults", [self._fault() for _ in range(self._random.randrange(5))])
        kind = self._random.choices(list(KINDS), KINDS.values())[0]
        self.kinds[kind] += 1
        getattr(self, "_play_" + kind)()
        if self._desk.cvex("status", "--json").returncode != 0:
            raise desk.DeskError(f"the daemon does not tell its status after the round '{kind}'")

    def _play_command(self):
        self._finish([self._command()])

    def _play_crowd(self):
        self._finish([self._command() for _ in range(self._random.randint(2, 4))])

    def _play_cloud_stop(self):
        clients = [self._command()]
        self._stop(self._desk.cloud)
        self._finish(clients)
        self._start_cloud()

    def _play_cloud_kill(self):
        clients = [self._command()]
        self._kill(self._desk.cloud)
        self._finish(clients)
        self._check_boxes()
        self._start_cloud()

    def _play_cloud_halt(self):
        with halted(self._desk.cloud):
            self._finish([self._command()])

    def _play_daemon_stop(self):
        clients = [self._command()]
        self._stop(self._desk.daemon)
        self._finish(clients, may_miss_daemon=True)
        self._start_daemon()

    def _play_daemon_kill(self):
        clients = [self._command()]
        self._kill(self._desk.daemon)
        self._finish(clients, may_miss_daemon=True)
        self._start_daemon()

    def _play_daemon_halt(self):
        with halted(self._desk.daemon):
            clients = [self._command() for _ in range(3)]
        self._finish(clients)

    def _play_second_daemon(self):
        client = self._command()
        second = self._desk.start(self._desk.daemon_command())
        if second.wait() != 1:
            raise desk.DeskError(f"a second daemon ended with exit code {second.process.returncode}")
        self._finish([client])

    def _play_corrupt_settings(self):
        self._stop(self._desk.daemon)
        text = self._desk.settings_file.read_bytes()
        self._desk.settings_file.write_bytes(text[:self._random.randrange(len(text) - 2)])
        refused = self._desk.start(self._desk.daemon_command())
        if refused.wait() != 1 or f"{self._desk.settings_file}:" not in refused.lines[-1]:
            raise desk.DeskError(f"corrupt settings gave exit code {refused.process.returncode}: {refused.lines}")
        self._start_daemon()

    def _play_full_disk(self):
        # The file of boxes cannot grow.
        pid = str(self._desk.cloud.process.pid)
        subprocess.run(["prlimit", "--pid", pid, "--fsize=1:"], check=True)
        self._finish([self._command()])
        subprocess.run(["prlimit", "--pid", pid, "--fsize=unlimited:"], check=True)

    def _play_no_descriptors(self):
        # None is left for another client, unless one that has gone leaves its own: it is turned away until there is.
        process = Path("/proc") / str(self._desk.daemon.process.pid)
        soft, hard = resource.prlimit(self._desk.daemon.process.pid, resource.RLIMIT_NOFILE)
        resource.prlimit(self._desk.daemon.process.pid, resource.RLIMIT_NOFILE, (len(os.listdir(process / "fd")), hard))
        client = self._command()
        code = self._desk.cvex("status", "--timeout", "1").returncode
        if code not in (0, 5):
            raise desk.DeskError(f"a client without a descriptor for it ended with exit code {code}")
        resource.prlimit(self._desk.daemon.process.pid, resource.RLIMIT_NOFILE, (soft, hard))
        # One of its two connections may have been turned away after the other.
        self._finish([client], may_miss_daemon=True)

    @staticmethod
    def _kill(program):
        program.process.kill()
        program.wait()

    def _check_boxes(self):
        with contextlib.closing(sqlite3.connect(self._desk.run_directory / "boxes.sqlite")) as boxes:
            problem = boxes.execute("PRAGMA integrity_check").fetchone()[0]
        if problem != "ok":
            raise desk.DeskError(f"the file of boxes is not whole: {problem}")

    def _fault(self):
        return (f"{self._random.choice(METHODS)}*{self._random.randint(1, 3)}="
                f"{self._random.choice(FAULTS)}")

    def _command(self):
        """Starts a random cvex and returns it with the MAC address that it registers, if it does."""
        self.commands += 1
        timeout = ["--timeout", ANSWER_TIMEOUT]
        kind = self._random.random()
        if kind < 0.3:
            return self._desk.start(self._desk.cvex_command("retry", "--json", *timeout)), None
        if kind < 0.4:
            payload = self._random.choice(["", "{", "[]", '{"token": ""}', '{"token": "t", "token_type": "no"}'])
            command = ["send", "--raw", "start_cloud_registration", payload, *timeout]
            return self._desk.start(self._desk.cvex_command(*command)), None
        token_type = self._random.choice(list(desk.TOKENS))
        token = desk.TOKENS[token_type] if self._random.random() < 0.9 else "stolen"
        mac = f"02:00:00:00:00:{self._random.randrange(8):02X}"
        command = ["start", "--json", "--token", token, "--token-type", token_type, "--mac", mac, *timeout]
        return self._desk.start(self._desk.cvex_command(*command)), mac

    def _finish(self, clients, may_miss_daemon=False):
        for client, mac in clients:
            code = client.wait(ANSWER_TIMEOUT + desk.STOP_TIMEOUT)
            if may_miss_daemon and code == 5:
                continue
            if code not in (0, 1, 3) or len(client.lines) != 1:
                raise desk.DeskError(f"a command was not answered with one reply: exit code {code}, {client.lines}")
            if code == 0 and mac:
                device_id = json.loads(client.lines[0])["device_id"]
                if self._device_ids.setdefault(mac, device_id) != device_id:
                    raise desk.DeskError(f"{mac} was {self._device_ids[mac]} and is {device_id}")


def main():
    parser = argparse.ArgumentParser(prog="scripts/soak", description=__doc__, allow_abbrev=False,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build-dir", required=True, help=argparse.SUPPRESS)
    length = parser.add_mutually_exclusive_group(required=True)
    length.add_argument("--minutes", type=float, help="play rounds for so long")
    length.add_argument("--count", type=int, help="play so many rounds")
    parser.add_argument("--seed", type=int, default=random.randrange(2**32),
                        help="default: a random one, which is told")
    arguments = parser.parse_args()
    desk.exit_on_signals()
    print(f"seed {arguments.seed}", flush=True)
    soak = Soak(desk.programs_file_of(arguments.build_dir), arguments.seed)
    begin = time.monotonic()
    try:
        if arguments.count is not None:
            soak.run(lambda: soak.rounds >= arguments.count)
        else:
            soak.run(lambda: time.monotonic() - begin >= arguments.minutes * 60)
    except desk.DeskError as error:
        print(f"scripts/soak: seed {arguments.seed}, {error}", file=sys.stderr)
        return 1
    print(f"{soak.rounds} rounds, {soak.commands} commands, each answered, in {time.monotonic() - begin:.0f} s")
    print("rounds: " + ", ".join(f"{kind} {count}" for kind, count in soak.kinds.items()))
    return 0


if __name__ == "__main__":
    sys.exit(main())
