"""Makes the manual page of a program from its --help and that of its subcommands, so that the two cannot differ.

    make_manual.py NAME VERSION SUMMARY PAGE.gz COMMAND...
"""

import datetime
import gzip
import os
import re
import subprocess
import sys
from pathlib import Path

SECTIONS = ("Positionals:", "Options:", "Subcommands:")


class Help:
    """One --help, taken apart."""

    def __init__(self, program, path):
        # Lines are filled where the page is shown.
        text = subprocess.run([*program, *path, "--help"], stdin=subprocess.DEVNULL, capture_output=True,
                              encoding="utf-8", check=True, env={**os.environ, "COLUMNS": "10000"}).stdout
        self.description, _, rest = text.partition("\nUsage: ")
        self.usage, _, rest = rest.partition("\n")
        self.entries = {section: [] for section in SECTIONS}
        section = None
        lines = rest.split("\n")
        while lines:
            line = lines.pop(0)
            if line in SECTIONS:
                section = self.entries[line]
            elif section is not None and (entry := re.fullmatch(r"  (\S+(?: \S+)*)(?: {2,}(.*))?", line)):
                section.append([entry[1], entry[2] or ""])
            elif section and (more := re.fullmatch(r" {20,}(\S.*)", line)):
                section[-1][1] = (section[-1][1] + " " + more[1]).strip()
            elif line:
                lines.insert(0, line)
                break
        self.footer = "\n".join(lines).strip()

    def notes(self):
        return self.footer.partition("Exit codes:")[0].strip()


def escape(text):
    text = text.replace("\\", "\\e").replace("-", "\\-")
    return re.sub(r"^(?=[.'])", r"\\&", text, flags=re.MULTILINE)


def entry_lines(entries):
    for name, text in entries:
        yield from (".TP", f"\\fB{escape(name)}\\fR", escape(text) or "\\&")


def command_lines(program, path, notes_above=""):
    """What a subcommand takes, and then its own subcommands."""
    page = Help(program, path)
    yield from (f".SS {escape(' '.join(path))}", escape(page.description), ".PP", f".B {escape(page.usage)}")
    yield from entry_lines(page.entries["Positionals:"])
    yield from entry_lines(entry for entry in page.entries["Options:"] if not entry[0].startswith("-h,"))
    notes = page.notes()
    if notes != notes_above:
        yield ".PP"
        yield from literal_lines(notes)
    for name, _ in page.entries["Subcommands:"]:
        yield from command_lines(program, [*path, name], notes)


def literal_lines(text):
    yield from (".nf", escape(text), ".fi")


def page_lines(name, version, summary, program):
    seconds = os.environ.get("SOURCE_DATE_EPOCH")
    now = datetime.datetime.now(datetime.timezone.utc)
    moment = datetime.datetime.fromtimestamp(int(seconds), now.tzinfo) if seconds else now
    page = Help(program, [])
    yield f'.TH {name.upper()} 1 "{moment:%Y-%m-%d}" "{name} {version}" "User Commands"'
    yield from (".SH NAME", f"{name} \\- {escape(summary)}")
    yield from (".SH SYNOPSIS", f".B {escape(page.usage)}")
    yield from (".SH DESCRIPTION", escape(page.description))
    yield ".SH OPTIONS"
    yield from entry_lines(page.entries["Options:"])
    if page.entries["Subcommands:"]:
        yield ".SH COMMANDS"
    for command, _ in page.entries["Subcommands:"]:
        yield from command_lines(program, [command], page.notes())
    if page.notes():
        yield ".SH NOTES"
        yield from literal_lines(page.notes())
    exit_codes = page.footer.partition("Exit codes:")[2]
    yield ".SH EXIT STATUS"
    if "\n" in exit_codes:
        yield from literal_lines(exit_codes.strip("\n"))
    else:
        yield escape(exit_codes.strip())


def main():
    name, version, summary, output, *program = sys.argv[1:]
    text = "\n".join(page_lines(name, version, summary, program)) + "\n"
    Path(output).write_bytes(gzip.compress(text.encode(), 9, mtime=0))


if __name__ == "__main__":
    main()
