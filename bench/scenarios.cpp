#include "scenarios.h"

#include <utility>

#include "cvutils/log.h"
#include "handler_library.h"
#include "process.h"

using kit::die;
using kit::LeanHost;

void start_measuring() {
    kit::mark_thread(kit::Role::daemon);
    cv::log::current_level = 0;
    kit::idle_system();
}

CvHandlerAPI& load_handler(const char* path) {
    return (new kit::HandlerLibrary(path))->handler();
}

Exchange::Exchange(const std::string& token_type, std::size_t token_length, std::size_t user_token_length)
    : payload(R"({"token": ")" + std::string(token_length, 't') + R"(", "token_type": ")" + token_type +
              R"(", "register_mac_address": "0a:1b:2c:3d:4e:5f"})"),
      login_answer(R"({"jsonrpc": "2.0", "id": 1, "result": {"user_token": ")" +
                   std::string(user_token_length, 'u') + R"("}})"),
      box_answer(R"({"jsonrpc": "2.0", "id": 2, "result": {"device_id": "box-0123456789abcdef"}})") {}

void init(LeanHost& host, CvHandlerAPI& handler) {
    host.init(handler);
    worker_idle().wait();
}

void answer_requests(LeanHost& host, const Exchange& exchange) {
    host.answer(exchange.login_answer);
    worker_idle().wait();
    host.answer(exchange.box_answer);
    worker_idle().wait();
}

void finish(LeanHost& host, const Exchange& exchange) {
    worker_idle().wait();
    answer_requests(host, exchange);
    expect_replies(host, 1);
}

void register_box(LeanHost& host, CvHandlerAPI& handler, const Exchange& exchange) {
    const int published_before = host.published;
    host.command(handler, "start_cloud_registration", exchange.payload);
    finish(host, exchange);
    if (host.published != published_before + 1) {
        die("a registration did not succeed");
    }
}

void expect_replies(LeanHost& host, int expected) {
    const int replies = std::exchange(host.replies, 0);
    if (replies != expected) {
        die("there should be " + std::to_string(expected) + " replies, not " + std::to_string(replies));
    }
}

void run_scenario(LeanHost& host, CvHandlerAPI& handler, const std::string& scenario, long count,
                  std::size_t token_length, std::size_t user_token_length) {
    if (scenario == "partner" || scenario == "temporary") {
        const Exchange exchange(scenario, token_length, user_token_length);
        for (long done = 0; done < count; ++done) {
            register_box(host, handler, exchange);
        }
        return;
    }
    const Exchange exchange;
    const bool busy = scenario == "in_progress";
    const char* name = "start_cloud_registration";
    std::string payload = exchange.payload;
    if (busy) {
        host.command(handler, name, payload);
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
        expect_replies(host, 1);
    }
    if (busy) {
        finish(host, exchange);
    }
}
