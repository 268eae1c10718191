#include "AccessPolicy.hpp"

#include <boost/beast/http/parser.hpp>
#include <span>

#include "GatewayFixture.hpp"
#include "HttpText.hpp"
#include "kirohost/Controls.hpp"

using gatewaytest::GatewayTest;
using gatewaytest::Peer;
using gatewaytest::secretOf;
using gatewaytest::upgradeRequest;
using namespace kirogateway;

namespace {

constexpr Secrets::TimePoint kStart{std::chrono::hours(1)};

std::string replaced(std::string text, std::string_view what, std::string_view instead) {
    return text.replace(text.find(what), what.size(), instead);
}

std::string statusOf(std::string_view answer) { return std::string(answer.substr(9, 3)); }

using Row = std::pair<std::string, std::string>;  // a request and the status of its answer

/// An access policy, and requests as texts.
class AccessTest : public testing::Test {
  protected:
    AccessTest() {
        fOptions.extraOrigins = {"http://dev.example:5173"};
        fOptions.extraHosts = {"plot.example"};
        fOptions.assets = {{"/", "text/html; charset=utf-8", "<p>page"}};
    }
    /// What goes out when `text` comes in.
    std::string answerTo(const std::string& text, Secrets::TimePoint now = kStart) {
        if (!fPolicy) fPolicy.emplace(fOptions, fAccess.port, entrance());
        boost::beast::http::request_parser<boost::beast::http::string_body> parser;
        parser.body_limit(boost::none);
        boost::system::error_code error;
        const auto read = parser.put(boost::asio::buffer(text), error);
        if (const auto refusal = refusalOf(error)) return responseText(*refusal, nullptr, *fPolicy);
        if (awaitsBody(requestOf(parser.get()))) {
            parser.put(boost::asio::buffer(text) + read, error);
        }
        const auto request = requestOf(parser.get());
        const auto admission = fPolicy->decide(request, now);
        return responseText(admission, &request, *fPolicy) +
               std::string(responseBody(admission, &request));
    }
    void expectStatuses(std::span<const Row> rows) {
        for (const auto& [request, status] : rows)
            EXPECT_EQ(statusOf(answerTo(request)), status) << request;
    }
    std::string exchange(const std::string& code, const std::string& fields = {}) const {
        return "POST /kiroweb/token HTTP/1.1\r\nHost: " + fAccess.host() +
               "\r\nOrigin: " + fAccess.origin() +
               "\r\nContent-Length: " + std::to_string(code.size()) + "\r\n" + fields + "\r\n" +
               code;
    }

    gatewaytest::Access fAccess{8080};
    Options fOptions;
    [[nodiscard]] Entrance entrance() const {
        return {std::make_shared<const AssetTable>(fOptions.assets), fSecrets};
    }
    const std::shared_ptr<Secrets> fSecrets = std::make_shared<Secrets>(std::chrono::seconds(60));
    std::optional<AccessPolicy> fPolicy;
    const std::string fUpgrade = upgradeRequest(fAccess, fSecrets->token());
};

}  // namespace

TEST_F(AccessTest, AssetsAreForWhoeverNamesTheGateway) {
    const auto host = "Host: " + fAccess.host();
    const auto end = " HTTP/1.1\r\n" + host + "\r\n\r\n";
    const Row table[] = {
        {"GET /" + end, "200"},
        {"GET / HTTP/1.1\r\nHost: localhost:8080\r\n\r\n", "200"},
        {"GET / HTTP/1.1\r\nHost: [::1]:8080\r\n\r\n", "200"},
        {"GET / HTTP/1.1\r\nHost: plot.example\r\n\r\n", "200"},
        {"GET / HTTP/1.1\r\n\r\n", "400"},
        {"GET / HTTP/1.1\r\nHost: \xe9\r\n\r\n", "400"},
        {"GET / HTTP/1.1\r\n" + host + "\r\n" + host + "\r\n\r\n", "400"},
        {"GET / HTTP/1.1\r\n" + host + ".evil.example\r\n\r\n", "403"},
        {"GET /../../etc/passwd" + end, "404"},
        {"GET http://" + fAccess.host() + "/" + end, "404"},
        {"GET /?reload=1" + end, "200"},
        {"GET /\xe9" + end, "400"},
        {"GET / HTTP/1.1\r\n" + host + "\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n", "400"},
        {"DELETE /" + end, "405"},
        {"GET / HTTP/1.1\r\n" + host + "\r\nContent-Length: 0\r\nContent-Length: 1\r\n\r\nx",
         "400"},
    };
    expectStatuses(table);

    const auto answer = answerTo("GET /" + end);
    EXPECT_TRUE(answer.ends_with("\r\n\r\n<p>page"));
    EXPECT_EQ(answerTo("HEAD /" + end) + "<p>page", answer);
    EXPECT_NE(answerTo("DELETE /" + end).find("\r\nAllow: GET, HEAD\r\n"), std::string::npos);
    for (const char* field :
         {"\r\nContent-Type: text/html; charset=utf-8\r\n", "\r\nCache-Control: no-store\r\n",
          "\r\nContent-Security-Policy: default-src 'none'; script-src 'self'; style-src 'self'; "
          "img-src 'self' data: blob:; font-src 'self'; connect-src 'self' ws://127.0.0.1:8080; "
          "base-uri 'none'; form-action 'none'; frame-ancestors 'none'\r\n",
          "\r\nX-Content-Type-Options: nosniff\r\n"}) {
        EXPECT_NE(answer.find(field), std::string::npos) << field;
    }
    fOptions.frameAncestors = {"http://a.example", "https://b.example:8888"};
    fPolicy.reset();
    EXPECT_NE(answerTo("GET /" + end).find("ancestors http://a.example https://b.example:8888"),
              std::string::npos);
}

