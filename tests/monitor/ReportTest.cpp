#include "Report.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "kiroutils/Logger.hpp"

namespace {

using namespace monitor;

/// A run in which whatever can go wrong went wrong another number of times.
monitor::Run variedRun() {
    monitor::Run run;
    run.options.frames = 20;
    auto& engine = run.engine;
    engine.frames = 14;
    engine.complete = 8;
    engine.failed = 4;
    engine.timedOut = 2;
    engine.endedByReconnection = 3;
    engine.endedByNewView = 5;
    engine.traffic = {.commands = 90, .commandBytes = 901, .blocks = 30, .blockBytes = 3002};
    run.client.received.streamBlocks = 17;
    run.client.received.textBlocks = 6;
    run.warnings = {{{"a", ""}, 2}, {{"b", "c"}, 7}};
    return run;
}

/// Each number of the table that has indented ones below it, and their sum.
std::map<std::string, std::pair<std::uint64_t, std::uint64_t>> sumsOf(const std::string& table) {
    std::map<std::string, std::pair<std::uint64_t, std::uint64_t>> sums;
    std::istringstream lines(table);
    std::string name;
    std::uint64_t above = 0;
    for (std::string line; std::getline(lines, line);) {
        const bool isPart = line.starts_with("  ");
        const bool isCount = line.find(" x ") != std::string::npos;
        std::istringstream number(line.substr(isCount ? 0 : 28));
        std::uint64_t value = 0;
        number >> value;
        if (isPart) {
            sums[name].first = above;
            sums[name].second += value;
        } else {
            name = line.substr(0, line.find("  "));
            above = value;
        }
    }
    return sums;
}

TEST(Table, AddsUp) {
    const auto sums = sumsOf(tableText(variedRun()));
    for (const auto& [name, sum] : sums) EXPECT_EQ(sum.first, sum.second) << name;
    EXPECT_EQ(sums.at("frames").first, 14U);
    EXPECT_EQ(sums.at("frames begun again").first, 8U);
    EXPECT_EQ(sums.at("blocks").first, 30U);
    EXPECT_EQ(sums.at("bytes").first, 3903U);
    EXPECT_EQ(sums.at("warnings").first, 9U);
}

/// Nothing is wrong with it: one token was dropped, and one block failed.
monitor::Run goodRun() {
    monitor::Run run;
    run.options.frames = 20;
    run.options.dropEvery = 15;
    run.options.failEvery = 25;
    run.script.reconnectAt = 3;
    run.script.newViewAt = 5;
    auto& engine = run.engine;
    engine.frames = 20;
    engine.complete = 19;
    engine.timedOut = 1;
    engine.endedByReconnection = 1;
    engine.endedByNewView = 1;
    engine.traffic = {.commands = 90, .commandBytes = 901, .blocks = 30, .blockBytes = 3002};
    engine.backlog.commands = 12;
    auto& client = run.client;
    client.received = {90, 901, 29, 1, 3002};
    client.tokensAnswered = 19;
    client.tokensDropped = 1;
    client.reconnections = 1;
    client.newViews = 1;
    client.blocksFailed = 1;
    run.warnings = {{{"timeoutDuringDrawnow", "an unresponsive browser client"}, 1},
                    {{"drawnowTimeout", "Client may be connected."}, 1},
                    {{"GraphicsBinarySendFailure", "/graphics/monitor"}, 1}};
    run.timeoutHooks = 1;
    return run;
}

TEST(Judgement, ComplainsOfEachThingThatIsWrongAndOfNothingElse) {
    using Complaints = std::vector<std::string>;
    EXPECT_EQ(judge(goodRun()), Complaints{});
    const struct {
        std::function<void(monitor::Run&)> spoil;
        const char* complaint;
    } cases[] = {
        {[](auto& run) { --run.client.received.commands; }, "90 commands sent, but 89 received"},
        {[](auto& run) { --run.client.received.commandBytes; }, "901 bytes of commands sent"},
        {[](auto& run) { --run.client.received.streamBlocks; }, "30 blocks sent, but 29 received"},
        {[](auto& run) { --run.client.received.blockBytes; }, "3002 bytes of blocks sent"},
        {[](auto& run) { run.engine.backlog.commands = 0; }, "there was no backlog"},
        {[](auto& run) { ++run.engine.frames; }, "21 frames, but 20 complete or timed out"},
        {[](auto& run) { --run.client.tokensAnswered; }, "19 frames complete, but 18 tokens"},
        {[](auto& run) { ++run.engine.endedByReconnection; }, "2 frames ended by reconnection"},
        {[](auto& run) { ++run.engine.endedByNewView; }, "2 frames ended by a new view"},
        {[](auto& run) { run.client.reconnections = run.engine.endedByReconnection = 0; },
         "the client did not reconnect"},
        {[](auto& run) { run.client.newViews = run.engine.endedByNewView = 0; },
         "the client opened no new view"},
        {[](auto& run) { ++run.client.tokensDropped; }, "2 tokens dropped, but 1 time-outs"},
        {[](auto& run) { run.warnings.erase(std::prev(run.warnings.end())); },
         "1 tokens dropped, but 0 warnings \"an unresponsive browser client\""},
        {[](auto& run) { run.warnings.begin()->second = 2; }, "1 blocks failed, but 2 warnings"},
        {[](auto& run) { run.warnings.erase(std::next(run.warnings.begin())); },
         "1 tokens dropped, but 0 internal warnings"},
        {[](auto& run) {
             run.warnings[{"another", ""}] = 1;
         },
         "4 warnings, but 3 expected"},
        {[](auto& run) { run.timeoutHooks = 0; }, "but 0 calls of the time-out hook"},
        {[](auto& run) { run.client.received.textBlocks = 0; }, "1 blocks failed, but 0 blocks as"},
        {[](auto& run) { run.errorsLogged = 1; }, "1 errors logged, but 0 expected"},
        {[](auto& run) { run.client.findings.wrong("x"); }, "the client found faults"},
        {[](auto& run) { run.client.findings.missing("x"); }, "  missing: x"},
        {[](auto& run) { run.engine.interrupted = true; }, "interrupted after 20 of 20 frames"},
    };
    for (const auto& [spoil, complaint] : cases) {
        auto run = goodRun();
        spoil(run);
        const Complaints complaints = judge(run);
        EXPECT_TRUE(std::ranges::any_of(
            complaints,
            [part = complaint](const auto& text) { return text.find(part) != text.npos; }))
            << complaint << " is not among " << testing::PrintToString(complaints);
    }
}

TEST(Judgement, AsksForAFaultOnlyOfARunThatCameToItsEnd) {
    monitor::Run run;
    run.options.silent = true;
    for (const bool interrupted : {false, true}) {
        run.engine.interrupted = interrupted;
        const auto complaints = judge(run);
        ASSERT_EQ(complaints.size(), 1U);
        EXPECT_EQ(complaints.front(),
                  interrupted ? "interrupted after 0 frames" : "too few frames: no token was lost");
    }
}

TEST(WarningLog, CountsWhatTheHostsServicesLog) {
    const WarningLog log;
    kiroutils::Logger::instance().log("relay", "a callback threw");
    kiroutils::Logger::instance().log("gateway", "page connected");
    EXPECT_EQ(log.errorsLogged(), 1U);
}

TEST(Summary, HasAPlaceForEveryFrameAndDecidesTheExitStatus) {
    engine::EngineResult result;
    result.frames = 20;
    result.complete = 11;
    result.failed = 5;
    result.timedOut = 3;
    result.clientsGone = 1;
    result.endedByNewView = 7;
    result.endedByReconnection = 6;
    EXPECT_EQ(summaryText(result),
              "20 frames: 11 drawn, 5 failed, 3 timed out, 1 without a client at the end; "
              "7 attempts ended by a new view, 6 by a reconnection");
    Options endless;
    Options bounded;
    bounded.frames = 30;
    Options timed;
    timed.duration.emplace(1);
    EXPECT_FALSE(isAllDrawn(endless, result));
    result.complete = result.frames;
    for (const Options& options : {endless, bounded, timed}) {
        result.interrupted = false;
        EXPECT_TRUE(isAllDrawn(options, result));
        result.interrupted = true;
        EXPECT_EQ(isAllDrawn(options, result), !options.frames && !options.duration);
    }
    EXPECT_TRUE(summaryText(result).ends_with("; interrupted"));
}

}  // namespace
