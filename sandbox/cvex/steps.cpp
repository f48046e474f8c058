#include "cvex/steps.h"

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string_view>

#include <nlohmann/json.hpp>
#include <sys/ioctl.h>
#include <unistd.h>

#include "common/json_text.h"
#include "common/printable.h"

namespace cvex {

namespace {

using Clock = std::chrono::steady_clock;

class PlainSteps final : public Steps {
public:
    void sent_command(const std::string& name) override {
        std::printf("%s sent\n", name.c_str());
    }

private:
    void end(const std::string& successful_reply) override {
        if (!successful_reply.empty()) {
            std::printf("reply              %s\n", successful_reply.c_str());
        }
    }
    void sent_request(const std::string& method, int number, const std::string& service) override {
        std::printf("%-18s try %d sent to %s\n", method.c_str(), number, service.c_str());
    }
    void ended_request(const std::string& method, int number, const std::string& error) override {
        std::printf("%-18s try %d %s%s\n", method.c_str(), number,
                    error.empty() ? "answered" : "failed: ", error.c_str());
    }
    void published(const std::string& name, const std::string& payload) override {
        std::printf("published          %s %s\n", name.c_str(), payload.c_str());
    }
};

struct Signs {
    std::array<const char*, 4> spinner;
    const char* tick;
    const char* cross;
};

constexpr Signs ascii_signs{{"|", "/", "-", "\\"}, "+", "x"};
constexpr Signs utf8_signs{{"◐", "◓", "◑", "◒"}, "✔", "✘"};

constexpr const char* green = "\033[32m";
constexpr const char* red = "\033[31m";
constexpr const char* cyan = "\033[36m";
constexpr const char* plain = "\033[0m";
constexpr const char* clear_line = "\r\033[K";

/// So many characters of a UTF-8 text.
std::string beginning(const std::string& text, std::size_t characters) {
    std::size_t end = 0;
    for (; end < text.size(); ++end) {
        const bool begins_character = (text[end] & 0xC0) != 0x80;
        if (begins_character && characters-- == 0) {
            break;
        }
    }
    return text.substr(0, end);
}

class LiveSteps final : public Steps {
public:
    LiveSteps(const Signs& used_signs, bool has_colours) : signs(used_signs), colours(has_colours) {}
    ~LiveSteps() override {
        finish_line(false, "");
    }
    LiveSteps(const LiveSteps&) = delete;
    LiveSteps& operator=(const LiveSteps&) = delete;

    void sent_command(const std::string& name) override {
        command = name;
        begun = Clock::now();
        start(name, begun);
    }
    void tick() override {
        if (line.empty() && !failed_method.empty()) {
            start(failed_method + "  pause before try " + std::to_string(failed_number + 1), failed_at);
            is_pause = true;
        }
        if (!line.empty()) {
            turn = (turn + 1) % signs.spinner.size();
            draw();
        }
    }

private:
    void sent_request(const std::string& method, int number, const std::string&) override {
        start(method + "  try " + std::to_string(number), Clock::now());
    }
    void answered_request() override {
        answered_at = Clock::now();
    }
    void ended_request(const std::string& method, int number, const std::string& error) override {
        finish_line(error.empty(), error);
        // After the last try the reply comes at once, and there is no pause to show.
        if (!error.empty()) {
            failed_method = method;
            failed_number = number;
            failed_at = Clock::now();
        }
    }
    void published(const std::string& name, const std::string&) override {
        start("published  " + name, Clock::now());
        finish_line(true, "");
    }
    void end(const std::string& successful_reply) override {
        const bool success = !successful_reply.empty();
        // A request whose end was not reported, or a pause that did not lead to another try.
        if (line != command && !is_pause) {
            finish_line(success, "");
        }
        start(command, begun);
        finish_line(success, successful_reply);
    }

