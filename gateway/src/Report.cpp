#include "Report.hpp"

#include <boost/json.hpp>

#include "Counters.hpp"
#include "records/EventRecord.hpp"

namespace kirogateway {
namespace {

namespace json = boost::json;

const char* nameOf(View::State state) {
    switch (state) {
        case View::State::kNew:
            return "new";
        case View::State::kConnected:
            return "connected";
        case View::State::kLost:
            return "lost";
        case View::State::kGone:
            return "gone";
        case View::State::kOver:
            return "over";
    }
    return "";
}

json::object objectOf(const ViewReport& view) {
    const auto& report = view.report;
    return {{"view", view.count},
            {"client", view.client},
            {"state", nameOf(report.state)},
            {"nextMessage", report.next},
            {"acknowledged", report.acknowledged},
            {"bytesHeld", report.bytes},
            {"bytesWaiting", report.waiting},
            {"blocksUnderWay", report.blocksUnderWay},
            {"bytesUnderWay", report.bytesUnderWay},
            {"lastSignOfLifeMilliseconds", report.silence.count()}};
}

}  // namespace

std::string diagnosticsText(const Statistics& statistics, bool lastPageGone, std::size_t memory,
                            const std::vector<ViewReport>& views) {
    json::array list;
    for (const auto& view : views) list.push_back(objectOf(view));
    json::object all{
        {"pages", statistics.pages}, {"lastPageGone", lastPageGone}, {"bytesHeld", memory}};
    for (const auto& figure : kFigures) all[figure.name] = statistics.*figure.shown;
    all["detail"] = std::move(list);
    return json::serialize(all);
}

std::string historyText(std::string_view event, std::string_view what) {
    return json::serialize(records::eventRecord<json::object>(
        records::kServer, "Gateway", "", std::string(event), json::object{{"Text", what}}));
}

}  // namespace kirogateway
