#include "RelayLog.hpp"

#include <exception>
#include <string>

#include "checked/Require.hpp"
#include "kiroutils/Logger.hpp"
#include "text/Escape.hpp"

namespace relay {
namespace {

std::string quoted(std::string_view text) { return '"' + text::escaped(text) + '"'; }

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
