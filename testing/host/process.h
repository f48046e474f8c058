#ifndef PROCESS_H
#define PROCESS_H

// The process: which thread this is, whether it is in the module's code or in the host's; threads and
// descriptors.

#include <cstddef>
#include <set>
#include <string>

namespace kit {

/// A thread that nobody has marked is the module's worker.
enum class Role { worker, daemon, callback };

/// Marks the calling thread, which is in the host's code from now on.
void mark_thread(Role role);

Role thread_role();

/// True while the calling thread is in the module: what it calls then is counted, and fails when a test says
/// so.
bool in_module();

/// The host's code for as long as this object lives.
class InHost {
public:
    InHost();
    ~InHost();
    InHost(const InHost&) = delete;
    InHost& operator=(const InHost&) = delete;
};

/// A call into the module for as long as this object lives.
class InModule {
public:
    InModule();
    ~InModule();
    InModule(const InModule&) = delete;
    InModule& operator=(const InModule&) = delete;

private:
    int before;
};

/// The names in a directory, as of /proc/self/fd and /proc/self/task.
std::set<std::string> names_in(const char* directory);

/// The threads of this process, once there are no more than `expected`, or after half a minute: a thread that
/// was joined may stay in /proc for a moment longer, and nothing tells when it has left.
std::set<std::string> threads(std::size_t expected);

} // namespace kit

#endif
