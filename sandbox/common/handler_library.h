#ifndef COMMON_HANDLER_LIBRARY_H
#define COMMON_HANDLER_LIBRARY_H

#include <string>
#include <vector>

#include "cvcloud/cvhandler_api.h"

namespace sandbox {

/// One loaded handler library, used on the dispatch thread only.
class HandlerLibrary {
public:
    /// Loads the library; throws std::runtime_error when it cannot be loaded or offers no handler.
    explicit HandlerLibrary(const std::string& path);

    /// Calls the handler's uninit() and unloads the library. No command or callback may come after this has
    /// begun.
    ~HandlerLibrary();

    HandlerLibrary(const HandlerLibrary&) = delete;
    HandlerLibrary& operator=(const HandlerLibrary&) = delete;

    /// Initialises the handler and collects the commands that it subscribes to. False when it is not ready.
    bool init(CvCloudAPI& cloud, std::vector<std::string>& commands);

    void handle(const Message& message);

    /// Whether the daemon cannot do without this handler.
    bool mandatory() const {
        return is_mandatory;
    }

    const std::string& path() const {
        return library_path;
    }

private:
    std::string library_path;
    void* library;
    CvHandlerAPI* handler = nullptr;
    bool is_mandatory = false;
};

} // namespace sandbox

#endif
