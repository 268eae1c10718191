#include "Answered.hpp"

#include <string>
#include <string_view>

#include "kiro/web/CommandSenderInterface.hpp"
#include "kiro/web/JSONPayload.hpp"
#include "kiro/web/PubSubACTRequestor.hpp"
#include "kirohost/Controls.hpp"
#include "kiroutils/CompletionToken.hpp"

namespace bench {

namespace {

namespace service = relay::message_service;

/// The token that a command carries; "" if it is no such command.
std::string tokenOf(std::string_view command) {
    constexpr std::string_view kBegin = R"({"ACT":")";
    if (!command.starts_with(kBegin)) return {};
    return std::string(
        command.substr(kBegin.size(), command.find('"', kBegin.size()) - kBegin.size()));
}

/// In place before the window asks for a service.
kirofigures::WindowOptions options() {
    ValveService::install();
    kirofigures::WindowOptions options;
    options.serves = options.handlesSignals = options.waitsForPage = false;
    return options;
}

}  // namespace

Answered::Answered() : fWindow(options()) {
    auto& valve = ValveService::install();
    valve.announce(fWindow.channels().commands);
    const auto& newView = fWindow.channels().newView;
    valve.client().publish(newView, {newView, "{}", 2});
    kirohost::waitForDelivery();
    fWindow.sender()->sendCommand("first", {});  // from the next one on it sends directly
    fAnswer = [this](const service::JsonMessage& message) {
        const auto token = tokenOf({message.json, message.length});
        if (!token.empty()) {
            fWindow.requestor().returnToken(kiroutils::CompletionToken(token));
        }
    };
    valve.setDrain(&fAnswer);
}

Answered::~Answered() { ValveService::install().setDrain(nullptr); }

}  // namespace bench
