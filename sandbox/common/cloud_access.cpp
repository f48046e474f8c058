#include "common/cloud_access.h"

#include <array>
#include <cstring>
#include <fstream>
#include <iterator>
#include <limits>
#include <stdexcept>
#include <utility>

#include <nlohmann/json.hpp>
#include <pthread.h>

#include "common/json_text.h"

namespace sandbox {

namespace {

using nlohmann::ordered_json;

constexpr long http_ok = 200;
/// Further requests wait for one of the connections; their time-out runs meanwhile.
constexpr long connection_limit = 4;
constexpr std::size_t head_limit = 256 * 1024;

/// The response as it is lent to a callback, together with the bytes that it points at.
struct OwnedResponse : cvtessel_response {
    OwnedResponse(std::uint32_t response_status, std::string text)
        : cvtessel_response{}, bytes(std::move(text)) {
        status = response_status;
        body = bytes.data();
        body_length = static_cast<std::uint32_t>(bytes.size());
    }

    std::string bytes;
};

std::string without_trailing_slash(std::string url) {
    if (!url.empty() && url.back() == '/') {
        url.pop_back();
    }
    return url;
}

void check_url(const std::string& url) {
    const std::unique_ptr<CURLU, Releaser<curl_url_cleanup>> parsed(curl_url());
    char* text = nullptr;
    const bool is_url = curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), 0) == CURLUE_OK &&
                        curl_url_get(parsed.get(), CURLUPART_SCHEME, &text, 0) == CURLUE_OK;
    const std::unique_ptr<char, Releaser<curl_free>> protocol(text);
    if (!is_url || (std::strcmp(text, "http") != 0 && std::strcmp(text, "https") != 0)) {
        throw std::runtime_error("--cloud-url " + url + " is not a URL of the form http://host:port");
    }
}

void check_authorities(const std::string& path) {
    if (path.empty()) {
        return;
    }
    std::ifstream file(path);
    const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    if (text.find("-----BEGIN CERTIFICATE-----") == std::string::npos) {
        throw std::runtime_error("--ca-file " + path + " cannot be read or holds no certificate in PEM form");
    }
}

} // namespace

/// One request on its way.
struct CloudAccess::Transfer : CloudRequest {
    std::string request;
    cvtessel_callback callback;
    void* user_data;

    std::size_t response_limit = 0;
    std::size_t head_length = 0;
    /// Which part of the response is too long.
    std::string too_long;
    std::array<char, CURL_ERROR_SIZE> error{};
    std::unique_ptr<CURL, Releaser<curl_easy_cleanup>> handle;

    /// A handler may send a text of its own making; it goes out all the same, without a name.
    void name_request() {
        const ordered_json document = parse_json(request);
        if (document.is_object() && document.contains("method") && document["method"].is_string()) {
            method = document["method"];
        }
        if (document.is_object() && document.contains("id") && document["id"].is_number_unsigned()) {
            number = document["id"];
        }
    }

    static std::size_t receive(const char* data, std::size_t, std::size_t length, void* context) {
        auto& transfer = *static_cast<Transfer*>(context);
        if (transfer.response.size() + length > transfer.response_limit) {
            transfer.too_long =
                "the response is longer than " + std::to_string(transfer.response_limit) + " bytes";
            return CURL_WRITEFUNC_ERROR;
        }
        transfer.response.append(data, length);
        return length;
    }

    /// libcurl keeps every header, also of provisional responses and those behind a body in chunks.
    static std::size_t receive_head(const char*, std::size_t, std::size_t length, void* context) {
        auto& transfer = *static_cast<Transfer*>(context);
        transfer.head_length += length;
        if (transfer.head_length > head_limit) {
            transfer.too_long =
                "the headers of the response are longer than " + std::to_string(head_limit) + " bytes";
            return CURL_WRITEFUNC_ERROR;
        }
        return length;
    }
};

CloudAccess::CloudAccess(CloudAccessOptions access_options)
    : options(std::move(access_options)), multi(curl_multi_init()),
      json_header(curl_slist_append(nullptr, "Content-Type: application/json")) {
    check_url(options.url);
    check_authorities(options.authorities_file);
    partner_id = options.partner_id;
    curl_multi_setopt(multi.get(), CURLMOPT_MAX_TOTAL_CONNECTIONS, connection_limit);
}

CloudAccess::~CloudAccess() {
    shut_down();
}

void CloudAccess::start() {
    thread = std::thread([this] {
        pthread_setname_np(pthread_self(), "callback");
        serve();
    });
}

void CloudAccess::stop() {
    submitted.close();
}

void CloudAccess::shut_down() {
    stop();
    if (thread.joinable()) {
        thread.join();
    }
}

int CloudAccess::send_request(const char* request, const char* service, cvtessel_callback callback,
                              void* user_data) {
    auto transfer = std::make_unique<Transfer>();
    transfer->request = request;
    transfer->service = service;
    transfer->callback = callback;
    transfer->user_data = user_data;
    transfer->url = without_trailing_slash(options.url) + "/" + transfer->service;
    transfer->name_request();
    if (submitted.put(std::move(transfer))) {
        return 0;
    }
    // A handler that sends again whenever it is called back would never come to an end.
    thread_local bool is_giving_up = false;
    if (is_giving_up) {
        return 1;
    }
    is_giving_up = true;
    give_up(*transfer);
    is_giving_up = false;
    return 0;
}

