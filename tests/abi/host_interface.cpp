// What the library takes for granted of the appliance's declarations: each operation, member and function
// that it uses, with its exact type. check_host_interface.py compiles it against a directory of headers.

#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

#include <jansson.h>

#include "cvcloud/cvcloud_api.h"
#include "cvcloud/cvhandler_api.h"
#include "cvcloud/message.h"
#include "cvutils/json.h"
#include "cvutils/log.h"
#include "cvutils/network.h"
#include "cvutils/settings.h"

#define SAME_TYPE(what, ...)                                                                                 \
    static_assert(std::is_same_v<decltype(what), __VA_ARGS__>, #what " has another type")

// A pointer to a virtual operation holds its slot, which check_host_interface.py reads from the compiled
// file.
#define OPERATION(type, name, ...)                                                                           \
    SAME_TYPE(&type::name, __VA_ARGS__);                                                                     \
    extern "C" __attribute__((used)) constexpr auto slot_##type##_##name = &type::name

#define MEMBER(record, member, place, ...)                                                                   \
    SAME_TYPE(record::member, __VA_ARGS__);                                                                  \
    static_assert(offsetof(record, member) == (place), #record "::" #member " lies elsewhere")

// A function is chosen among its overloads by its type, the result's too.
#define FUNCTION(what, ...) extern "C" __attribute__((used)) constexpr __VA_ARGS__ = &what

using Callback = void (*)(cvtessel_response*, void*);
using Strings = std::vector<std::string>;

OPERATION(CvHandlerAPI, init, int (CvHandlerAPI::*)(CvCloudAPI*, Strings&));
OPERATION(CvHandlerAPI, subscribe_for_cmds, void (CvHandlerAPI::*)(Strings&));
OPERATION(CvHandlerAPI, uninit, void (CvHandlerAPI::*)());
OPERATION(CvHandlerAPI, handle, void (CvHandlerAPI::*)(const Message*));
OPERATION(CvHandlerAPI, handle_cmd, void (CvHandlerAPI::*)(json_t*));
static_assert(sizeof(CvHandlerAPI) == sizeof(void*), "CvHandlerAPI has data members");
static_assert(!std::has_virtual_destructor_v<CvHandlerAPI>, "CvHandlerAPI has a virtual destructor");

OPERATION(CvCloudAPI, send_request, int (CvCloudAPI::*)(const char*, const char*, Callback, void*));
OPERATION(CvCloudAPI, release_response, void (CvCloudAPI::*)(cvtessel_response*));
OPERATION(CvCloudAPI, build_request, char* (CvCloudAPI::*)(const char*, const char*, unsigned int, bool));
OPERATION(CvCloudAPI, publish_message, int (CvCloudAPI::*)(const char*, const void*, unsigned int));
OPERATION(CvCloudAPI, send_response, int (CvCloudAPI::*)(const Message*));
SAME_TYPE(CvCloudAPI::user_token, std::string);
SAME_TYPE(CvCloudAPI::device_id, std::string);
SAME_TYPE(CvCloudAPI::partner_id, std::string);

MEMBER(Message, type, 0, std::int32_t);
MEMBER(Message, name, 4, char[260]);
MEMBER(Message, request_id, 264, std::uint64_t);
MEMBER(Message, payload_len, 280, std::uint32_t);
MEMBER(Message, payload, sizeof(void*) == 4 ? 284 : 288, const char*);
static_assert(sizeof(Message) == (sizeof(void*) == 4 ? 288 : 296), "Message has another size");

MEMBER(cvtessel_response, status, 0, std::uint32_t);
MEMBER(cvtessel_response, body, 8, char*);
MEMBER(cvtessel_response, body_length, 8 + sizeof(void*), std::uint32_t);

namespace cv {
FUNCTION(json_attach_value, bool (*attach_text)(json_t*, const char*, const char*));
FUNCTION(json_attach_value, bool (*attach_list)(json_t*, const char*, const Strings&));
FUNCTION(json_extract_string_value, const char* (*value_text)(const json_t*));
FUNCTION(json_extract_string_value, const char* (*member_text)(const json_t*, const char*));
FUNCTION(json_object_get_recursive, json_t* (*find)(const json_t*, const Strings&));
FUNCTION(get_mac_address, bool (*mac)(const std::string&, std::string&));
FUNCTION(setMgmt::getKeyValue, int (*number)(const std::string&, int));
FUNCTION(setMgmt::getKeyValue, std::string (*text)(const std::string&, const std::string&));
FUNCTION(log::print, void (*log_line)(int, int, const char*));
FUNCTION(log_json, void (*log_document)(int, const char*, const json_t*));
FUNCTION(MemoryStream::print, void (MemoryStream::*stream_print)(const char*, ...));
FUNCTION(MemoryStream::text, const char* (MemoryStream::*stream_text)() const);
} // namespace cv
SAME_TYPE(cv::log::current_level, int);

// Converts to no other type, for parameters of a constructor.
template <typename Type>
struct Exactly {
    template <typename Wanted, typename = std::enable_if_t<std::is_same_v<Wanted, Type>>>
    operator Wanted() const;
};
static_assert(std::is_constructible_v<cv::MemoryStream, Exactly<char*>, Exactly<std::size_t>>,
              "cv::MemoryStream has another constructor");

// What else the library imports.
__attribute__((used)) int import(char* buffer) {
    return cv::MemoryStream(buffer, 1).text() != nullptr ? cv::log::current_level : 0;
}
