#include "handler_library.h"

#include <cstdio>
#include <cstdlib>

namespace kit {

namespace {

// No test can go on without what it looks up in the library.
void* required(void* found) {
    if (found == nullptr) {
        std::fprintf(stderr, "%s\n", dlerror());
        std::abort();
    }
    return found;
}

} // namespace

const char* HandlerLibrary::tested() {
    const char* const named = std::getenv("CV_HANDLER_LIBRARY");
    return named != nullptr ? named : CV_HANDLER_LIBRARY;
}

HandlerLibrary::HandlerLibrary(const char* path, int scope)
    : library(required(dlopen(path, RTLD_NOW | scope))) {
    handler_object = reinterpret_cast<CvHandlerAPI* (*)()>(symbol("get_handler_api"))();
}

HandlerLibrary::~HandlerLibrary() {
    if (dlclose(library) != 0) {
        required(nullptr);
    }
}

void* HandlerLibrary::symbol(const char* name) const {
    return required(dlsym(library, name));
}

bool HandlerLibrary::in_memory() {
    void* const loaded = dlopen(tested(), RTLD_NOW | RTLD_NOLOAD);
    if (loaded != nullptr) {
        dlclose(loaded);
    }
    return loaded != nullptr;
}

} // namespace kit
