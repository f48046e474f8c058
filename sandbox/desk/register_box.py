"""Registers the box once: starts a desk, runs cvex start, shows the steps and stops everything again."""

import argparse
import shlex
import sys
from pathlib import Path

import desk

IS_INSTALLED = desk.INSTALLED_PROGRAMS_FILE.exists()
NAME = "cvdesk" if IS_INSTALLED else "./run"


class Parser(argparse.ArgumentParser):
    def error(self, message):
        self.exit(2, f"{self.prog}: {message}; see {self.prog} --help\n")


def parse_arguments():
    parser = Parser(prog=NAME, description=__doc__, allow_abbrev=False)
    if IS_INSTALLED:
        parser.set_defaults(programs=desk.INSTALLED_PROGRAMS_FILE)
    else:
        parser.add_argument("--build-dir", dest="programs", type=desk.programs_file_of, required=True,
                            help="build directory of the programs")
    parser.add_argument("--token", help="token to register with [default: one that the cloud accepts]")
    parser.add_argument("--token-type", choices=["partner", "temporary"], default="partner")
    parser.add_argument("--mac", help="MAC address to register [default: that of the simulated eth2]")
    parser.add_argument("--record", metavar="DIR", type=Path,
                        help="keep a record of the run, token included, as DIR/record.jsonl, for cvex timeline to draw")
    parser.add_argument("-v", "--verbose", action="store_true", help="show the logs of the cloud and the daemon")
    return parser.parse_args()


def prepare_record(directory):
    """Makes the directory and returns the file of the record in it."""
    try:
        directory.mkdir(parents=True, exist_ok=True)
    except OSError as error:
        raise desk.DeskError(f"cannot make the directory {directory} of --record: {error.strerror}") from None
    return directory / "record.jsonl"


def register(arguments):
    on_line = (lambda line: print(line, file=sys.stderr, flush=True)) if arguments.verbose else None
    token = arguments.token or desk.TOKENS[arguments.token_type]
    record = prepare_record(arguments.record) if arguments.record else None
    with desk.Desk(arguments.programs, on_line) as appliance:
        appliance.start_cloud(tokens={arguments.token_type: token})
        print(f"cloud              listening on {appliance.cloud_url}", flush=True)
        appliance.start_daemon("--log-level", "3" if arguments.verbose or record else "2",
                               *(["--record", record] if record else []))
        print(f"cvcloudd           ready in {appliance.run_directory}", flush=True)
        command = appliance.cvex_command("start", "--token", token, "--token-type", arguments.token_type)
        if arguments.mac:
            command += ["--mac", arguments.mac]
        exit_code = appliance.start(command, watched=False).process.wait()
    # The daemon has ended, so the record is whole.
    if record:
        print(f"record             {shlex.join([appliance.programs['cvex'], 'timeline', str(record)])}")
    return exit_code


def main():
    arguments = parse_arguments()
    desk.exit_on_signals()
    try:
        return register(arguments)
    except desk.DeskError as error:
        print(f"{NAME}: {error}", file=sys.stderr)
        return 1


if __name__ == "__main__":
    sys.exit(main())
