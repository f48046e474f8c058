#!/usr/bin/python3
"""Compares the names that the library exports with the committed list."""

import os

from handler_library import committed_lines, fail, open_library

STB_GNU_UNIQUE = "STB_LOOS"  # The first binding of those left to operating systems.
LIST = os.path.join(os.path.dirname(os.path.abspath(__file__)), "exports.txt")

elf, _ = open_library("check_exports.py LIBRARY")
defined = [symbol for symbol in elf.get_section_by_name(".dynsym").iter_symbols()
           if symbol["st_shndx"] != "SHN_UNDEF" and symbol.name]
exported = {symbol.name for symbol in defined}
expected = set(committed_lines(LIST))

unique = sorted(symbol.name for symbol in defined if symbol["st_info"]["bind"] == STB_GNU_UNIQUE)
if unique:
    fail("The library exports unique symbols, which keep it in memory after its last dlclose():",
         *(f"  {name}" for name in unique),
         "Build it with -fno-gnu-unique.")
if exported != expected:
    fail("The library's exported names have changed:",
         *(f"  - {name}" for name in sorted(expected - exported)),
         *(f"  + {name}" for name in sorted(exported - expected)),
         "A daemon that looks up a missing name does not load the handler any more. To accept the change on",
         "purpose, edit tests/abi/exports.txt and the version script cvcloudregisterhandler.map.")
print(f"{len(exported)} exported names, as listed")