TEST_F(AccessTest, TextsAreCompressedForWhoTakesThem) {
    std::string script;
    for (int i = 0; i < 1000; ++i) script += "line " + std::to_string(i * i) + "\n";
    fOptions.assets.push_back({"/a.js", "text/javascript", script});
    fOptions.assets.push_back({"/a.png", "image/png", script});
    const auto answer = [this](const std::string& name, const std::string& encodings) {
        return answerTo("GET " + name + " HTTP/1.1\r\nHost: " + fAccess.host() +
                        "\r\nAccept-Encoding: " + encodings + "\r\n\r\n");
    };
    const auto isGzip = [](const std::string& text) {
        return text.find("\r\nContent-Encoding: gzip\r\n") != std::string::npos;
    };
    for (const auto* taken : {"gzip", "deflate, GZIP;q=0.5, br"}) {
        EXPECT_TRUE(isGzip(answer("/a.js", taken))) << taken;
    }
    for (const auto* notTaken : {"identity", "gzip;q=0.000, br", "xgzip"}) {
        const auto plain = answer("/a.js", notTaken);
        EXPECT_FALSE(isGzip(plain)) << notTaken;
        EXPECT_TRUE(plain.ends_with("\r\n\r\n" + script));
        EXPECT_NE(plain.find("\r\nVary: Accept-Encoding\r\n"), std::string::npos);
    }
    for (const auto* gainsNothing : {"/", "/a.png"}) {
        EXPECT_FALSE(isGzip(answer(gainsNothing, "gzip"))) << gainsNothing;
    }
    EXPECT_LT(answer("/a.js", "gzip").size(), script.size() / 2);
}

TEST_F(AccessTest, LinksNameAHostThatCanBeReached) {
    EXPECT_EQ(AccessPolicy(fOptions, 8080, entrance()).address(), "http://127.0.0.1:8080");
    fOptions.address = "0.0.0.0";
    EXPECT_EQ(AccessPolicy(fOptions, 8080, entrance()).address(), "http://plot.example");
    fOptions.extraHosts.clear();
    EXPECT_EQ(AccessPolicy(fOptions, 8080, entrance()).address(), "http://0.0.0.0:8080");
}

TEST_F(AccessTest, AHostMayLackThePortThatIsTheUsualOne) {
    for (const auto& [certificate, usual] : {std::pair("", 80), {"c.pem", 443}}) {
        fOptions.certificateFile = certificate;
        for (const int port : {80, 443}) {
            fPolicy.emplace(fOptions, static_cast<std::uint16_t>(port), entrance());
            EXPECT_EQ(statusOf(answerTo("GET / HTTP/1.1\r\nHost: localhost\r\n\r\n")),
                      port == usual ? "200" : "403");
        }
    }
    fOptions.address = "127.0.0.2";
    fPolicy.reset();
    expectStatuses(std::array<Row, 2>{{{"GET / HTTP/1.1\r\nHost: 127.0.0.2:8080\r\n\r\n", "200"},
                                       {"GET / HTTP/1.1\r\nHost: localhost:8080\r\n\r\n", "403"}}});
}

