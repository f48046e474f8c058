#include "handler_library.h"

#include <dirent.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "await.h"
#include "fake_cvutils.h"
#include "journal.h"

namespace {

// No test can go on without what it looks up in the library.
void* required(void* found) {
    if (found == nullptr) {
        std::fprintf(stderr, "%s\n", dlerror());
        std::abort();
    }
    return found;
}

} // namespace

const char* const HandlerLibrary::built = CV_HANDLER_LIBRARY;

HandlerLibrary::HandlerLibrary(const std::string& path, int scope)
    : library(required(dlopen(path.c_str(), RTLD_NOW | scope))) {
    handler_object = reinterpret_cast<CvHandlerAPI* (*)()>(symbol("get_handler_api"))();
}

HandlerLibrary::~HandlerLibrary() {
    EXPECT_EQ(dlclose(library), 0);
}

void* HandlerLibrary::symbol(const char* name) const {
    return required(dlsym(library, name));
}

bool HandlerLibrary::in_memory() {
    void* const loaded = dlopen(built, RTLD_NOW | RTLD_NOLOAD);
    if (loaded != nullptr) {
        dlclose(loaded);
    }
    return loaded != nullptr;
}

void send_command(CvHandlerAPI& handler, const std::string& name, const std::string& payload, int type,
                  unsigned long long request_id) {
    const auto bytes = std::make_unique<char[]>(payload.length());
    std::copy(payload.begin(), payload.end(), bytes.get());
    const auto message = std::make_unique<Message>();
    message->type = type;
    std::strncpy(message->name, name.c_str(), sizeof message->name - 1);
    message->request_id = request_id;
    message->payload_len = static_cast<std::uint32_t>(payload.length());
    message->payload = bytes.get();
    handler.handle(message.get());
}

void ExpectTraffic(const std::vector<std::string>& events) {
    EXPECT_EQ(fake_host::journal().events({"build_request", "send_request", "publish", "reply", "sleep"}),
              events);
}

void AwaitEndOfRun(const std::string& event, std::size_t times) {
    fake_host::Await(event, times);
    // The worker waits in select() once more after the run.
    const std::vector<std::string> events = fake_host::journal().events();
    auto position = events.begin();
    for (std::size_t seen = 0; position != events.end() && seen < times; ++position) {
        seen += *position == event ? 1U : 0U;
    }
    fake_host::Await("select", static_cast<std::size_t>(std::count(events.begin(), position, "select")) + 1);
}

std::set<std::string> names_in(const char* directory) {
    std::set<std::string> names;
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(opendir(directory), closedir);
    while (const dirent* entry = readdir(stream.get())) {
        names.insert(entry->d_name);
    }
    return names;
}

LibraryTest::LibraryTest() {
    fake_host::reset_cvutils();
    fake_host::journal().clear();
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

void LibraryTest::Answer(const std::string& service, const std::string& body) {
    fake_host::Await("send_request " + service, ++answered[service]);
    ASSERT_TRUE(cloud.answer_from_own_thread({body}));
}
