#ifndef CVCLOUDREGISTERHANDLER_H
#define CVCLOUDREGISTERHANDLER_H

/// @file
/// The library's entry points.

#include <string>
#include <vector>

#include "cvcloud/cvhandler_api.h"
#include "cvregistration_export.h"

/// The handler object that the daemon calls. All operations are called on the daemon's thread, one at a time.
class HandlerAPI_impl : public CvHandlerAPI {
public:
    /// Stores `api`, which has to stay valid until after uninit(), subscribes to the start and retry
    /// commands, reads the settings and starts the worker. Called once before handle().
    ///
    /// Nonzero when the handler is ready. After 0 no registration object and no worker is left; the command
    /// names stay in `commands` when only the worker could not be started. Throws std::system_error when the
    /// system has no thread left, or std::bad_alloc; uninit() is safe then, too.
    int init(CvCloudAPI* api, std::vector<std::string>& commands) override;

    /// Stops the worker, waiting for its current run to return with all its pauses, and destroys the
    /// registration object. No response callback may be running, and none may come on another thread from
    /// then on; the 8-byte block of a request that is never answered is then the daemon's to delete. Does
    /// nothing when there is nothing to destroy.
    void uninit() override;

    /// Takes one command. Returns at once: only a refusal is answered here, an accepted command is answered
    /// by the worker at the end of its run. Must not be called outside init() and uninit().
    void handle(const Message* message) override;
};

/// 1: the daemon must not do without this handler. The module itself never looks at it.
extern "C" CV_EXPORT unsigned char mandatory_cloud_handler;

/// The one handler object, as long as the library is loaded.
CV_EXPORT extern HandlerAPI_impl g_handler_api;

/// The daemon's way in. Always returns the same object, also before init(); any thread may call it.
extern "C" CV_EXPORT CvHandlerAPI* get_handler_api();

#endif
