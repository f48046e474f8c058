#!/usr/bin/python3
"""Writes the module's sources with lines that break a hand-over between its threads, each switched on by its number.

usage: broken_lines.py SOURCES TARGET

The variables that the sources then have beside the module's own: `schedules_broken_line`, 0 for the module as it is, and
`schedules_broken_lines`, the names of the others, ended by a null."""

import sys
from pathlib import Path

STATE_MACHINE = "cvregistration_state_machine.cpp"
THREAD = "cvregistration_thread.cpp"
CALLBACKS = "cvregistration_callbacks.cpp"
COMMANDS = "cvcloudregisterhandler.cpp"

# Name: the file, the text as it is, and what takes its place.
BROKEN = {
    "result-after-wake-up": (STATE_MACHINE, """\
    progress.value = value;
    progress.succeeded = success;
    error_response = error;
    return thread.run();
""", """\
    const int result = thread.run();
    progress.value = value;
    progress.succeeded = success;
    error_response = error;
    return result;
"""),
    "error-after-wake-up": (STATE_MACHINE, """\
    error_response = error;
    return thread.run();
""", """\
    const int result = thread.run();
    error_response = error;
    return result;
"""),
    "no-wake-up": (STATE_MACHINE, """\
    error_response = error;
    return thread.run();
""", """\
    error_response = error;
    return 1;
"""),
    "two-wake-ups": (STATE_MACHINE, """\
    error_response = error;
    return thread.run();
""", """\
    error_response = error;
    thread.run();
    return thread.run();
"""),
    "start-wakes-first": (STATE_MACHINE, """\
    set_in_progress(true);
    return thread.run();
""", """\
    const int result = thread.run();
    set_in_progress(true);
    return result;
"""),
    "start-without-flag": (STATE_MACHINE, """\
    set_in_progress(true);
    return thread.run();
""", """\
    return thread.run();
"""),
    "retry-wakes-first": (STATE_MACHINE, """\
    error_response.clear();
    set_in_progress(true);
    thread.run();
""", """\
    set_in_progress(true);
    thread.run();
    error_response.clear();
"""),
    "flag-before-last-field": (STATE_MACHINE, """\
    reply_requested = false;
    set_in_progress(false);
""", """\
    set_in_progress(false);
    reply_requested = false;
"""),
    "flag-before-failed-reply": (STATE_MACHINE, """\
        if (reply_requested) {
            send_cvex_response(request_id, error_response);
        }
        set_in_progress(false);
""", """\
        set_in_progress(false);
        if (reply_requested) {
            send_cvex_response(request_id, error_response);
        }
"""),
    "reset-before-reply": (STATE_MACHINE, """\
    if (reply_requested) {
        send_cvex_response(request_id, body);
    }
    reset();
""", """\
    const bool wanted = reply_requested;
    reset();
    if (wanted) {
        send_cvex_response(request_id, body);
    }
"""),
    "read-after-request": (STATE_MACHINE, """\
            return; // The response will wake the worker, and may have done so already.
""", """\
            [[maybe_unused]] const volatile bool succeeded = step.progress->succeeded;
            return;
"""),
    "write-after-request": (STATE_MACHINE, """\
            return; // The response will wake the worker, and may have done so already.
""", """\
            step.progress->succeeded = false;
            return;
"""),
    "run-before-read": (THREAD, """\
            const ssize_t result = read(run_descriptor, &byte, 1);
            if (result > 0) {
                self->handler->run_state_machine();
            } else {
                CV_LOG(0, "read returned %d", static_cast<int>(result));
            }
""", """\
            self->handler->run_state_machine();
            if (read(run_descriptor, &byte, 1) <= 0) {
                return nullptr;
            }
"""),
    "stop-after-run": (THREAD, """\
        if (FD_ISSET(stop_descriptor, &readable)) {
            CV_LOG(2, "stopping registration thread...");
            return nullptr;
        }
""", """\
        if (FD_ISSET(stop_descriptor, &readable) && !FD_ISSET(run_descriptor, &readable)) {
            return nullptr;
        }
"""),
    "pipes-closed-before-join": (THREAD, """\
    if (started) {
        const int result = write_byte(stop_pipe[1]);
        CV_LOG(2, "Wrote stop signal on fd %d (%d)", stop_pipe[1], result);
        worker.join();
    }
    close_pipe(stop_pipe);
    close_pipe(run_pipe);
""", """\
    const bool joins = started && write_byte(stop_pipe[1]) == 1;
    close_pipe(stop_pipe);
    close_pipe(run_pipe);
    if (joins) {
        this->worker.join();
    }
"""),
    "no-join": (THREAD, """\
        worker.join();
""", """\
        worker.detach();
"""),
    "token-after-wake-up": (CALLBACKS, """\
    if (success) {
        g_cvcloud_api->user_token = token;
    }
    g_registration_handler->set_user_token_info(token, success, error);
""", """\
    g_registration_handler->set_user_token_info(token, success, error);
    if (success) {
        g_cvcloud_api->user_token = token;
    }
"""),
    "identity-after-start": (COMMANDS, """\
    g_cvcloud_api->device_id = kTemporaryDeviceId;
    g_registration_handler->start_cloud_registration();
""", """\
    g_registration_handler->start_cloud_registration();
    g_cvcloud_api->device_id = kTemporaryDeviceId;
"""),
    "recorded-before-test": (COMMANDS, """\
    if (g_registration_handler->registration_in_progress.load()) {
        return refuse_while_in_progress(response);
    }
    record_request(message);
""", """\
    record_request(message);
    if (g_registration_handler->registration_in_progress.load()) {
        return refuse_while_in_progress(response);
    }
"""),
}


SWITCH = 'extern "C" __attribute__((visibility("default"))) '


def main() -> None:
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    module, target = map(Path, sys.argv[1:])
    texts = {path.name: path.read_text() for path in (module / "src").glob("*.cpp")}
    for number, (name, (file, before, after)) in enumerate(BROKEN.items(), 1):
        if texts[file].count(before) != 1:
            sys.exit(f"broken_lines.py: {name} changes text that {file} has {texts[file].count(before)} times, and "
                     f"not once; bring it into step with the module:\n{before}")
        switched = f"if (schedules_broken_line == {number}) {{\n{after}}} else {{\n{before}}}\n"
        texts[file] = texts[file].replace(before, switched)
    target.mkdir(parents=True, exist_ok=True)
    for file, text in texts.items():
        (target / file).write_text(f"{SWITCH}int schedules_broken_line;\n{text}")
    names = ", ".join(f'"{name}"' for name in BROKEN)
    (target / "broken_lines.cpp").write_text(
        f"{SWITCH}int schedules_broken_line;\nint schedules_broken_line = 0;\n"
        f"{SWITCH}const char* const schedules_broken_lines[] = {{{names}, nullptr}};\n")
    script = (module / "cvcloudregisterhandler.map").read_text()
    (target / "exports.map").write_text(
        script.replace("global:", "global:\n    schedules_broken_line; schedules_broken_lines;", 1))


if __name__ == "__main__":
    main()
