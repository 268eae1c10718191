// A page that an engine brings: its bytes, and how they come.
#include "OwnPage.hpp"

#include <gmock/gmock.h>

#include <map>
#include <stdexcept>

#include "Ends.hpp"
#include "PageFetch.hpp"

namespace link_test {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using testing::ElementsAre;

/// One of about so many bytes.
EngineEnd::Settings bringing(std::size_t size) {
    auto settings = TestEngine::usual();
    std::string body;
    while (body.size() < size) body += std::to_string(body.size());
    settings.page = writePage({{"/", "text/html", body}});
    return settings;
}

TEST(OwnPages, AreReadWithinBoundsOnly) {
    const std::vector<kirogateway::Asset> files{{"/", "text/html", "<p>"}, {"/a", "", ""}};
    const auto page = writePage(files);
    EXPECT_EQ(digestOf(page).files, 2U);
    const auto read = readPage(page);
    ASSERT_TRUE(read && read->size() == 2);
    EXPECT_EQ(writePage(*read), page);
    for (std::size_t size = 0; size < page.size(); ++size) {
        EXPECT_FALSE(readPage(page.substr(0, size))) << size;
    }
    EXPECT_FALSE(readPage(page + "x"));
    const std::string path(kMostOfPath + 1, '/');
    const std::string type(kMostOfFileType + 1, 't');
    for (const auto& [name, lengths] :
         std::map<std::string, std::string>{{"", "\0\0\0\0\0\0\0\0"s},
                                            {path, "\x01\x04\0\0\0\0\0\0"s},
                                            {"/" + type, "\x01\0\x01\x01\0\0\0\0"s}}) {
        auto bytes = "\1\0\0\0"s;
        bytes += lengths;
        bytes += name;
        EXPECT_FALSE(readPage(bytes)) << name;
    }
    for (const auto& wrong : std::vector<std::vector<kirogateway::Asset>>{
             {{"/a", "", ""}},
             {{"/", "", ""}, {path, "", ""}},
             {{"/", type, ""}},
             {{"/", "", std::string(kMostOfPage, 'x')}},
             std::vector<kirogateway::Asset>(kMostFiles + 1, {"/", "", ""})}) {
        EXPECT_THROW(static_cast<void>(writePage(wrong)), std::invalid_argument);
    }
}

TEST_F(Ends, FetchAPageWhileTheyGoOn) {
    world.network.weather = {0.2, 0.1, 20ms};
    const auto settings = bringing(2 * kMiB);
    world.start(settings);
    auto& got = world.add("g");
    int asked = 0;
    world.network.onMessage = [&](const std::string&, const std::string& bytes) {
        const auto frame = readFrame(bytes);
        asked += frame && std::holds_alternative<frame::Fetch>(frame->body) ? 1 : 0;
    };
    while (asked == 0) world.run(5ms);
    const auto block = engine().send("/c/a", std::string(1000, 'x'));
    engine().end->down()->text("/c/a", "early");
    EXPECT_TRUE(got.isJoined && got.page.empty());
    for (int i = 0; i < 400 && got.page.empty(); ++i) world.run(50ms);
    EXPECT_TRUE(got.page == settings.page);
    EXPECT_EQ(got.ofPage, settings.page.size());
    EXPECT_GT(asked, 40) << "33 parts, of which some were lost";
    world.run(5s);
    ASSERT_EQ(got.tickets.size(), 1U);
    got.tickets.front()->answer(BlockOutcome::kDelivered);
    world.run(1s);
    EXPECT_EQ(got.got.back(), "/c/a early");
    EXPECT_EQ(engine().ends[block], "delivered");

    // An engine with the same one, and an engine with another.
    asked = 0;
    for (const auto& next : {settings, bringing(10)}) {
        world.kill();
        world.start(next);
        const auto joins = got.joins;
        for (int i = 0; i < 600 && (got.joins == joins || got.page != next.page); ++i) {
            world.run(50ms);
        }
        EXPECT_EQ(asked > 0, got.page != settings.page);
        EXPECT_TRUE(got.page == next.page);
    }
}

TEST_F(Ends, FetchAPageOverASlowLine) {
    world.network.bytesPerSecond = 125'000;
    world.start(bringing(kMiB));
    auto& got = world.add("g");
    world.run(12s);
    EXPECT_FALSE(got.page.empty());
    EXPECT_LE(got.end->statistics().framesSent, 80U) << "about one question for each of 17 parts";
    EXPECT_THAT(got.events, ElementsAre("joined"));
}

TEST_F(Ends, HaveNoMoreToDoWithASessionThatIsRefused) {
    world.start(bringing(kMiB));
    auto& refused = world.add("g");
    refused.mostOfPage = 4 * kPagePart;
    world.run(5s);
    EXPECT_THAT(refused.events, ElementsAre("joined", "left: it is refused"));
    EXPECT_LE(refused.ofPage, 5 * kPagePart) << "it is charged for what has come, not for a claim";
    EXPECT_EQ(statistics().gateways, 0U);
}

TEST_F(Ends, SendAPageToNobodyForEver) {
    world.start(bringing(kMiB));
    OddGateway odd(world);
    const auto before = odd.bytesGot;
    world.run(1s, [&] {
        for (std::uint64_t offset = 0; offset < kMiB; offset += kPagePart) {
            odd.say(frame::Fetch(), offset);
        }
    });
    EXPECT_GT(odd.bytesGot - before, 16 * kMiB);
    EXPECT_LT(odd.bytesGot - before, 21 * kMiB);
    const auto refusals = statistics().refusals;
    for (const std::uint64_t offset : {2 * kMiB, std::size_t{1}}) odd.say(frame::Fetch(), offset);
    world.run(100ms);
    EXPECT_EQ(statistics().refusals, refusals + 2);
}

TEST(PageFetch, AsksForNoMoreThanComesQuickly) {
    PageFetch::TimePoint now{1h};
    PageFetch fetch(kMostOfPage);
    const std::string part(kPagePart, 'x');
    std::size_t most = 0;
    std::vector<std::uint64_t> asked = fetch.due(now);
    const auto first = asked.size() * kPagePart;
    for (int i = 0; i < 200; ++i) {
        now += 1ms;
        std::vector<std::uint64_t> next;
        for (const auto offset : asked) {
            EXPECT_TRUE(fetch.arrived(offset, part, now));
            EXPECT_FALSE(fetch.arrived(offset, part, now)) << "twice";
            for (const auto more : fetch.due(now)) next.push_back(more);
        }
        most = std::max(most, next.size() * kPagePart);
        asked = std::move(next);
    }
    EXPECT_LE(first, kMiB);
    EXPECT_GT(most, first);
    EXPECT_TRUE(fetch.isWhole());

    // Nothing comes: the first one is asked for again, and less and less often.
    PageFetch slow(kMostOfPage);
    std::size_t again = 0;
    EXPECT_EQ(slow.due(now).size() * kPagePart, first);
    for (int i = 0; i < 200; ++i) again += slow.due(now += 50ms).size();
    EXPECT_EQ(again, 6U);
    for (const std::uint64_t offset : {std::uint64_t{1}, 3 * kMiB, 60 * kMiB}) {
        EXPECT_FALSE(slow.arrived(offset, part, now)) << "it was not asked for";
    }
    EXPECT_FALSE(slow.arrived(0, "short", now));
}

}  // namespace
}  // namespace link_test
