#ifndef CVCLOUDD_REFUSALS_H
#define CVCLOUDD_REFUSALS_H

#include <array>
#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

namespace cvcloudd {

/// The operations of the cloud access object that can be told to refuse handlers, by the names that the
/// record has for them.
enum class Operation { build, request, publish };

/// How often each operation still has to refuse. Filled before handlers run; then any thread may take.
class Refusals {
public:
    /// Adds OPERATION[*COUNT]: the next COUNT calls, or all of them. Throws std::invalid_argument with the
    /// reason.
    void add(const std::string& text);

    /// True when this call of the operation is to be refused.
    bool take(Operation operation);

private:
    std::array<std::atomic<std::uint64_t>, 3> left{};
};

} // namespace cvcloudd

#endif