void CloudAccess::release_response(cvtessel_response* response) {
    delete static_cast<OwnedResponse*>(response);
}

char* CloudAccess::build_request(const char* method, const char* params, unsigned int params_len,
                                 bool add_connect_fields) {
    ordered_json members = ordered_json::object();
    if (params_len > 0) {
        members = parse_json({params, params_len});
    }
    if (!members.is_object()) {
        return nullptr;
    }
    // The members are read on the handler's thread only: it is the one that knows when it has written them.
    if (add_connect_fields) {
        members["user_token"] = user_token;
        members["device_id"] = device_id;
    }
    const std::uint64_t number = ++last_request_number;
    request_built(number, method, std::string_view(params, params_len), add_connect_fields);
    const ordered_json request{{"jsonrpc", "2.0"}, {"id", number}, {"method", method}, {"params", members}};
    return strdup(request.dump(-1, ' ', false, ordered_json::error_handler_t::replace).c_str());
}

int CloudAccess::daemon_operation() {
    return 0;
}

void CloudAccess::serve() {
    for (;;) {
        while (auto transfer = submitted.take()) {
            begin(std::move(*transfer));
        }
        if (submitted.finished()) {
            abandon_all();
            return;
        }
        int running = 0;
        curl_multi_perform(multi.get(), &running);
        collect_ended();
        curl_waitfd mail{submitted.fd(), CURL_WAIT_POLLIN, 0};
        curl_multi_poll(multi.get(), &mail, 1, std::numeric_limits<int>::max(), nullptr);
    }
}

void CloudAccess::begin(std::unique_ptr<Transfer> transfer) {
    transfer->response_limit = options.response_limit;
    transfer->is_sent = true;
    request_sent(*transfer);

    CURL* const handle = curl_easy_init();
    transfer->handle.reset(handle);
    if (handle == nullptr) {
        end(*transfer, CURLE_FAILED_INIT, curl_easy_strerror(CURLE_FAILED_INIT));
        return;
    }
    curl_easy_setopt(handle, CURLOPT_URL, transfer->url.c_str());
    curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "http,https");
    // The simulated cloud listens on the loopback, where no proxy of the environment leads.
    curl_easy_setopt(handle, CURLOPT_NOPROXY, "127.0.0.1,localhost,::1");
    curl_easy_setopt(handle, CURLOPT_HTTPHEADER, json_header.get());
    curl_easy_setopt(handle, CURLOPT_POSTFIELDS, transfer->request.data());
    curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(transfer->request.size()));
    curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS, static_cast<long>(options.request_timeout.count()));
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    // On a connection that was used before, libcurl repeats a request whose answer does not come: to try
    // again is the handler's matter.
    curl_easy_setopt(handle, CURLOPT_FORBID_REUSE, 1L);
    if (!options.authorities_file.empty()) {
        curl_easy_setopt(handle, CURLOPT_CAINFO, options.authorities_file.c_str());
        curl_easy_setopt(handle, CURLOPT_CAPATH, nullptr);
    }
    curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, &Transfer::receive_head);
    curl_easy_setopt(handle, CURLOPT_HEADERDATA, transfer.get());
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &Transfer::receive);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, transfer.get());
    curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, transfer->error.data());
    if (const CURLMcode result = curl_multi_add_handle(multi.get(), handle); result != CURLM_OK) {
        end(*transfer, CURLE_FAILED_INIT, curl_multi_strerror(result));
        return;
    }
    active.emplace(handle, std::move(transfer));
}

void CloudAccess::collect_ended() {
    int left = 0;
    while (const CURLMsg* message = curl_multi_info_read(multi.get(), &left)) {
        const CURLcode result = message->data.result;
        const auto found = active.find(message->easy_handle);
        const std::unique_ptr<Transfer> transfer = std::move(found->second);
        active.erase(found);
        curl_multi_remove_handle(multi.get(), transfer->handle.get());

        long http_status = 0;
        curl_easy_getinfo(transfer->handle.get(), CURLINFO_RESPONSE_CODE, &http_status);
        if (!transfer->too_long.empty()) {
            end(*transfer, CURLE_FILESIZE_EXCEEDED, transfer->too_long);
        } else if (result != CURLE_OK) {
            end(*transfer, result,
                transfer->error.front() != '\0' ? transfer->error.data() : curl_easy_strerror(result));
        } else if (http_status != http_ok) {
            end(*transfer, static_cast<std::uint32_t>(http_status),
                "HTTP status " + std::to_string(http_status));
        } else {
            end(*transfer, 0, "");
        }
    }
}

void CloudAccess::abandon_all() {
    for (const auto& [handle, transfer] : active) {
        curl_multi_remove_handle(multi.get(), handle);
        give_up(*transfer);
    }
    active.clear();
}

void CloudAccess::give_up(Transfer& transfer) {
    end(transfer, CURLE_ABORTED_BY_CALLBACK, "given up because the daemon is stopping");
}

void CloudAccess::end(Transfer& transfer, std::uint32_t status, const std::string& error) {
    transfer.status = status;
    if (status != 0) {
        transfer.failure = transfer.url + ": " + error;
    }
    request_ended(transfer);
    transfer.callback(new OwnedResponse(status, std::move(transfer.response)), transfer.user_data);
}

} // namespace sandbox
