#include "compared_host.h"

#include <algorithm>
#include <vector>

#include "cvutils/log.h"
#include "cvutils_stand_in.h"
#include "journal.h"

namespace kit {

using Worker = Oracle::Worker;

ComparedHost::ComparedHost(CvHandlerAPI& daemons_handler, const Settings& settings)
    : handler(daemons_handler), oracle(settings) {
    reset_cvutils();
    journal().clear();
    store(settings);
    partner_id = settings.partner_id;
    std::vector<std::string> commands;
    if (handler.init(this, commands) != 0) {
        oracle.start_up();
        journal().await("select");
    }
    journal().clear();
}

ComparedHost::~ComparedHost() {
    handler.uninit();
}

std::string ComparedHost::command(int type, const std::string& name, unsigned long long request_id,
                                  const std::string& payload) {
    oracle.command(type, name, request_id, payload);
    is_accepted = oracle.snapshot().wake_ups != 0;
    foresee_run();
    send_command(handler, name, payload, type, request_id);
    return difference(is_accepted);
}

std::string ComparedHost::respond(const Answer& answer, bool own_thread) {
    if (oracle.outstanding() == 0) {
        return "no request is due";
    }
    oracle.respond(0, answer.status, answer.body);
    foresee_run();
    if (!(own_thread ? answer_from_own_thread(answer) : this->answer(answer))) {
        return "there is no request to answer";
    }
    return difference(true);
}

void ComparedHost::foresee_run() {
    if (oracle.snapshot().wake_ups == 0) {
        return;
    }
    const auto decided = [this](Operation operation) {
        const bool success = succeeds(operation);
        script(operation, success ? 0 : -1);
        return success;
    };
    oracle.run();
    while (oracle.worker() != Worker::waiting) {
        switch (oracle.worker()) {
        case Worker::pausing:
            oracle.pause_over();
            break;
        case Worker::building:
            oracle.built(decided(Operation::build));
            break;
        case Worker::sending: {
            const bool accepted = decided(Operation::send);
            if (accepted) {
                oracle.accept();
            }
            oracle.sent(accepted);
            break;
        }
        case Worker::publishing:
            oracle.published(decided(Operation::publish));
            break;
        default:
            oracle.replied();
        }
    }
}

std::string ComparedHost::difference(bool worker_runs) {
    if (worker_runs && !journal().await("select")) {
        return "the worker does not come back";
    }
    std::vector<std::string>& due = oracle.effects;
    // The callback may give the response back after the worker has gone on.
    due.erase(std::remove_if(due.begin(), due.end(),
                             [](const std::string& effect) {
                                 return effect == "wake-up" || effect == "release_response" ||
                                        (cv::log::current_level < 1 && effect.rfind("log 1", 0) == 0);
                             }),
              due.end());
    const std::vector<std::string> seen =
        journal().events({"build_request", "send_request", "publish", "reply", "sleep", "log 0", "log 1"});
    std::string text;
    if (seen != due) {
        text = "due was:";
        for (const std::string& effect : due) {
            text += "\n  " + effect;
        }
        text += "\nand this was seen:";
        for (const std::string& effect : seen) {
            text += "\n  " + effect;
        }
    } else if (journal().count("select") != (worker_runs ? 1U : 0U)) {
        text = "the worker woke without a reason";
    } else if (lent_responses() != 0 || outstanding().size() != oracle.outstanding()) {
        text = "a response or a request is left";
    } else if (user_token != oracle.snapshot().user_token || device_id != oracle.snapshot().device_id) {
        text = "the cloud access object's token or identity is another";
    }
    oracle.waits();
    due.clear();
    journal().clear();
    return text;
}

} // namespace kit
