#include "common/nearest.h"

#include <algorithm>
#include <numeric>

namespace sandbox {

namespace {

/// How many characters have to be inserted, removed or replaced to get from one text to the other.
std::size_t edit_distance(const std::string& from, const std::string& to) {
    std::vector<std::size_t> row(to.size() + 1);
    std::iota(row.begin(), row.end(), 0U);
    for (std::size_t i = 0; i < from.size(); ++i) {
        std::size_t diagonal = row[0]++;
        for (std::size_t j = 0; j < to.size(); ++j) {
            const std::size_t replaced = diagonal + (from[i] == to[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({replaced, row[j] + 1, row[j + 1] + 1});
        }
    }
    return row.back();
}

} // namespace

std::string nearest(const std::string& word, const std::vector<std::string>& names) {
    std::size_t least = std::max<std::size_t>(2, word.size() / 3) + 1;
    std::string found;
    for (const std::string& name : names) {
        if (const std::size_t distance = edit_distance(word, name); distance < least) {
            least = distance;
            found = " (" + name + "?)";
        }
    }
    return found;
}

} // namespace sandbox
