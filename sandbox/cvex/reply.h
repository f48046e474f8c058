// What a reply of the exchange says.
#ifndef CVEX_REPLY_H
#define CVEX_REPLY_H

#include <string>
#include <string_view>

namespace cvex {

struct Outcome {
    /// "ok" for a success, the identifier of an error, or empty for a text that is no such reply.
    std::string result;
    /// Of a failure, as it is in the reply.
    std::string reason;
};

/// Reads a reply by its fixed beginning, as docs/messages.md tells apps to. A reason may quote the cloud as
/// it is: parsed as JSON, the reply of a failure may be nothing, or a success.
Outcome read_reply(std::string_view text);

} // namespace cvex

#endif
