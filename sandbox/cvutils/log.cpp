#include "cvutils/log.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>

#include <unistd.h>

#include "cvutils_control.h"

namespace cv {

namespace log {

int current_level = 2;

namespace {

Listener current_listener;

/// A token may hold another one: the longer is masked first.
struct LongerFirst {
    bool operator()(const std::string& left, const std::string& right) const {
        return left.size() != right.size() ? left.size() > right.size() : left < right;
    }
};

bool masks_tokens = false;
std::mutex tokens_mutex;
std::set<std::string, LongerFirst> tokens;

constexpr const char* mask = "***";

/// Lines of a handler end where its buffer ends: so much of a token's beginning is not shown there.
constexpr std::size_t shortest_beginning = 8;

std::string masked(std::string line) {
    const std::lock_guard lock(tokens_mutex);
    for (const std::string& token : tokens) {
        for (std::size_t at = 0; (at = line.find(token, at)) != std::string::npos; at += std::strlen(mask)) {
            line.replace(at, token.size(), mask);
        }
        for (std::size_t length = std::min(token.size(), line.size()); length >= shortest_beginning;
             --length) {
            if (line.compare(line.size() - length, length, token, 0, length) == 0) {
                line.replace(line.size() - length, length, mask);
                break;
            }
        }
    }
    return line;
}

/// A token as it was written, as the text that this means, and as that is written in the end.
void remember(const std::string& written) {
    using Text = std::unique_ptr<char, void (*)(void*)>;
    const std::string literal = '"' + written + '"';
    const std::unique_ptr<json_t, void (*)(json_t*)> value(
        json_loadb(literal.data(), literal.size(), JSON_DECODE_ANY, nullptr), &json_decref);
    const Text encoded(value ? json_dumps(value.get(), JSON_ENCODE_ANY) : nullptr, &std::free);

    const std::lock_guard lock(tokens_mutex);
    tokens.insert(written);
    if (encoded) {
        const std::string text = encoded.get();
        tokens.insert(text.substr(1, text.size() - 2));
        tokens.insert(json_string_value(value.get()));
    }
    tokens.erase("");
}

/// What others have written must neither begin a line of its own nor steer a terminal that shows the log.
std::string escaped(const std::string& line) {
    std::string result;
    for (std::size_t at = 0; at < line.size(); ++at) {
        const auto byte = static_cast<unsigned char>(line[at]);
        // The characters U+0080 to U+009F, which are controls too, have two bytes.
        const bool is_long =
            byte == 0xC2 && at + 1 < line.size() && static_cast<unsigned char>(line[at + 1]) < 0xA0;
        if (byte >= 0x20 && byte != 0x7F && !is_long) {
            result += line[at];
            continue;
        }
        std::array<char, 8> code{};
        at += is_long ? 1 : 0;
        std::snprintf(code.data(), code.size(), "\\x%02x", static_cast<unsigned char>(line[at]));
        result += code.data();
    }
    return result;
}

} // namespace

void mask_tokens() {
    masks_tokens = true;
}

void learn_tokens(std::string_view text) {
    static constexpr std::string_view name_end = "token\"";
    static constexpr const char* white_space = " \t\r\n";
    if (!masks_tokens) {
        return;
    }
    for (std::size_t at = 0; (at = text.find(name_end, at)) != std::string_view::npos;) {
        at += name_end.size();
        const std::size_t colon = text.find_first_not_of(white_space, at);
        if (colon == std::string_view::npos || text[colon] != ':') {
            continue;
        }
        const std::size_t quote = text.find_first_not_of(white_space, colon + 1);
        if (quote == std::string_view::npos || text[quote] != '"') {
            continue;
        }
        std::size_t end = quote + 1;
        while (end < text.size() && text[end] != '"') {
            end += text[end] == '\\' ? 2 : 1;
        }
        at = std::min(end, text.size());
        remember(std::string(text.substr(quote + 1, at - quote - 1)));
    }
}

void set_listener(Listener listener) {
    current_listener = std::move(listener);
}

void print(int /*destination*/, int level, const char* line) {
    static constexpr std::array names{"error", "warning", "info", "detail"};
    timespec now{};
    tm date{};
    clock_gettime(CLOCK_REALTIME, &now);
    gmtime_r(&now.tv_sec, &date);
    std::array<char, 64> head{};
    const std::size_t date_length = std::strftime(head.data(), head.size(), "%Y-%m-%dT%H:%M:%S", &date);
    std::snprintf(head.data() + date_length, head.size() - date_length, ".%03ldZ %-7s ",
                  now.tv_nsec / 1000000, names[static_cast<std::size_t>(std::clamp(level, 0, 3))]);

    const std::string shown = escaped(masks_tokens ? masked(line) : line);
    const std::string text = head.data() + shown + '\n';
    // One write for each line keeps the lines of different threads apart. A log that nobody can read any more
    // is no reason for the process to fail.
    [[maybe_unused]] const ssize_t ignored = write(STDERR_FILENO, text.data(), text.size());
    if (current_listener) {
        current_listener(level, shown.c_str());
    }
}

} // namespace log

void log_json(int level, const char* title, const json_t* document) {
    if (level > __atomic_load_n(&log::current_level, __ATOMIC_RELAXED)) {
        return;
    }
    const std::unique_ptr<char, void (*)(void*)> text(json_dumps(document, JSON_ENCODE_ANY), &std::free);
    std::string line = title;
    if (!line.empty() && line.back() != ' ') {
        line += ' ';
    }
    line += text ? text.get() : "(not a document)";
    log::print(0, level, line.c_str());
}

MemoryStream::MemoryStream(char* stream_buffer, std::size_t stream_size)
    : buffer(stream_buffer), size(stream_size), length(0) {
    buffer[0] = '\0';
}

void MemoryStream::print(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int wanted = std::vsnprintf(buffer + length, size - length, format, arguments);
    va_end(arguments);
    if (wanted > 0) {
        length = std::min(length + static_cast<std::size_t>(wanted), size - 1);
    }
}

const char* MemoryStream::text() const {
    return buffer;
}

} // namespace cv
