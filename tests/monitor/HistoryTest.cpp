#include "History.hpp"

#include <gtest/gtest.h>

#include <boost/json.hpp>
#include <string>

#include "Timeout.hpp"
#include "kiro/Version.hpp"
#include "kiroutils/Logger.hpp"

namespace {

using namespace monitor;
using namespace std::chrono_literals;
namespace json = boost::json;

/// 2024-02-29T12:34:56.007Z
constexpr std::chrono::system_clock::time_point kLeapDay{1709210096007ms};

std::size_t bytesOf(const json::array& records) {
    std::size_t bytes = 0;
    for (const auto& record : records) bytes += record.as_string().size();
    return bytes;
}

TEST(History, GivesRecordsAsJsonWithTheirTimesAndOthersAsTheyAre) {
    const History history([] { return kLeapDay; });
    auto& logger = kiroutils::Logger::instance();
    logger.log("DrawnowTimeout", R"({"Event":"Error","EventData":"{\"message\":\"boom\"}"})");
    logger.log("DrawnowTimeout", R"({"Event":"Log","EventData":"plain"})");
    logger.log("DrawnowTimeout", "not JSON");
    logger.log("DrawnowTimeout", "[1]");
    logger.log("another", "{}");
    EXPECT_EQ(json::value(history.records()), json::parse(R"([
        {"Time": "2024-02-29T12:34:56.007Z", "Event": "Error", "EventData": {"message": "boom"}},
        {"Time": "2024-02-29T12:34:56.007Z", "Event": "Log", "EventData": "plain"},
        "not JSON", "[1]"])"));
    EXPECT_EQ(history.leftOut(), 0U);
}

// A page may report errors of megabytes, as often as it likes.
TEST(History, IsBoundedInAllThatAPageCanFill) {
    History large;
    for (int i = 0; i < 40; ++i) large.add(std::string(3'000'000, 'x'));
    EXPECT_EQ(large.records().front().as_string().size(), History::kMostBytesOfOne + 3);
    EXPECT_LE(bytesOf(large.records()), History::kMostBytes);
    EXPECT_GT(bytesOf(large.records()), History::kMostBytes / 2);
    EXPECT_EQ(large.leftOut(), 40 - large.records().size());
    // Nor does the host keep them meanwhile.
    for (int i = 0; i < 3; ++i) kiroutils::Logger::instance().log("DrawnowTimeout", "x");
    EXPECT_LE(kiroutils::Logger::instance().history("DrawnowTimeout").size(), 1U);

    History small;
    for (std::size_t i = 0; i < History::kMostRecords + 2; ++i) small.add(std::to_string(i));
    EXPECT_EQ(small.records().size(), History::kMostRecords);
    EXPECT_EQ(small.records().front(), "2");
    EXPECT_EQ(small.leftOut(), 2U);
}

TEST(History, CutsBetweenCharacters) {
    History history;
    history.add(std::string(History::kMostBytesOfOne - 1, 'x') + "\xe2\x82\xac");
    EXPECT_TRUE(history.records().front().as_string().ends_with("x..."));
}

TEST(Diagnostics, HoldTimesVersionOptionsAndHistory) {
    History history([] { return kLeapDay; });
    history.add(R"({"Event":"Log"})");
    Options options;
    options.frames = 7;
    options.port = 8080;
    const auto text = diagnosticsText(
        options, {kLeapDay - 1min, kLeapDay, "token lost", R"({"detail":[]})", {}}, history);
    const json::value bundle = json::parse(text);
    EXPECT_EQ(bundle.at("started"), "2024-02-29T12:33:56.007Z");
    EXPECT_EQ(bundle.at("time"), "2024-02-29T12:34:56.007Z");
    EXPECT_EQ(bundle.at("version"), KIROWEB_VERSION);
    EXPECT_EQ(bundle.at("cause"), "token lost");
    EXPECT_EQ(bundle.at("options").at("frames"), 7);
    EXPECT_EQ(bundle.at("options").at("duration"), nullptr);
    EXPECT_EQ(bundle.at("options").at("port"), 8080);
    EXPECT_EQ(bundle.at("history").at(0).at("Event"), "Log");
    EXPECT_EQ(bundle.at("historyLeftOut"), 0);
    EXPECT_TRUE(bundle.at("gateway").at("detail").as_array().empty());
}

TEST(TimeoutCause, TellsWhoIsConnectedAndWhoLagsBehind) {
    const std::string current = R"({"state":"connected","acknowledged":8,"nextMessage":9})";
    const std::string behind = R"({"state":"connected","acknowledged":7,"nextMessage":9})";
    const std::string lost = R"({"state":"lost","acknowledged":7,"nextMessage":9})";
    const struct {
        bool announced;
        std::string pages, cause;
    } cases[] = {{false, "", "no client yet"},
                 {true, "", "client gone"},
                 {true, lost, "client gone"},
                 {true, behind, "client stalled"},
                 {true, lost + ',' + behind, "client stalled"},
                 {true, current, "token lost"},
                 {true, behind + ',' + current, "token lost"},
                 {true, lost + ',' + current, "token lost"}};
    for (const auto& [announced, pages, cause] : cases) {
        EXPECT_EQ(timeoutCause(announced, R"({"detail":[)" + pages + "]}"), cause) << pages;
    }
}

}  // namespace
