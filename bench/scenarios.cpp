#include "scenarios.h"

void run_scenario(LeanHost& host, CvHandlerAPI& handler, const std::string& scenario, long count,
                  std::size_t token_length, std::size_t user_token_length) {
    if (scenario == "partner" || scenario == "temporary") {
        const Exchange exchange(scenario, token_length, user_token_length);
        for (long done = 0; done < count; ++done) {
            host.register_box(handler, exchange);
        }
        return;
    }
    const Exchange exchange;
    const bool busy = scenario == "in_progress";
    const char* name = "start_cloud_registration";
    std::string payload = exchange.payload;
    if (busy) {
        host.command(handler, name, payload);
        worker_idle().wait();
    } else if (scenario == "unknown_command") {
        name = "ping";
    } else if (scenario == "not_json") {
        payload = "no JSON";
    } else if (scenario == "empty_token") {
        payload = R"({"token": "", "token_type": "partner"})";
    } else if (scenario == "retry_without_failure") {
        name = "retry_cloud_registration";
    } else {
        die("no scenario is called '" + scenario + "'");
    }
    for (long done = 0; done < count; ++done) {
        host.command(handler, name, payload);
        host.expect_replies(1);
    }
    if (busy) {
        host.answer(exchange.login_answer);
        worker_idle().wait();
        host.answer(exchange.box_answer);
        worker_idle().wait();
        host.expect_replies(1);
    }
}
