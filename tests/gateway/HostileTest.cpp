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
    /// The status of the answer to `bytes`, sent as they are.
    std::string statusOf(const std::string& bytes) {
        Peer peer(fAccess);
        peer.send(bytes);
        const auto head = peer.readHead();
        return head.substr(0, head.find('\r'));
    }
};

}  // namespace

TEST_F(HostileTest, RequestsAreAnsweredBeforeAnyUpgrade) {
    fOptions.limits.headerSize = 2048;
    start();
    const auto good = upgradeRequest(fAccess, fCookie);
    const auto host = fAccess.host();
    const auto with = [&good](const std::string& what, const std::string& instead) {
        auto request = good;
        return request.replace(request.find(what), what.size(), instead);
    };
    const struct {
        std::string request;
        std::string status;
    } table[] = {
        {"GET / HTTP/1.1\r\nHost: " + host + "\r\n\r\n", "HTTP/1.1 200 OK"},
        {"GET / HTTP/1.1\r\n\r\n", "HTTP/1.1 400 Bad Request"},
        {"GET / HTTP/1.1\r\nHost: " + host + "\r\nHost: " + host + "\r\n\r\n",
         "HTTP/1.1 400 Bad Request"},
        {"GET / HTTP/1.1\r\nHost: evil.example\r\n\r\n", "HTTP/1.1 403 Forbidden"},
        {"GET /../../etc/passwd HTTP/1.1\r\nHost: " + host + "\r\n\r\n", "HTTP/1.1 404 Not Found"},
        {"GET /?token=0 HTTP/1.1\r\nHost: " + host + "\r\n\r\n", "HTTP/1.1 403 Forbidden"},
        {"POST / HTTP/1.1\r\nHost: " + host + "\r\nContent-Length: 1\r\n\r\nx",
         "HTTP/1.1 400 Bad Request"},
        {"DELETE / HTTP/1.1\r\nHost: " + host + "\r\n\r\n", "HTTP/1.1 405 Method Not Allowed"},
        {"\x16\x03\x01\x02\r\n\r\n", "HTTP/1.1 400 Bad Request"},
        {"GET / HTTP/1.1\r\nHost : " + host + "\r\n\r\n", "HTTP/1.1 400 Bad Request"},
        {"GET / HTTP/1.1\r\nHost: " + host + "\r\nX: " + std::string(4096, 'x') + "\r\n\r\n",
         "HTTP/1.1 431 Request Header Fields Too Large"},
        {with("Origin: http://", "Origin: null, http://"), "HTTP/1.1 400 Bad Request"},
        {with("Origin: http://" + host, "Origin: null"), "HTTP/1.1 403 Forbidden"},
        {with("Origin: http://" + host, "X-Origin: a"), "HTTP/1.1 403 Forbidden"},
        {with("Origin: http://" + host, "Origin: http://evil.example"), "HTTP/1.1 403 Forbidden"},
        {with(fCookie, "kiroweb=1"), "HTTP/1.1 403 Forbidden"},
        {with("Version: 13", "Version: 8"), "HTTP/1.1 400 Bad Request"},
        {with("kiroweb.v1", "kiroweb.v2"), "HTTP/1.1 400 Bad Request"},
        {with("Key: ", "Key: A"), "HTTP/1.1 400 Bad Request"},
        {with("websocket", "h2c"), "HTTP/1.1 400 Bad Request"},
        {good, "HTTP/1.1 101 Switching Protocols"},
    };
    for (const auto& row : table) EXPECT_EQ(statusOf(row.request), row.status) << row.request;
}

TEST_F(HostileTest, AnswersProtectThePageAndKeepTheTokenOut) {
    std::vector<std::string> lines;
    const auto observing = kirohost::observeLog(
        [&lines](const kirohost::LogRecord& record) { lines.push_back(record.text); });
    start();
    Peer peer(fAccess);
    peer.send("GET / HTTP/1.1\r\nHost: " + fAccess.host() + "\r\n\r\n");
    const auto head = peer.readHead();
    for (const char* field :
         {"Content-Security-Policy: default-src 'none'; script-src 'self'",
          "frame-ancestors 'none'", "Referrer-Policy: no-referrer",
          "X-Content-Type-Options: nosniff", "Cross-Origin-Resource-Policy: same-origin"}) {
        EXPECT_NE(head.find(field), std::string::npos) << field;
    }
    const auto link = fGateway->link();
    const auto token = link.substr(link.find('=') + 1);
    statusOf("GET /?token=" + token + "x HTTP/1.1\r\nHost: " + fAccess.host() + "\r\n\r\n");
    statusOf("GET / HTTP/1.1\r\nHost: a\x1b[2J\r\n\r\n");
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
        std::string text;
        unsigned code;
    } beforeHello[] = {
        {"nonsense", 4000},
        {R"({"t":"echo","id":1})", 4000},
        {R"({"t":"hello","version":2})", 4002},
    };
    for (const auto& row : beforeHello) {
        auto peer = connect();
        peer.sendText(row.text);
        EXPECT_EQ(peer.readClose(), row.code) << row.text;
    }
    for (const char* text : {"{", R"({"t":"hello","version":1})", R"([{"t":"ack","last":1},7])"}) {
        auto peer = join();
        peer.sendText(text);
        std::string reason;
        EXPECT_EQ(peer.readClose(&reason), 4000U) << text;
        EXPECT_TRUE(reason.starts_with("bad message: ")) << reason;
    }
    auto peer = connect();
    peer.sendFrame(2, std::string(16, '\x01'));
    EXPECT_EQ(peer.readClose(), 4000U);
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
    std::vector<Peer> silent;
    for (int i = 0; i < 100; ++i) silent.emplace_back(fAccess);
    // The newest are let be, so somebody who knocks now is heard.
    auto late = join();
    settle(page);
    settle(late);
    EXPECT_EQ(silent.front().readAll(), "");

    std::vector<Peer> pages;
    std::string refusal;
    for (int i = 0; i < 12 && refusal.empty(); ++i) {
        Peer peer(fAccess);
        peer.send(upgradeRequest(fAccess, fCookie));
        const auto head = peer.readHead();
        if (head.starts_with("HTTP/1.1 101")) {
            pages.push_back(std::move(peer));
        } else {
            refusal = head.empty() ? "reset" : head;
        }
    }
    EXPECT_NE(refusal, "");
    settle(page);
}

TEST_F(HostileTest, HalfOpenAndStubbornPeersDoNoHarm) {
    fOptions.limits.close = std::chrono::milliseconds(40);
    start();
    auto half = join(R"(,"resume":false)");
    fEvents.take();
    half.closeWriting();
    EXPECT_EQ(fEvents.take(), "last page gone");
    half.readAll();

    auto flood = join();
    // Pings whose answers it does not read.
    for (int i = 0; i < 1000; ++i) flood.sendFrame(9, std::string(100, 'p'));
    settle(flood);
    flood.sendText("bad");
    EXPECT_EQ(flood.readClose(), 4000U);
    // It does not answer the close, and is dropped nevertheless.
    flood.readAll();
}
