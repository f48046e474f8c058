#ifndef HANDLER_LIBRARY_H
#define HANDLER_LIBRARY_H

#include <dlfcn.h>

#include "cvcloud/cvhandler_api.h"

namespace kit {

/// A handler library, loaded as the daemon loads it for as long as this object lives.
class HandlerLibrary {
public:
    /// The library that is tested: that of this build, or the one that CV_HANDLER_LIBRARY in the environment
    /// names.
    static const char* tested();

    /// Ends the program when there is no library at `path`. `scope` is RTLD_LOCAL, or RTLD_GLOBAL to put its
    /// names before those of libraries that are loaded later.
    explicit HandlerLibrary(const char* path = tested(), int scope = RTLD_LOCAL);
    ~HandlerLibrary();
    HandlerLibrary(const HandlerLibrary&) = delete;
    HandlerLibrary& operator=(const HandlerLibrary&) = delete;

    /// The address of an exported name; ends the program when the library exports no such name.
    void* symbol(const char* name) const;

    /// The exported object of that name.
    template <typename T>
    T& object(const char* name) const {
        return *static_cast<T*>(symbol(name));
    }

    CvHandlerAPI& handler() const {
        return *handler_object;
    }

    /// True while the library that is tested is in the process's memory.
    static bool in_memory();

private:
    void* library;
    CvHandlerAPI* handler_object;
};

} // namespace kit

#endif
