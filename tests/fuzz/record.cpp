// A record of the daemon: read, and drawn in each form.

#include "cvex/timeline.h"
#include "memory_file.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    const fuzz::MemoryFile file(bytes, size);
    try {
        const cvex::Timeline timeline = cvex::make_timeline(cvex::read_record(file.path()));
        cvex::timeline_text(timeline, false, true);
        cvex::timeline_text(timeline, true, false);
        cvex::timeline_page(timeline);
    } catch (const cvex::RecordError&) {
        // It is reported with its line.
    }
    return 0;
}
