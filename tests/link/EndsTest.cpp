// What each end does about the other: joining, blocks, silence, views and clocks.
#include <gmock/gmock.h>

#include "Clocks.hpp"
#include "Ends.hpp"
#include "Frame.hpp"
#include "Offers.hpp"

namespace link_test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

TEST_F(Ends, CarryTextsAndBlocksOfAllSizesInOrder) {
    auto settings = TestEngine::usual();
    settings.description.configuration = R"({"a":1})";
    settings.description.lanes = {{"/c/a", "/c/b"}, {}};
    join({"g"}, settings);
    EXPECT_EQ(gateway("g").session.configuration, R"({"a":1})");
    EXPECT_EQ(gateway("g").session.lanes, settings.description.lanes);
    EXPECT_THAT(engine().links, ElementsAre("https://g:1/s/s"));

    std::vector<std::string> said;
    const std::string odd("\x1e\x1f\0\xff", 4);
    for (const auto& text : {std::string("one"), std::string(), odd, std::string(65'000, '\x80'),
                             std::string(kBatchSize, 'x'), std::string(2 * kMiB, 'y')}) {
        for (const char* channel : {"/c/a", "/c/b"}) {
            engine().end->down()->text(channel, text);
            engine().send(channel, text);
            said.push_back(std::string(channel) + " " + text);
            said.push_back("block " + said.back());
            gateway("g").end->publish("/up", text);
            gateway("g").end->sendBlock("/page/b", text);
        }
    }
    engine().end->down()->text("/other", "nobody can hear that");
    gateway("g").end->publish("/c/a", "a page may not say that");
    gateway("g").end->sendBlock("/c/a", "nor that");
    world.run(500ms);
    EXPECT_TRUE(gateway("g").got == said);
    ASSERT_EQ(engine().got.size(), said.size());
    for (std::size_t i = 0; i < said.size(); ++i) {
        const auto text = said[i].substr(said[i].find("/c/") + 5);
        EXPECT_TRUE(engine().got[i] == (i % 2 == 0 ? "/up " : "block /page/b ") + text) << i;
    }
    EXPECT_EQ(statistics().refusals, 2U);
}

TEST_F(Ends, KeepNothingWhenNobodyIsThereAndWhenEverybodyHasIt) {
    world.start();
    engine().end->down()->text("/c/a", "unheard");
    EXPECT_EQ(engine().send("/c/b", "block"), 0U);
    EXPECT_EQ(engine().ends[0], "given back");
    EXPECT_EQ(statistics().blocksNobody, 1U);
    world.run(100ms);
    EXPECT_EQ(statistics().framesSent, 0U);
    world.add("g");
    world.run(500ms);
    engine().end->down()->text("/c/a", "heard");
    world.run(1s);
    EXPECT_THAT(gateway("g").got, ElementsAre("/c/a heard"));
    EXPECT_EQ(statistics().waiting, 0U);
    gateway("g").end->publish("/up", std::string(kMiB, 'x'));
    world.run(10ms);
    EXPECT_LT(gateway("g").end->statistics().waiting, kMiB);  // no beat has come yet
    world.run(1s);
    EXPECT_EQ(gateway("g").end->statistics().waiting, 0U);
}

TEST_F(Ends, SendAtOnceAndGatherWhatFollows) {
    join({"g"});
    std::vector<std::size_t> texts;
    world.network.onMessage = [&](const std::string&, const std::string& bytes) {
        const auto frame = readFrame(bytes);
        const auto* batch = std::get_if<frame::Texts>(&frame->body);
        if (batch != nullptr) texts.push_back(batch->records.size());
    };
    const auto now = world.network.now;
    const auto step = [&](std::chrono::microseconds after) {
        return engine().end->step(now + after) - now;
    };
    engine().end->down()->text("/c/a", "1");
    step(0us);
    EXPECT_THAT(texts, ElementsAre(1U));
    engine().end->down()->text("/c/a", "2");
    engine().end->down()->text("/c/a", "3");
    EXPECT_EQ(step(400us), 1ms);
    EXPECT_EQ(texts.size(), 1U);
    step(1ms);
    EXPECT_THAT(texts, ElementsAre(1U, 2U));
    for (int i = 0; i < 20; ++i) engine().end->down()->text("/c/a", std::string(4096, 'x'));
    step(1100us);
    EXPECT_THAT(texts, ElementsAre(1U, 2U, 15U));  // what is full does not wait
    gateway("g").end->publish("/up", "drawn");
    EXPECT_THAT(texts, ElementsAre(1U, 2U, 15U, 1U));  // its own
    world.network.deliver();
    step(1200us);
    EXPECT_THAT(texts, ElementsAre(1U, 2U, 15U, 1U, 5U));  // nor does what follows an answer
}

TEST_F(Ends, CutLargePiecesOnceTheLineIsKnownToBeFast) {
    join({"g"});
    std::size_t largest = 0;
    world.network.onMessage = [&](const std::string&, const std::string& bytes) {
        const auto frame = readFrame(bytes);
        const auto* piece = std::get_if<frame::Piece>(&frame->body);
        if (piece != nullptr) largest = std::max(largest, piece->bytes.size());
    };
    for (const auto wanted : {kPieceSize / 8, kPieceSize}) {
        engine().send("/c/a", std::string(5 * kMiB, 'x'));
        world.run(1s);
        EXPECT_EQ(largest, wanted);
    }
}

struct BlockCase {
    const char* first;  ///< what the one gateway does: delivered, refused, nobody, goes, silent;
                        ///< or "leaves", where no gateway says that it has pages
    const char* second;
    const char* end;
    std::uint64_t EngineEnd::Statistics::*counted;
};

class Blocks : public Ends, public testing::WithParamInterface<BlockCase> {
  protected:
    void act(const std::string& name, const std::string& what) {
        auto& tickets = gateway(name).tickets;
        if (what == "goes" || what == "leaves") {
            world.gateways.erase(name);
        } else if (what == "silent") {
            world.network.cut(name);
        } else if (what == "refused") {
            tickets.clear();
        } else {
            const bool isNobody = what == "nobody";
            tickets.at(0)->answer(isNobody ? BlockOutcome::kNobody : BlockOutcome::kDelivered);
        }
    }
};

TEST_P(Blocks, AreDeliveredWhenAllThatAreThereHaveThem) {
    join({"a", "b"});
    for (const char* name : {"a", "b"}) {
        gateway(name).end->pages(GetParam().first == std::string("leaves") ? 0 : 1);
    }
    world.run(50ms);
    engine().send("/c/b", "block");
    world.run(50ms);
    world.add("late");  // has nothing to do with it
    world.run(350ms);
    act("a", GetParam().first);
    world.run(900ms);
    EXPECT_EQ(engine().ends[0], "");
    act("b", GetParam().second);
    world.run(1100ms);
    EXPECT_EQ(engine().ends[0], GetParam().end);
    EXPECT_EQ(statistics().*GetParam().counted, 1U);
}

constexpr auto kDelivered = &EngineEnd::Statistics::blocksDelivered;
constexpr auto kRefused = &EngineEnd::Statistics::blocksRefused;
constexpr auto kNobody = &EngineEnd::Statistics::blocksNobody;
constexpr auto kGone = &EngineEnd::Statistics::blocksGone;
INSTANTIATE_TEST_SUITE_P(Outcomes, Blocks,
                         testing::Values(BlockCase{"delivered", "delivered", "delivered",
                                                   kDelivered},
                                         BlockCase{"nobody", "delivered", "delivered", kDelivered},
                                         BlockCase{"nobody", "nobody", "given back", kNobody},
                                         BlockCase{"refused", "delivered", "given back", kRefused},
                                         BlockCase{"delivered", "silent", "given back", kGone},
                                         BlockCase{"goes", "delivered", "given back", kGone},
                                         BlockCase{"goes", "refused", "given back", kRefused},
                                         BlockCase{"leaves", "delivered", "delivered", kDelivered},
                                         BlockCase{"leaves", "leaves", "given back", kNobody}));

TEST_F(Ends, EndABlockThatAGatewayNeverAnswers) {
    join({"g"});
    engine().send("/c/b", "block");
    world.run(59s);
    EXPECT_EQ(engine().ends[0], "");
    world.run(2s);
    EXPECT_EQ(engine().ends[0], "given back");
    gateway("g").tickets.at(0)->answer(BlockOutcome::kDelivered);
    world.run(1s);
    EXPECT_EQ(statistics().blocksDelivered, 0U);
}

TEST_F(Ends, NoticeSilenceAfterASecondAndPartAfterTen) {
    join({"g"});
    gateway("g").end->pages(1);
    world.run(100ms);
    EXPECT_FALSE(engine().end->lastPageGone());
    world.network.cut("g");
    engine().send("/c/b", "block");
    world.run(900ms);
    EXPECT_EQ(engine().ends[0], "");
    world.run(500ms);
    EXPECT_EQ(engine().ends[0], "given back");
    EXPECT_TRUE(engine().end->lastPageGone());
    EXPECT_EQ(engine().timesGone, 1);
    EXPECT_THAT(gateway("g").events, ElementsAre("joined", "silent"));
    engine().send("/c/b", "another");  // nobody is there who could have it
    world.run(100ms);
    EXPECT_EQ(engine().ends[1], "given back");
    world.network.mend("g");
    world.run(500ms);
    EXPECT_FALSE(engine().end->lastPageGone());
    EXPECT_THAT(gateway("g").events, ElementsAre("joined", "silent", "heard"));
    EXPECT_THAT(gateway("g").got, ElementsAre("block /c/b block", "block /c/b another"));
    world.network.cut("g");
    world.run(11s);
    EXPECT_EQ(gateway("g").events.back(), "left: this gateway has lost the cluster");
    EXPECT_EQ(statistics().gateways, 0U);
    EXPECT_THAT(engine().notes.back(), HasSubstr("nothing was heard of it for 10 s"));
    world.network.mend("g");
    world.run(500ms);
    EXPECT_EQ(gateway("g").joins, 2);
    world.kill();
    world.run(11s);
    EXPECT_EQ(gateway("g").events.back(), "left: the engine is gone");
}

TEST_F(Ends, DoNotTakeTheirOwnPauseForSilence) {
    join({"g"});
    gateway("g").end->pages(1);
    world.run(400ms);
    world.network.now += 5s;  // the machine was asleep
    world.run(400ms);
    EXPECT_THAT(gateway("g").events, ElementsAre("joined"));
    EXPECT_EQ(engine().timesGone, 0);
}

TEST_F(Ends, SayGoodbye) {
    join({"a", "b"});
    world.gateways.erase("a");
    world.run(50ms);
    EXPECT_EQ(statistics().gateways, 1U);
    engine().end->down()->text("/c/a", "a last word");
    world.engine->end->step(world.network.now);
    engine().end->down()->text("/c/a", "and another one");
    std::string late;
    world.network.onMessage = [&](const std::string& subject, const std::string& bytes) {
        if (!subject.ends_with("down")) return world.network.mend("engine");
        late = bytes;  // which the end overtakes
        world.network.cut("engine");
    };
    world.engine.reset();
    world.network.onMessage = {};
    world.run(500ms);
    EXPECT_TRUE(gateway("b").isJoined);
    world.network.inject("kiroweb.s.down", late);
    world.run(50ms);
    EXPECT_THAT(gateway("b").got, ElementsAre("/c/a a last word", "/c/a and another one"));
    EXPECT_EQ(gateway("b").events.back(), "left: the engine is gone");
}

TEST_F(Ends, FollowANewEngineWhenTheOldOneIsSilent) {
    TestEngine other(world.network);
    world.start();
    world.add("g");  // which both of them welcome
    for (int i = 0; i < 5; ++i) {
        world.run(400ms);
        other.end->step(world.network.now);
    }
    EXPECT_THAT(gateway("g").events, ElementsAre("joined"));
    gateway("g").end->publish("/up", "to one of them");
    world.run(400ms);
    other.end->step(world.network.now);
    EXPECT_EQ(engine().got.size(), 1U);
    EXPECT_THAT(other.got, IsEmpty());
    world.kill();
    world.start();
    world.run(1700ms);
    EXPECT_THAT(gateway("g").events,
                ElementsAre("joined", "silent", "left: another engine has taken over", "joined"));
}

TEST_F(Ends, TakeAGatewayThatBeginsAnewForAnotherOne) {
    join({"g"});
    engine().send("/c/b", "block");
    world.run(1s);
    world.network.cut("g");
    world.gateways.clear();  // killed
    world.network.mend("g");
    world.add("g");
    world.run(400ms);
    EXPECT_TRUE(gateway("g").isJoined);
    EXPECT_EQ(engine().ends[0], "given back");
    EXPECT_EQ(statistics().gateways, 1U);
    EXPECT_EQ(engine().links.size(), 1U);
}

TEST_F(Ends, CountPagesOverAllGateways) {
    join({"a", "b"});
    EXPECT_FALSE(engine().end->lastPageGone());  // there was none yet
    gateway("a").end->pages(2);
    gateway("b").end->pages(1);
    world.run(100ms);
    EXPECT_EQ(statistics().pages, 3U);
    gateway("a").end->pages(0);
    world.run(100ms);
    EXPECT_FALSE(engine().end->lastPageGone());
    gateway("b").end->pages(0);
    world.run(100ms);
    EXPECT_TRUE(engine().end->lastPageGone());
    gateway("a").end->pages(1);
    world.run(100ms);
    EXPECT_FALSE(engine().end->lastPageGone());
    world.gateways.erase("a");
    world.run(100ms);
    EXPECT_TRUE(engine().end->lastPageGone());
    EXPECT_EQ(engine().timesGone, 2);
    // A gateway that joins anew has its pages with it.
    gateway("b").end->pages(4);
    world.kill();
    world.start();
    world.run(2s);
    EXPECT_EQ(statistics().pages, 4U);
}

TEST_F(Ends, NumberViewsOverAllGateways) {
    join({"a", "b"});
    using Kind = GatewayEnd::ViewKind;
    gateway("a").end->announce(Kind::kNew, "Anna", 1);
    world.run(50ms);
    gateway("b").end->announce(Kind::kNew, "Ben\xff", 1);
    world.run(50ms);
    gateway("a").end->announce(Kind::kReturn, "Anna", 1);
    gateway("b").end->announce(Kind::kReturn, "Ben", 1);
    gateway("b").end->announce(Kind::kReturn, "who?", 9);
    world.run(50ms);
    EXPECT_THAT(engine().views,
                testing::UnorderedElementsAre("first 1 Anna", "further 2 Ben\\xff", "return 1 Anna",
                                              "return 2 Ben", "return 0 who?"));
    auto& late = world.add("late");
    world.run(500ms);
    EXPECT_EQ(late.session.views, 2U);
}

TEST_F(Ends, MeasureTheDifferenceOfTheirClocks) {
    // Answers overtake each other, and presences; none comes before the next one has gone.
    world.network.weather.delay = 200ms;
    world.network.weather.least = 200ms;
    world.start();
    world.add("early", 90min);
    world.add("late", -3s);
    world.run(20s);
    for (const auto& [name, ahead] : {std::pair("early", 5'400'000'000L), {"late", -3'000'000L}}) {
        const auto known = gateway(name).end->statistics();
        const auto uncertainty = known.clockUncertainty.count();
        EXPECT_NEAR(static_cast<double>(known.clockOffset.count()), static_cast<double>(-ahead),
                    static_cast<double>(uncertainty));
        EXPECT_GT(uncertainty, 0);
        EXPECT_LE(uncertainty, 300'000);
    }
    Clocks clocks;
    clocks.add(0us, std::chrono::microseconds((1LL << 53) - 1),
               std::chrono::microseconds(1 - (1LL << 53)), 1us);  // it has left before it came
    clocks.add(0us, 0us, 0us, 61s);
    EXPECT_EQ(clocks.lastRoundTrip(), 0us);
    const auto reports = engine().end->gateways();
    ASSERT_EQ(reports.size(), 2U);
    EXPECT_NEAR(static_cast<double>(reports[0].clockOffset.count()), -5.4e9, 300'000);
}

TEST_F(Ends, OfferToServeAPageOnceForEachEngine) {
    const auto cluster = world.network.connect("g");
    Offers offers(*cluster, "g",
                  [](const auto& session, bool) { return "https://g/s/" + session; });
    int beats = 0;
    const auto hear = [&](std::string_view, std::string_view bytes) {
        EXPECT_TRUE(offers.beat("s", bytes, world.network.now));
        ++beats;
    };
    const auto listening = cluster->subscribe("kiroweb.s.beat", hear);
    int offered = 0;
    world.network.onMessage = [&](const std::string& subject, const std::string&) {
        offered += subject == "kiroweb.s.from.g" ? 1 : 0;
    };
    world.start();
    world.run(59s);
    EXPECT_GT(beats, 100);
    EXPECT_EQ(offered, 1);
    EXPECT_THAT(engine().links, ElementsAre("https://g/s/s"));
    EXPECT_THAT(engine().end->addresses(), ElementsAre("https://g/s/s"));
    world.run(2s);
    EXPECT_EQ(offered, 2);
    EXPECT_EQ(engine().links.size(), 1U);
    world.kill();
    world.start();
    world.run(1s);
    EXPECT_EQ(offered, 3);
    EXPECT_THAT(engine().links, ElementsAre("https://g/s/s"));
    EXPECT_FALSE(offers.beat("s", "no frame", world.network.now));
}

}  // namespace
}  // namespace link_test
