#include "library_test.h"

#include <algorithm>

namespace kit {

void AwaitEndOfRun(const std::string& event, std::size_t times) {
    Await(event, times);
    // The worker waits in select() once more after the run.
    const std::vector<std::string> events = journal().events();
    auto position = events.begin();
    for (std::size_t seen = 0; position != events.end() && seen < times; ++position) {
        seen += *position == event ? 1U : 0U;
    }
    Await("select", static_cast<std::size_t>(std::count(events.begin(), position, "select")) + 1);
}

void reset_host() {
    calls::reset(false);
    reset_cvutils();
    journal().clear();
}

LibraryTest::LibraryTest() {
    reset_host();
    cloud.user_token = "none";
    cloud.device_id = "none";
    cloud.partner_id = "acme";
    library = std::make_unique<HandlerLibrary>();
}

LibraryTest::~LibraryTest() {
    library->handler().uninit();
    library.reset();
    EXPECT_FALSE(HandlerLibrary::in_memory());
    EXPECT_EQ(cloud.lent_responses(), 0U);
}

void LibraryTest::Start() {
    ASSERT_NE(library->handler().init(&cloud, commands), 0);
}

void LibraryTest::Answer(const std::string& service, const std::string& body, std::uint32_t status) {
    Await("send_request " + service, ++answered[service]);
    ASSERT_TRUE(cloud.answer_from_own_thread({body, status}));
}

void LibraryTest::RegisterBox(unsigned long long request_id) {
    start_registration(text::kStart, kWithReply, request_id);
    Answer(text::kLoginService, text::kUserToken);
    Answer(text::kBoxService, text::kDeviceId);
    AwaitEndOfRun(reply_event(request_id, text::kDone));
}

} // namespace kit