    /// Takes the place of the line that is alive.
    void start(const std::string& text, Clock::time_point from) {
        line = text;
        since = from;
        is_pause = false;
        answered_at.reset();
        failed_method.clear();
        draw();
    }

    std::string elapsed() const {
        std::array<char, 32> text{};
        std::snprintf(text.data(), text.size(), "  %.1f s",
                      std::chrono::duration<double>(answered_at.value_or(Clock::now()) - since).count());
        return text.data();
    }

    void draw() const {
        winsize size{};
        const bool is_known = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
        const std::size_t width = is_known ? size.ws_col : 80;
        // The sign, a space, and the last column, after which some terminals go on to the next line.
        const std::size_t room = width > 3 ? width - 3 : 0;
        std::printf("%s%s %s", clear_line, coloured(signs.spinner[turn], cyan).c_str(),
                    beginning(line + elapsed(), room).c_str());
        std::fflush(stdout);
    }

    void finish_line(bool success, const std::string& remark) {
        if (line.empty()) {
            return;
        }
        const std::string sign = success ? coloured(signs.tick, green) : coloured(signs.cross, red);
        std::printf("%s%s %s%s%s%s\n", clear_line, sign.c_str(), line.c_str(), elapsed().c_str(),
                    remark.empty() ? "" : "  ", remark.c_str());
        std::fflush(stdout);
        line.clear();
    }

    std::string coloured(const char* sign, const char* colour) const {
        return colours ? std::string(colour) + sign + plain : sign;
    }

    const Signs& signs;
    const bool colours;
    std::string command;
    Clock::time_point begun;
    /// The line that is alive; empty when there is none.
    std::string line;
    bool is_pause = false;
    /// The try that has failed; empty again when something else has happened.
    std::string failed_method;
    int failed_number = 0;
    Clock::time_point failed_at;
    Clock::time_point since;
    std::optional<Clock::time_point> answered_at;
    std::size_t turn = 0;
};

std::string shown(const std::string& text) {
    return sandbox::printable_on(STDOUT_FILENO, text);
}

std::string text_member(const nlohmann::json& document, const char* key) {
    const auto member = document.find(key);
    return member != document.end() && member->is_string() ? shown(*member) : std::string();
}

std::string_view environment(const char* name) {
    const char* const value = std::getenv(name);
    return value != nullptr ? value : "";
}

} // namespace

void Steps::tell(const PublishedMessage& message) {
    if (message.name == "cloud_registration_done") {
        end_answered("");
        published(message.name, shown(message.payload));
    }
    if (message.name != progress_message) {
        return;
    }
    const nlohmann::json progress = sandbox::parse_json<nlohmann::json>(message.payload);
    const std::string method = text_member(progress, "method");
    if (text_member(progress, "event") == "sent") {
        end_answered(method == answered ? "the answer was of no use" : "");
        sent_request(method, ++tries[method], text_member(progress, "service"));
        return;
    }
    const std::string error = text_member(progress, "error");
    const auto status = progress.find("status");
    last_error = status != progress.end() && *status != 0 ? error : "";
    if (error.empty()) {
        answered = method;
        answered_request();
    } else {
        ended_request(method, tries[method], error);
    }
}

void Steps::end_answered(const std::string& error) {
    if (!answered.empty()) {
        ended_request(answered, tries[answered], error);
        answered.clear();
    }
}

void Steps::finish(const std::string& successful_reply, const std::string& reason) {
    end_answered(successful_reply.empty() ? shown(reason) : "");
    end(successful_reply);
}

std::unique_ptr<Steps> make_steps() {
    const std::string_view terminal = environment("TERM");
    if (isatty(STDOUT_FILENO) == 0 || terminal.empty() || terminal == "dumb") {
        return std::make_unique<PlainSteps>();
    }
    return std::make_unique<LiveSteps>(sandbox::has_utf8_locale() ? utf8_signs : ascii_signs,
                                       environment("NO_COLOR").empty());
}

} // namespace cvex
