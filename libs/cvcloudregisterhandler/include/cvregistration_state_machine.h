#ifndef CVREGISTRATION_STATE_MACHINE_H
#define CVREGISTRATION_STATE_MACHINE_H

/// @file
/// A registration: its data, its states, and the senders of its requests and messages.

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include "cvregistration_thread.h"
#include "cvregistration_utils.h"

namespace cv::registration {

/// The validated input of a start command.
struct RegistrationParameters {
    /// The requester's token, not empty.
    std::string token;
    /// "partner" or "temporary".
    std::string token_type;
    /// The box's MAC address for the cloud, in upper case.
    std::string mac;
};

/// The login step that a token type asks for.
struct TokenTypeInfo {
    /// The cloud method that the step calls.
    std::string name;
    /// Sends the step's request; true when it is on its way.
    std::function<bool()> action;
};

/// One registration of the box: its data, and the state machine that drives it step by step.
///
/// Each step sends one cloud request. The response callback stores the result here and wakes the worker,
/// which moves on when the step has succeeded and tries it again when it has not, within a budget of tries.
///
/// Three threads meet here without a mutex. The daemon's thread prepares a registration while none is in
/// progress; the worker runs it; a response callback stores one result while the worker waits for it. Whoever
/// is done hands over by writing a wake-up byte, or, at the end, by clearing `registration_in_progress`. The
/// daemon delivers its commands one by one; nothing here holds two of them apart.
class RegistrationHandler {
public:
    /// Values appear in log lines.
    enum State : std::int32_t {
        /// Obtains the user token; also the state before the first and after a successful registration.
        LOGIN = 0,
        /// Obtains the device id.
        REGISTER_DEVICE = 1,
        // The states below FINISH are work states, looked up in `states`.
        /// Publishes and answers the success.
        FINISH = 4,
        /// The registration has failed: answers the failure and waits for a retry or a new start.
        FAIL = 5,
    };

    /// How far one step has come.
    struct StepProgress {
        /// Tries that the step may still take.
        std::int32_t tries_left = 0;
        /// The last response held the result. A step that has succeeded is not tried again.
        bool succeeded = false;
        /// The step's result: the user token of LOGIN, the device id of REGISTER_DEVICE.
        std::string value;
    };

    /// What a work state does.
    struct StateHandler {
        /// The cloud method that the step calls, for log lines.
        std::string name;
        /// Not owned; a member of the handler.
        StepProgress* progress = nullptr;
        /// Sends the step's request; true when it is on its way.
        std::function<bool()> action;
        /// The state to enter once the step has succeeded.
        State next_state = LOGIN;
    };

    /// Fills the tables of token types and states. Starts nothing.
    RegistrationHandler();

    /// @name On the daemon's thread, while no registration is in progress
    /// @{

    /// Starts the worker, then resets. False when the worker cannot be started.
    bool init();

    /// Stops and joins the worker. Has to come before destruction.
    void uninit();

    /// Clears the data of the previous registration, and `registration_in_progress` last. `request_id` and
    /// the state table stay. (The worker calls it too, after a success.)
    void reset();

    /// Takes the input of a registration over, and its token type's login step into the table of states.
    /// False when the token type is unknown; the login step is then the previous one.
    bool set_input_params(const RegistrationParameters& params);

    /// Marks the registration as in progress and wakes the worker. The handler has been reset and given its
    /// input. Returns 1, or -1 when the wake-up is lost.
    int start_cloud_registration();

    /// Resumes a failed registration at its first step that has not succeeded, with a fresh budget of tries.
    /// False when the last registration has not failed: `error` then holds the error reply and nothing has
    /// changed.
    bool retry_cloud_registration(std::string& error);

    /// @}
    /// @name On the cloud access object's callback thread
    /// Each may be called only for the response to a request of its step, once. Nothing of the registration
    /// may be touched after it: the worker owns it then.
    /// @{

    /// Stores the outcome of the login step and wakes the worker. `error` is the error reply of a failed step
    /// and empty after a success. Returns 1, or -1 when the wake-up is lost.
    int set_user_token_info(const std::string& user_token, bool success, const std::string& error);

    /// As set_user_token_info(), for the box registration step.
    int set_device_id_info(const std::string& device_id, bool success, const std::string& error);

    /// @}
    /// @name On the worker thread
    /// @{

    /// Acts on the current state; called once for each wake-up byte.
    void run_state_machine();
    /// Enters a state and acts on it at once.
    void advance_state(State next);
    /// Acts on a work state: moves on when its step has succeeded, else tries it. Enters FAIL when the state
    /// has no step, as LOGIN before the first start.
    void handle_crt_state();
    /// Tries the step within its budget, until a request is on its way; enters FAIL when no try is left.
    /// Sleeps `g_retry_interval` seconds before each try but the first of a budget.
    void do_work(StateHandler& step);
    /// Publishes and answers the success, then resets. Enters FAIL when it cannot be published.
    void handle_finish();

    /// Sends the login step's request for a partner token. True when it is on its way: its response is then
    /// the callback thread's. On false `error_response` holds the error reply.
    bool send_connect_request();
    /// As send_connect_request(), for a temporary token.
    bool send_get_device_token_request();
    /// As send_connect_request(), for the box registration step.
    bool send_register_box_request();

    /// Builds the body of a success. Empty on failure; `error_response` then holds the error reply.
    std::string build_success_message();
    /// Publishes the body of a success. False on failure; `error_response` then holds the error reply.
    bool send_cloud_registration_done(const char* text);

    /// @}

    /// The login step of each token type; filled by the constructor.
    std::map<std::string, TokenTypeInfo> token_types;
    /// The state that the next run acts on.
    State state = LOGIN;
    /// True from an accepted command to the end of its run. The only member that two threads may touch at
    /// once.
    std::atomic<bool> registration_in_progress{false};
    /// The step of LOGIN.
    StepProgress login_progress;
    /// The step of REGISTER_DEVICE.
    StepProgress register_progress;
    /// The steps of the work states. That of LOGIN is missing until the first set_input_params().
    std::map<State, StateHandler> states;
    /// The name of the login step that the token type chose.
    std::string first_method;
    /// The requester's token.
    std::string token;
    /// The box's MAC address for the cloud.
    std::string mac;
    /// The error reply of the last result, sent if the registration ends in FAIL.
    std::string error_response;
    /// The request to answer at the end, if it asked for a reply.
    unsigned long long request_id = 0;
    /// Set for a request that waits for a reply, cleared by reset() alone: it outlives a failed registration.
    bool reply_requested = false;
    /// The worker and its pipes.
    RegistrationThread thread;

private:
    void set_in_progress(bool in_progress);
    int store_result(StepProgress& progress, const std::string& value, bool success,
                     const std::string& error);
    // `params` is null when the text could not be made.
    bool send_params(const char* service, const char* method, const char* params, ResponseCallback callback,
                     bool add_connect_fields);
};

} // namespace cv::registration

#endif
