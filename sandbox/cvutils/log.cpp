#include "cvutils/log.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <string>
#include <utility>

#include <unistd.h>

#include "cvutils_control.h"

namespace cv {

namespace log {

int current_level = 2;

namespace {

Listener current_listener;

} // namespace

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

    const std::string text = std::string(head.data()) + line + '\n';
    // One write for each line keeps the lines of different threads apart. A log that nobody can read any more
    // is no reason for the process to fail.
    [[maybe_unused]] const ssize_t ignored = write(STDERR_FILENO, text.data(), text.size());
    if (current_listener) {
        current_listener(level, line);
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
