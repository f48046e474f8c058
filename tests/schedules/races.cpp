#include "races.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>

#include "library.h"
#include "points.h"

namespace schedules {

namespace {

/// The accesses to one byte since it was allocated: when each thread was last there, 0 for never, and with
/// which code.
struct Byte {
    Thread writer;
    std::uint16_t written;
    std::array<std::uint16_t, kThreads> read;
    std::uint32_t write_code;
    std::array<std::uint32_t, kThreads> read_code;
};

/// Eight bytes at an address that 8 divides. Those of earlier executions count as unused.
struct Word {
    std::uintptr_t number;
    std::uint32_t execution;
    bool freed;
    std::array<Byte, 8> bytes;
};

constexpr std::size_t kWords = 1U << 16U;
/// Instead of a place in the library.
constexpr std::uint32_t kFree = 0;
constexpr std::uint32_t kHost = 1;
std::array<Word, kWords> words;
std::uint32_t execution = 0;
std::array<Clock, kThreads> clocks;

// The word that holds the address.
Word& find(std::uintptr_t address) {
    const std::uintptr_t number = address / 8;
    for (std::size_t tries = 0, place = number * 0x9E3779B97F4A7C15U >> 48U; tries < kWords; ++tries) {
        Word& word = words[place++ % kWords];
        if (word.execution != execution) {
            word = {number, execution, false, {}};
        }
        if (word.number == number) {
            return word;
        }
    }
    fail("the execution uses more memory than its accesses are kept for");
}

std::string describe(const char* what, std::uint32_t code, Thread thread) {
    std::array<char, 60> text = {};
    if (code == kFree) {
        std::snprintf(text.data(), text.size(), "free by %c", kLetters[thread]);
    } else if (code == kHost) {
        std::snprintf(text.data(), text.size(), "%s in the host by %c", what, kLetters[thread]);
    } else {
        std::snprintf(text.data(), text.size(), "%s at +0x%x by %c", what, code, kLetters[thread]);
    }
    return text.data();
}

[[noreturn]] void report(bool write, std::uint32_t code, bool earlier_write, Thread earlier,
                         std::uint32_t earlier_code) {
    fail("race: " + describe(earlier_write ? "write" : "read", earlier_code, earlier) + ", " +
         describe(write ? "write" : "read", code, running()));
}

void access_byte(Byte& byte, bool write, std::uint32_t code) {
    const Thread self = running();
    const Clock& clock = clocks[self];
    if (byte.written > clock[byte.writer]) {
        report(write, code, true, byte.writer, byte.write_code);
    }
    if (!write) {
        byte.read[self] = clock[self];
        byte.read_code[self] = code;
        return;
    }
    for (int thread = 0; thread < kThreads; ++thread) {
        if (byte.read[thread] > clock[thread]) {
            report(true, code, false, static_cast<Thread>(thread), byte.read_code[thread]);
        }
    }
    byte.writer = self;
    byte.written = clock[self];
    byte.write_code = code;
}

} // namespace

void forget_accesses() {
    ++execution;
    for (int thread = 0; thread < kThreads; ++thread) {
        clocks[thread] = {};
        clocks[thread][thread] = 1;
    }
}

Clock release() {
    const Clock released = clocks[running()];
    ++clocks[running()][running()];
    return released;
}

void acquire(const Clock& clock) {
    Clock& own = clocks[running()];
    std::transform(own.begin(), own.end(), clock.begin(), own.begin(),
                   [](std::uint16_t left, std::uint16_t right) { return std::max(left, right); });
}

void access(const void* address, std::size_t size, bool write, const void* code) {
    if (!executing()) {
        return;
    }
    const std::uint32_t place = code == nullptr ? kHost : place_in_library(code);
    auto at = reinterpret_cast<std::uintptr_t>(address);
    for (const std::uintptr_t end = at + size; at < end;) {
        Word& word = find(at);
        if (word.freed) {
            fail("use of freed memory: " + describe(write ? "write" : "read", place, running()));
        }
        for (; at < end && at / 8 == word.number; ++at) {
            access_byte(word.bytes[at % 8], write, place);
        }
    }
}

void free_block(const void* address, std::size_t size) {
    auto at = reinterpret_cast<std::uintptr_t>(address);
    if (find(at).freed) {
        fail(std::string("memory is freed twice, by ") + kLetters[running()]);
    }
    for (const std::uintptr_t end = at + (instrumented() ? size : 1); at < end; at += 8) {
        Word& word = find(at);
        for (Byte& byte : word.bytes) {
            access_byte(byte, true, kFree);
        }
        word.freed = true;
    }
}

} // namespace schedules

