#include "OptionsCheck.hpp"

#include <gtest/gtest.h>

#include <functional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "kirogateway/Gateway.hpp"

using namespace kirogateway;

namespace {

Options withAsset(const std::string& name, const std::string& type = "text/plain") {
    Options options;
    options.assets = {{"/", "text/html", ""}, {name, type, ""}};
    return options;
}

Options with(const std::function<void(Options&)>& change) {
    Options options;
    change(options);
    return options;
}

/// The text with which a gateway fails.
std::string failureOf(const Options& options) {
    try {
        const Gateway gateway(options);
    } catch (const std::exception& error) {
        return error.what();
    }
    return "nothing thrown";
}

}  // namespace

TEST(Options, ThatCannotBeMeantAreNamed) {
    const std::pair<Options, const char*> table[] = {
        {withAsset("page.mjs"), R"(assets: the name "page.mjs" has to begin with "/")"},
        {withAsset("/kiroweb"), R"(assets: the name "/kiroweb" is the gateway's own; choose)"},
        {withAsset("/a b"), R"(assets: the name "/a b" cannot stand in an address)"},
        {withAsset("/a?b"), R"(assets: the name "/a?b" cannot)"},
        {withAsset("/\x7f"), R"(assets: the name "/\x7f" cannot)"},
        {withAsset("/"), R"(assets: the name "/" is given twice)"},
        {withAsset("/a", "text/plain\r\nX: y"), R"(assets: the name "/a" has a content type)"},
        {with([](Options& o) { o.configuration = R"({"a":1,})"; }),
         "configuration: not JSON at byte 7"},
        {with([](Options& o) { o.configuration = R"({"a":1)"; }),
         "configuration: not JSON at byte 6"},
        {with([](Options& o) { o.configuration = "{} {}"; }), "configuration: something follows"},
        {with([](Options& o) { o.configuration = "[]"; }), "configuration: not a JSON object"},
        {with([](Options& o) { o.extraHosts = {""}; }), "extraHosts: "},
        {with([](Options& o) { o.frameAncestors = {"http://a.example,b"}; }), "frameAncestors: "},
        {with([](Options& o) { o.frameAncestors = {"http://a example"}; }), "frameAncestors: "},
        {with([](Options& o) { o.limits.headerSize = 1UL << 32U; }), "limits.headerSize: "},
        {with([](Options& o) { o.limits.queue = {}; }), "limits.queue is 0 ms: "},
        {with([](Options& o) { o.address = "localhost"; }), R"(address: "localhost" is not)"},
        {with([](Options& o) { o.certificateFile = "c.pem"; }),
         R"(certificateFile: "c.pem" needs)"},
        {with([](Options& o) { o.keyFile = "k.pem"; }), R"(keyFile: "k.pem" needs)"},
        {with([](Options& o) { o.extraHosts = {"http://a.example"}; }), "extraHosts: "},
        {with([](Options& o) { o.extraOrigins = {"http://a.example/"}; }), "extraOrigins: "},
        {with([](Options& o) { o.extraOrigins = {"://a.example"}; }), "extraOrigins: "},
        {with([](Options& o) { o.extraOrigins = {"http://"}; }), "extraOrigins: "},
        {with([](Options& o) { o.frameAncestors = {"a.example"}; }), "frameAncestors: "},
        {with([](Options& o) { o.frameAncestors = {"http://a.example; x"}; }), "frameAncestors: "},
        {with([](Options& o) { o.token = std::string(31, 'a'); }), "token: it has to have"},
        {with([](Options& o) { o.token = std::string(32, '#'); }), "token: it has to be"},
        {with([](Options& o) { o.newViewChannel = "/v/*"; }), R"(newViewChannel: "/v/*" are many)"},
        {with([](Options& o) {
             o.lanes = {{"/a", "/b"}, {"/c", "/b"}};
         }),
         R"(lanes: the channel "/b" is in two groups)"},
        {with([](Options& o) { o.limits.memory = 0; }), "limits.memory is 0: "},
        {with([](Options& o) { o.limits.lostViews = 10'000'000; }), "limits.lostViews: "},
        {with([](Options& o) { o.limits.messageSize = 65535; }),
         "limits.messageSize is 65535: it has to be at least 65536"},
        {with([](Options& o) { o.limits.namesPerFrame = 1023; }), "limits.namesPerFrame is 1023: "},
        {with([](Options& o) { o.limits.queue = std::chrono::milliseconds::max(); }),
         "limits.queue is 9223372036854775807 ms: it has to be from 1 ms to a year"},
    };
    for (const auto& [options, begin] : table) {
        const auto text = failureOf(options);
        EXPECT_TRUE(text.starts_with(begin)) << text;
        EXPECT_THROW(static_cast<void>(kirogateway::checked(options)), std::invalid_argument);
    }
}

TEST(Options, ATokenOfOnesOwnStandsInTheLinkAndWhatCannotBeHadIsNamed) {
    const std::string token = std::string(26, 'b') + "azAZ09";
    const Gateway first(with([&token](Options& o) { o.token = token; }));
    EXPECT_TRUE(first.link().ends_with("/#token=" + token)) << first.link();
    const auto text = failureOf(with([&first](Options& o) { o.port = first.port(); }));
    EXPECT_TRUE(text.starts_with("cannot listen on 127.0.0.1:" + std::to_string(first.port())));
    EXPECT_THROW(static_cast<void>(loadAsset("/", "/nowhere.html")), std::runtime_error);
}

TEST(ClientAssets, AreTheModulesAsTheyAreWithAllThatTheyImport) {
    static constexpr std::string_view kImport = "from \"./";
    std::set<std::string> served;
    std::set<std::string> imported;
    for (const auto& [name, type, body] : clientAssets()) {
        const auto file = name.substr(name.rfind('/'));
        served.insert(file);
        EXPECT_EQ(body, loadAsset("/", KIROWEB_CLIENT_DIR + file).body) << file;
        for (auto at = body.find(kImport); at != std::string::npos; at = body.find(kImport, at)) {
            at += kImport.size();
            imported.insert("/" + body.substr(at, body.find('"', at) - at));
        }
    }
    EXPECT_TRUE(served.erase("/protocol.mjs"));
    EXPECT_EQ(served, imported);
}
