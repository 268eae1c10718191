// What neither end lets the other one do, whether that is slow, has a fault or is hostile.
#include <gmock/gmock.h>

#include <stdexcept>
#include <utility>

#include "Ends.hpp"
#include "Offers.hpp"

namespace link_test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

TEST_F(Ends, DropWhoHoldsUpMoreThanIsKept) {
    auto settings = TestEngine::usual();
    settings.memory = 4 * kMiB;
    join({"a", "b"}, settings);
    world.network.cut("b");
    for (int i = 0; i < 20; ++i) {
        engine().end->down()->text("/c/a", std::string(500'000, static_cast<char>('a' + i)));
        world.run(20ms);
        EXPECT_LE(engine().end->statistics().waiting, 4 * kMiB);
    }
    EXPECT_EQ(gateway("a").got.size(), 20U);
    EXPECT_EQ(statistics().dropped, 1U);
    world.network.mend("b");
    world.run(1s);
    EXPECT_THAT(gateway("b").events, testing::Contains("left: it is not known"));
    EXPECT_EQ(gateway("b").joins, 2);
    EXPECT_EQ(gateway("a").joins, 1);
    EXPECT_EQ(engine().send("/c/b", std::string(3 * kMiB, 'x')), 0U);
    EXPECT_EQ(engine().ends[0], "given back");  // it could never be kept
    engine().end->down()->text("/c/a", std::string(6 * kMiB, 'x'));
    EXPECT_EQ(statistics().waiting, 0U);  // not even in parts
    world.run(1s);
    EXPECT_EQ(gateway("a").joins, 2);
}

TEST_F(Ends, DropWhoIsThereButDoesNotGetOn) {
    join({"g"});
    engine().end->down()->text("/c/a", "1");
    world.run(50ms);
    OddGateway odd(world);
    engine().end->down()->text("/c/a", "2");
    int count = 0;
    const auto live = [&] {
        if (++count % 20 == 0) odd.say(frame::Presence{2, 0, 0, 0});
    };
    world.run(9s, live);
    EXPECT_EQ(statistics().gateways, 2U);
    world.run(2s, live);
    EXPECT_EQ(statistics().gateways, 1U);
    EXPECT_THAT(engine().notes, testing::Contains(HasSubstr("odd: it is 10 s behind")));
    EXPECT_THAT(gateway("g").got, ElementsAre("/c/a 1", "/c/a 2"));
}

TEST_F(Ends, SendAgainOnlySoMuchAtATime) {
    join({"g"});
    OddGateway odd(world);
    for (int i = 0; i < 200; ++i) engine().end->down()->text("/c/a", std::string(60'000, 'x'));
    world.run(500ms);
    const auto askFor = [&](std::uint64_t has) {
        odd.bytesGot = 0;
        for (int i = 0; i < 20; ++i) odd.say(frame::Ask{{{has, kEndOfNumbers - 1}}}, has);
        world.run(200ms);
        return odd.bytesGot / 60'000;  // frames
    };
    EXPECT_EQ(askFor(1), 2U);
    EXPECT_EQ(askFor(1), 0U);
    EXPECT_EQ(askFor(3), 4U);  // it gets on
    odd.say(frame::Ask(), 5);
    EXPECT_EQ(askFor(7), 8U);
    EXPECT_EQ(askFor(11), 8U);  // half of that is still on its way
    world.run(300ms);
    EXPECT_EQ(askFor(11), 2U);  // it was lost
    world.run(300ms);
    EXPECT_EQ(askFor(11), 0U);
    world.run(300ms);
    EXPECT_EQ(askFor(11), 2U);
    EXPECT_EQ(statistics().resends, 26U);
    odd.say(frame::Ask(), 202);
    world.run(100ms);
    EXPECT_EQ(statistics().refusals, 1U);  // it cannot have more than there is
    for (int i = 0; i < 1600; ++i) engine().send("/b/a", "small");
    world.run(50ms);
    odd.framesGot = 0;
    odd.say(frame::Ask{{{201, kEndOfNumbers - 1}}}, 201);
    world.run(50ms);
    // What two large ones have added to the room, in small ones.
    EXPECT_NEAR(static_cast<double>(odd.framesGot), (65'536 + 120'000) / 128, 10);
}

TEST_F(Ends, AreNotHeldUpByOneGateway) {
    join({"g"});
    OddGateway odd(world);
    EXPECT_EQ(odd.framesGot, 1U);
    world.run(4s, [&] { odd.say(frame::Hello{"http://odd"}); });
    EXPECT_EQ(odd.framesGot, 3U);  // after a second, and two
    for (const char* address : {"http://1", "http://2"}) odd.say(frame::Offer{address});
    world.run(50ms);
    EXPECT_THAT(engine().links, ElementsAre("https://g:1/s/s", "http://odd"));
    odd.framesGot = 0;
    odd.takes = 4ms;
    for (int i = 0; i < 20; ++i) odd.say(frame::Presence{1, 0, 0, 0});
    world.network.now += 5ms;
    world.network.deliver();
    const auto now = world.network.now;
    EXPECT_EQ(engine().end->step(now), now);  // there is more
    EXPECT_EQ(odd.framesGot, 3U);
}

TEST_F(Ends, TakeNoMoreGatewaysThanTheyCanServe) {
    join({"g"});
    const auto hello = [&](std::size_t i) {
        world.network.inject("kiroweb.s.from.g" + std::to_string(i),
                             writeFrame({0, i, 1}, frame::Hello{"http://g"}));
    };
    for (std::size_t i = 1; i <= EngineEnd::kMostGateways; ++i) hello(i);
    world.run(100ms);
    EXPECT_EQ(statistics().gateways, EngineEnd::kMostGateways);
    EXPECT_THAT(engine().notes, testing::Contains(HasSubstr("too many gateways")));
    world.gateways.erase("g");  // it leaves
    world.run(1100ms, [&] { hello(EngineEnd::kMostGateways); });
    EXPECT_EQ(statistics().gateways, EngineEnd::kMostGateways);
    EXPECT_THAT(engine().notes, testing::Contains(HasSubstr("joined: g256")));
}

TEST_F(Ends, SendNoMoreThanASlowLineCarries) {
    // An engine behind a line that comes down to 100 kB/s: beats get through, nobody is dropped.
    join({"g"});
    engine().end->down()->text("/c/a", std::string(30 * kMiB, 'x'));
    world.run(2s);
    EXPECT_EQ(std::exchange(gateway("g").got, {}).size(), 1U);
    world.network.bytesPerSecond = 100'000;
    std::size_t said = 0;
    world.run(60s, [&] {
        if (++said % 20 == 0) engine().send("/c/b", std::string(40'000, 'x'));
    });
    EXPECT_THAT(gateway("g").events, ElementsAre("joined"));
    EXPECT_EQ(statistics().dropped, 0U);
    EXPECT_LE(world.network.mostUnderWay, 1'000'000U);
    EXPECT_GE(gateway("g").got.size() * 40'000, 60U * 100'000 * 7 / 10);  // of what it gives
    world.network.bytesPerSecond = 0;
    world.run(5s);
    EXPECT_EQ(gateway("g").got.size(), said / 20);
}

TEST_F(Ends, BoundWhatPagesSay) {
    join({"g"});
    auto& end = *gateway("g").end;
    const std::string large(10 * kMiB, 'x');
    // The engine's process does not get on with it.
    engine().keepsTickets = true;
    for (int i = 0; i < 3; ++i) end.publish("/up", large);
    world.run(500ms);
    EXPECT_EQ(engine().got.size(), 2U);  // the second one is beyond the bound
    std::size_t said = 3;
    const auto sayOn = [&] {
        for (; said < 20; ++said) end.publish("/up", large);
    };
    EXPECT_TRUE(end.hasRoomForPages());
    EXPECT_THROW(sayOn(), std::length_error);
    EXPECT_FALSE(end.hasRoomForPages());
    EXPECT_LE(end.statistics().waiting, 32 * kMiB);
    engine().send("/c/b", "block");
    world.run(100ms);
    gateway("g").tickets.at(0)->answer(BlockOutcome::kDelivered);
    world.run(100ms);
    EXPECT_THAT(engine().ends, ElementsAre("delivered"));  // what waits before it is only texts
    const std::string block(500'000, 'x');
    const auto fill = [&] {
        for (int i = 0; i < 100; ++i) end.sendBlock("/page/b", block);
    };
    EXPECT_THROW(fill(), std::length_error);
    end.pages(1);  // for which there is room
    end.announce(GatewayEnd::ViewKind::kNew, "late", 1);
    engine().keepsTickets = false;
    engine().tickets.clear();
    world.run(8s);
    EXPECT_GT(engine().got.size(), said);
    EXPECT_EQ(engine().views.size(), 1U);
    EXPECT_EQ(statistics().pages, 1U);
    EXPECT_EQ(end.statistics().waiting, 0U);
    EXPECT_EQ(gateway("g").joins, 1);
}

TEST_F(Ends, AreNotDrivenByAHostileEngine) {
    auto& gateway = world.add("g");
    const auto cluster = world.network.connect("hostile");
    std::uint64_t incarnation = 0;
    int hellos = 0;
    const auto hear = [&](std::string_view, std::string_view bytes) {
        const auto frame = readFrame(bytes);
        incarnation = frame->header.incarnation;
        hellos += std::holds_alternative<frame::Hello>(frame->body) ? 1 : 0;
    };
    const auto listening = cluster->subscribe("kiroweb.s.from.g", hear);
    world.run(50ms);
    const auto say = [&](std::uint64_t which, const frame::Body& body) {
        world.network.inject("kiroweb.s.to.g", writeFrame({9, which, 1}, body));
        world.network.deliver();
    };
    for (std::uint64_t i = incarnation; i < incarnation + 10; ++i) {
        say(i, frame::Welcome{TestEngine::usual().description});
        say(i, frame::Dropped{"\xff\n" + std::string(100, 'x')});
    }
    world.run(200ms);
    EXPECT_EQ(gateway.joins, 1);
    EXPECT_EQ(hellos, 1) << "the next one takes a beat";
    EXPECT_EQ(gateway.events.back(), "left: \\xff\\x0a" + std::string(26, 'x') + "...");
    Offers offers(*cluster, "g", [](const auto&, bool) { return "http://g"; });
    int offered = 0;
    world.network.onMessage = [&](const std::string&, const std::string&) { ++offered; };
    for (std::uint64_t epoch = 1; epoch < 10; ++epoch) {
        EXPECT_TRUE(offers.beat("s", writeFrame({epoch, 0, 1}, frame::Beat()), world.network.now));
        offers.beat("s", writeFrame({epoch, 0, 1}, frame::End()), world.network.now);
    }
    EXPECT_EQ(offered, 1);
}

TEST_F(Ends, HandOnNothingBehindWhatTheyLeaveFor) {
    join({"g"});
    std::uint64_t epoch = 0;
    world.network.onMessage = [&](const std::string& subject, const std::string& bytes) {
        if (subject.ends_with("beat")) epoch = readFrame(bytes)->header.epoch;
    };
    world.run(300ms);
    const auto say = [&](std::string bytes) {
        world.network.inject("kiroweb.s.down", std::move(bytes));
        world.network.deliver();
    };
    const auto text = [&](std::uint64_t number) {
        BatchWriter batch;
        batch.add("/c/a", std::to_string(number));
        say(batch.frame({epoch, 0, number}));
    };
    text(3);
    say(writeFrame({epoch, 0, 2},
                   frame::Piece{false, "/c/a", 11, 10, "x"}));  // the end of something
    text(1);
    EXPECT_EQ(gateway("g").events.back(), "left: a text is larger than this gateway takes");
    EXPECT_THAT(gateway("g").got, ElementsAre("/c/a 1"));
}

TEST_F(Ends, LoseNothingByWhatAnEngineClaimsToHave) {
    frame::Header header;
    world.network.onMessage = [&](const std::string& subject, const std::string& bytes) {
        if (subject.ends_with("from.g")) header = readFrame(bytes)->header;
    };
    join({"g"});
    world.run(400ms);
    world.network.cut("engine");
    auto& end = *gateway("g").end;
    end.publish("/up", "1");
    const auto before = end.statistics().refusals;
    for (const auto& body : {frame::Body(frame::Answer{}), frame::Body(frame::Ask())}) {
        world.network.inject("kiroweb.s.to.g",
                             writeFrame({header.epoch, header.incarnation, 1000}, body));
    }
    world.run(50ms);
    EXPECT_EQ(end.statistics().refusals, before + 2);
    world.network.mend("engine");
    world.run(2s);
    EXPECT_THAT(engine().got, ElementsAre("/up 1"));
}

TEST_F(Ends, AnswerNoBlockOfTheEngineBefore) {
    join({"g"});
    engine().send("/c/b", "old");
    world.run(50ms);
    const auto late = std::move(gateway("g").tickets);
    world.kill();
    world.start();
    world.run(3s);
    ASSERT_EQ(gateway("g").joins, 2);
    engine().send("/c/b", "new");  // by the same number
    world.run(50ms);
    ASSERT_EQ(gateway("g").tickets.size(), 1U);
    late.at(0)->answer(BlockOutcome::kDelivered);
    world.run(100ms);
    EXPECT_THAT(engine().ends, ElementsAre(""));
    gateway("g").tickets.at(0)->answer(BlockOutcome::kRefused);
    world.run(100ms);
    EXPECT_THAT(engine().ends, ElementsAre("given back"));
}

TEST_F(Ends, IgnoreWhatIsNotForThem) {
    auto& early = world.add("early");
    world.network.inject("kiroweb.s.to.early",
                         writeFrame({99, 98, 1}, frame::Welcome{TestEngine::usual().description}));
    world.run(100ms);
    EXPECT_FALSE(early.isJoined);
    world.gateways.clear();
    join({"g"});
    const auto before = statistics();
    const std::string own = "kiroweb.s.to.g";
    for (const auto& [subject, body] : std::vector<std::pair<std::string, frame::Body>>{
             {own, frame::Dropped{"forged"}},
             {own, frame::Welcome{TestEngine::usual().description}},
             {"kiroweb.s.beat", frame::End()},
             {"kiroweb.s.beat", frame::Beat()},
             {"kiroweb.s.down", frame::Texts{{{"/c/a", "forged"}}}},
             {"kiroweb.s.from.g", frame::Leave()},
             {"kiroweb.s.from.g", frame::Pages{5}}}) {
        world.network.inject(subject, writeFrame({99, 98, 1}, body));
    }
    world.network.inject(own, "no frame");
    world.network.inject("kiroweb.s.from.g", std::string(2 * kMiB, 'K'));
    world.network.inject("kiroweb.s.from.g", writeFrame({0, 1, 0}, frame::Beat()));
    world.run(500ms);
    EXPECT_THAT(gateway("g").events, ElementsAre("joined"));
    EXPECT_THAT(gateway("g").got, IsEmpty());
    EXPECT_EQ(gateway("g").end->statistics().refusals, 1U);
    EXPECT_EQ(statistics().refusals, before.refusals + 1);
    EXPECT_EQ(statistics().pages, 0U);
}

}  // namespace
}  // namespace link_test
