"""Registers a simulated box once, or plays a scenario, on a desk of its own. ./run starts it with the programs of a
build; installed, it is the command cvdesk."""

import argparse
import json
import signal
import sys
from pathlib import Path

import desk
import register_box
import scenario

# Where an installed desk finds its programs.
INSTALLED_PROGRAMS_FILE = Path(__file__).with_name("programs.json")


class Parser(argparse.ArgumentParser):
    """Tells its options in the form of the other programs' --help, and a mistake in one line."""

    def format_help(self):
        formatter = self._get_formatter()
        formatter.add_text(self.description)
        formatter.add_usage("%(prog)s [OPTIONS]", self._actions, [], prefix="Usage: ")
        formatter.start_section("Options")
        formatter.add_arguments(self._actions)
        formatter.end_section()
        formatter.add_text(self.epilog)
        return formatter.format_help()

    def error(self, message):
        self.exit(2, f"{self.prog}: {message}; see {self.prog} --help\n")


def make_parser(name):
    parser = Parser(
        prog=name, allow_abbrev=False,
        description="An appliance on a desk: starts the simulated cloud and the cloud daemon on this machine, registers "
                    "the box through the message exchange, shows the steps and the answer, and stops what it started. "
                    "With --scenario it plays a bad day of the appliance instead and checks what comes out.",
        epilog="Exit codes: 0 the box was registered or the scenario came out as it must, 1 it did not, 2 the command "
               "line is wrong; without --scenario otherwise that of cvex start")
    parser.add_argument("--build-dir", help=argparse.SUPPRESS)
    parser.add_argument("--box", metavar="DIRECTORY", help=argparse.SUPPRESS)
    parser.add_argument("--token", help="Token to register with; the simulated cloud is told to accept it [default: "
                                        "one that it accepts]")
    parser.add_argument("--token-type", metavar="partner|temporary", choices=["partner", "temporary"],
                        help="Kind of the token [default: partner]")
    parser.add_argument("--mac", help="MAC address to register [default: that of the simulated interface eth2]")
    parser.add_argument("--scenario", help="Play the scenario of this name, or of this file when there is a / in it")
    parser.add_argument("--list", action="store_true", help="List the scenarios")
    parser.add_argument("--record", metavar="DIRECTORY", type=Path,
                        help="Keep a record of the run as record.jsonl in this directory, for cvex timeline to draw; "
                             "it holds the tokens")
    parser.add_argument("-v", "--verbose", action="store_true", help="Show the logs of the cloud and the daemon")
    parser.add_argument("--version", action="store_true", help="Show the version")
    return parser


def main():
    # What ./run passes on it has looked at before.
    name = "./run" if "--build-dir" in sys.argv[1:2] else "cvdesk"
    parser = make_parser(name)
    arguments = parser.parse_args()
    for option in ("token", "token_type", "mac"):
        if arguments.scenario and getattr(arguments, option):
            parser.error(f"--{option.replace('_', '-')} has no meaning with --scenario")
    desk.exit_on_signals()
    programs_file = (desk.programs_file_of(arguments.build_dir) if arguments.build_dir else INSTALLED_PROGRAMS_FILE)
    on_line = (lambda line: print(desk.printable(line), file=sys.stderr, flush=True)) if arguments.verbose else None
    try:
        if arguments.version:
            print(name, json.loads(programs_file.read_text(encoding="utf-8"))["version"])
            return 0
        if arguments.list:
            # A reader that has seen enough, such as head, ends the list.
            signal.signal(signal.SIGPIPE, signal.SIG_DFL)
            scenario.print_list()
            return 0
        if arguments.record:
            desk.make_record_directory(arguments.record)
        narrator = scenario.Narrator()

        def make_desk(on_line):
            if not arguments.box:
                return desk.Desk(programs_file, on_line)
            import box  # Not installed: it needs what a build makes.
            return box.Box(arguments.box, programs_file, narrator, on_line)

        if arguments.scenario:
            scenario.play(arguments.scenario, make_desk, narrator, arguments.record, on_line)
            return 0
        return register_box.register(make_desk, narrator, arguments.token, arguments.token_type or "partner",
                                     arguments.mac, arguments.record, on_line)
    except (desk.DeskError, OSError) as error:
        print(f"{name}: {desk.printable(str(error))}", file=sys.stderr)
        return 1


if __name__ == "__main__":
    sys.exit(main())
