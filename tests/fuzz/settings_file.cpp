// A settings file: read, looked through, and edited. What an edit makes has to be a settings file again.

#include <cstdlib>

#include "cvutils/settings_file.h"
#include "memory_file.h"

namespace {

constexpr const char* new_key = "/a/new/key";

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    const fuzz::MemoryFile file(bytes, size);
    try {
        const settings::File store(file.path());
        for (const std::string& key : store.keys()) {
            // jansson looks a key up to its first NUL.
            if (key.find('\0') == std::string::npos &&
                (store.value(key) == nullptr || store.place(key).empty())) {
                std::abort();
            }
            store.range_problem(key);
        }
        const std::string edited = store.text_with(new_key, "5");
        const fuzz::MemoryFile edited_file(reinterpret_cast<const std::uint8_t*>(edited.data()),
                                           edited.size());
        if (json_integer_value(settings::File(edited_file.path()).value(new_key)) != 5) {
            std::abort();
        }
    } catch (const settings::FileError&) {
        // It is reported with its place.
    }
    return 0;
}
