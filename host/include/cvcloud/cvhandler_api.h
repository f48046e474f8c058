#ifndef CVCLOUD_CVHANDLER_API_H
#define CVCLOUD_CVHANDLER_API_H

/// @file
/// The interface through which the cloud daemon calls a handler.

#include <string>
#include <vector>

#include <jansson.h>

#include "cvcloud/cvcloud_api.h"
#include "cvcloud/message.h"

/// What a handler library offers to the cloud daemon.
///
/// The daemon finds the object through the library's `extern "C" CvHandlerAPI* get_handler_api()` and calls
/// it through the virtual table, so the order of the operations is part of the binary interface. There is no
/// virtual destructor: it would take slots of the table, and the daemon never destroys a handler. All
/// operations are called on the daemon's dispatch thread, one at a time.
class CvHandlerAPI {
public:
    /// Called once after the library is loaded. The handler appends the names of the commands that it
    /// subscribes to. Nonzero means ready; after 0 the daemon delivers no command.
    virtual int init(CvCloudAPI* api, std::vector<std::string>& commands) = 0;

    /// Lets a handler subscribe to further commands; by default to none.
    virtual void subscribe_for_cmds(std::vector<std::string>& /*commands*/) {}

    /// Called before the library is unloaded. May be called again, and after an init() that failed.
    virtual void uninit() = 0;

    /// Delivers one command. The message is valid during the call only.
    virtual void handle(const Message* message) = 0;

    /// Delivers one command that the daemon has parsed already; ignored by default. The value is borrowed.
    virtual void handle_cmd(json_t* /*command*/) {}

protected:
    ~CvHandlerAPI() = default;
};

#endif
