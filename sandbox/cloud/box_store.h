#ifndef CLOUD_BOX_STORE_H
#define CLOUD_BOX_STORE_H

#include <map>
#include <memory>
#include <string>

struct sqlite3;
struct sqlite3_stmt;

namespace cloud {

/// What the cloud does not forget: the boxes with their device ids, and the user tokens that it handed out.
/// For one thread at a time. Operations throw std::runtime_error, with the file's name, when the file cannot
/// be used.
class BoxStore {
public:
    /// Opens the SQLite file at `path`, which is created when it is missing. With an empty path everything
    /// is kept in memory only.
    explicit BoxStore(const std::string& path);

    /// The device id of the box with this MAC address, the same every time.
    std::string device_id(const std::string& mac);

    void add_user_token(const std::string& token);
    bool has_user_token(const std::string& token);

private:
    std::string run(const char* statement, const std::string& parameter);

    const std::string file;
    std::unique_ptr<sqlite3, int (*)(sqlite3*)> database;
    /// Prepared once, by the address of their text.
    std::map<const char*, std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt*)>> statements;
};

} // namespace cloud

#endif
