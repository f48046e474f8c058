#include "cvutils/settings_file.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace settings {

namespace {

constexpr const char* white_space = " \t\r\n";

[[noreturn]] void fail(const std::string& path, const std::string& what, int error) {
    throw FileError("settings file " + path + " cannot be " + what + ": " + std::strerror(error));
}

std::string quoted(const std::string& key) {
    const std::unique_ptr<json_t, void (*)(json_t*)> value(json_stringn(key.data(), key.size()),
                                                           &json_decref);
    const std::unique_ptr<char, void (*)(void*)> text(json_dumps(value.get(), JSON_ENCODE_ANY), &std::free);
    if (!text) {
        throw FileError("a settings key is a UTF-8 text");
    }
    return text.get();
}

/// The two functions below walk a text that is known to be JSON.
std::size_t end_of_string(const std::string& text, std::size_t position) {
    for (++position; text[position] != '"'; ++position) {
        position += text[position] == '\\' ? 1 : 0;
    }
    return position + 1;
}

std::size_t end_of_value(const std::string& text, std::size_t position) {
    int depth = 0;
    do {
        const char character = text[position];
        if (character == '"') {
            position = end_of_string(text, position);
        } else if (character == '{' || character == '[') {
            ++depth;
            ++position;
        } else if (character == '}' || character == ']') {
            --depth;
            ++position;
        } else {
            position = depth > 0 ? position + 1 : text.find_first_of(", \t\r\n}", position);
        }
    } while (depth > 0);
    return position;
}

class Descriptor {
public:
    explicit Descriptor(int opened) : number(opened) {}
    ~Descriptor() {
        if (number != -1) {
            close(number);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    const int number;
};

bool write_all(int descriptor, const std::string& text) {
    std::size_t written = 0;
    while (written < text.size()) {
        const ssize_t count = write(descriptor, text.data() + written, text.size() - written);
        if (count == -1 && errno != EINTR) {
            return false;
        }
        written += count > 0 ? static_cast<std::size_t>(count) : 0;
    }
    return true;
}

} // namespace

File::File(const std::string& file_path) : path(file_path) {
    // A directory could be opened, and then not be read; a pipe could keep the reader waiting.
    std::error_code error;
    const std::filesystem::file_type type = std::filesystem::status(path, error).type();
    if (type == std::filesystem::file_type::directory) {
        fail(path, "read", EISDIR);
    }
    if (!error && type != std::filesystem::file_type::regular) {
        throw FileError("settings file " + path + " cannot be read: it is not a regular file");
    }
    std::ifstream file(path, std::ios::binary);
    if (!file.is_open()) {
        fail(path, "read", errno);
    }
    text.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    json_error_t problem{};
    document.reset(json_loadb(text.data(), text.size(), JSON_REJECT_DUPLICATES, &problem));
    if (!document) {
        throw FileError("settings file " + path + ":" + std::to_string(std::max(problem.line, 1)) + ":" +
                        std::to_string(std::max(problem.column, 1)) + ": " + problem.text);
    }
    if (!json_is_object(document.get())) {
        throw FileError("settings file " + path + ":1:1: not a JSON object of key to value");
    }
    find_members();
}

void File::find_members() {
    std::size_t position = text.find('{') + 1;
    while (text[position = text.find_first_of("\"}", position)] == '"') {
        const std::size_t end = end_of_string(text, position);
        const std::unique_ptr<json_t, void (*)(json_t*)> key(
            json_loadb(text.data() + position, end - position, JSON_DECODE_ANY, nullptr), &json_decref);
        const std::size_t begin = text.find_first_not_of(white_space, text.find(':', end) + 1);
        position = end_of_value(text, begin);
        members.push_back({json_string_value(key.get()), begin, position});
    }
}

const File::Member* File::find(const std::string& key) const {
    const auto found = std::find_if(members.begin(), members.end(),
                                    [&key](const Member& member) { return member.key == key; });
    return found != members.end() ? &*found : nullptr;
}

const json_t* File::value(const std::string& key) const {
    return json_object_get(document.get(), key.c_str());
}

std::vector<std::string> File::keys() const {
    std::vector<std::string> result;
    for (const Member& member : members) {
        result.push_back(member.key);
    }
    return result;
}

std::string File::place(const std::string& key) const {
    const auto begin = static_cast<std::ptrdiff_t>(find(key)->begin);
    const auto line = 1 + std::count(text.begin(), text.begin() + begin, '\n');
    const std::size_t line_end = text.rfind('\n', static_cast<std::size_t>(begin));
    const std::size_t line_begin = line_end == std::string::npos ? 0 : line_end + 1;
    // Characters, as editors and jansson count them: the bytes that continue one are left out.
    const auto column =
        1 + std::count_if(text.begin() + static_cast<std::ptrdiff_t>(line_begin), text.begin() + begin,
                          [](char byte) { return (byte & 0xC0) != 0x80; });
    return path + ":" + std::to_string(line) + ":" + std::to_string(column);
}

std::string File::range_problem(const std::string& key) const {
    const json_t* const stored = value(key);
    const json_int_t number = json_integer_value(stored);
    if (!json_is_integer(stored) || (number >= INT_MIN && number <= INT_MAX)) {
        return {};
    }
    return "settings file " + place(key) + ": \"" + key + "\" is " + std::to_string(number) +
           ", but an integer is " + std::to_string(INT_MIN) + " to " + std::to_string(INT_MAX);
}

std::string File::text_with(const std::string& key, const std::string& value) const {
    std::string result = text;
    if (const Member* const member = find(key)) {
        return result.replace(member->begin, member->end - member->begin, value);
    }
    const std::string member = "\n    " + quoted(key) + ": " + value;
    if (members.empty()) {
        const std::size_t begin = text.find('{') + 1;
        return result.replace(begin, text.find('}') - begin, member + "\n");
    }
    return result.insert(members.back().end, "," + member);
}

void set(const std::string& path, const std::string& key, const std::string& value) {
    std::error_code error;
    // A link stays a link to the file that is replaced.
    const std::filesystem::path file = std::filesystem::canonical(path, error);
    if (error) {
        fail(path, "read", error.value());
    }
    // Writers take their turn: the lock is on the directory, since the file itself is replaced.
    const Descriptor directory(open(file.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory.number == -1 || flock(directory.number, LOCK_EX) == -1) {
        fail(path, "locked", errno);
    }
    const std::string text = File(path).text_with(key, value);
    struct stat status {};
    // One name, which the lock reserves: what a power cut has left of it does not pile up.
    const std::string temporary = file.string() + ".new";
    unlink(temporary.c_str());
    const Descriptor output(open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (output.number == -1) {
        fail(path, "written", errno);
    }
    if (stat(file.c_str(), &status) == -1 || fchmod(output.number, status.st_mode & 07777) == -1 ||
        !write_all(output.number, text) || fsync(output.number) == -1 ||
        rename(temporary.c_str(), file.c_str()) == -1) {
        const int reason = errno;
        unlink(temporary.c_str());
        fail(path, "written", reason);
    }
    fsync(directory.number);
}

} // namespace settings
