#include "client/Checker.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "client/Findings.hpp"
#include "client/Inbox.hpp"
#include "client/ReferenceData.hpp"
#include "engine/DataSet.hpp"
#include "engine/EcgFigure.hpp"
#include "engine/Outlet.hpp"
#include "engine/QuakeFigure.hpp"
#include "kiro/web/ExportCommandSender.hpp"
#include "kiro/web/JSONPayload.hpp"

namespace {

using namespace monitor;
using Conversation = std::vector<std::string>;

const std::string kToken = R"({"ACT":"t","returnChannel":"r","cmd":"sendACT"})";

/// What the figures say in their first `frames` frames, the first of which is whole.
Conversation conversation(std::uint64_t frames) {
    static const engine::DataSet data = engine::readDataSet(MONITOR_DATA_DIR);
    const auto sender = std::make_shared<kiro::web::ExportCommandSender>();
    engine::Outlet out({sender});
    engine::EcgFigure ecg(data.ecg);
    engine::QuakeFigure quakes(data);
    Conversation result;
    for (std::uint64_t frame = 0; frame < frames; ++frame) {
        out.command("beginFrame", [frame](kiro::web::JSONPayload& payload) {
            payload.addDataToPayload("frame", frame);
            payload.addDataToPayload("attempt", 1);
            payload.addDataToPayload("whole", frame == 0);
        });
        for (engine::Figure* figure : std::initializer_list<engine::Figure*>{&ecg, &quakes}) {
            figure->advance(frame);
            frame == 0 ? figure->sendWhole(out) : figure->sendNew(out);
        }
        const auto& texts = sender->getCommandsAsStrings();
        result.insert(result.end(), texts.begin(), texts.end());
        result.push_back(kToken);
        sender->reset();
    }
    return result;
}

/// A client that hears what a test lets it hear.
struct Client {
    void hear(std::span<const std::string> messages) {
        for (const std::string& message : messages) {
            inbox.message(message);
            while (inbox.next()) ++tokens;
        }
    }

    static inline const client::ReferenceData data = client::readReferenceData(MONITOR_DATA_DIR);
    client::Findings findings;
    client::Checker checker{data, findings};
    client::Inbox inbox{checker, findings};
    int tokens = 0;
};

client::Findings findingsOf(const Conversation& messages) {
    Client client;
    client.hear(messages);
    client.inbox.finish();
    return client.findings;
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

TEST(Checker, FindsWrongTextsAndLimits) {
    const std::pair<std::string, std::string> changes[] = {
        {R"("text":"0 s")", R"("text":"1 s")"},
        {"81km WNW of Skagway", "82km WNW of Skagway"},
        {R"("x":[-4.96)", R"("x":[-4.86)"},
        {R"("count":5998)", R"("count":5997)"},
    };
    const Conversation whole = conversation(1);
    for (const auto& [from, to] : changes) {
        Conversation messages = whole;
        const auto changed =
            std::find_if(messages.begin(), messages.end(),
                         [from = from](const auto& text) { return text.find(from) != text.npos; });
        ASSERT_NE(changed, messages.end()) << from;
        changed->replace(changed->find(from), from.size(), to);
        EXPECT_FALSE(findingsOf(messages).none()) << from;
    }
}

TEST(Inbox, HoldsACommandAndAllBehindItBackUntilItsBlockIsThere) {
    Conversation messages = conversation(1);
    // Blocks as text come late by nature.
    const auto blocks = std::stable_partition(
        messages.begin(), messages.end(),
        [](const auto& text) { return !text.starts_with(R"({"cmd":"binarydata")"); });
    Client client;
    client.hear({messages.begin(), blocks});
    EXPECT_EQ(client.tokens, 0);
    client.hear({blocks, messages.end()});
    EXPECT_EQ(client.tokens, 1);
    client.inbox.finish();
    EXPECT_TRUE(client.findings.none());
}

}  // namespace
