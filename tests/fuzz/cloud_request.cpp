// A request at the simulated cloud, which knows one partner token and no box.

#include "cloud/cloud_service.h"
#include "input.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    static cloud::CloudService service({{"p"}, {"t"}, "partner", {}});
    fuzz::Input input(bytes, size);
    const char* const name = (input.byte() & 1) != 0 ? "connect/box_mgmt" : "connect/login";
    const cloud::CloudService::Answer answer = service.answer(name, input.rest());
    const bool is_answered = answer.document.contains("result") != answer.document.contains("error");
    if (!is_answered || answer.document.dump(-1, ' ', false, cloud::Json::error_handler_t::replace).empty()) {
        __builtin_trap();
    }
    return 0;
}