// ---- What the compiler has the library call

// The flag is the only atomic that is accessed with sequential consistency; the others are the log's level,
// the guard of a table, and jansson's counts, of values that each belong to one thread.
constexpr int kSequentiallyConsistent = 5;

// NOLINTBEGIN(bugprone-reserved-identifier): the compiler chose the names.
#define ACCESS(name, size, write)                                                                            \
    void __tsan_##name(void* address) {                                                                      \
        schedules::access(address, size, write, __builtin_return_address(0));                                \
    }
#define ACCESSES(size)                                                                                       \
    ACCESS(read##size, size, false)                                                                          \
    ACCESS(write##size, size, true)                                                                          \
    ACCESS(unaligned_read##size, size, false)                                                                \
    ACCESS(unaligned_write##size, size, true)

extern "C" {

ACCESSES(1)
ACCESSES(2)
ACCESSES(4)
ACCESSES(8)
ACCESSES(16)
ACCESS(vptr_read, sizeof(void*), false)

void __tsan_func_entry(void* /*caller*/) {}
void __tsan_func_exit() {}

void __tsan_vptr_update(void** address, void* /*value*/) {
    schedules::access(address, sizeof(void*), true, __builtin_return_address(0));
}

void __tsan_read_range(void* address, std::size_t size) {
    schedules::access(address, size, false, __builtin_return_address(0));
}

void __tsan_write_range(void* address, std::size_t size) {
    schedules::access(address, size, true, __builtin_return_address(0));
}

std::uint8_t __tsan_atomic8_load(const volatile std::uint8_t* address, int order) {
    if (order == kSequentiallyConsistent) {
        schedules::load_flag();
    }
    return *address;
}

void __tsan_atomic8_store(volatile std::uint8_t* address, std::uint8_t value, int order) {
    if (order == kSequentiallyConsistent) {
        schedules::store_flag();
    }
    *address = value;
}

std::uint32_t __tsan_atomic32_load(const volatile std::uint32_t* address, int /*order*/) {
    return *address;
}

std::uint64_t __tsan_atomic64_fetch_sub(volatile std::uint64_t* address, std::uint64_t value, int /*order*/) {
    const std::uint64_t before = *address;
    *address = before - value;
    return before;
}

// The compiler leaves these alone; the linker gives the library ours instead.
void* __wrap_memcpy(void* target, const void* source, std::size_t size) {
    schedules::access(source, size, false, __builtin_return_address(0));
    schedules::access(target, size, true, __builtin_return_address(0));
    return std::memmove(target, source, size);
}

void* __wrap_memmove(void* target, const void* source, std::size_t size) {
    return __wrap_memcpy(target, source, size);
}

void* __wrap_memset(void* target, int value, std::size_t size) {
    schedules::access(target, size, true, __builtin_return_address(0));
    return std::memset(target, value, size);
}

int __wrap_memcmp(const void* one, const void* other, std::size_t size) {
    schedules::access(one, size, false, __builtin_return_address(0));
    schedules::access(other, size, false, __builtin_return_address(0));
    return std::memcmp(one, other, size);
}

std::size_t __wrap_strlen(const char* text) {
    const std::size_t length = std::strlen(text);
    schedules::access(text, length + 1, false, __builtin_return_address(0));
    return length;
}

} // extern "C"
// NOLINTEND(bugprone-reserved-identifier)
