#include <atomic>
#include <stdexcept>
#include <tuple>

#include "GatewayFixture.hpp"
#include "kirohost/Controls.hpp"

using gatewaytest::GatewayTest;
using gatewaytest::Peer;
using gatewaytest::upgradeRequest;
using namespace std::string_literals;

using HostileTest = GatewayTest;

TEST_F(HostileTest, BrokenFramesAndMessagesEndTheirConnectionOnly) {
    fOptions.limits.messageSize = 65536;
    fOptions.limits.namesPerFrame = 1024;
    std::atomic<int> lines{0};  // so many that more would be left out
    const auto observing = kirohost::observeLog([&lines](const kirohost::LogRecord& record) {
        if (record.text.starts_with("broken WebSocket frame: ")) ++lines;
    });
    start();
    auto good = join();
    const std::pair<std::string, unsigned> frames[] = {
        {"\x81\x02{}", 1002},                                     // no mask
        {"\x83\x80"s + "mask", 1002},                             // an unknown opcode
        {"\x80\x80"s + "mask", 1002},                             // a continuation of nothing
        {"\x81\x81\x00\x00\x00\x00\xff"s, 1007},                  // not UTF-8
        {"\x81\xff\0\0\0\0\0\1\0\1mask"s, 1009},                  // too large
        {"\x82\xff\x7f\xff\xff\xff\xff\xff\xff\xffmask"s, 1009},  // absurdly large
        {"\x88\x82\0\0\0\0\x03\xed"s, 1002},                      // 1005 is for nobody to send
        {"\x88\x82\0\0\0\0\x03\xe7"s, 1002},                      // 999 is no close code
    };
    for (const auto& [bytes, code] : frames) {
        for (const bool hasView : {false, true}) {
            auto peer = hasView ? join() : connect();
            peer.send(bytes);
            EXPECT_EQ(peer.readClose(), code) << hasView;
            EXPECT_EQ(peer.readFrame().opcode, 0U);
        }
    }
    settle(good);
    EXPECT_EQ(lines, 16);
    std::string names = R"({"t":"subscribe","channels":[)";
    for (int i = 0; i < 1024; ++i) names += "\"\",";
    const std::tuple<bool, unsigned, std::string> messages[] = {
        {false, 1, "nonsense"},
        {true, 1, R"({"t":"hello","version":1})"},
        {true, 1, R"([{"t":"ack","last":1},7])"},
        {true, 1, R"({"t":"channel","number":17,"name":"/x"})"},
        {true, 1, names + R"(""]})"},
        {true, 2, "\1\1\21" + std::string(13, '\0')},  // no such channel
        {true, 2, "\1\1" + std::string(14, '\0')},     // nor this
        {true, 1, R"({"t":"channel","number":0,"name":"/x"})"},
        {false, 2, "\1\1\1" + std::string(13, '\0')},                           // no hello yet
        {true, 2, "\1" + std::string(1, '\0') + "\1" + std::string(13, '\0')},  // in pieces
    };
    for (const auto& [hasView, opcode, payload] : messages) {
        auto peer = hasView ? join() : connect();
        peer.sendFrame(opcode, payload);
        EXPECT_EQ(peer.readClose(), 4000U) << payload;
    }
    auto future = connect();
    future.sendText(R"({"t":"hello","version":2})");
    EXPECT_EQ(future.readClose(), 4002U);
    settle(good);
}

TEST_F(HostileTest, ATextThatEndsWithinACharacterIsInvalid) {
    start();
    for (const bool hasView : {false, true}) {
        auto peer = hasView ? join() : connect();
        peer.send("\x01\x82\0\0\0\0\"\xe2"s + "\0\x81\0\0\0\0\x82"s + "\x80\x80mask"s);
        EXPECT_EQ(peer.readClose(), 1007U);
    }
}

TEST_F(HostileTest, ABlockOnAChannelWithoutANameGoesNowhere) {
    fOptions.mayPublish = {""};
    start();
    auto page = join();
    page.sendFrame(2, "\1\1\1" + std::string(13, '\0'));
    EXPECT_NE(page.readControl("refused").find(R"("what":"block","channel":"")"),
              std::string::npos);
}

