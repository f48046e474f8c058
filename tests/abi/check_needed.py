#!/usr/bin/python3
"""Compares the libraries that the handler needs with the committed allow-list."""

import os

from handler_library import committed_lines, fail, open_library

LIST = os.path.join(os.path.dirname(os.path.abspath(__file__)), "needed.txt")

elf, _ = open_library("check_needed.py LIBRARY")
needed = [tag.needed for tag in elf.get_section_by_name(".dynamic").iter_tags("DT_NEEDED")]
new = [name for name in needed if name not in committed_lines(LIST)]
if new:
    fail(f"The library needs what no appliance is known to have: {', '.join(new)}",
         "To accept it on purpose, add it to the appliance's image and to tests/abi/needed.txt.")
print(f"needs {', '.join(needed)}")
