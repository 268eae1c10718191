#include "Report.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <sstream>

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

TEST(Judgement, ComplainsOfAnEndThatCameTooEarly) {
    const auto complains = [](const monitor::Run& run) {
        return std::ranges::count(judge(run), "interrupted after 14 of 20 frames") == 1;
    };
    auto run = variedRun();
    EXPECT_FALSE(complains(run));
    run.engine.interrupted = true;
    EXPECT_TRUE(complains(run));
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
