#include "RelayLog.hpp"

#include <cstddef>
#include <exception>
#include <string>

#include "checked/Require.hpp"
#include "kiroutils/Logger.hpp"

namespace relay {
namespace {

constexpr std::size_t kLongestQuotation = 200;

bool breaksLine(char character) {
    const auto code = static_cast<unsigned char>(character);
    return code < 0x20 || code == 0x7f;
}

bool continuesCharacter(char character) {
    return (static_cast<unsigned char>(character) & 0xc0U) == 0x80U;
}

/// `text` in quotation marks, on one line and at most `kLongestQuotation` bytes of it, cut
/// between two UTF-8 characters.
std::string quoted(std::string_view text) {
    constexpr std::string_view digits = "0123456789abcdef";
    std::size_t length = text.size();
    if (length > kLongestQuotation) {
        length = kLongestQuotation;
        while (length > 0 && continuesCharacter(text[length])) --length;
    }
    std::string result = "\"";
    for (const char character : text.substr(0, length)) {
        if (breaksLine(character)) {
            const auto code = static_cast<unsigned char>(character);
            result += {'\\', 'x', digits[code >> 4U], digits[code & 0xfU]};
        } else {
            result += character;
        }
    }
    return result += length < text.size() ? "\"..." : "\"";
}

std::string describeCaught() {
    try {
        throw;
    } catch (const std::exception& error) {
        return quoted(error.what());
    } catch (...) {
        return "something that is no std::exception";
    }
}

}  // namespace

void logCaught(std::string_view who, std::string_view channel, std::string_view service) noexcept {
    KIROWEB_REQUIRE(std::current_exception() != nullptr);
    try {
        std::string line = "The ";
        line.append(who).append(" of channel ").append(quoted(channel));
        if (!service.empty()) line.append(" in service ").append(quoted(service));
        line.append(" threw ").append(describeCaught());
        kiroutils::Logger::instance().log("relay", line);
    } catch (...) {  // not even the log can be written
    }
}

}  // namespace relay
