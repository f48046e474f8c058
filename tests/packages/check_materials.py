#!/usr/bin/python3
"""Checks the bill of materials of each package against the schema of SPDX 2.3, and that it relates only what it lists.

usage: check_materials.py PACKAGE.deb...

The schema is schemas/spdx-schema.json of the SPDX project's specification, without its white space.
"""

import io
import json
import subprocess
import sys
import tarfile
from pathlib import Path

import jsonschema

SCHEMA = json.loads(Path(__file__).with_name("spdx-2.3.schema.json").read_text(encoding="utf-8"))

for package in sys.argv[1:]:
    files = tarfile.open(fileobj=io.BytesIO(subprocess.run(["dpkg-deb", "--fsys-tarfile", package], check=True,
                                                           stdout=subprocess.PIPE).stdout))
    bills = [name for name in files.getnames() if name.endswith(".spdx.json")]
    if len(bills) != 1:
        sys.exit(f"{package}: has {len(bills)} bills of materials, not one")
    bill = json.load(files.extractfile(bills[0]))
    problems = [error.message for error in jsonschema.Draft7Validator(SCHEMA).iter_errors(bill)]
    names = [bill["SPDXID"], *(entry["SPDXID"] for entry in bill["packages"])]
    problems += [f"{name} stands twice" for name in names if names.count(name) > 1]
    problems += [f"{entry['name']} has no version" for entry in bill["packages"] if not entry.get("versionInfo")]
    problems += [f"{end} is related, but not listed" for relationship in bill["relationships"]
                 for end in (relationship["spdxElementId"], relationship["relatedSpdxElement"]) if end not in names]
    if problems:
        sys.exit("\n".join((f"{package}: {bills[0]} is no valid bill of materials:", *problems)))
print(f"SPDX 2.3: {len(sys.argv) - 1} bills of materials are valid")
