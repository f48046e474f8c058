#include "cloud/admin.h"

#include <cstdio>
#include <stdexcept>

#include "common/command_line.h"

namespace cloud {

namespace {

constexpr int http_ok = 200;
constexpr int http_bad_request = 400;

void set_json(httplib::Response& response, const Json& document) {
    response.set_content(document.dump(-1, ' ', false, Json::error_handler_t::replace), json_type);
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

void serve_administration(WebServer& server, CloudService& service, Transport& transport) {
    httplib::Server& routes = server.routes();
    routes.Post("/faults", [&service](const httplib::Request& request, httplib::Response& response) {
        const Json texts = Json::parse(request.body, nullptr, false);
        try {
            service.add_faults(texts.get<std::vector<std::string>>());
            set_json(response, service.faults_left());
        } catch (const std::invalid_argument& error) {
            response.status = http_bad_request;
            set_json(response, {{"error", error.what()}});
        } catch (const Json::exception&) {
            response.status = http_bad_request;
            set_json(response, {{"error", "the request is not an array of texts"}});
        }
    });
    routes.Get("/faults", [&service](const httplib::Request&, httplib::Response& response) {
        set_json(response, service.faults_left());
    });
    routes.Delete("/faults", [&transport](const httplib::Request&, httplib::Response& response) {
        transport.clear_faults();
        set_json(response, Json::array());
    });
    routes.Get("/requests", [&service](const httplib::Request&, httplib::Response& response) {
        set_json(response, service.latest_requests());
    });
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
    httplib::Client client(url);
    const httplib::Result result = fault->parsed()
                                       ? client.Post("/faults", Json(fault_texts).dump(), json_type)
                                   : clear->parsed()    ? client.Delete("/faults")
                                   : requests->parsed() ? client.Get("/requests")
                                                        : client.Get("/faults");
    const Json answer = result ? Json::parse(result->body, nullptr, false) : Json();
    if (!result || result->status != http_ok || !answer.is_array()) {
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