TEST_F(AccessTest, ASiteMayHaveAnOriginOfItsOwnAndOthersThatServeIt) {
    auto own = entrance();
    own.origin = "https://a.example:8443";
    own.others = {"http://b.example"};
    fPolicy.emplace(fOptions, fAccess.port, own);
    EXPECT_EQ(fPolicy->address(), own.origin);
    const auto there = replaced(fUpgrade, fAccess.host(), "a.example:8443");
    const auto from = [&](const char* origin) {
        return replaced(there, "Origin: " + fAccess.origin(), std::string("Origin: ") + origin);
    };
    expectStatuses(std::array<Row, 5>{{{fUpgrade, "403"},
                                       {from("https://a.example:8443"), "101"},
                                       {from("http://b.example"), "101"},
                                       {from("http://a.example:8443"), "403"},
                                       {from("http://dev.example:5173"), "403"}}});
    EXPECT_NE(fPolicy->commonFields("a.example:8443")
                  .find("connect-src 'self' wss://a.example:8443 ws://b.example;"),
              std::string::npos);

    own.movedTo = "https://c.example/";
    fPolicy.emplace(fOptions, fAccess.port, own);
    const auto get = [](const std::string& target) {
        return "GET " + target + " HTTP/1.1\r\nHost: a.example:8443\r\n\r\n";
    };
    expectStatuses(std::array<Row, 3>{{{get("/?x"), "302"}, {get("/x"), "404"}, {there, "404"}}});
    EXPECT_NE(answerTo(get("/")).find("\r\nLocation: https://c.example/\r\n"), std::string::npos);
    own.secrets = nullptr;
    own.movedTo.clear();
    fPolicy.emplace(fOptions, fAccess.port, own);
    expectStatuses(std::array<Row, 2>{{{get("/"), "200"}, {from("http://b.example"), "503"}}});
}

TEST_F(AccessTest, AnUpgradeNeedsItsOriginAndTheToken) {
    const auto origin = "Origin: " + fAccess.origin();
    const auto token = fSecrets->token();
    const auto offers = "kiroweb.v1, kiroweb.token." + token;
    const auto with = [this](std::string_view what, const std::string& instead) {
        return replaced(fUpgrade, what, instead);
    };
    const auto offering = [&](const std::string& others) { return with(offers, others); };
    const Row table[] = {
        {fUpgrade, "101"},
        {with(origin, "X-Origin: a"), "403"},
        {with(origin, "Origin: \xe9"), "400"},
        {with("\r\nUpgrade", ".evil.example\r\nUpgrade"), "403"},
        {with("\r\nUpgrade", "\r\n" + origin + "\r\nUpgrade"), "400"},
        {with(origin, "Origin: http://dev.example:5173"), "101"},
        {with("Host: 127", "Host: 128"), "403"},
        {offering("kiroweb.token." + token + ",kiroweb.v1,other"), "101"},
        {offering("kiroweb.v1"), "403"},
        {replaced(offering("kiroweb.v1"), "\r\n\r\n", "\r\nCookie: kiroweb=" + token + "\r\n\r\n"),
         "403"},
        {offering("kiroweb.v1, kiroweb.token." + token + "0"), "403"},
        {offering("kiroweb.v1, kiroweb.token." + token.substr(1) + token[0]), "403"},
        {offering(offers + ", kiroweb.token." + token), "400"},
        {replaced(offering("kiroweb.v1"), "/kiroweb", "/kiroweb?token=" + token), "404"},
        {with("Version: 13", "Version: 8"), "400"},
        {with("Version: 13", "Version: 13\r\nSec-WebSocket-Version: 8"), "400"},
        {with("Key: dG", "Key: d!"), "400"},
        {with("Version: 13", "Version: 13\r\nSec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ=="), "400"},
        {offering("kiroweb.v2, kiroweb.token." + token), "400"},
        {with("\r\n\r\n", "\r\nContent-Length: 1\r\n\r\nx"), "400"},
    };
    expectStatuses(table);

    // RFC 6455 has the same key in its example.
    EXPECT_EQ(answerTo(fUpgrade),
              "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
              "Sec-WebSocket-Accept: s3pPLMBiTxaQ9kYGzzhZRbK+xOo=\r\n"
              "Sec-WebSocket-Protocol: kiroweb.v1\r\n\r\n");
}

