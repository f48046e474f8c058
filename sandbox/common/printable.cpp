#include "common/printable.h"

#include <algorithm>
#include <clocale>
#include <cstdio>
#include <string_view>

#include <langinfo.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

namespace sandbox {

namespace {

/// The text with U+FFFD in the place of what is no UTF-8.
std::string valid_utf8(const std::string& text) {
    using nlohmann::json;
    return json::parse(json(text).dump(-1, ' ', false, json::error_handler_t::replace));
}

} // namespace

bool has_utf8_locale() {
    std::setlocale(LC_CTYPE, "");
    return std::string_view(nl_langinfo(CODESET)) == "UTF-8";
}

std::string printable(const std::string& text, bool utf8) {
    const auto is_plain = [](char byte) { return byte >= 0x20 && byte < 0x7F; };
    if (std::all_of(text.begin(), text.end(), is_plain)) {
        return text;
    }
    std::string result;
    for_each_character(valid_utf8(text), [&](std::uint32_t code_point, const std::string& bytes) {
        const bool is_control = code_point < 0x20 || (code_point >= 0x7F && code_point < 0xA0) ||
                                (code_point >= 0x200E && code_point <= 0x200F) ||
                                (code_point >= 0x2028 && code_point <= 0x202E) ||
                                (code_point >= 0x2066 && code_point <= 0x2069);
        if (is_control) {
            result += code_point == '\n' || code_point == '\t' ? " " : "?";
        } else {
            result += utf8 || code_point < 0x80 ? bytes : "?";
        }
    });
    return result;
}

std::string printable_on(int descriptor, const std::string& text) {
    return printable(text, isatty(descriptor) == 0 || has_utf8_locale());
}

void print_line(const std::string& line) {
    const std::string text = isatty(STDOUT_FILENO) == 0 ? line : printable_on(STDOUT_FILENO, line);
    // Whole, also with a NUL in it.
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::putchar('\n');
}

} // namespace sandbox
