#include "Timeout.hpp"

#include <algorithm>
#include <array>
#include <boost/json.hpp>
#include <fstream>
#include <stdexcept>
#include <utility>
#include <vector>

#include "kiroutils/Logger.hpp"

namespace monitor {

namespace json = boost::json;

namespace {

constexpr const char* kHistory = "DrawnowTimeout";

bool isConnected(const json::value& page) { return page.at("state") == "connected"; }

/// Whether the page has not taken everything that was sent: what it works, it acknowledges.
bool lagsBehind(const json::value& page) {
    return page.at("acknowledged").to_number<std::uint64_t>() + 1 <
           page.at("nextMessage").to_number<std::uint64_t>();
}

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
        for (const auto& latency : latest) values.push_back(latency.*part);
        text[name] = json::object{{"last", values.back().count()},
                                  {"p50", engine::percentile(values, 0.5).count()},
                                  {"p99", engine::percentile(values, 0.99).count()}};
    }
    return text;
}

}  // namespace

std::string timeoutCause(bool announced, const std::string& pages) {
    const json::value known = json::parse(pages);
    const json::array& detail = known.at("detail").as_array();
    const bool noneConnected = std::none_of(detail.begin(), detail.end(), isConnected);
    if (noneConnected) return announced ? "client gone" : "no client yet";
    const bool allLag = std::all_of(detail.begin(), detail.end(), [](const json::value& page) {
        return !isConnected(page) || lagsBehind(page);
    });
    return allLag ? "client stalled" : "token lost";
}

void writeDiagnostics(const std::filesystem::path& file, const std::string& cause,
                      const std::string& pages, const std::deque<engine::Latency>& latest) {
    json::array history;
    for (const std::string& record : kiroutils::Logger::instance().history(kHistory)) {
        history.emplace_back(record);
    }
    const json::object bundle{{"cause", cause},
                              {"gateway", json::parse(pages)},
                              {"latency", latencyParts(latest)},
                              {"history", std::move(history)}};
    std::ofstream out(file);
    out << json::serialize(bundle) << '\n';
    if (!out.flush()) throw std::runtime_error(file.string() + ": cannot be written");
}

}  // namespace monitor
