#include "Door.hpp"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <string_view>
#include <vector>

using namespace kirogateway;

namespace {

constexpr std::string_view kHost = "127.0.0.1:8123";
constexpr std::string_view kOrigin = "http://127.0.0.1:8123";
using Texts = std::vector<std::string_view>;

Options options() {
    Options options;
    options.assets = {{"/", "text/html", "<p>"}, {"/a.js", "text/javascript", "1"}};
    options.extraOrigins = {"http://dev.example:5173"};
    return options;
}

class DoorTest : public testing::Test {
  protected:
    static Knock get(std::string_view target) { return {"GET", target, {kHost}, {}, {}}; }
    unsigned status(const Knock& knock) { return fDoor.decide(knock, {}).status; }

    const Options fOptions = options();
    Secrets fSecrets{std::chrono::seconds(60)};
    Door fDoor{fOptions, 8123, fSecrets};
};

}  // namespace

TEST_F(DoorTest, LetsInWhoHasTheCookieFromAPageOfItsOwn) {
    const auto cookie = "a=b; kiroweb-8123=" + fSecrets.cookie();
    const auto otherPort = "kiroweb-8124=" + fSecrets.cookie();
    const struct {
        Texts hosts, origins, cookies;
        unsigned status;
    } table[] = {
        {{kHost}, {kOrigin}, {cookie}, 101},
        {{"localhost:8123"}, {"http://localhost:8123"}, {cookie}, 101},
        {{kHost}, {"http://dev.example:5173"}, {cookie}, 101},
        {{"127.0.0.1:8123 "}, {kOrigin}, {cookie}, 400},
        {{"127.0.0.1:8124"}, {kOrigin}, {cookie}, 403},
        {{"127.0.0.1:8123.evil.example"}, {kOrigin}, {cookie}, 403},
        {{kHost}, {kOrigin, kOrigin}, {cookie}, 400},
        {{kHost}, {"http://127.0.0.1:8123\x7f"}, {cookie}, 400},
        {{kHost}, {"https://127.0.0.1:8123"}, {cookie}, 403},
        {{kHost}, {"http://127.0.0.1:8124"}, {cookie}, 403},
        {{kHost}, {"http://127.0.0.1:8123/"}, {cookie}, 403},
        {{kHost}, {kOrigin}, {}, 403},
        {{kHost}, {kOrigin}, {"kiroweb-8123="}, 403},
        {{kHost}, {kOrigin}, {"kiroweb-8123", ";;=;", "="}, 403},
        {{kHost}, {kOrigin}, {otherPort}, 403},
    };
    for (const auto& [hosts, origins, cookies, expected] : table) {
        const Knock knock{"GET", kSocketPath, hosts, origins, cookies, true, true, false};
        EXPECT_EQ(status(knock), expected) << hosts.front() << " " << origins.front();
    }
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
    EXPECT_EQ(fDoor.decide(get(token), {}).cookie,
              "kiroweb-8123=" + fSecrets.cookie() + "; HttpOnly; SameSite=Strict; Path=/");
    EXPECT_EQ(status(get(token)), 303U);  // as often as one likes
    EXPECT_EQ(status(get(token + "0")), 403U);

    const auto code = "/?code=" + fSecrets.makeCode({});
    auto head = get(code);
    head.method = "HEAD";
    EXPECT_EQ(status(head), 405U);
    EXPECT_EQ(status(get(code)), 303U);
    EXPECT_EQ(status(get(code)), 403U);
}
