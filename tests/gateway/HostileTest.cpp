#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "GatewayFixture.hpp"
#include "kirohost/Controls.hpp"

using gatewaytest::GatewayTest;
using gatewaytest::Peer;
using gatewaytest::upgradeRequest;
using namespace std::string_literals;

namespace {

class HostileTest : public GatewayTest {
  protected:
    /// The head, and the status, of the answer to `bytes`, sent as they are.
    std::string headOf(const std::string& bytes) {
        Peer peer(fAccess);
        peer.send(bytes);
        return peer.readHead();
    }
    std::string statusOf(const std::string& bytes) {
        const auto head = headOf(bytes);
        return head.substr(head.find(' ') + 1, head.find('\r') - head.find(' ') - 1);
    }
};

}  // namespace

TEST_F(HostileTest, RequestsAreAnsweredBeforeAnyUpgrade) {
    fOptions.limits.headerSize = 2048;
    fOptions.extraOrigins = {"http://dev.example:5173"};
    start();
    const auto good = upgradeRequest(fAccess, fCookie);
    const auto host = fAccess.host();
    const auto origin = "Origin: " + fAccess.origin();
    const auto end = " HTTP/1.1\r\nHost: " + host + "\r\n\r\n";
    const auto with = [&good](const std::string& what, const std::string& instead) {
        auto request = good;
        return request.replace(request.find(what), what.size(), instead);
    };
    const struct {
        std::string request;
        std::string status;
    } table[] = {
        {"GET /" + end, "200 OK"},
        {"GET / HTTP/1.1\r\n\r\n", "400 Bad Request"},
        {"GET / HTTP/1.1\r\nHost: " + host + "\r\nHost: " + host + "\r\n\r\n", "400 Bad Request"},
        {"GET / HTTP/1.1\r\nHost: evil.example\r\n\r\n", "403 Forbidden"},
        {"GET / HTTP/1.1\r\nHost: " + host + ".evil.example\r\n\r\n", "403 Forbidden"},
        {"GET /?v=2 HTTP/1.1\r\nHost: localhost:" + std::to_string(fAccess.port) + "\r\n\r\n",
         "200 OK"},
        {"GET http://evil.example/" + end, "400 Bad Request"},
        {"GET //" + end, "404 Not Found"},
        {"GET /../../etc/passwd" + end, "404 Not Found"},
        {"GET /?token=0" + end, "403 Forbidden"},
        {"POST / HTTP/1.1\r\nHost: " + host + "\r\nContent-Length: 1\r\n\r\nx", "400 Bad Request"},
        {"DELETE /" + end, "405 Method Not Allowed"},
        {"\x16\x03\x01\x02\r\n\r\n", "400 Bad Request"},
        {"GET / HTTP/1.1\r\nHost : " + host + "\r\n\r\n", "400 Bad Request"},
        {"GET /" + std::string(4096, 'x') + end, "431 Request Header Fields Too Large"},
        {with("Origin: http://", "Origin: null, http://"), "400 Bad Request"},
        {with(origin, "Origin: null"), "403 Forbidden"},
        {with(origin, "X-Origin: a"), "403 Forbidden"},
        {with("Origin: http", "Origin: https"), "403 Forbidden"},
        {with("\r\nUpgrade", "/\r\nUpgrade"), "403 Forbidden"},
        {with("\r\nUpgrade", ".evil.example\r\nUpgrade"), "403 Forbidden"},
        {with("\r\nUpgrade", "\r\n" + origin + "\r\nUpgrade"), "400 Bad Request"},
        {with(origin, "Origin: http://dev.example:5173"), "101 Switching Protocols"},
        {with(fCookie, "kiroweb=1"), "403 Forbidden"},
        {with(fCookie, fCookie.substr(0, fCookie.find('=') + 1)), "403 Forbidden"},
        {with(fCookie, "1" + fCookie), "403 Forbidden"},
        {with("Cookie: ", "Cookie: ;;=;a; "), "101 Switching Protocols"},
        {with("Version: 13", "Version: 8"), "400 Bad Request"},
        {with("kiroweb.v1", "kiroweb.v2"), "400 Bad Request"},
        {with("Key: ", "Key: A"), "400 Bad Request"},
        {with("websocket", "h2c"), "400 Bad Request"},
        {good, "101 Switching Protocols"},
    };
    for (const auto& row : table) EXPECT_EQ(statusOf(row.request), row.status) << row.request;

    const auto once = fGateway->singleUseLink();
    const auto target = once.substr(once.find("/?")) + end;
    EXPECT_EQ(statusOf("HEAD " + target), "405 Method Not Allowed");
    const auto head = headOf("GET " + target);
    EXPECT_NE(head.find(fCookie + "; HttpOnly; SameSite=Strict; Path=/"), std::string::npos);
    EXPECT_EQ(statusOf("GET " + target), "403 Forbidden") << "used up";
}

