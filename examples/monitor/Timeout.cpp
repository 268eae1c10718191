#include "Timeout.hpp"

#include <algorithm>
#include <boost/json.hpp>
#include <fstream>
#include <stdexcept>

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
                      const std::string& pages) {
    json::array history;
    for (const std::string& record : kiroutils::Logger::instance().history(kHistory)) {
        history.emplace_back(record);
    }
    const json::object bundle{
        {"cause", cause}, {"gateway", json::parse(pages)}, {"history", std::move(history)}};
    std::ofstream out(file);
    out << json::serialize(bundle) << '\n';
    if (!out.flush()) throw std::runtime_error(file.string() + ": cannot be written");
}

}  // namespace monitor
