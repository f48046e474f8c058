// What of the utility library no test records and nothing makes fail.

#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include "cvutils/json.h"
#include "cvutils/log.h"

namespace cv {

MemoryStream::MemoryStream(char* stream_buffer, std::size_t buffer_size)
    : buffer(stream_buffer), size(buffer_size), length(0) {
    buffer[0] = '\0';
}

void MemoryStream::print(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int wanted = std::vsnprintf(buffer + length, size - length, format, arguments);
    va_end(arguments);
    if (wanted > 0) {
        const auto added = static_cast<std::size_t>(wanted);
        length = added < size - length ? length + added : size - 1;
    }
}

const char* MemoryStream::text() const {
    return buffer;
}

const char* json_extract_string_value(const json_t* value) {
    return json_string_value(value);
}

const char* json_extract_string_value(const json_t* object, const char* key) {
    return json_string_value(json_object_get(object, key));
}

json_t* json_object_get_recursive(const json_t* root, const std::vector<std::string>& keys) {
    const json_t* value = root;
    for (const std::string& key : keys) {
        value = json_object_get(value, key.c_str());
    }
    return const_cast<json_t*>(value);
}

} // namespace cv
