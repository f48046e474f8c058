#!/usr/bin/python3
"""Checks that the library has no run path, and that no run path in its build tree has an empty element: the dynamic
linker looks in the current directory for it."""

import os
import sys

from elftools.common.exceptions import ELFError
from elftools.elf.elffile import ELFFile

from handler_library import fail


def run_paths(path):
    """The elements of the run paths of a file; none when it is no program or library."""
    try:
        with open(path, "rb") as file:
            dynamic = ELFFile(file).get_section_by_name(".dynamic")
            tags = dynamic.iter_tags() if dynamic else []
            texts = [getattr(tag, tag.entry.d_tag[3:].lower()) for tag in tags
                     if tag.entry.d_tag in ("DT_RPATH", "DT_RUNPATH")]
    except (ELFError, FileNotFoundError):
        return []
    return [element for text in texts for element in text.split(":")]


if len(sys.argv) != 3:
    fail("usage: check_run_paths.py LIBRARY BUILD_DIRECTORY")
library, build_directory = sys.argv[1:]
if run_paths(library):
    fail(f"{library}: has the run path {':'.join(run_paths(library))}; link it with SKIP_BUILD_RPATH")
files = [os.path.join(directory, name) for directory, subdirectories, names in os.walk(build_directory)
         if "CMakeFiles" not in directory for name in names if ".so" in name or os.access(os.path.join(directory, name), os.X_OK)]
if os.path.realpath(library) not in map(os.path.realpath, files):
    fail(f"{build_directory}: does not hold {library}; name the build tree of the library")
empty = [file for file in files if "" in run_paths(file)]
if empty:
    fail("These have an empty element in their run path, which is the current directory:", *(f"  {file}" for file in empty),
         "CMake pads a run path that it changes at the installation: set BUILD_WITH_INSTALL_RPATH.")
print(f"no run path in the library, none with an empty element in {len(files)} files")
