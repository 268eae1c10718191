#include "Report.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

namespace {

using namespace monitor;

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
    run.traffic = {.commands = 90, .commandBytes = 901, .blocks = 30, .blockBytes = 3002};
    run.backlog.commands = 12;
    auto& client = run.client;
    client.received = {90, 901, 29, 1, 3002};
    client.tokensAnswered = 19;
    client.tokensDropped = 1;
    client.reconnections = 1;
    client.newViews = 1;
    client.blocksFailed = 1;
    run.commandChannel = "/figures/commands";
    run.warnings = {{{"timeoutDuringDrawnow", "an unresponsive browser client"}, 1},
                    {{"drawnowTimeout", "Client may be connected."}, 1},
                    {{"GraphicsBinarySendFailure", run.commandChannel}, 1}};
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
        {[](auto& run) { --run.client.received.blockBytes; }, "3002 bytes of blocks sent"},
        {[](auto& run) { ++run.engine.frames; }, "21 frames, but 20 complete or timed out"},
        {[](auto& run) { --run.client.tokensAnswered; }, "19 frames complete, but 18 tokens"},
        {[](auto& run) { ++run.client.tokensDropped; }, "2 tokens dropped, but 1 time-outs"},
        {[](auto& run) { run.warnings.begin()->second = 2; }, "1 blocks failed, but 2 warnings"},
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
