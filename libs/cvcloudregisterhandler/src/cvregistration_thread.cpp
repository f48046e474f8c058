#include "cvregistration_thread.h"

#include <fcntl.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "cvregistration_log.h"
#include "cvregistration_state_machine.h"
#include "cvregistration_utils.h"

namespace cv::registration {

bool RegistrationThread::init(RegistrationHandler* registration_handler) {
    if (!init_pipes()) {
        return false;
    }
    handler = registration_handler;
    worker = std::thread(thread_function, this);
    started = true;
    return true;
}

bool RegistrationThread::init_pipes() {
    const bool opened = pipe2(stop_pipe, O_NONBLOCK) == 0 && pipe2(run_pipe, O_NONBLOCK) == 0;
    // FD_SET would write behind the set with a descriptor beyond it. The write ends are in no set.
    if (opened && stop_pipe[0] < FD_SETSIZE && run_pipe[0] < FD_SETSIZE) {
        return true;
    }
    const int error = opened ? EMFILE : errno;
    CV_LOG(0, "Failed to create pipe: %s", strerror(error));
    close_pipe(stop_pipe);
    close_pipe(run_pipe);
    if (opened) {
        // uninit() closes both pipes again, and these numbers may be another thread's by then.
        stop_pipe[0] = stop_pipe[1] = -1;
        run_pipe[0] = run_pipe[1] = -1;
    }
    return false;
}

void RegistrationThread::close_pipe(const int (&pipe)[2]) {
    for (const int end : pipe) {
        if (end != -1) {
            close(end);
        }
    }
}

int RegistrationThread::run() {
    // Nothing of this object is touched after the write: whoever is woken may be the one that ends it.
    const int descriptor = run_pipe[1];
    const int result = write_byte(descriptor);
    CV_LOG(3, "Wrote run byte on fd %d (%d)", descriptor, result);
    return result;
}

void RegistrationThread::uninit() {
    if (started) {
        const int result = write_byte(stop_pipe[1]);
        CV_LOG(2, "Wrote stop signal on fd %d (%d)", stop_pipe[1], result);
        worker.join();
    }
    close_pipe(stop_pipe);
    close_pipe(run_pipe);
}

void* RegistrationThread::thread_function(void* registration_thread) {
    const auto* self = static_cast<const RegistrationThread*>(registration_thread);
    const int stop_descriptor = self->stop_pipe[0];
    const int run_descriptor = self->run_pipe[0];
    const int descriptor_count = std::max(stop_descriptor, run_descriptor) + 1;
    for (;;) {
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(stop_descriptor, &readable);
        FD_SET(run_descriptor, &readable);
        if (select(descriptor_count, &readable, nullptr, nullptr, nullptr) == -1) {
            const int error = errno;
            if (error == EINTR) {
                CV_LOG(3, "system() was interrupted. Continuing...");
                continue;
            }
            CV_LOG(0, "Error at select: errno=%d (%s)", error, strerror(error));
            return nullptr;
        }
        // The stop goes first: a run that is still pending is abandoned.
        if (FD_ISSET(stop_descriptor, &readable)) {
            CV_LOG(2, "stopping registration thread...");
            return nullptr;
        }
        if (FD_ISSET(run_descriptor, &readable)) {
            char byte = 0;
            const ssize_t result = read(run_descriptor, &byte, 1);
            if (result > 0) {
                self->handler->run_state_machine();
            } else {
                CV_LOG(0, "read returned %d", static_cast<int>(result));
            }
        }
    }
}

} // namespace cv::registration
