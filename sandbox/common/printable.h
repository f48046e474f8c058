#ifndef COMMON_PRINTABLE_H
#define COMMON_PRINTABLE_H

#include <cstdint>
#include <string>

namespace sandbox {

/// Whether the user's locale, of the environment, is one of UTF-8. To be called by the only thread.
bool has_utf8_locale();

/// The text as it may be shown: without what would steer a terminal or turn the direction of the writing, on
/// one line, and in ASCII unless `utf8`.
std::string printable(const std::string& text, bool utf8);

/// The text as a person may be shown it through the descriptor, a terminal or not. To be called by the only
/// thread.
std::string printable_on(int descriptor, const std::string& text);

/// Prints a line that others have written to the standard output: as it is for a program, printable on a
/// terminal. To be called by the only thread.
void print_line(const std::string& line);

/// Calls use(code_point, its bytes) for each character of a valid UTF-8 text.
template <typename Use>
void for_each_character(const std::string& text, Use use) {
    for (std::size_t begin = 0; begin < text.size();) {
        std::size_t end = begin + 1;
        while (end < text.size() && (static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80U) {
            ++end;
        }
        // The leading byte of n bytes, n > 1, holds 7 - n bits.
        const std::size_t length = end - begin;
        auto code_point = static_cast<std::uint32_t>(static_cast<unsigned char>(text[begin]));
        code_point &= length == 1 ? 0x7FU : 0x7FU >> length;
        for (std::size_t index = begin + 1; index < end; ++index) {
            code_point = code_point << 6U | (static_cast<unsigned char>(text[index]) & 0x3FU);
        }
        use(code_point, text.substr(begin, length));
        begin = end;
    }
}

} // namespace sandbox

#endif
