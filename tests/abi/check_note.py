#!/usr/bin/python3
"""Checks that the library's package note names its version and build, also when the library is stripped."""

import json
import subprocess
import sys
import tempfile

from elftools.elf.elffile import ELFFile

from handler_library import fail

PACKAGING_METADATA = 0xcafe1a7e


def package_note(path):
    """The text of the library's package note; null when there is none."""
    with open(path, "rb") as file:
        for segment in ELFFile(file).iter_segments("PT_NOTE"):
            for note in segment.iter_notes():
                if note["n_name"] == "FDO" and note["n_type"] in (PACKAGING_METADATA, "NT_FDO_PACKAGING_METADATA"):
                    return note["n_descdata"]
    return None


if len(sys.argv) != 4:
    fail("usage: check_note.py LIBRARY VERSION STRIP")
library, version, strip = sys.argv[1:]
with tempfile.NamedTemporaryFile() as stripped:
    subprocess.run([strip, "-o", stripped.name, library], check=True)
    text = package_note(stripped.name)
if text is None or not text.endswith(b"\0"):
    fail(f"{library}: has no package note, or one without its end; see package_note.cpp")
note = json.loads(text.rstrip(b"\0"))
if note.get("name") != "cvcloudregisterhandler" or note.get("version") != version or "build" not in note:
    fail(f"{library}: the package note is {note}, not of version {version}")
print(f"package note: {note}")
