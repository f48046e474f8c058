// What the texts of a reply, of the log and of the daemon mean, from docs/troubleshooting.md itself.
#ifndef CVEX_CATALOGUE_H
#define CVEX_CATALOGUE_H

#include <optional>
#include <string>

namespace cvex {

struct Advice {
    std::string meaning;
    /// What to look at and what to do; empty when there is nothing to do.
    std::string action;
    /// Of a log line: 0 a failure, 1 a refusal, 2 progress, 3 detail.
    int level = 0;
};

/// For the "result" and "reason" of a reply. Nothing for a success and for results of other handlers.
std::optional<Advice> advice_for_reply(const std::string& result, const std::string& reason);

/// For a line of the log, with or without what a logger puts before it.
std::optional<Advice> advice_for_line(const std::string& line);

} // namespace cvex

#endif
