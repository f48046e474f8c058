#include "cloud/box_store.h"

#include <stdexcept>

#include <sqlite3.h>

namespace cloud {

namespace {

constexpr int lock_timeout_milliseconds = 1000;

} // namespace

BoxStore::BoxStore(const std::string& path)
    : file(path.empty() ? "(in memory)" : path), database(nullptr, &sqlite3_close) {
    sqlite3* opened = nullptr;
    const int result = sqlite3_open(path.empty() ? ":memory:" : path.c_str(), &opened);
    database.reset(opened);
    if (result != SQLITE_OK) {
        throw std::runtime_error("cannot open the file of boxes " + file + ": " + sqlite3_errstr(result) +
                                 "; correct --boxes");
    }
    sqlite3_busy_timeout(database.get(), lock_timeout_milliseconds);
    // The file is to outlive the cloud, not a power failure.
    run("PRAGMA synchronous = OFF", "");
    run("CREATE TABLE IF NOT EXISTS boxes (number INTEGER PRIMARY KEY, mac TEXT NOT NULL UNIQUE)", "");
    run("CREATE TABLE IF NOT EXISTS user_tokens (token TEXT PRIMARY KEY)", "");
}

std::string BoxStore::device_id(const std::string& mac) {
    run("INSERT INTO boxes (mac) VALUES (?) ON CONFLICT DO NOTHING", mac);
    return run("SELECT 'box-' || number FROM boxes WHERE mac = ?", mac);
}

void BoxStore::add_user_token(const std::string& token) {
    run("INSERT INTO user_tokens (token) VALUES (?)", token);
}

bool BoxStore::has_user_token(const std::string& token) {
    return !run("SELECT token FROM user_tokens WHERE token = ?", token).empty();
}

/// Runs a statement with at most one parameter and returns the text of the first row's first column; an empty
/// one when there is no row.
std::string BoxStore::run(const char* statement, const std::string& parameter) {
    const auto [entry, is_new] = statements.try_emplace(statement, nullptr, &sqlite3_finalize);
    sqlite3_stmt* prepared = entry->second.get();
    if (is_new) {
        sqlite3_prepare_v2(database.get(), statement, -1, &prepared, nullptr);
        entry->second.reset(prepared);
    }
    const std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt*)> used(prepared, &sqlite3_reset);
    if (prepared != nullptr && sqlite3_bind_parameter_count(prepared) == 1) {
        sqlite3_bind_text(prepared, 1, parameter.data(), static_cast<int>(parameter.size()), SQLITE_STATIC);
    }
    const int result = prepared != nullptr ? sqlite3_step(prepared) : SQLITE_ERROR;
    if (result == SQLITE_ROW) {
        return reinterpret_cast<const char*>(sqlite3_column_text(prepared, 0));
    }
    if (result != SQLITE_DONE) {
        throw std::runtime_error("cannot use the file of boxes " + file + ": " +
                                 sqlite3_errmsg(database.get()) + "; correct --boxes");
    }
    return {};
}

} // namespace cloud
