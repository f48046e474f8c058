#!/usr/bin/python3
"""Checks that the library was linked and compiled with its hardening flags, by what they leave in the file."""

from elftools.elf.constants import P_FLAGS

from handler_library import fail, open_library

DF_BIND_NOW = 0x8
DF_TEXTREL = 0x4
DF_1_NODELETE = 0x8

elf, _ = open_library("check_hardening.py LIBRARY")
segments = {segment["p_type"]: segment for segment in elf.iter_segments()}
dynamic = {tag.entry.d_tag: tag.entry.d_val for tag in elf.get_section_by_name(".dynamic").iter_tags()}
imported = {symbol.name for symbol in elf.get_section_by_name(".dynsym").iter_symbols()
            if symbol["st_shndx"] == "SHN_UNDEF"}
flags = dynamic.get("DT_FLAGS", 0)

FLAGS = {
    "-Wl,-z,relro": "PT_GNU_RELRO" in segments,
    "-Wl,-z,now": bool(flags & DF_BIND_NOW) or "DT_BIND_NOW" in dynamic,
    "-Wl,-z,noexecstack": "PT_GNU_STACK" in segments and not segments["PT_GNU_STACK"]["p_flags"] & P_FLAGS.PF_X,
    "-Wl,-z,text": not flags & DF_TEXTREL and "DT_TEXTREL" not in dynamic,
    "-fstack-protector-strong": "__stack_chk_fail" in imported,
    # The worker's descriptor sets are checked at run time.
    "-D_FORTIFY_SOURCE=2": "__fdelt_chk" in imported,
    # Would keep the library in memory after its last dlclose().
    "no -Wl,-z,nodelete": not dynamic.get("DT_FLAGS_1", 0) & DF_1_NODELETE,
}
missing = [flag for flag, kept in FLAGS.items() if not kept]
if missing:
    fail(f"The library was built without {', '.join(missing)}.",
         "The flags stand in libs/cvcloudregisterhandler/CMakeLists.txt. To do without one on purpose, remove it",
         "there and in tests/abi/check_hardening.py.")
print(f"hardened: {', '.join(FLAGS)}")
