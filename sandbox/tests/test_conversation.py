"""The conversation of docs/messages.md, word by word but for the tokens that the cloud makes up."""

import re
import shlex
import subprocess
from pathlib import Path

import desk as desk_module

PAGE = Path(__file__).parents[2] / "docs" / "messages.md"
LISTENER = "cvex listen | grep --line-buffered cloud_registration_done"


def conversation():
    """[(command, what it prints)] of the page, in order."""
    commands = []
    for line in PAGE.read_text(encoding="utf-8").partition("\n## A conversation\n")[2].splitlines():
        if line.startswith("    $ "):
            commands.append((line.removeprefix("    $ "), []))
        elif line.startswith("    "):
            commands[-1][1].append(line.removeprefix("    "))
    return [command for command in commands if not command[0].startswith("export ")]


def with_tokens_numbered(lines):
    """The user tokens in the order in which they come, so that it still counts which of them are the same."""
    tokens = []

    def number(match):
        if match[0] not in tokens:
            tokens.append(match[0])
        return f"user-{tokens.index(match[0]) + 1}"

    return [re.sub(r"\buser-[0-9a-f]{16}\b", number, line) for line in lines]


def carry_out(appliance, command):
    program, *arguments = shlex.split(command)
    if program == "cvcloud-sim":
        arguments[1:1] = ["--admin-url", appliance.admin_url]
        return subprocess.run([appliance.programs[program], *arguments], stdin=subprocess.DEVNULL, check=True,
                              capture_output=True, encoding="utf-8",
                              timeout=desk_module.START_TIMEOUT).stdout.splitlines()
    assert program == "cvex", command
    for _ in range(1000):
        lines = appliance.cvex(*arguments).stdout.splitlines()
        if "error_in_progress" not in "".join(lines):
            return lines
    raise AssertionError("the registration before stays in progress")


def test_the_page_tells_what_the_programs_print(appliance):
    (listener_command, published), *commands = conversation()
    assert listener_command == LISTENER
    assert len(commands) > 5
    appliance.start_cloud()
    # The tries of a daemon without settings, but not its pauses.
    appliance.start_daemon(settings={"/daemons/cvcloudd/registration/retry_num": 3})
    listener = appliance.start(appliance.cvex_command("listen"))
    listener.wait_for_line("^cvex: listening$")

    printed = [line for command, _ in commands for line in carry_out(appliance, command)]
    listener.wait_for_line("^cloud_registration_done", sum("cloud_registration_done" in line for line in published))
    # The line of cvex itself goes to the terminal past the filter.
    heard = [line for line in listener.lines if re.match("cvex: |cloud_registration_done ", line)]
    told = [line for _, lines in commands for line in lines]
    assert with_tokens_numbered([*heard, *printed]) == with_tokens_numbered([*published, *told])
