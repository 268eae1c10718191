#include "qvm/messages.hpp"

#include <algorithm>
#include <array>
#include <cstddef>
#include <string_view>
#include <thread>
#include <utility>

#include "Observers.hpp"
#include "kirohost/Controls.hpp"
#include "process/Immortal.hpp"

namespace {

struct CatalogueEntry {
    std::string_view component;
    std::string_view key;
    /// "{0}" to "{9}" stand for the arguments.
    std::string_view text;
};

constexpr auto kCatalogue = std::to_array<CatalogueEntry>({
    {"Quarn:class", "InvalidHandle", "Invalid or deleted object."},
    {"Quarn:graphics", "GraphicsBinaryOOM",
     "A block of graphics data could not be sent: there is not enough memory."},
    {"Quarn:graphics", "GraphicsBinarySendFailure",
     "A block of graphics data for the channel \"{0}\" could not be sent as binary data."},
    {"Quarn:graphics", "drawnowTimeout",
     "No answer came within {0} seconds. Requestor: {1}. Token: {2}. Details: {3}"},
    {"Quarn:graphics", "newView", "The wait was ended by an event of the page: {0}."},
    {"Quarn:graphics", "reconnect", "The wait was ended by an event of the page: {0}."},
    {"Quarn:graphics", "timeoutDuringDrawnow",
     "The page has not confirmed in time that the figure is drawn. {0}"},
});

/// `text` with its arguments; one that is not given is empty, one that has no place is left out.
std::string filledIn(std::string_view text, const std::vector<std::string>& arguments) {
    std::string result;
    while (!text.empty()) {
        const bool isPlace = text.size() >= 3 && text[0] == '{' && text[1] >= '0' &&
                             text[1] <= '9' && text[2] == '}';
        if (isPlace) {
            const auto index = static_cast<std::size_t>(text[1] - '0');
            if (index < arguments.size()) result += arguments[index];
        } else {
            result += text.front();
        }
        text.remove_prefix(isPlace ? 3 : 1);
    }
    return result;
}

std::string withoutCatalogue(const bedrock::core::MessageId& id,
                             const std::vector<std::string>& arguments) {
    std::string result = id.component + ":" + id.key;
    for (const auto& argument : arguments) result += " \"" + argument + "\"";
    return result;
}

kirohost::detail::Observers<kirohost::Warning>& observers() {
    static Immortal<kirohost::detail::Observers<kirohost::Warning>> immortal;
    return *immortal;
}

}  // namespace

namespace bedrock::core {

std::string messageText(const MessageId& id, const std::vector<std::string>& arguments) {
    const auto* const found =
        std::find_if(kCatalogue.begin(), kCatalogue.end(), [&id](const CatalogueEntry& entry) {
            return entry.component == id.component && entry.key == id.key;
        });
    return found != kCatalogue.end() ? filledIn(found->text, arguments)
                                     : withoutCatalogue(id, arguments);
}

}  // namespace bedrock::core

namespace kirohost {

Scope observeWarnings(std::function<void(const Warning&)> observer) {
    return observers().add(std::move(observer));
}

}  // namespace kirohost

void qxWarningMsgId(const bedrock::core::MessageId& id, const std::vector<std::string>& arguments) {
    if (observers().empty()) return;
    observers().notify(
        {id, arguments, bedrock::core::messageText(id, arguments), std::this_thread::get_id()});
}

void qxErrMsgId(const bedrock::core::MessageId& id, const std::vector<std::string>& arguments) {
    throw QxError(id, bedrock::core::messageText(id, arguments));
}
