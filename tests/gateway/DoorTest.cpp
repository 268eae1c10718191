#include "Door.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace kirogateway;

namespace {

constexpr std::uint16_t kPort = 8123;

Options options() {
    Options options;
    options.assets = {{"/", "text/html", "<p>"}, {"/a.js", "text/javascript", "1"}};
    options.extraOrigins = {"http://dev.example:5173"};
    return options;
}

class DoorTest : public testing::Test {
  protected:
    [[nodiscard]] Knock upgrade() const {
        Knock knock{"GET", kSocketPath, {kHost}, {kOrigin}, {fCookie}, true, true, false};
        return knock;
    }
    static Knock get(std::string_view target) { return {"GET", target, {kHost}, {}, {}}; }
    unsigned status(const Knock& knock) { return fDoor.decide(knock, {}).status; }

    static constexpr std::string_view kHost = "127.0.0.1:8123";
    static constexpr std::string_view kOrigin = "http://127.0.0.1:8123";
    const Options fOptions = options();
    Secrets fSecrets{std::chrono::seconds(60)};
    Door fDoor{fOptions, kPort, fSecrets};
    const std::string fCookie = "a=b; kiroweb-8123=" + fSecrets.cookie();
};

}  // namespace

TEST_F(DoorTest, LetsInWhoHasTheCookieFromAPageOfItsOwn) {
    EXPECT_EQ(status(upgrade()), 101U);
    auto knock = upgrade();
    knock.hosts = {"localhost:8123"};
    knock.origins = {"http://localhost:8123"};
    EXPECT_EQ(status(knock), 101U);
    knock.origins = {"http://dev.example:5173"};
    EXPECT_EQ(status(knock), 101U);
}

TEST_F(DoorTest, KeepsOutForeignHostsAndOrigins) {
    const struct {
        std::vector<std::string_view> hosts;
        std::vector<std::string_view> origins;
        unsigned status;
    } table[] = {
        {{}, {kOrigin}, 400},
        {{kHost, kHost}, {kOrigin}, 400},
        {{"127.0.0.1:8123 "}, {kOrigin}, 400},
        {{""}, {kOrigin}, 400},
        {{"127.0.0.1"}, {kOrigin}, 403},
        {{"127.0.0.1:8124"}, {kOrigin}, 403},
        {{"evil.example:8123"}, {kOrigin}, 403},
        {{"127.0.0.1:8123.evil.example"}, {kOrigin}, 403},
        {{kHost}, {}, 403},
        {{kHost}, {kOrigin, kOrigin}, 400},
        {{kHost}, {"http://127.0.0.1:8123\x7f"}, 400},
        {{kHost}, {"null"}, 403},
        {{kHost}, {"https://127.0.0.1:8123"}, 403},
        {{kHost}, {"http://127.0.0.1:8124"}, 403},
        {{kHost}, {"http://127.0.0.1"}, 403},
        {{kHost}, {"http://127.0.0.1:8123/"}, 403},
        {{kHost}, {"http://evil.example:8123"}, 403},
    };
    for (const auto& row : table) {
        auto knock = upgrade();
        knock.hosts = row.hosts;
        knock.origins = row.origins;
        EXPECT_EQ(status(knock), row.status) << (row.hosts.empty() ? "" : row.hosts.front()) << " "
                                             << (row.origins.empty() ? "" : row.origins.front());
    }
    auto asset = get("/a.js");
    asset.hosts = {"evil.example:8123"};
    EXPECT_EQ(status(asset), 403U);
}

TEST_F(DoorTest, KeepsOutWhoHasNoCookieOrDoesNotUpgrade) {
    const auto broken = [this](auto change) {
        auto knock = upgrade();
        change(knock);
        return status(knock);
    };
    EXPECT_EQ(broken([](Knock& knock) { knock.cookies.clear(); }), 403U);
    EXPECT_EQ(broken([](Knock& knock) { knock.cookies = {"kiroweb-8123="}; }), 403U);
    EXPECT_EQ(broken([](Knock& knock) { knock.cookies = {"kiroweb-8123", ";;=;", "="}; }), 403U);
    const auto otherPort = "kiroweb-8124=" + fSecrets.cookie();
    EXPECT_EQ(broken([&](Knock& knock) { knock.cookies = {otherPort}; }), 403U);
    EXPECT_EQ(broken([](Knock& knock) { knock.isUpgrade = false; }), 400U);
    EXPECT_EQ(broken([](Knock& knock) { knock.offersSubprotocol = false; }), 400U);
    EXPECT_EQ(broken([](Knock& knock) { knock.hasBody = true; }), 400U);
    EXPECT_EQ(broken([](Knock& knock) { knock.method = "POST"; }), 405U);
}

TEST_F(DoorTest, ServesTheTableAndNothingElse) {
    const auto asset = fDoor.decide(get("/a.js"), {});
    EXPECT_EQ(asset.status, 200U);
    EXPECT_EQ(asset.asset->body, "1");
    EXPECT_EQ(status(get("/a.js?v=2")), 200U);
    for (const char* target : {"/b.js", "/../a.js", "//a.js", "/%61.js", "/a.js/"}) {
        EXPECT_EQ(status(get(target)), 404U) << target;
    }
    for (const char* target : {"", "a.js", "http://evil.example/", "*", "/a b"}) {
        EXPECT_EQ(status(get(target)), 400U) << target;
    }
}

TEST_F(DoorTest, ExchangesATokenOrACodeForTheCookie) {
    const auto token = "/?token=" + fSecrets.token();
    const auto verdict = fDoor.decide(get(token), {});
    EXPECT_EQ(verdict.status, 303U);
    EXPECT_EQ(verdict.cookie,
              "kiroweb-8123=" + fSecrets.cookie() + "; HttpOnly; SameSite=Strict; Path=/");
    EXPECT_EQ(status(get(token)), 303U);  // as often as one likes
    EXPECT_EQ(status(get(token + "0")), 403U);
    EXPECT_EQ(status(get("/?token=")), 403U);

    const auto code = "/?code=" + fSecrets.makeCode({});
    auto head = get(code);
    head.method = "HEAD";
    EXPECT_EQ(status(head), 405U);
    EXPECT_EQ(status(get(code)), 303U);
    EXPECT_EQ(status(get(code)), 403U);
    EXPECT_EQ(status(get("/?code=" + fSecrets.token())), 403U);
}
