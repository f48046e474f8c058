// allocations LIBRARY [REGISTRATIONS]
// Counts the allocations of each scenario and of the floor, and what is alive after many registrations.

#include <malloc.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <memory>

#include "figures.h"
#include "process.h"
#include "scenarios.h"
#include "stand_ins.h"

// The allocator's own names for what is counted here. The operators new and delete of the C++ library and
// jansson come here, too.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void __libc_free(void* block);
}

namespace {

std::atomic<long> allocations{0};
std::atomic<long> allocated_bytes{0};
std::atomic<long> live_blocks{0};
std::atomic<long> live_bytes{0};

void* count(void* block, std::size_t size) {
    if (block != nullptr) {
        ++live_blocks;
        live_bytes += static_cast<long>(malloc_usable_size(block));
        if (kit::in_module()) {
            ++allocations;
            allocated_bytes += static_cast<long>(size);
        }
    }
    return block;
}

void forget(void* block) {
    if (block != nullptr) {
        --live_blocks;
        live_bytes -= static_cast<long>(malloc_usable_size(block));
    }
}

} // namespace

extern "C" {

void* malloc(std::size_t size) {
    return count(__libc_malloc(size), size);
}

void* calloc(std::size_t number, std::size_t size) {
    return count(__libc_calloc(number, size), number * size);
}

void* realloc(void* block, std::size_t size) {
    forget(block);
    return count(__libc_realloc(block, size), size);
}

void free(void* block) {
    forget(block);
    __libc_free(block);
}

} // extern "C"

namespace {

// What one run of a scenario allocates: the difference between ten and twenty, without what is done only
// once.
json_t* measure(kit::LeanHost& host, CvHandlerAPI& handler, const std::string& scenario,
                std::size_t token_length, std::size_t user_token_length) {
    constexpr long kTimes = 10;
    std::array<long, 2> blocks = {};
    std::array<long, 2> bytes = {};
    run_scenario(host, handler, scenario, 3, token_length, user_token_length);
    for (std::size_t run = 0; run < 2; ++run) {
        const long blocks_before = allocations;
        const long bytes_before = allocated_bytes;
        run_scenario(host, handler, scenario, static_cast<long>(run + 1) * kTimes, token_length,
                     user_token_length);
        blocks[run] = allocations - blocks_before;
        bytes[run] = allocated_bytes - bytes_before;
    }
    return json_pack("{s:f, s:f}", "allocations", static_cast<double>(blocks[1] - blocks[0]) / kTimes,
                     "bytes", static_cast<double>(bytes[1] - bytes[0]) / kTimes);
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2 && argc != 3) {
        kit::die("usage: allocations LIBRARY [REGISTRATIONS]");
    }
    start_measuring();
    kit::LeanHost host;
    CvHandlerAPI& handler = load_handler(argv[1]);
    json_t* const result = json_object();

    const long before_init = live_bytes;
    init(host, handler);
    json_object_set_new(result, "live_bytes_after_init", json_integer(live_bytes - before_init));
    json_t* const scenarios = json_object();
    for (const char* scenario : kScenarios) {
        json_object_set_new(scenarios, scenario, measure(host, handler, scenario, 32, 32));
    }
    const std::unique_ptr<StandIn> floor = make_floor();
    kit::LeanHost floor_host;
    init(floor_host, *floor);
    json_object_set_new(scenarios, "floor", measure(floor_host, *floor, "partner", 32, 32));
    floor->uninit();
    json_object_set_new(result, "scenarios", scenarios);

    json_t* const growth = json_array();
    for (std::size_t length = 64; length <= std::size_t{1} << 20U; length *= 4) {
        json_array_append_new(growth, json_pack("{s:I, s:o, s:o}", "length", static_cast<json_int_t>(length),
                                                "payload", measure(host, handler, "partner", length, 32),
                                                "response", measure(host, handler, "partner", 32, length)));
    }
    json_object_set_new(result, "growth", growth);

    if (argc == 3) {
        const long registrations = positive_number(argv[2]);
        const long first = registrations / 100;
        run_scenario(host, handler, "partner", first);
        const long blocks = live_blocks;
        const long bytes = live_bytes;
        run_scenario(host, handler, "partner", registrations - first);
        json_t* const long_run = json_pack("{s:I, s:I, s:I, s:I}", "first", static_cast<json_int_t>(first),
                                           "registrations", static_cast<json_int_t>(registrations), "blocks",
                                           static_cast<json_int_t>(live_blocks - blocks), "bytes",
                                           static_cast<json_int_t>(live_bytes - bytes));
        json_object_set_new(result, "long_run", long_run);
    }
    handler.uninit();
    print_result(result);
    return 0;
}
