#include "client/Checker.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "client/Findings.hpp"
#include "client/HeadlessClient.hpp"
#include "client/Inbox.hpp"
#include "client/Recorder.hpp"
#include "client/ReferenceData.hpp"
#include "engine/DataSet.hpp"
#include "engine/Engine.hpp"
#include "kirofigures/Window.hpp"
#include "kirohost/Controls.hpp"

namespace {

using namespace monitor;
using Conversation = std::vector<std::string>;

const std::string kToken = R"({"ACT":"t","returnChannel":"r","cmd":"sendACT"})";

const client::ReferenceData& reference() {
    static const auto data = client::readReferenceData(MONITOR_DATA_DIR);
    return data;
}

/// Has the engine draw `frames` frames for a client that records them.
void record(std::uint64_t frames, client::Recorder& recorder) {
    const auto data = engine::readDataSet(MONITOR_DATA_DIR);
    kirofigures::WindowOptions options;
    options.serves = false;
    options.waitsForPage = false;
    kirofigures::Window window(options);
    client::HeadlessClient page(reference(), {.pickEvery = 0}, window.channels(), &recorder);
    page.beginView();
    page.announceReady();
    kirohost::waitForDelivery();
    engine::Engine engine(window, data, {});
    EXPECT_EQ(engine.run({.frames = frames, .speed = 0}).complete, frames);
    kirohost::waitForDelivery();
    page.finish();
}

/// What a client hears in the first `frames` frames.
Conversation conversation(std::uint64_t frames) {
    const std::string file = testing::TempDir() + "conversation-" + std::to_string(::getpid());
    client::Recorder recorder(file);
    record(frames, recorder);
    Conversation result;
    std::ifstream lines(file);
    bool isInFrame = false;  // a block may come before the frame that it belongs to
    for (std::string line; std::getline(lines, line);) {
        const bool begins = line.find(R"("cmd":"beginFrame")") != std::string::npos;
        if (begins && std::exchange(isInFrame, true)) result.push_back(kToken);
        result.push_back(line);
    }
    result.push_back(kToken);
    std::filesystem::remove(file);
    return result;
}

/// What a client finds that hears these messages and no more.
client::Findings findingsOf(const Conversation& messages) {
    client::Findings findings;
    client::Checker checker(reference(), findings);
    client::Inbox inbox(checker, findings);
    for (const std::string& message : messages) {
        inbox.message(message);
        while (inbox.next()) continue;
    }
    inbox.finish();
    return findings;
}

TEST(Checker, FindsWhicheverMessageIsMissingAndNothingElse) {
    const Conversation whole = conversation(3);
    const auto findings = findingsOf(whole);
    EXPECT_TRUE(findings.none()) << findings.texts().front();
    // Behind the last command nothing tells that it is missing: the monitor counts both ends.
    for (std::size_t i = 0; i + 2 < whole.size(); ++i) {
        Conversation messages = whole;
        messages.erase(messages.begin() + static_cast<std::ptrdiff_t>(i));
        EXPECT_FALSE(findingsOf(messages).none()) << "without message " << i << ": " << whole[i];
    }
}

TEST(Checker, FindsAWrongNumber) {
    Conversation messages = conversation(1);
    const std::string from = R"({"follow":5E)";
    const auto changed = std::ranges::find_if(
        messages, [&](const auto& text) { return text.find(from) != text.npos; });
    ASSERT_NE(changed, messages.end());
    changed->replace(changed->find(from), from.size(), R"({"follow":6E)");
    EXPECT_FALSE(findingsOf(messages).none());
}

}  // namespace
