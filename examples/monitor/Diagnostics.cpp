#include "Diagnostics.hpp"

#include <array>
#include <boost/json.hpp>
#include <cerrno>
#include <fstream>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <vector>

#include "History.hpp"
#include "kiro/Version.hpp"

namespace monitor {

namespace json = boost::json;

namespace {

constexpr std::array<std::pair<const char*, std::chrono::microseconds engine::Latency::*>, 4>
    kParts{{{"toClient", &engine::Latency::toClient},
            {"atClient", &engine::Latency::atClient},
            {"toEngine", &engine::Latency::toEngine},
            {"total", &engine::Latency::total}}};

/// Of each part by itself, in microseconds: the last, and what half and nearly all stay below.
json::object latencyParts(const std::deque<engine::Latency>& latest) {
    json::object text{{"flushes", latest.size()}};
    if (latest.empty()) return text;
    for (const auto& [name, part] : kParts) {
        std::vector<std::chrono::microseconds> values;
        values.reserve(latest.size());
        for (const auto& latency : latest) values.push_back(latency.*part);
        text[name] = json::object{{"last", values.back().count()},
                                  {"p50", engine::percentile(values, 0.5).count()},
                                  {"p99", engine::percentile(values, 0.99).count()}};
    }
    return text;
}

/// As they are in force, those included that nobody gave.
json::object objectOf(const Options& options) {
    return {{"frames", options.frames ? json::value(*options.frames) : json::value()},
            {"duration", options.duration ? json::value(options.duration->count()) : json::value()},
            {"speed", options.speed > 0 ? json::value(options.speed) : json::value("max")},
            {"timeout", options.timeout.count()},
            {"data", options.data.string()},
            {"port", options.port},
            {"browser", options.opensBrowser},
            {"remind", options.remind.count()}};
}

}  // namespace

std::string diagnosticsText(const Options& options, const Timeout& timeout,
                            const History& history) {
    return json::serialize(json::object{{"time", timeText(timeout.now)},
                                        {"started", timeText(timeout.started)},
                                        {"version", KIROWEB_VERSION},
                                        {"cause", timeout.cause},
                                        {"options", objectOf(options)},
                                        {"gateway", json::parse(timeout.pages)},
                                        {"latency", latencyParts(timeout.latest)},
                                        {"history", history.records()},
                                        {"historyLeftOut", history.leftOut()}});
}

void writeFile(const std::filesystem::path& file, const std::string& text) {
    std::ofstream out(file);
    out << text << '\n';
    if (!out.flush()) {
        throw std::runtime_error(file.string() +
                                 ": cannot be written: " + std::generic_category().message(errno));
    }
}

}  // namespace monitor