TEST_F(AccessTest, ACodeIsExchangedOnce) {
    const auto code = fSecrets->makeCode(kStart);
    const auto good = exchange(code);
    const Row refused[] = {
        {exchange(fSecrets->token()), "403"},
        {exchange(std::string(128, '0')), "403"},
        {exchange(std::string(129, '0')), "413"},
        {exchange({}), "400"},
        {replaced(good, "Origin", "X-Origin"), "403"},
        {replaced(good, "Host: 127", "Host: 128"), "403"},
        {exchange(code, "Transfer-Encoding: chunked\r\n"), "400"},
        {replaced(good, "POST", "GET"), "405"},
    };
    expectStatuses(refused);
    const auto answer = answerTo(good);
    EXPECT_EQ(statusOf(answer), "200") << "none of the above has used it up";
    EXPECT_TRUE(answer.ends_with("\r\n\r\n" + fSecrets->token()));
    EXPECT_EQ(answer.find("Set-Cookie"), std::string::npos);
    EXPECT_EQ(statusOf(answerTo(good)), "403") << "used";

    const auto life = std::chrono::seconds(60);
    const auto inTime = exchange(fSecrets->makeCode(kStart));
    const auto late = exchange(fSecrets->makeCode(kStart));
    EXPECT_EQ(statusOf(answerTo(inTime, kStart + life)), "200");
    EXPECT_EQ(statusOf(answerTo(late, kStart + life + std::chrono::milliseconds(1))), "403");

    const auto oldest = exchange(fSecrets->makeCode(kStart));
    for (int i = 0; i < 16; ++i) static_cast<void>(fSecrets->makeCode(kStart));
    EXPECT_EQ(statusOf(answerTo(oldest)), "403") << "there are too many";
}

TEST_F(GatewayTest, LargeFilesComeWholeOneBehindTheOther) {
    std::string large;
    for (int i = 0; large.size() < 1'000'000; ++i) large += std::to_string(i);
    fOptions.assets.push_back({"/large.png", "image/png", large});
    start();
    const auto request = " /large.png HTTP/1.1\r\nHost: " + fAccess.host() + "\r\n";
    Peer peer(fAccess);
    peer.send("GET" + request + "\r\nHEAD" + request + "\r\nGET" + request +
              "Connection: close\r\n\r\n");
    const auto all = peer.readAll();
    const auto first = all.find("\r\n\r\n") + 4;
    EXPECT_EQ(all.compare(first, large.size(), large), 0);
    const auto second = all.find("\r\n\r\n", first + large.size()) + 4;
    EXPECT_EQ(all.compare(second, 12, "HTTP/1.1 200"), 0) << "no body for HEAD";
    EXPECT_TRUE(all.ends_with("\r\n\r\n" + large));
}

TEST_F(GatewayTest, AccessOverAConnection) {
    fOptions.limits.headerSize = 2048;
    std::vector<std::string> lines;
    const auto observing = kirohost::observeLog(
        [&lines](const kirohost::LogRecord& record) { lines.push_back(record.text); });
    start();
    const auto host = "Host: " + fAccess.host() + "\r\n";
    const auto code = secretOf(fGateway->singleUseLink());
    const auto head = "POST /kiroweb/token HTTP/1.1\r\n" + host + "Origin: " + fAccess.origin() +
                      "\r\nContent-Length: 64\r\n\r\n";
    Peer peer(fAccess);
    peer.send(head + code.substr(0, 10));
    peer.send(code.substr(10) + "GET /none HTTP/1.1\r\n" + host + "\r\n");
    EXPECT_EQ(statusOf(peer.readHead()), "200");
    EXPECT_TRUE(peer.readAll().starts_with(fToken + "HTTP/1.1 404")) << "the next request";

    // The second request of each would be answered, had the first not ended the connection.
    const auto second = "GET / HTTP/1.1\r\n" + host + "\r\n";
    const Row table[] = {
        {head + code, "403"},
        {upgradeRequest(fAccess, code), "403"},
        {upgradeRequest(fAccess, fToken), "400"},  // its answer was not waited for
        {"GET / HTTP/1.1\r\nHost: a\x1b[2J\r\n\r\n", "400"},
        {"GET /" + std::string(4096, 'x') + " HTTP/1.1\r\n" + host + "\r\n", "431"},
    };
    for (const auto& [request, status] : table) {
        Peer refused(fAccess);
        refused.send(request + second);
        const auto all = refused.readAll();
        EXPECT_EQ(statusOf(all), status) << request;
        EXPECT_EQ(all.rfind("HTTP/1.1"), 0U) << all;
    }
    fGateway.reset();
    EXPECT_EQ(lines.size(), std::size(table) + 1);
    for (const auto& line : lines) {
        EXPECT_EQ(line.find(fToken), std::string::npos) << line;
        EXPECT_EQ(line.find(code), std::string::npos) << line;
        EXPECT_EQ(line.find('\x1b'), std::string::npos) << line;
    }
}
