// Arbitrary replies of the client to a token, with time stamps on. "$" stands for the token.
#include <regex>
#include <string>

#include "Fuzz.hpp"
#include "kiro/web/JSONObject.hpp"
#include "kiro/web/PubSubACTRequestor.hpp"
#include "kiro/web/StringPayload.hpp"
#include "kirohost/Controls.hpp"

namespace {

using fuzz::require;
using kiro::web::JSONObject;
using kiro::web::PubSubACTRequestor;

const std::string kChannel = "/fuzz/returned";
const std::regex kDollar("[$]");

void reply(const std::string& text) {
    kiro::web::StringPayload payload(text);
    fuzz::endpoint()->publish(kChannel, payload);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider input(data, size);
    fuzz::endpoint();
    PubSubACTRequestor requestor(nullptr, kChannel, "fuzz", "fuzz", false);
    requestor.enableTimeStampLogging(true);

    reply(R"({"ACT":""})");
    require(!requestor.isACTPending() && !requestor.hasTimeStamps(), "an empty slot takes nothing");
    const auto token = requestor.sendACT().convertToString();
    bool isPending = true;
    while (input.remaining_bytes() > 0) {
        const auto text = std::regex_replace(input.ConsumeRandomLengthString(), kDollar, token);
        std::string returned;
        const bool isRight = JSONObject(text).getValue("ACT", returned) && returned == token;
        reply(text);
        if (isPending && isRight) {
            isPending = false;
            require(requestor.getTimeStampLog().size() == 1, "a returned token is logged");
        }
        require(requestor.isACTPending() == isPending, "the right token empties, a forged one not");
    }
    reply(R"({"ACT":")" + token + R"("})");
    require(!requestor.isACTPending(), "the right token always empties the slot");
    kirohost::runPendingTasks();  // each return has queued one
    return 0;
}
