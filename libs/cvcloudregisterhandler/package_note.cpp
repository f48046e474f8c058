// Which version and build the library is, in a note that the field's tools read: readelf -n,
// systemd-coredump.

#include <cstdint>

namespace {

// The text is JSON, NUL-terminated. The build system gives the version and the build.
#define CV_NOTE_TEXT                                                                                         \
    "{\"type\":\"generic\",\"name\":\"cvcloudregisterhandler\",\"version\":\"" CV_VERSION                    \
    "\",\"build\":\"" CV_BUILD "\"}"

struct PackageNote {
    std::uint32_t owner_size;
    std::uint32_t text_size;
    std::uint32_t type;
    char owner[4];
    char text[(sizeof CV_NOTE_TEXT + 3) / 4 * 4];
};

// Nothing refers to it: the section's name and the attribute keep it. A linker keeps all notes.
__attribute__((section(".note.package"), used, aligned(4)))
const PackageNote package_note = {4, sizeof CV_NOTE_TEXT, 0xcafe1a7e, "FDO", CV_NOTE_TEXT};

} // namespace
