#ifndef INPUT_H
#define INPUT_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

namespace fuzz {

/// The bytes of one input, taken from the front. An input that has been used up goes on with zeros.
class Input {
public:
    Input(const std::uint8_t* bytes, std::size_t size) : next(bytes), end(bytes + size) {}

    bool empty() const {
        return next == end;
    }

    std::uint8_t byte() {
        return empty() ? std::uint8_t{0} : *next++;
    }

    /// At most `length` bytes.
    std::string text(std::size_t length) {
        length = std::min(length, static_cast<std::size_t>(end - next));
        const std::string taken(reinterpret_cast<const char*>(next), length);
        next += length;
        return taken;
    }

    std::string rest() {
        return text(static_cast<std::size_t>(end - next));
    }

private:
    const std::uint8_t* next;
    const std::uint8_t* end;
};

} // namespace fuzz

#endif
