"""Runs a command in the virtual box: python3 box_shell.py DIRECTORY COMMAND... relays its output and exit code; SIGTERM
goes to the command."""

import fcntl
import os
import shlex
import signal
import sys
import uuid
from pathlib import Path

PORTS = range(1, 7)


def make_ports(directory):
    """Makes the pipes of the box's shells in this directory; returns QEMU's options for them."""
    options = ["-device", "virtio-serial-device"]
    for port in PORTS:
        for end in ("in", "out"):
            os.mkfifo(directory / f"port-{port}.{end}", 0o600)
        options += ["-chardev", f"pipe,id=port{port},path={directory}/port-{port}",
                    "-device", f"virtserialport,chardev=port{port},nr={port}"]
    return options


def _open_free_port(directory):
    """Descriptors of the first port that no other command has: to write, to read."""
    for port in PORTS:
        # Fails when no QEMU has the other end.
        writer = os.open(directory / f"port-{port}.in", os.O_WRONLY | os.O_NONBLOCK)
        try:
            fcntl.flock(writer, fcntl.LOCK_EX | fcntl.LOCK_NB)
            return writer, os.open(directory / f"port-{port}.out", os.O_RDONLY)
        except BlockingIOError:
            os.close(writer)
    raise OSError(f"all {len(PORTS)} shells of the box have a command")


def run(directory, command, on_output, on_start=None):
    """Calls `on_start` with the process id of the command in the box and `on_output` with each piece of its output, as
    bytes; returns its exit code. Raises OSError when the box has gone."""
    writer, reader = _open_free_port(directory)
    mark = uuid.uuid4().hex.encode()
    script = shlex.join(["sh", "-c", 'echo $$; exec "$@"', "sh", *command])
    try:
        os.write(writer, f"{script} </dev/null 2>&1; echo {mark.decode()} $?\n".encode())
        is_started = False
        waiting = b""
        while True:
            piece = os.read(reader, 65536)
            if not piece:
                raise OSError("the box has gone")
            waiting += piece
            if not is_started and b"\n" in waiting:
                is_started = True
                number, waiting = waiting.split(b"\n", 1)
                if on_start:
                    on_start(int(number))
            if not is_started:
                continue
            output, found, rest = waiting.partition(mark)
            if found and rest.endswith(b"\n"):
                on_output(output)
                return int(rest)
            # The mark, or what may be its beginning, stays.
            kept = len(waiting) - len(output) if found else next(
                length for length in range(len(mark), -1, -1) if waiting.endswith(mark[:length]))
            ready = len(waiting) - kept
            on_output(waiting[:ready])
            waiting = waiting[ready:]
    finally:
        os.close(reader)
        os.close(writer)


def main():
    directory, *command = sys.argv[1:]
    directory = Path(directory)

    def stop_on_signal(process_id):
        signal.signal(signal.SIGTERM,
                      lambda *_: run(directory, ["kill", str(process_id)], lambda _output: None))
        signal.pthread_sigmask(signal.SIG_UNBLOCK, {signal.SIGTERM})

    def show(output):
        sys.stdout.buffer.write(output)
        sys.stdout.buffer.flush()

    signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGTERM})
    try:
        return run(directory, command, show, stop_on_signal)
    except OSError as error:
        print(f"box: {error}", file=sys.stderr)
        return 1


if __name__ == "__main__":
    sys.exit(main())
