// The binary interface with nothing of the library's declarations: virtual tables as tables of pointers,
// records as bytes at offsets. An operation or a member that moves shows here.

#include <cxxabi.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <typeinfo>
#include <vector>

#include <gtest/gtest.h>
#include <jansson.h>

#include "library_test.h"

using namespace kit;

namespace {

constexpr bool kTarget = sizeof(void*) == 4;

// ---- The records, as the appliance lays them out; on other machines only the pointer is moved.

struct MessageBytes {
    static constexpr std::size_t kName = 4;
    static constexpr std::size_t kRequestId = 264;
    static constexpr std::size_t kPayloadLength = 280;
    static constexpr std::size_t kPayload = kTarget ? 284 : 288;
    static constexpr std::size_t kSize = kTarget ? 288 : 296;

    template <typename T>
    T get(std::size_t offset) const {
        T value;
        std::memcpy(&value, bytes + offset, sizeof value);
        return value;
    }
    template <typename T>
    void set(std::size_t offset, T value) {
        std::memcpy(bytes + offset, &value, sizeof value);
    }

    alignas(8) unsigned char bytes[kSize];
};

struct ResponseBytes {
    static constexpr std::size_t kBody = 8;
    static constexpr std::size_t kBodyLength = kTarget ? 12 : 16;
    static constexpr std::size_t kSize = kTarget ? 16 : 24;

    explicit ResponseBytes(const std::string& body) {
        std::memset(bytes, 0, sizeof bytes);
        std::memset(bytes + 4, 0xFF, 4); // The daemon's own.
        const char* const text = body.c_str();
        const auto length = static_cast<std::uint32_t>(body.length());
        std::memcpy(bytes + kBody, &text, sizeof text);
        std::memcpy(bytes + kBodyLength, &length, sizeof length);
    }

    alignas(8) unsigned char bytes[kSize];
};

// ---- The cloud access object as a raw table

struct RawCloud;
// With the type of its response: the undefined-behaviour sanitizer compares it.
using Callback = void (*)(cvtessel_response* response, void* user_data);

int send_request(RawCloud* self, const char* request, const char* service, Callback callback,
                 void* user_data);
void release_response(RawCloud* self, void* response);
char* build_request(RawCloud* self, const char* method, const char* params, unsigned int length, bool fields);
int publish_message(RawCloud* self, const char* name, const void* data, unsigned int length);
int daemon_operation(RawCloud* self);
int send_response(RawCloud* self, const void* reply);

template <typename Function>
const void* address_of(Function* function) {
    return reinterpret_cast<const void*>(function);
}

// What stands before the operations: how far the table is from the top of its object, and the object's type
// (any will do; the undefined-behaviour sanitizer looks at it).
const void* const cloud_table[] = {
    nullptr,
    &typeid(CvCloudAPI),
    address_of(send_request),
    address_of(release_response),
    address_of(build_request),
    address_of(publish_message),
    address_of(daemon_operation),
    address_of(send_response),
};

struct RawCloud {
    const void* const* table = cloud_table + 2;
    std::string user_token = "none";
    std::string device_id = "none";
    std::string partner_id = "acme";
    // Not seen by the handler: what it handed over last.
    Callback callback = nullptr;
    void* user_data = nullptr;
    void* released = nullptr;
    MessageBytes reply = {};
    std::string reply_payload;
};

int send_request(RawCloud* self, const char* request, const char* service, Callback callback,
                 void* user_data) {
    self->callback = callback;
    self->user_data = user_data;
    journal().record(std::string("slot 0 ") + service + " " + request);
    return 0;
}

void release_response(RawCloud* self, void* response) {
    self->released = response;
    journal().record("slot 1");
}

char* build_request(RawCloud* /*self*/, const char* method, const char* params, unsigned int length,
                    bool fields) {
    journal().record(std::string("slot 2 ") + method + " " + std::string(params, length) +
                     (fields ? " with fields" : ""));
    return strdup("built");
}

int publish_message(RawCloud* /*self*/, const char* name, const void* data, unsigned int length) {
    journal().record(std::string("slot 3 ") + name + " " +
                     std::string(static_cast<const char*>(data), length));
    return 0;
}

int daemon_operation(RawCloud* /*self*/) {
    journal().record("slot 4");
    return 0;
}

int send_response(RawCloud* self, const void* reply) {
    std::memcpy(self->reply.bytes, reply, sizeof self->reply.bytes);
    self->reply_payload.assign(self->reply.get<const char*>(MessageBytes::kPayload),
                               self->reply.get<std::uint32_t>(MessageBytes::kPayloadLength));
    journal().record("slot 5");
    return 0;
}

// ---- The handler's table

class SlotsTest : public ::testing::Test {
protected:
    SlotsTest() {
        reset_host();
        object = library.symbol("g_handler_api");
        std::memcpy(&table, object, sizeof table);
    }
    ~SlotsTest() override {
        call<2, void>();
    }

