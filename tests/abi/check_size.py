#!/usr/bin/python3
"""Prints the size of the stripped library and bounds it."""

from elftools.elf.constants import SH_FLAGS

from handler_library import fail, open_library
from limits import limits_of

elf, architecture = open_library("check_size.py LIBRARY")
# What stripping leaves in memory: text is what is loaded and never written, data what is loaded and written.
size = {"text": 0, "data": 0}
for section in elf.iter_sections():
    if section["sh_flags"] & SH_FLAGS.SHF_ALLOC and section["sh_type"] != "SHT_NOBITS":
        size["data" if section["sh_flags"] & SH_FLAGS.SHF_WRITE else "text"] += section["sh_size"]

too_large = []
for part, bytes_used in size.items():
    bound = limits_of(architecture)[part]
    print(f"{architecture} library, stripped: {part} {bytes_used} bytes (at most {bound})")
    if bytes_used > bound:
        too_large.append(part)
if too_large:
    fail(f"The {architecture} library has outgrown its {' and '.join(too_large)}.",
         f"To accept it on purpose, raise the bound under [{architecture}] in tests/abi/limits.toml.")
