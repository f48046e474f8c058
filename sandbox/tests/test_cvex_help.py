"""The manual pages and the completion of the programs, both made from what --help says."""

import os
import re
import subprocess
from pathlib import Path

import pytest
from conftest import BUILD_DIRECTORY

import desk as desk_module
import scenario as scenario_module

COMPLETION = Path(__file__).parents[1] / "completion" / "cvex.bash"
PROGRAMS = ["cvex", "cvcloudd", "cvcloud-sim", "cvdesk"]


def command_of(appliance, program):
    if program == "cvdesk":
        return ["/usr/bin/python3", "-B", Path(desk_module.__file__).with_name("cvdesk.py")]
    return [appliance.programs[program]]


def run(*command, **options):
    return subprocess.run([str(word) for word in command], stdin=subprocess.DEVNULL, capture_output=True,
                          encoding="utf-8", check=False, timeout=60, **options)


def page_of(program):
    return BUILD_DIRECTORY / "sandbox" / "manuals" / f"{program}.1.gz"


def shown(program):
    """The manual page as man shows it, without the line breaks of its paragraphs."""
    result = run("man", "--warnings", "-l", page_of(program),
                 env={**os.environ, "LC_ALL": "C.UTF-8", "MANWIDTH": "1000", "MAN_KEEP_FORMATTING": ""})
    assert (result.returncode, result.stderr) == (0, "")
    return " ".join(result.stdout.split())


def helps(program, *path):
    """Every --help of a program: that of the program, of its subcommands, and of theirs."""
    text = run(*program, *path, "--help", env={**os.environ, "COLUMNS": "1000"}).stdout
    yield text
    commands = re.search(r"^Subcommands:\n((?:  .*\n)+)", text, re.MULTILINE)
    for name in re.findall(r"^  (\S+)", commands[1], re.MULTILINE) if commands else []:
        yield from helps(program, *path, name)


@pytest.mark.parametrize("program", PROGRAMS)
def test_the_manual_page_can_be_found(program):
    result = run("lexgrog", page_of(program))
    assert result.returncode == 0
    assert re.search(rf'"{program} - \w.*"$', result.stdout)


@pytest.mark.parametrize("program", PROGRAMS)
def test_the_manual_page_has_every_word_of_the_help(appliance, program):
    page = shown(program)
    texts = list(helps(command_of(appliance, program)))
    assert len(texts) >= {"cvex": 12, "cvcloudd": 1, "cvcloud-sim": 6, "cvdesk": 1}[program]
    for text in texts:
        for line in text.replace("Usage: ", "").splitlines():
            if line not in ("Positionals:", "Options:", "Subcommands:"):
                words = [" ".join(part.split()) for part in line.replace("Exit codes:", "").split("  ")]
                assert [word for word in words if word not in page] == []


def complete(appliance, *words):
    """What bash offers for the last of the words, behind the program's name."""
    programs = appliance.run_directory / "bin"
    programs.mkdir(exist_ok=True)
    script = f"""
source {COMPLETION}
COMP_WORDS=("$@") COMP_CWORD=$(($# - 1))
function=$(complete -p cvex); function=${{function##*-F }}; ${{function%% *}}
printf '%s\\n' "${{COMPREPLY[@]}}"
"""
    for program in PROGRAMS:
        command = " ".join(f"'{word}'" for word in command_of(appliance, program))
        (programs / program).write_text(f'#!/bin/sh\nexec {command} "$@"\n', encoding="utf-8")
        (programs / program).chmod(0o755)
    result = run("bash", "--norc", "-c", script, "bash", *words, cwd=appliance.run_directory,
                 env={**os.environ, "PATH": f"{programs}:{os.environ['PATH']}"})
    assert (result.returncode, result.stderr) == (0, "")
    return result.stdout.split()


