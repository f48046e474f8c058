#!/usr/bin/python3
"""Compares the library's binary interface with the committed baseline.

usage: check_abi.py [--accept] LIBRARY

The interface is what the daemon's declarations describe: the handler's and the cloud access object's virtual tables,
their members, the records, the exported objects. --accept makes the library's interface the baseline.
"""

import os
import subprocess
import sys
import tempfile

from handler_library import fail, open_library

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
MODULE_HEADERS = ["cvcloudregisterhandler.h", "cvregistration_constants.h", "cvregistration_globals.h"]


def describe(library):
    """The library's binary interface as abidw writes it, the same in every directory and on every machine."""
    command = ["abidw", "--exported-interfaces-only", "--drop-private-types", "--drop-undefined-syms",
               "--no-show-locs", "--no-corpus-path", "--no-comp-dir-path", "--no-elf-needed",
               "--type-id-style", "hash", "--suppressions", os.path.join(HERE, "abi.suppr"),
               "--headers-dir", os.path.join(ROOT, "host/include")]
    for header in MODULE_HEADERS:
        command += ["--header-file", os.path.join(ROOT, "libs/cvcloudregisterhandler/include", header)]
    described = subprocess.run(command + [library], check=True, capture_output=True, text=True).stdout
    return described.replace(ROOT + "/", "")


accept = "--accept" in sys.argv
if accept:
    sys.argv.remove("--accept")
elf, architecture = open_library(__doc__.splitlines()[2].removeprefix("usage: "))
library = sys.argv[1]
if elf.get_section_by_name(".debug_info") is None:
    fail(f"{library}: stripped; the comparison reads the debug information of the built file")
baseline = os.path.join(HERE, f"{architecture}.abi")
interface = describe(library)
if accept:
    with open(baseline, "w", encoding="utf-8") as file:
        file.write(interface)
    sys.exit()
with tempfile.NamedTemporaryFile("w", suffix=".abi", encoding="utf-8") as current:
    current.write(interface)
    current.flush()
    comparison = subprocess.run(["abidiff", baseline, current.name], check=False, stdout=subprocess.PIPE, text=True)
if comparison.returncode != 0:
    fail(comparison.stdout,
         "The library's binary interface has changed: a daemon built against the old one would call the wrong",
         "operations. To accept the change on purpose, run this for each architecture and commit the baselines:",
         f"  tests/abi/check_abi.py --accept {os.path.relpath(library)}")
print(f"the binary interface is that of tests/abi/{architecture}.abi")
