#include "client/Checker.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
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

/// What a client finds that hears these messages and no more.
client::Findings findingsOf(const Conversation& messages) {
    static const client::ReferenceData data = client::readReferenceData(MONITOR_DATA_DIR);
    client::Findings findings;
    client::Checker checker(data, findings);
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
    const std::string from = R"("x":[-4.96)";
    const auto changed = std::ranges::find_if(
        messages, [&](const auto& text) { return text.find(from) != text.npos; });
    ASSERT_NE(changed, messages.end());
    changed->replace(changed->find(from), from.size(), R"("x":[-4.86)");
    EXPECT_FALSE(findingsOf(messages).none());
}

}  // namespace
