#include "client/Checker.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "Memory.hpp"
#include "client/Findings.hpp"
#include "client/HeadlessClient.hpp"
#include "client/Inbox.hpp"
#include "client/ReferenceData.hpp"
#include "engine/DataSet.hpp"
#include "engine/Engine.hpp"
#include "kirofigures/Window.hpp"
#include "kirohost/Controls.hpp"

namespace {

using namespace monitor;

/// What a client hears: a message of the command channel, or a block.
struct Said {
    std::string text;
    bool isBlock = false;
};
using Conversation = std::vector<Said>;

const Said kToken{R"({"ACT":"t","returnChannel":"r","cmd":"sendACT"})"};

const client::ReferenceData& reference() {
    static const auto data = client::readReferenceData(MONITOR_DATA_DIR);
    return data;
}

/// Has the engine draw `frames` frames for a client, and records what that gets.
void record(std::uint64_t frames, const std::string& file) {
    const auto data = engine::readDataSet(MONITOR_DATA_DIR);
    kirofigures::WindowOptions options;
    options.serves = false;
    options.waitsForPage = false;
    options.recording = file;
    kirofigures::Window window(options);
    client::HeadlessClient page(reference(), {.pickEvery = 0}, window.channels());
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
    record(frames, file);
    const kirorecording::FileSource source(file);
    std::filesystem::remove(file);
    const kirorecording::Reader reader(source);
    Conversation result;
    for (const auto& [topic, time, data] : recording_test::messagesOf(reader)) {
        if (topic == "frames") result.push_back(kToken);
        if (topic == "commands" || topic == "blocks") result.push_back({data, topic == "blocks"});
    }
    return result;
}

/// What a client finds that hears these messages and no more.
client::Findings findingsOf(const Conversation& messages) {
    client::Findings findings;
    client::Checker checker(reference(), findings);
    client::Inbox inbox(checker, findings);
    for (const auto& [text, isBlock] : messages) {
        isBlock ? inbox.streamBlock(text) : inbox.message(text);
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
        EXPECT_FALSE(findingsOf(messages).none())
            << "without message " << i << ": " << whole[i].text;
    }
    // Nor is a wrong number overlooked.
    Conversation messages = whole;
    const std::string from = R"({"follow":5E)";
    const auto changed = std::ranges::find_if(
        messages, [&](const Said& said) { return said.text.find(from) != said.text.npos; });
    ASSERT_NE(changed, messages.end());
    changed->text.replace(changed->text.find(from), from.size(), R"({"follow":6E)");
    EXPECT_FALSE(findingsOf(messages).none());
}

}  // namespace
