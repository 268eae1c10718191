#include "Report.hpp"

#include <boost/json.hpp>

namespace kirogateway {
namespace {

namespace json = boost::json;

json::object objectOf(const PageReport& report) {
    const auto& state = report.state;
    return {{"view", report.count},
            {"client", report.client},
            {"state", state.isConnected ? "connected"
                      : report.counts   ? "missing"
                                        : "gone"},
            {"nextMessage", state.next},
            {"acknowledged", state.acknowledged},
            {"bytesHeld", state.bytes},
            {"blocksUnderWay", state.blocksUnderWay},
            {"bytesUnderWay", state.bytesUnderWay},
            {"waitingMilliseconds", state.waiting.count()},
            {"lastSignOfLifeMilliseconds", state.silence.count()}};
}

}  // namespace

std::string diagnosticsText(const Statistics& statistics, bool lastPageGone,
                            const std::vector<PageReport>& pages) {
    json::array list;
    for (const auto& page : pages) list.push_back(objectOf(page));
    const json::object all{{"pages", statistics.pages},
                           {"lastPageGone", lastPageGone},
                           {"views", statistics.views},
                           {"returns", statistics.returns},
                           {"textsSent", statistics.textsSent},
                           {"blocksDelivered", statistics.blocksDelivered},
                           {"blocksGivenBack", statistics.blocksGivenBack},
                           {"textsReceived", statistics.textsReceived},
                           {"blocksReceived", statistics.blocksReceived},
                           {"refusals", statistics.refusals},
                           {"disconnected", statistics.disconnected},
                           {"detail", std::move(list)}};
    return json::serialize(all);
}

std::string historyText(std::string_view event, std::string_view what) {
    return json::serialize(json::object{{"LogType", "Server"},
                                        {"Source", "Gateway"},
                                        {"Channel", ""},
                                        {"Event", event},
                                        {"EventData", json::object{{"Text", what}}}});
}

}  // namespace kirogateway
