#include "cvcloudd/refusals.h"

#include <charconv>
#include <limits>
#include <stdexcept>

#include "cvcloudd/log_line.h"

namespace cvcloudd {

namespace {

constexpr std::array names{"build", "request", "publish"};
constexpr std::uint64_t always = std::numeric_limits<std::uint64_t>::max();

} // namespace

void Refusals::add(const std::string& text) {
    const std::size_t star = text.find('*');
    const std::string name = text.substr(0, star);
    std::uint64_t count = always;
    if (star != std::string::npos) {
        const char* const end = text.data() + text.size();
        unsigned number = 0;
        const auto [rest, error] = std::from_chars(text.data() + star + 1, end, number);
        if (error != std::errc() || rest != end || number == 0) {
            throw std::invalid_argument("'" + text.substr(star + 1) + "' is not a count of calls");
        }
        count = number;
    }
    for (std::size_t i = 0; i < names.size(); ++i) {
        if (name == names[i]) {
            left[i] = count;
            return;
        }
    }
    throw std::invalid_argument("'" + name + "' is not build, request or publish");
}

bool Refusals::take(Operation operation) {
    const auto index = static_cast<std::size_t>(operation);
    std::uint64_t seen = left[index].load();
    do {
        if (seen == 0) {
            return false;
        }
    } while (seen != always && !left[index].compare_exchange_weak(seen, seen - 1));
    log_line(1, std::string("a handler's ") + names[index] + " is refused, as --refuse says");
    return true;
}

} // namespace cvcloudd
