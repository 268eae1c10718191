#include "Report.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

namespace {

using namespace monitor;

/// Nothing is wrong with it, and nothing was injected.
monitor::Run goodRun() {
    monitor::Run run;
    run.options.frames = 20;
    auto& engine = run.engine;
    engine.frames = engine.complete = 20;
    run.traffic = {.commands = 90, .commandBytes = 901, .blocks = 30, .blockBytes = 3002};
    run.backlog.commands = 12;
    auto& client = run.client;
    client.received = {90, 901, 30, 0, 3002};
    client.tokensAnswered = 20;
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
        {[](auto& run) { --run.client.received.blockBytes; }, "3002 bytes of blocks sent"},
        {[](auto& run) { ++run.engine.frames; }, "21 frames, but 20 complete or timed out"},
        {[](auto& run) { --run.client.tokensAnswered; }, "20 frames complete, but 19 tokens"},
        {[](auto& run) { ++run.client.tokensDropped; }, "1 tokens dropped, but 0 time-outs"},
        {[](auto& run) { ++run.client.blocksFailed; }, "1 blocks failed, but 0 warnings"},
        {[](auto& run) { run.errorsLogged = 1; }, "1 errors logged, but 0 expected"},
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

}  // namespace
