#ifndef CVUTILS_LOG_H
#define CVUTILS_LOG_H

/// @file
/// The utility library's log.

#include <cstddef>

#include <jansson.h>

namespace cv {

/// The process's log.
namespace log {

/// The most detailed level that is logged, 0 to 3. The library may change it at any time from any thread.
extern int current_level;

/// Writes one finished line. `destination` is 0 in every call of a handler. Any thread may call it.
void print(int destination, int level, const char* line);

} // namespace log

/// Logs a JSON document under a title, when `level` is admitted. The document is borrowed. Any thread may
/// call it.
void log_json(int level, const char* title, const json_t* document);

/// Collects printf-formatted text in a buffer of the caller's. What becomes of text beyond the buffer's end
/// is the library's own affair; this stand-in's drops it.
class MemoryStream {
public:
    /// `buffer` holds `size` bytes, at least 1, and must outlive the stream.
    MemoryStream(char* buffer, std::size_t size);

    /// Appends text as printf() would write it.
    void print(const char* format, ...) __attribute__((format(printf, 2, 3)));

    /// The text collected so far, NUL-terminated; it lies in the caller's buffer and changes with print().
    [[nodiscard]] const char* text() const;

private:
    char* buffer;
    std::size_t size;
    std::size_t length;
};

} // namespace cv

#endif