TEST_F(HostileTest, AnswersProtectThePageAndKeepTheTokenOut) {
    std::vector<std::string> lines;
    const auto observing = kirohost::observeLog(
        [&lines](const kirohost::LogRecord& record) { lines.push_back(record.text); });
    start();
    const auto end = " HTTP/1.1\r\nHost: " + fAccess.host() + "\r\n\r\n";
    const auto head = headOf("GET /" + end);
    for (const char* field :
         {"Content-Security-Policy: default-src 'none'; script-src 'self'",
          "frame-ancestors 'none'", "Referrer-Policy: no-referrer",
          "X-Content-Type-Options: nosniff", "Cross-Origin-Resource-Policy: same-origin"}) {
        EXPECT_NE(head.find(field), std::string::npos) << field;
    }
    const auto link = fGateway->link();
    const auto token = link.substr(link.find('=') + 1);
    headOf("GET /?token=" + token + "x" + end);
    headOf("GET / HTTP/1.1\r\nHost: a\x1b[2J\r\n\r\n");
    fGateway.reset();
    EXPECT_FALSE(lines.empty());
    for (const auto& line : lines) {
        EXPECT_EQ(line.find(token), std::string::npos);
        EXPECT_EQ(line.find('\x1b'), std::string::npos);
    }
}

TEST_F(HostileTest, BrokenFramesEndTheirConnectionOnly) {
    fOptions.limits.messageSize = 1000;
    start();
    auto good = join();
    const struct {
        const char* what;
        std::string bytes;
        unsigned code;
    } table[] = {
        {"no mask", "\x81\x02{}", 1002},
        {"unknown opcode", "\x83\x80"s + "mask", 1002},
        {"reserved bit", "\xc1\x80"s + "mask", 1002},
        {"a control frame in pieces", "\x09\x80"s + "mask", 1002},
        {"a large control frame", "\x89\xfe\x01\x00mask"s, 1002},
        {"a continuation of nothing", "\x80\x80"s + "mask", 1002},
        {"not UTF-8", "\x81\x81\x00\x00\x00\x00\xff"s, 1007},
        {"too large", "\x81\xfe\x07\xd0mask"s, 1009},
        {"absurdly large", "\x82\xff\x7f\xff\xff\xff\xff\xff\xff\xffmask"s, 1009},
        {"a close code that is none", "\x88\x82\x00\x00\x00\x00\x00\x01"s, 1002},
    };
    for (const auto& row : table) {
        for (const bool hasView : {false, true}) {
            auto peer = hasView ? join() : connect();
            peer.send(row.bytes);
            EXPECT_EQ(peer.readClose(), row.code) << row.what << hasView;
            EXPECT_EQ(peer.readFrame().opcode, 0U);
        }
    }
    settle(good);
}

TEST_F(HostileTest, MessagesThatAreNoneEndTheirView) {
    start();
    const struct {
        bool hasView;
        unsigned opcode;
        std::string payload;
        unsigned code;
    } table[] = {
        {false, 1, "nonsense", 4000},
        {false, 1, R"({"t":"echo","id":1})", 4000},
        {false, 1, R"({"t":"hello","version":2})", 4002},
        {false, 2, std::string(16, '\x01'), 4000},
        {true, 1, R"({"t":"hello","version":1})", 4000},
        {true, 1, R"([{"t":"ack","last":1},7])", 4000},
    };
    for (const auto& row : table) {
        auto peer = row.hasView ? join() : connect();
        peer.sendFrame(row.opcode, row.payload);
        EXPECT_EQ(peer.readClose(), row.code) << row.payload;
    }
}

TEST_F(HostileTest, SilentPeersAreNotWaitedForForEver) {
    auto& limits = fOptions.limits;
    limits.request = limits.hello = limits.ping = limits.close = std::chrono::milliseconds(40);
    start();
    Peer says_nothing(fAccess);
    Peer says_half(fAccess);
    says_half.send("GET / HT");
    auto says_no_hello = connect();
    auto goes_silent = join();
    EXPECT_EQ(says_nothing.readAll(), "");
    EXPECT_EQ(says_half.readAll(), "");
    EXPECT_EQ(says_no_hello.readClose(), 4001U);
    EXPECT_EQ(goes_silent.readFrame().opcode, 9U);  // a ping, which nobody answers
    EXPECT_EQ(goes_silent.readClose(), 4004U);
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

    peers.clear();
    const auto isLetIn = [this, &peers] {
        peers.emplace_back(fAccess).send(upgradeRequest(fAccess, fCookie));
        return peers.back().readHead().starts_with("HTTP/1.1 101");
    };
    while (peers.size() < 12 && isLetIn()) {
    }
    EXPECT_LT(peers.size(), 12U);
    settle(page);
}

TEST_F(HostileTest, HalfOpenAndStubbornPeersDoNoHarm) {
    fOptions.limits.close = std::chrono::milliseconds(40);
    fOptions.limits.connections = 2;
    start();
    auto half = join(R"(,"resume":false)");
    half.closeWriting();
    EXPECT_EQ(fEvents.take(), "last page gone");
    half.readAll();

    auto flood = join();
    // Pings whose answers it does not read.
    for (int i = 0; i < 1000; ++i) flood.sendFrame(9, std::string(100, 'p'));
    settle(flood);
    flood.sendText("bad");
    EXPECT_EQ(flood.readClose(), 4000U);
    // It does not answer the close, and loses its place nevertheless.
    for (std::string head; !head.starts_with("HTTP/1.1 101");) {
        Peer next(fAccess);
        next.send(upgradeRequest(fAccess, fCookie));
        head = next.readHead();
    }
}
