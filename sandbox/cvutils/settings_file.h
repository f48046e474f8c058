#ifndef CVUTILS_SETTINGS_FILE_H
#define CVUTILS_SETTINGS_FILE_H

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <jansson.h>

namespace settings {

/// The settings file cannot be used; the text names it, with line and column where that helps.
struct FileError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// The settings store as it is in its file: one JSON object of key to value. An edit leaves every other byte
/// of the text as it was.
class File {
public:
    /// Reads the file; throws FileError.
    explicit File(const std::string& path);

    /// The value of the key, borrowed from this object; null when it is not set.
    const json_t* value(const std::string& key) const;

    /// The keys in the order of the file.
    std::vector<std::string> keys() const;

    /// "path:line:column" of the key's value, for whoever looks for it in an editor. The key is set.
    std::string place(const std::string& key) const;

    /// What is wrong with the key's value when it is an integer that a setting cannot hold, with the place;
    /// empty when it is not. The key is set.
    std::string range_problem(const std::string& key) const;

    /// The whole text with the key set to the value, a JSON text, in place or as the last member.
    std::string text_with(const std::string& key, const std::string& value) const;

private:
    struct Member {
        std::string key;
        /// The value's part of the text.
        std::size_t begin;
        std::size_t end;
    };

    void find_members();
    const Member* find(const std::string& key) const;

    const std::string path;
    std::string text;
    std::unique_ptr<json_t, void (*)(json_t*)> document{nullptr, &json_decref};
    std::vector<Member> members;
};

/// Sets a key in the file at `path`. A reader sees the old text or the new one, whole, also after a loss of
/// power; of several writers none undoes what another has set. Throws FileError.
void set(const std::string& path, const std::string& key, const std::string& value);

} // namespace settings

#endif
