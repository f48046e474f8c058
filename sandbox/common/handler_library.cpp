#include "common/handler_library.h"

#include <filesystem>
#include <stdexcept>

#include <dlfcn.h>

namespace sandbox {

HandlerLibrary::HandlerLibrary(const std::string& path)
    // A bare file name would be searched for in the system's library directories.
    : library_path(std::filesystem::absolute(path)),
      library(dlopen(library_path.c_str(), RTLD_NOW | RTLD_LOCAL)) {
    if (library == nullptr) {
        throw std::runtime_error(std::string("cannot load handler library ") + dlerror() +
                                 "; correct --handler or build the library");
    }
    using GetHandlerApi = CvHandlerAPI* (*)();
    const auto get_handler_api = reinterpret_cast<GetHandlerApi>(dlsym(library, "get_handler_api"));
    handler = get_handler_api != nullptr ? get_handler_api() : nullptr;
    if (handler == nullptr) {
        const std::string problem = get_handler_api == nullptr ? " does not export get_handler_api"
                                                               : ": get_handler_api gives no handler";
        dlclose(library);
        throw std::runtime_error("handler library " + library_path + problem +
                                 "; name a cloud handler with --handler");
    }
    const auto* const flag = static_cast<const unsigned char*>(dlsym(library, "mandatory_cloud_handler"));
    is_mandatory = flag != nullptr && *flag == 1;
}

HandlerLibrary::~HandlerLibrary() {
    handler->uninit();
    dlclose(library);
}

bool HandlerLibrary::init(CvCloudAPI& cloud, std::vector<std::string>& commands) {
    if (handler->init(&cloud, commands) == 0) {
        return false;
    }
    handler->subscribe_for_cmds(commands);
    return true;
}

void HandlerLibrary::handle(const Message& message) {
    handler->handle(&message);
}

} // namespace sandbox
