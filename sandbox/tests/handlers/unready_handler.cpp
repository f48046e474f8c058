// A handler whose init() fails; built once as a mandatory handler and once as one that the daemon can do
// without.

#include <string>
#include <vector>

#include "cvcloud/cvhandler_api.h"

namespace {

class UnreadyHandler final : public CvHandlerAPI {
public:
    int init(CvCloudAPI* /*api*/, std::vector<std::string>& commands) override {
        commands.emplace_back("never_delivered");
        return 0;
    }

    void uninit() override {}

    void handle(const Message* /*message*/) override {}
};

UnreadyHandler handler;

} // namespace

extern "C" {

unsigned char mandatory_cloud_handler = IS_MANDATORY;

CvHandlerAPI* get_handler_api() {
    return &handler;
}
}
