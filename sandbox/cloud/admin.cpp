#include "cloud/admin.h"

#include <cstdio>
#include <memory>
#include <stdexcept>

#include <curl/curl.h>

#include "common/command_line.h"
#include "common/json_text.h"

namespace cloud {

namespace {

constexpr long control_timeout_seconds = 10;

Response to_response(const Json& document, unsigned status = MHD_HTTP_OK) {
    Response response;
    response.status = status;
    response.body = document.dump(-1, ' ', false, Json::error_handler_t::replace);
    return response;
}

Response add_faults(CloudService& service, const std::string& body) {
    try {
        service.add_faults(sandbox::parse_json(body).get<std::vector<std::string>>());
        return to_response(service.faults_left());
    } catch (const std::invalid_argument& error) {
        return to_response({{"error", error.what()}}, MHD_HTTP_BAD_REQUEST);
    } catch (const Json::exception&) {
        return to_response({{"error", "the request is not an array of texts"}}, MHD_HTTP_BAD_REQUEST);
    }
}

std::size_t append(const char* data, std::size_t, std::size_t length, void* body) {
    static_cast<std::string*>(body)->append(data, length);
    return length;
}

/// The body of the answer, or an empty text when nobody answers or it is no success.
std::string request(const std::string& method, const std::string& url, const std::string& body) {
    const std::unique_ptr<CURL, void (*)(CURL*)> handle(curl_easy_init(), &curl_easy_cleanup);
    std::string answer;
    curl_easy_setopt(handle.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(handle.get(), CURLOPT_PROTOCOLS_STR, "http");
    curl_easy_setopt(handle.get(), CURLOPT_NOPROXY, "*");
    curl_easy_setopt(handle.get(), CURLOPT_CUSTOMREQUEST, method.c_str());
    if (!body.empty()) {
        curl_easy_setopt(handle.get(), CURLOPT_POSTFIELDS, body.c_str());
    }
    curl_easy_setopt(handle.get(), CURLOPT_FAILONERROR, 1L);
    curl_easy_setopt(handle.get(), CURLOPT_TIMEOUT, control_timeout_seconds);
    curl_easy_setopt(handle.get(), CURLOPT_WRITEFUNCTION, &append);
    curl_easy_setopt(handle.get(), CURLOPT_WRITEDATA, &answer);
    return curl_easy_perform(handle.get()) == CURLE_OK ? answer : std::string();
}

} // namespace

std::string check_fault(const std::string& text) {
    try {
        FaultPlan().add(text);
        return {};
    } catch (const std::invalid_argument& error) {
        return error.what();
    }
}

Response administer(CloudService& service, WebServer& server, const Request& request) {
    const std::string called = request.method + " " + request.path;
    if (called == "POST /faults") {
        return add_faults(service, request.body);
    }
    if (called == "GET /faults") {
        return to_response(service.faults_left());
    }
    if (called == "DELETE /faults") {
        service.clear_faults();
        server.release();
        return to_response(Json::array());
    }
    if (called == "GET /requests") {
        return to_response(service.latest_requests());
    }
    return to_response({{"error", "there is no " + called}}, MHD_HTTP_NOT_FOUND);
}

Control::Control(CLI::App& program) : app(program) {
    control = app.add_subcommand("ctl", "Administer a running cloud");
    control->require_subcommand(1);
    control->add_option("--admin-url", url, "The admin URL that the cloud printed, http://127.0.0.1:PORT")
        ->type_name("URL")
        ->envname("CVCLOUD_SIM_ADMIN_URL")
        ->required();
    fault = control->add_subcommand("fault", "Add faults behind those that are there");
    fault->add_option("fault", fault_texts, "METHOD[*COUNT]=KIND[:ARGUMENT], see cvcloud-sim --help")
        ->type_name("")
        ->check(CLI::Validator(&check_fault, ""))
        ->required();
    faults = control->add_subcommand("faults", "Show the faults that no request has taken yet");
    clear = control->add_subcommand("clear", "Forget all faults, and answer what a fault holds up");
    requests = control->add_subcommand("requests", "Show the latest requests, one JSON object a line");
    for (CLI::App* command : {fault, faults, clear, requests}) {
        command->fallthrough();
    }
}

bool Control::is_wanted() const {
    return control->parsed();
}

int Control::run() const {
    const std::string text = fault->parsed()      ? request("POST", url + "/faults", Json(fault_texts).dump())
                             : clear->parsed()    ? request("DELETE", url + "/faults", "")
                             : requests->parsed() ? request("GET", url + "/requests", "")
                                                  : request("GET", url + "/faults", "");
    const Json answer = sandbox::parse_json(text);
    if (!answer.is_array()) {
        sandbox::print_problem(app, "no cvcloud-sim is administered at " + url +
                                        ": correct --admin-url or start it");
        return 1;
    }
    for (const Json& item : answer) {
        std::printf("%s\n", item.is_string() ? item.get<std::string>().c_str() : item.dump().c_str());
    }
    return 0;
}

} // namespace cloud
