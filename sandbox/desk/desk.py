"""An appliance on a desk: starts the simulated cloud and the cloud daemon as processes in a private run directory,
talks to them with cvex, and leaves nothing behind."""

import contextlib
import http.client
import json
import re
import shutil
import signal
import subprocess
import tempfile
import threading
from pathlib import Path

PARTNER_ID = "desk-partner"
TOKENS = {"partner": "desk-partner-token", "temporary": "desk-temporary-token"}
DEFAULT_SETTINGS = Path(__file__).resolve().with_name("settings.json")

# Bounds for what takes milliseconds on a quiet machine; reaching one is an error, never a way to wait.
START_TIMEOUT = 30
STOP_TIMEOUT = 30


_STOP_SIGNALS = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)
_held = 0
_pending = None


def exit_on_signals():
    """Makes SIGINT, SIGTERM and SIGHUP end this program by SystemExit, so that its desk is cleared up."""
    for number in _STOP_SIGNALS:
        signal.signal(number, _leave)


def _leave(number, _frame):
    global _pending
    if _held:
        _pending = number
    else:
        raise SystemExit(128 + number)


@contextlib.contextmanager
def signals_held():
    """Puts the SystemExit of a signal off to the end of the block: what is started in the block is also noted, and
    what is stopped in it is stopped to the end."""
    global _held
    _held += 1
    try:
        yield
    finally:
        _held -= 1
    if _pending and not _held:
        raise SystemExit(128 + _pending)


class DeskError(Exception):
    """Something of the desk does not work; the text is one line for a person."""


class Program:
    """A started program whose output is read line by line.

    It runs in a session of its own, so that an interrupt in the terminal reaches only the desk, which stops its
    programs in order; the kernel kills it should the desk itself be killed.
    """

    def __init__(self, command, on_line=None, watched=True):
        """`on_line` is called with each line of the output, on another thread. A program that is not watched
        writes to the output of the desk itself."""
        self.name = Path(command[0]).name
        self.lines = []
        self._on_line = on_line
        self._changed = threading.Condition()
        self._ended = False
        self.process = subprocess.Popen(
            ["setpriv", "--pdeathsig", "KILL", "--", *map(str, command)],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE if watched else None,
            stderr=subprocess.STDOUT if watched else None,
            encoding="utf-8", errors="replace", start_new_session=True)
        self._reader = threading.Thread(target=self._read, daemon=True) if watched else None
        if watched:
            self._reader.start()

    def _read(self):
        for line in self.process.stdout:
            line = line.rstrip("\n")
            if self._on_line:
                self._on_line(line)
            with self._changed:
                self.lines.append(line)
                self._changed.notify_all()
        with self._changed:
            self._ended = True
            self._changed.notify_all()

    def wait_for_line(self, pattern, count=1, timeout=START_TIMEOUT):
        """Waits until `count` lines hold the regular expression and returns the match of the last of these."""
        found = []

        def enough():
            found[:] = [match for line in self.lines if (match := re.search(pattern, line))]
            return len(found) >= count or self._ended

        with self._changed:
            self._changed.wait_for(enough, timeout)
        if len(found) >= count:
            return found[count - 1]
        if self._ended:
            last = self.lines[-1] if self.lines else "it printed nothing"
            raise DeskError(f"{self.name} ended with exit code {self.process.wait()}: {last}")
        raise DeskError(f"{self.name} did not print \"{pattern}\" within {timeout} s")

    def request_stop(self):
        self.process.send_signal(signal.SIGTERM)

    def wait(self, timeout=STOP_TIMEOUT):
        """Waits for the end and returns the exit code; a program that does not end is killed and reported."""
        try:
            self.process.wait(timeout)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
            raise DeskError(f"{self.name} did not end within {timeout} s and was killed") from None
        finally:
            if self._reader:
                self._reader.join()
                self.process.stdout.close()
        return self.process.returncode

    def stop(self):
        self.request_stop()
        return self.wait()


