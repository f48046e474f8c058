// A reply at the client: what it says by its beginning, as a document, and as it is shown.

#include <cstdlib>

#include "common/json_text.h"
#include "common/printable.h"
#include "cvex/reply.h"
#include "input.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    const std::string text = fuzz::Input(bytes, size).rest();
    const cvex::Outcome outcome = cvex::read_reply(text);
    const bool begins_well = text.rfind(R"({"result": "ok")", 0) == 0;
    const nlohmann::ordered_json document = sandbox::parse_json(text);
    const nlohmann::ordered_json copy = document;
    const std::string shown = sandbox::printable(text, true);
    if ((outcome.result == "ok") != begins_well || text.find(outcome.reason) == std::string::npos ||
        copy != document || shown.find_first_of("\n\r\x1b") != std::string::npos) {
        std::abort();
    }
    return 0;
}
