#ifndef CVCLOUDD_READINESS_H
#define CVCLOUDD_READINESS_H

namespace cvcloudd {

/// Tells the service manager that has started the daemon that it takes commands: the datagram "READY=1" to
/// the socket that the environment variable NOTIFY_SOCKET names. Without that variable nothing happens; a
/// manager that cannot be reached is logged. For the dispatch thread.
void report_readiness();

} // namespace cvcloudd

#endif
