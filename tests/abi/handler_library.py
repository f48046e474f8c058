"""What the checks of the built library share: its file, and how a check fails."""

import sys

from elftools.common.exceptions import ELFError
from elftools.elf.elffile import ELFFile

ARCHITECTURES = {"EM_X86_64": "amd64", "EM_ARM": "armhf"}


def fail(*lines):
    """Ends the check with a message: what is wrong, and then how to accept it on purpose."""
    sys.exit("\n".join(lines))


def open_library(usage):
    """The library named on the command line, and its architecture as Debian names it."""
    if len(sys.argv) != 2:
        fail(f"usage: {usage}")
    path = sys.argv[1]
    try:
        elf = ELFFile(open(path, "rb"))
    except OSError as error:
        fail(f"{path}: {error.strerror}; build the library first")
    except ELFError:
        fail(f"{path}: not a library; name the built libcvcloudregisterhandler.so")
    architecture = ARCHITECTURES.get(elf["e_machine"])
    if architecture is None:
        fail(f"{path}: built for {elf['e_machine']}; the checks know {', '.join(ARCHITECTURES.values())}")
    return elf, architecture


def committed_lines(path):
    """The lines of a committed list, without comments."""
    with open(path, encoding="utf-8") as lines:
        stripped = (line.partition("#")[0].strip() for line in lines)
        return [line for line in stripped if line]
