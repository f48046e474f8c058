// A handler of somebody else's, as the installed declarations let him write it: it answers the command
// "hello".
#include <cvcloud/cvhandler_api.h>

class HelloHandler : public CvHandlerAPI {
public:
    int init(CvCloudAPI* api, std::vector<std::string>& commands) override {
        cloud = api;
        commands.emplace_back("hello");
        return 1;
    }
    void uninit() override {}
    void handle(const Message* message) override {
        static const std::string text = "{\"result\": \"ok\"}";
        Message reply = {};
        reply.request_id = message->request_id;
        reply.payload_len = static_cast<std::uint32_t>(text.size());
        reply.payload = text.data();
        cloud->send_response(&reply);
    }

private:
    CvCloudAPI* cloud = nullptr;
};

extern "C" CvHandlerAPI* get_handler_api() {
    static HelloHandler handler;
    return &handler;
}