    template <std::size_t kSlot, typename Result, typename... Arguments>
    Result call(Arguments... arguments) {
        return reinterpret_cast<Result (*)(void*, Arguments...)>(table[kSlot])(object, arguments...);
    }

    HandlerLibrary library;
    RawCloud cloud;
    void* object = nullptr;
    void** table = nullptr;
    std::vector<std::string> commands;
};

} // namespace

TEST_F(SlotsTest, HandlerIsOneClassDerivedFromTheDaemons) {
    EXPECT_EQ(table[-2], nullptr) << "the handler's base is not at the top of the object";
    const auto* const type = static_cast<const std::type_info*>(table[-1]);
    EXPECT_STREQ(type->name(), "15HandlerAPI_impl");
    const auto* const single = dynamic_cast<const abi::__si_class_type_info*>(type);
    ASSERT_NE(single, nullptr);
    EXPECT_STREQ(single->__base_type->name(), "12CvHandlerAPI");
}

TEST_F(SlotsTest, InheritedOperationsLeaveTheirArgumentAlone) {
    commands = {"other"};
    call<1, void>(&commands);
    EXPECT_EQ(commands, std::vector<std::string>{"other"});
    json_t* const command = json_pack("{s:s}", "token", "T");
    call<4, void>(command);
    EXPECT_EQ(command->refcount, 1U);
    EXPECT_EQ(json_object_size(command), 1U);
    json_decref(command);
    EXPECT_TRUE(journal().events().empty());
}

TEST_F(SlotsTest, RegistrationRunsThroughTheSlotsAlone) {
    constexpr std::uint64_t kRequestId = 0x1122334455667788;
    const std::string done = R"({"result": "ok", "user_token": "U", "device_id": "D"})";
    const std::string payload =
        R"({"token": "T", "token_type": "partner", "register_mac_address": "0a:1b:2c:3d:4e:5f"})";
    ASSERT_NE((call<0, int>(static_cast<void*>(&cloud), &commands)), 0);
    EXPECT_EQ(commands, (std::vector<std::string>{"start_cloud_registration", "retry_cloud_registration"}));

    MessageBytes start;
    std::memset(start.bytes, 0xFF, sizeof start.bytes);
    start.set<std::int32_t>(0, 2);
    std::strcpy(reinterpret_cast<char*>(start.bytes + MessageBytes::kName), "start_cloud_registration");
    start.set(MessageBytes::kRequestId, kRequestId);
    start.set(MessageBytes::kPayloadLength, static_cast<std::uint32_t>(payload.length()));
    start.set(MessageBytes::kPayload, payload.c_str());
    call<3, void>(static_cast<const void*>(&start));
    EXPECT_EQ(cloud.user_token, "T");
    EXPECT_EQ(cloud.device_id, "thebox");

    Await("slot 0 connect/login built");
    std::uint64_t block = 0;
    std::memcpy(&block, cloud.user_data, sizeof block);
    EXPECT_EQ(block, kRequestId);
    const std::string user_token = R"({"result": {"user_token": "U"}})";
    ResponseBytes login(user_token);
    cloud.callback(reinterpret_cast<cvtessel_response*>(&login), cloud.user_data);
    EXPECT_EQ(cloud.released, &login);

    Await("slot 0 connect/box_mgmt built");
    EXPECT_EQ(cloud.user_token, "U");
    const std::string device_id = R"({"result": {"device_id": "D"}})";
    ResponseBytes registration(device_id);
    cloud.callback(reinterpret_cast<cvtessel_response*>(&registration), cloud.user_data);
    EXPECT_EQ(cloud.released, &registration);
    EXPECT_EQ(cloud.device_id, "D");

    AwaitEndOfRun("slot 5");
    EXPECT_EQ(
        journal().events({"slot 0", "slot 2", "slot 3", "slot 4", "slot 5"}),
        (std::vector<std::string>{
            R"(slot 2 connect {"partner_user_token": "T", "partner_id": "acme"})",
            "slot 0 connect/login built",
            R"(slot 2 register_box {"macs": ["0A:1B:2C:3D:4E:5F"], "box_detected_name": "Corvane Orlo", )"
            R"("setup_type": "STANDALONE", "device_model": "orlov2"} with fields)",
            "slot 0 connect/box_mgmt built",
            "slot 3 cloud_registration_done " + done,
            "slot 5",
        }));
    EXPECT_EQ(journal().count("slot 1"), 2U);

    // The reply's bytes: what is not a field is zero.
    MessageBytes expected = {};
    expected.bytes[MessageBytes::kName] = '0';
    expected.set(MessageBytes::kRequestId, kRequestId);
    expected.set(MessageBytes::kPayloadLength, static_cast<std::uint32_t>(done.length()));
    expected.set(MessageBytes::kPayload, cloud.reply.get<const char*>(MessageBytes::kPayload));
    EXPECT_EQ(std::memcmp(cloud.reply.bytes, expected.bytes, sizeof expected.bytes), 0);
    EXPECT_EQ(cloud.reply_payload, done);
}