TEST_F(HostileTest, SilentPeersAreNotWaitedForForEver) {
    using kirogateway::Limits;
    const auto startWith = [this](auto limit) {
        fSubscriptions.clear();
        for (auto time : {&Limits::request, &Limits::hello}) {
            fOptions.limits.*time = std::chrono::hours(1);  // so that none stands in for another
        }
        fOptions.limits.*limit = std::chrono::milliseconds(20);
        start();
    };
    startWith(&Limits::request);
    Peer says_nothing(fAccess);
    Peer says_half(fAccess);
    says_half.send("GET / HT");
    EXPECT_EQ(says_nothing.readAll(), "");
    EXPECT_EQ(says_half.readAll(), "");

    startWith(&Limits::hello);
    EXPECT_EQ(connect().readClose(), 4001U);
}

TEST_F(HostileTest, APageThatGotInIsLeftToItself) {
    fOptions.limits.request = fOptions.limits.hello = std::chrono::milliseconds(100);
    fOptions.limits.block = std::chrono::milliseconds(500);
    fOptions.limits.blocksUnderWay = 1;
    start();
    auto page = join();
    sendBlock(9);
    auto late = sendBlock(9);
    publish("/fig/1", "held up by them");
    EXPECT_FALSE(late.get().delivered);  // five times as long
    EXPECT_EQ(page.readRecords(1).at(0).text, "held up by them");
    settle(page);
}

TEST_F(HostileTest, AFloodOfConnectionsLeavesThePagesAlone) {
    fOptions.limits.connections = 12;
    fOptions.limits.unauthenticatedConnections = 4;
    start();
    auto page = join();
    std::vector<Peer> peers;
    for (int i = 0; i < 100; ++i) peers.emplace_back(fAccess);
    // The newest are let be, so somebody who knocks now is heard.
    auto late = join();
    settle(page);
    settle(late);
    EXPECT_EQ(peers.front().readAll(), "");
    settle(page);
}

TEST_F(HostileTest, HalfOpenAndStubbornPeersDoNoHarm) {
    fOptions.limits.close = std::chrono::milliseconds(40);
    fOptions.limits.gone = std::chrono::milliseconds(40);
    fOptions.limits.connections = 3;
    start();
    join().cut();
    EXPECT_EQ(fEvents.take(), "last page gone") << "though there is no connection at all";
    auto half = join(R"(,"resume":false)");
    half.closeWriting();
    EXPECT_EQ(fEvents.take(), "last page gone");
    half.readAll();
    auto lingers = join();
    lingers.sendFrame(8, "\x03\xe8");  // and keeps its end open
    EXPECT_EQ(fEvents.take(), "last page gone");

    auto flood = join();
    // Pings whose answers it does not read.
    for (int i = 0; i < 1000; ++i) flood.sendFrame(9, std::string(100, 'p'));
    settle(flood);
    flood.sendText("bad");
    EXPECT_EQ(flood.readClose(), 4000U);
    // It does not answer the close, and loses its place nevertheless: all are free again.
    for (std::vector<Peer> others; others.size() < 3;) {
        Peer next(fAccess);
        next.send(upgradeRequest(fAccess, fToken));
        if (next.readHead().starts_with("HTTP/1.1 101")) others.push_back(std::move(next));
        if (others.size() < 3) continue;
        EXPECT_TRUE(Peer(fAccess).readHead().starts_with("HTTP/1.1 503"));
    }
}

TEST_F(HostileTest, GoesOnWhenWhoReadsTheLogThrows) {
    const auto throwing = kirohost::observeLog(
        [](const kirohost::LogRecord&) { throw std::runtime_error("no lines, please"); });
    fOptions.onLastPageGone = [] { throw 7; };
    start();
    Peer(fAccess).send("nonsense\r\n\r\n");
    auto bad = join();
    bad.sendText("nonsense");
    EXPECT_EQ(bad.readClose(), 4000U);
    join().cut();
    auto page = join();
    publish("/fig/1", "a");
    EXPECT_EQ(page.readRecords(1).size(), 1U);
    settle(page);
    fGateway.reset();
    EXPECT_EQ(page.readClose(), 1001U);
}
