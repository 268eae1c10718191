#include "TokenPage.hpp"

#include <string_view>
#include <utility>

#include "kiro/web/BootstrappingCommandSender.hpp"
#include "kiro/web/JSONPayload.hpp"
#include "kiro/web/WebBlockingOperation.hpp"

namespace bench {

namespace {

const std::string kReturns = "/bench/flush/returned";

/// Finds each token without reading the whole command, and returns it.
void returnTokens(Client& client, std::size_t count) {
    constexpr std::string_view kBegin = R"("ACT":")";
    while (count > 0) {
        const auto batch = client.read().payload;
        const auto found = batch.find(kBegin);
        if (found == std::string_view::npos) continue;
        const auto begin = found + kBegin.size();
        const auto token = batch.substr(begin, batch.find('"', begin) - begin);
        client.sendText(R"({"t":"publish","channel":")" + kReturns + R"(","text":"{\"ACT\":\")" +
                        std::string(token) + R"(\"}"})");
        --count;
    }
}

}  // namespace

TokenPage::TokenPage(Socket page)
    : fClient(std::move(page)),
      fSender(std::make_shared<kiro::web::BootstrappingCommandSender>(kCommands)),
      fStatus(std::make_shared<kiro::web::ConnectionStatus>("/bench/flush/reconnect",
                                                            "/bench/flush/newView")) {
    Stage::announce(fClient, kCommands);
    fSender->sendCommand("first", {});  // from the next one on it sends directly
    fClient.read();
    fRequestor =
        std::make_unique<kiro::web::PubSubACTRequestor>(fSender, kReturns, "bench", "bench", false);
}

TokenPage::~TokenPage() {
    if (fReturned.valid()) fReturned.wait();
}

void TokenPage::begin(std::size_t count) {
    fReturned = std::async(std::launch::async, [this, count] { returnTokens(fClient, count); });
}

void TokenPage::flush() {
    fRequestor->sendACT();
    kiro::web::WebBlockingOperation::waitOrThrow(
        "flush", [this] { return !fRequestor->isACTPending(); }, fStatus, {});
}

}  // namespace bench
