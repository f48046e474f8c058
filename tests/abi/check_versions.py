#!/usr/bin/python3
"""Prints the newest symbol versions that the library asks of the C and C++ run-time, and bounds them."""

import re

from handler_library import fail, open_library
from limits import limits_of

elf, architecture = open_library("check_versions.py LIBRARY")
newest = {}
for _, auxiliaries in elf.get_section_by_name(".gnu.version_r").iter_versions():
    for auxiliary in auxiliaries:
        match = re.fullmatch(r"(GLIBC|GLIBCXX|CXXABI)_([0-9.]+)", auxiliary.name)
        if match:
            version = tuple(map(int, match[2].split(".")))
            newest[match[1]] = max(newest.get(match[1], ()), version)

too_new = []
for name, version in sorted(newest.items()):
    bound = limits_of(architecture)[name]
    print(f"{name}_{'.'.join(map(str, version))} (at most {bound})")
    if version > tuple(map(int, bound.split("."))):
        too_new.append(name)
if too_new:
    fail(f"The {architecture} library asks for a newer {' and '.join(too_new)} than the appliance is known to have.",
         f"To accept it on purpose, raise the bound under [{architecture}] in tests/abi/limits.toml.")
