#ifndef AWAIT_H
#define AWAIT_H

#include <cstddef>
#include <string>

#include <gtest/gtest.h>

#include "journal.h"

namespace kit {

/// Waits until the journal holds the event `times` times; fails the test, with the journal, when it does not
/// get there.
inline void Await(const std::string& event, std::size_t times = 1) {
    if (!journal().await(event, times)) {
        std::string seen;
        for (const std::string& text : journal().events()) {
            seen += "\n  " + text;
        }
        ADD_FAILURE() << "waited in vain for: " << event << "\nthe journal holds:" << seen;
    }
}

} // namespace kit

#endif
