#!/usr/bin/python3
"""Checks that a directory of headers declares the appliance's interface as the library needs it: every type, offset and
function, and the order of the virtual operations.
"""

import argparse
import os
import subprocess
import tempfile

from elftools.elf.elffile import ELFFile

from handler_library import fail

SOURCE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "host_interface.cpp")
HANDLER_OPERATIONS = ["init", "subscribe_for_cmds", "uninit", "handle", "handle_cmd"]
CLOUD_OPERATIONS = ["send_request", "release_response", "build_request", "publish_message", "send_response"]


def compile_declarations(include_directory, compiler, output):
    """Compiles the list of declarations; what it leaves in the file says the rest."""
    result = subprocess.run([*compiler, "-std=c++17", "-I", include_directory, "-c", SOURCE, "-o", output],
                            capture_output=True, text=True, check=False)
    if result.returncode != 0:
        errors = [line.partition("error: ")[2] for line in result.stderr.splitlines() if "error: " in line]
        fail(f"{include_directory}: the headers differ from what the library needs:",
             *(f"  {error}" for error in errors or [result.stderr]),
             f"The list is in {SOURCE}.")


def slot(elf, name):
    """The slot of the virtual operation that a pointer in the file points to; null when it is not virtual."""
    symbol = elf.get_section_by_name(".symtab").get_symbol_by_name(name)[0]
    section = elf.get_section(symbol["st_shndx"]).data()
    word = elf.elfclass // 8
    order = "little" if elf.little_endian else "big"
    first, second = (int.from_bytes(section[at:at + word], order)
                     for at in (symbol["st_value"], symbol["st_value"] + word))
    # On ARM the second word says that the operation is virtual, elsewhere the lowest bit of the first.
    if elf["e_machine"] in ("EM_ARM", "EM_AARCH64", "EM_MIPS"):
        return first // word if second == 1 else None
    return (first - 1) // word if first % 2 == 1 and second == 0 else None


def slots(elf, type_name, operations):
    """The slots of a class's operations, which are all virtual."""
    found = {name: slot(elf, f"slot_{type_name}_{name}") for name in operations}
    for name, number in found.items():
        if number is None:
            fail(f"{type_name}::{name} is not virtual, or not of the class's first table.")
    print(f"{type_name}: " + ", ".join(f"{name} in slot {number}" for name, number in found.items()))
    return list(found.values())


def imports(elf, table):
    """The names of libcvutils that a file needs."""
    return {symbol.name for symbol in elf.get_section_by_name(table).iter_symbols()
            if symbol["st_shndx"] == "SHN_UNDEF" and symbol.name.startswith(("_ZN2cv", "_ZNK2cv"))}


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--library", dest="built", metavar="LIBRARY",
                        help="compare the functions with those that this built library imports")
    parser.add_argument("include_directory", help="directory of the maker's headers")
    parser.add_argument("compiler", nargs="+", help="compiler and flags that the library is built with")
    arguments, flags = parser.parse_known_args()
    with tempfile.NamedTemporaryFile(suffix=".o") as output:
        compile_declarations(arguments.include_directory, arguments.compiler + flags, output.name)
        elf = ELFFile(output)
        if slots(elf, "CvHandlerAPI", HANDLER_OPERATIONS) != [0, 1, 2, 3, 4]:
            fail("The daemon calls CvHandlerAPI's operations in the slots 0 to 4, in this order.")
        cloud = slots(elf, "CvCloudAPI", CLOUD_OPERATIONS)
        if cloud != sorted(cloud) or cloud[4] != cloud[3] + 2:
            fail("The operations of CvCloudAPI are in another order, or there is not exactly one between the last two.")
        if arguments.built:
            with open(arguments.built, "rb") as file:
                difference = imports(elf, ".symtab") ^ imports(ELFFile(file), ".dynsym")
            if difference:
                fail(f"{arguments.built} and {SOURCE} differ in what they need of libcvutils:", *sorted(difference))
    print(f"{arguments.include_directory}: as the library needs it")


main()
