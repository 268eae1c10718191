#include "Log.hpp"

#include <chrono>
#include <cstdio>
#include <ctime>

#include "text/Escape.hpp"

namespace link_tool {
namespace {

constexpr std::size_t kMostOfValue = 1024;

void append(std::string& line, const char* name, std::string_view value) {
    if (value.empty()) return;
    if (!line.empty()) line += ' ';
    line += name;
    line += "=\"";
    for (const char c : text::escaped(value, kMostOfValue)) {
        if (c == '"') line += '\\';
        line += c;
    }
    line += '"';
}

std::string timeText() {
    using namespace std::chrono;
    const auto now = time_point_cast<milliseconds>(system_clock::now()).time_since_epoch();
    const std::time_t seconds = duration_cast<std::chrono::seconds>(now).count();
    std::tm parts{};
    ::gmtime_r(&seconds, &parts);
    char text[32]{};
    std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%S", &parts);
    char fraction[8]{};
    std::snprintf(fraction, sizeof(fraction), ".%03dZ", static_cast<int>(now.count() % 1000));
    return std::string(text) + fraction;
}

}  // namespace

std::string lineText(std::string_view event, std::string_view session, std::string_view detail) {
    std::string line;
    append(line, "event", event);
    append(line, "session", session);
    append(line, "detail", detail);
    return line;
}

void logLine(std::string_view event, std::string_view session, std::string_view detail) noexcept {
    try {
        const auto line = "time=" + timeText() + ' ' + lineText(event, session, detail) + '\n';
        std::fputs(line.c_str(), stderr);  // whole, so that lines of two threads do not mix
    } catch (...) {
    }
}

}  // namespace link_tool
