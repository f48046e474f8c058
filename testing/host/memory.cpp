// The operators new and delete of a test program. All forms are malloc() and free(), so that the sanitizers
// see matching pairs; not inlined, or the compiler would see malloc() meet operator delete.

#include <execinfo.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "journal.h"
#include "scripted_calls.h"
#include "tracked.h"

namespace kit::calls {

bool all_are_recorded();
int unreleased_texts_and_documents();

void (*on_throw)(void* const* addresses, int count) = nullptr;

namespace {

Tracked blocks;
std::atomic<const unsigned char*> last{nullptr};

// The size of a tracked block stands before it.
constexpr std::size_t kSizeField = alignof(std::max_align_t);

void record(const char* operation, std::size_t size, long result = 0) {
    if (all_are_recorded()) {
        const InHost host;
        journal().record({operation + std::to_string(size), Role::worker, false, result});
    }
}

void* tracked_block(std::size_t size) {
    auto* const memory = static_cast<unsigned char*>(std::malloc(kSizeField + size)) + kSizeField;
    std::memcpy(memory - kSizeField, &size, sizeof size);
    // As dirty as the memory of a daemon that has been running for a while.
    std::memset(memory, kDirt, size);
    blocks.add(memory);
    last = memory;
    return memory;
}

} // namespace

int unreleased() {
    return unreleased_texts_and_documents() + blocks.count();
}

const unsigned char* last_block() {
    return last;
}

} // namespace kit::calls

using kit::Call;
namespace calls = kit::calls;

[[gnu::noinline]] void* operator new(std::size_t size) {
    if (calls::fails(Call::new_throwing)) {
        const kit::InHost host;
        std::array<void*, 64> addresses = {};
        const int depth = backtrace(addresses.data(), static_cast<int>(addresses.size()));
        if (calls::on_throw != nullptr) {
            calls::on_throw(addresses.data(), depth);
        }
    } else if (void* memory = std::malloc(size == 0 ? 1 : size)) {
        return memory;
    }
    throw std::bad_alloc();
}

void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    if (!kit::in_module()) {
        return std::malloc(size == 0 ? 1 : size);
    }
    const bool fails = calls::fails(Call::new_nothrow);
    calls::record("new ", size, fails ? 0 : 1);
    return fails ? nullptr : calls::tracked_block(size);
}

[[gnu::noinline]] void operator delete(void* memory) noexcept {
    if (!calls::blocks.remove(memory)) {
        std::free(memory);
        return;
    }
    auto* const start = static_cast<unsigned char*>(memory) - calls::kSizeField;
    std::size_t size = 0;
    std::memcpy(&size, start, sizeof size);
    calls::record("delete ", size);
    std::free(start);
}

[[gnu::noinline]] void operator delete(void* memory, std::size_t /*size*/) noexcept {
    operator delete(memory);
}

[[gnu::noinline]] void operator delete(void* memory, const std::nothrow_t& /*tag*/) noexcept {
    operator delete(memory);
}