@pytest.mark.parametrize("words, offered", [
    (["cvex", "st"], ["start", "status"]),
    (["cvex", "settings", ""], ["get", "set", "list"]),
    (["cvex", "settings", "l"], ["list"]),
    (["cvex", "--run-dir", "there", "re"], ["retry"]),
    (["cvex", "start", "--to"], ["--token", "--token-file", "--token-type"]),
    (["cvex", "start", "--run"], ["--run-dir"]),
    (["cvex", "retry", "--to"], []),
    (["cvex", "start", "--token-type", ""], ["partner", "temporary"]),
    (["cvex", "start", "--token", ""], []),
    (["cvex", "start", "--no-reply", "--j"], ["--json"]),
    (["cvcloudd", "--mask"], ["--mask-tokens"]),
    (["cvcloudd", "--record", "a"], ["a_directory", "a_file"]),
    (["cvcloudd", "--run-dir", "a"], ["a_directory"]),
    (["cvcloud-sim", "ctl", "fault"], ["fault", "faults"]),
    (["cvdesk", "--token-type", "p"], ["partner"]),
    (["cvdesk", "--verb"], ["--verbose"]),
    (["cvdesk", "--scenario", "partner-"], ["partner-token"]),
    (["cvex", "settings", "get", "retry_"], ["retry_num", "retry_interval"]),
    (["cvex", "settings", "--file", "a_file", "set", "/network"], ["/network/interfaces/eth7/mac"]),
    (["cvex", "settings", "--file", "a_file", "set", "/network/interfaces/eth7/mac", ""], []),
])
def test_completion(appliance, words, offered):
    (appliance.run_directory / "a_directory").mkdir()
    (appliance.run_directory / "a_file").write_text('{"/network/interfaces/eth7/mac": "02:00:00:00:00:07"}\n')
    assert sorted(complete(appliance, *words)) == sorted(offered)


def test_every_subcommand_and_option_is_offered(appliance):
    text = run(appliance.programs["cvex"], "start", "--help").stdout
    assert set(re.findall(r"^  (?:-h,)?(--\S+)", text, re.MULTILINE)) <= set(complete(appliance, "cvex", "start", "--"))
    assert complete(appliance, "cvdesk", "--scenario", "") == [path.stem for path in scenario_module.files()]
    assert complete(appliance, "cvex", "") == [
        "start", "retry", "listen", "send", "status", "log-level", "timeline", "explain", "doctor", "settings"]


@pytest.mark.parametrize("program", PROGRAMS)
def test_version(appliance, program):
    command = command_of(appliance, program)
    name = program
    if program == "cvdesk":
        name = "./run"
        command += ["--build-dir", BUILD_DIRECTORY]
        assert run(COMPLETION.parents[2] / "run", "--version").stdout == f"./run {appliance.programs['version']}\n"
    result = run(*command, "--version")
    assert (result.returncode, result.stdout, result.stderr) == (0, f"{name} {appliance.programs['version']}\n", "")


ZSH = """
compadd() { shift; print -l -- "$@" }
_files() { print files }
words=("$@")
CURRENT=$#
source %s
"""


@pytest.mark.parametrize("shell", [
    lambda *words: ("zsh", "-f", "-c", ZSH % COMPLETION.with_name("_cvex"), "zsh", *words),
    lambda *words: ("fish", "--no-config", "-c", f"source {COMPLETION.with_name('cvex.fish')}; "
                    f"complete -C '{' '.join(words)}'"),
], ids=["zsh", "fish"])
@pytest.mark.parametrize("words, offered", [
    (["cvex", "st"], ["start", "status"]),
    (["cvex", "settings", "get", "retry_"], ["retry_interval", "retry_num"]),
    (["cvex", "start", "--token-type", "p"], ["partner"]),
])
def test_other_shells_offer_the_same(appliance, shell, words, offered):
    complete(appliance, "cvex", "")  # It writes the programs.
    result = run(*shell(*words), env={**os.environ, "CVEX_COMPLETION": str(COMPLETION),
                                      "PATH": f"{appliance.run_directory}/bin:{os.environ['PATH']}"})
    assert (sorted(result.stdout.split()), result.stderr) == (offered, "")


@pytest.mark.parametrize("program", PROGRAMS)
def test_completion_is_there_for_each_program(program):
    result = run("bash", "--norc", "-c", f"source {COMPLETION}; complete -p {program}")
    assert "-F _cvex" in result.stdout