class Desk:
    """The programs of one appliance. A context manager: leaving it stops all that it started, the latest first."""

    def __init__(self, programs_file, on_line=None):
        try:
            self.programs = json.loads(Path(programs_file).read_text(encoding="utf-8"))
        except OSError as error:
            raise DeskError(f"cannot read {programs_file}: {error.strerror}; build the project first") from None
        self._on_line = on_line
        self._started = []
        self.run_directory = None
        self.cloud = None
        self.daemon = None
        self.cloud_url = None
        self.admin_url = None

    def __enter__(self):
        # A socket address holds 107 bytes; the user's own directory for temporary files may be deep.
        self.run_directory = Path(tempfile.mkdtemp(prefix="cvdesk-", dir="/tmp"))
        return self

    def __exit__(self, *_):
        with signals_held():
            try:
                for program in reversed(self._started):
                    if program.process.poll() is None:
                        program.stop()
            finally:
                for program in self._started:
                    if program.process.poll() is None:
                        program.process.kill()
                shutil.rmtree(self.run_directory)

    def start(self, command, watched=True):
        with signals_held():
            program = Program(command, self._on_line, watched)
            self._started.append(program)
        return program

    def start_cloud(self, port=0, tokens=None, options=()):
        """Starts the simulated cloud and waits until it listens. `tokens` is the good token of each type."""
        tokens = {**TOKENS, **(tokens or {})}
        self.cloud = self.start([
            self.programs["cvcloud-sim"], "--port", port, "--partner-id", PARTNER_ID,
            "--partner-token", tokens["partner"], "--temporary-token", tokens["temporary"], *options])
        self.admin_url = self.cloud.wait_for_line(r"administered on (http://\S+)")[1]
        self.cloud_url = self.cloud.wait_for_line(r"listening on (https?://\S+)")[1]
        return self.cloud

    def ask_cloud(self, method, path, document=None):
        """One request to the administration of the cloud; returns the document that it answers with."""
        connection = http.client.HTTPConnection(self.admin_url.removeprefix("http://"), timeout=START_TIMEOUT)
        connection.request(method, path, None if document is None else json.dumps(document))
        response = connection.getresponse()
        answer = json.loads(response.read())
        connection.close()
        if response.status != http.client.OK:
            raise DeskError(answer["error"])
        return answer

    @property
    def place(self):
        """Where the daemon serves its exchange, for a person."""
        return str(self.run_directory)

    @property
    def settings_file(self):
        return self.run_directory / "settings.json"

    def write_settings(self, settings):
        """Writes the settings store: the desk's own settings, with these added or replaced."""
        store = json.loads(DEFAULT_SETTINGS.read_text(encoding="utf-8"))
        self.settings_file.write_text(json.dumps({**store, **settings}, indent=4) + "\n", encoding="utf-8")

    def daemon_command(self, *options, handler=None):
        return [self.programs["cvcloudd"], "--run-dir", self.run_directory, "--cloud-url", self.cloud_url,
                "--handler", handler or self.programs["handler"], "--settings", self.settings_file,
                "--partner-id", PARTNER_ID, *options]

    def start_daemon(self, *options, settings=None, handler=None):
        """Starts the cloud daemon and waits until it takes commands."""
        self.write_settings(settings or {})
        self.daemon = self.start(self.daemon_command(*options, handler=handler))
        self.daemon.wait_for_line(r"^cvcloudd: ready$")
        return self.daemon

    def cvex_command(self, *arguments):
        return [self.programs["cvex"], "--run-dir", str(self.run_directory), *map(str, arguments)]

    def cvex(self, *arguments):
        """Runs the client to its end and returns what subprocess.run() returns, output as text."""
        return subprocess.run(self.cvex_command(*arguments), stdin=subprocess.DEVNULL, capture_output=True,
                              encoding="utf-8", check=False, timeout=START_TIMEOUT + STOP_TIMEOUT)


def programs_file_of(build_directory):
    return Path(build_directory) / "sandbox" / "programs.json"


def make_record_directory(directory):
    try:
        directory.mkdir(parents=True, exist_ok=True)
    except OSError as error:
        raise DeskError(f"cannot make the directory {directory} of --record: {error.strerror}") from None


def read_reply(text):
    """A reply by its fixed beginning, or None: a success is JSON, the reason of a failure may quote the cloud as it
    is."""
    if text.startswith('{"result": "ok", '):
        return json.loads(text)
    failure = re.fullmatch(r'\{"result": "(\w+)", "reason": "(.*)"\}', text, re.DOTALL)
    return failure and {"result": failure[1], "reason": failure[2]}


def printable(text):
    """What others have written, on one line and without what would steer a terminal or turn the direction of the
    writing."""
    return "".join(character if character.isprintable() else "?" for character in text)
