#include "OptionsCheck.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>

#include "Endpoint.hpp"
#include "kirogateway/Gateway.hpp"

using namespace kirogateway;

namespace {

/// The text with which `call` fails; it is one line.
template <typename Error>
std::string failureOf(const std::function<void()>& call) {
    try {
        call();
    } catch (const Error& error) {
        const std::string text = error.what();
        EXPECT_EQ(text.find('\n'), std::string::npos) << text;
        return text;
    }
    return "nothing thrown";
}

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

}  // namespace

TEST(Options, ThatCannotBeMeantAreNamed) {
    const struct {
        Options options;
        const char* text;
    } table[] = {
        {withAsset("page.mjs"), R"(assets: the name "page.mjs" has to begin with "/")"},
        {withAsset("/a?v=1"), R"(assets: the name "/a?v=1" cannot stand in an address; give)"},
        {withAsset("/kiroweb"), R"(assets: the name "/kiroweb" is the gateway's own; choose)"},
        {withAsset("/a", "text/plain\r\nX: y"), R"(assets: the name "/a" has a content type)"},
        {with([](Options& o) { o.configuration = R"({"a":1,})"; }),
         "configuration: not JSON at byte 7"},
        {with([](Options& o) { o.address = "localhost"; }), R"(address: "localhost" is not)"},
        {with([](Options& o) { o.certificateFile = "c.pem"; }),
         R"(certificateFile: "c.pem" needs)"},
        {with([](Options& o) { o.extraHosts = {"http://a.example"}; }), "extraHosts: "},
        {with([](Options& o) { o.extraOrigins = {"http://a.example/"}; }), "extraOrigins: "},
        {with([](Options& o) { o.newViewChannel = "/v/*"; }), R"(newViewChannel: "/v/*" are many)"},
        {with([](Options& o) {
             o.lanes = {{"/a", "/b"}, {"/c", "/b"}};
         }),
         R"(lanes: the channel "/b" is in two groups)"},
        {with([](Options& o) { o.limits.memory = 0; }), "limits.memory is 0: "},
        {with([](Options& o) { o.limits.headerSize = 0x1'0000'0000; }), "limits.headerSize: "},
        {with([](Options& o) { o.limits.queue = std::chrono::milliseconds::max(); }),
         "limits.queue is 9223372036854775807 ms: it has to be from 1 ms to a year"},
    };
    for (const auto& [options, begin] : table) {
        const auto text = failureOf<std::invalid_argument>(
            [&options = options] { static_cast<void>(checked(options)); });
        EXPECT_TRUE(text.starts_with(begin)) << text;
    }
    EXPECT_THROW(Gateway(withAsset("page.mjs")), std::invalid_argument);
    static_cast<void>(checked(with([](Options& o) {
        o.configuration = " {\"a\": [1]}\n";
        o.extraHosts = {"[2001:db8::1]:8080"};
        o.extraOrigins = {"https://a.example:8443"};
        o.lanes = {{"/a", "/a"}, {"/b/*"}};
        o.assets = clientAssets();
    })));
}

TEST(Options, AddressesAndFilesThatCannotBeHadAreNamed) {
    const Gateway first({});
    const auto port = std::to_string(first.port());
    const auto fail = [](const Options& options) {
        return failureOf<std::system_error>([&options] { Gateway gateway(options); });
    };
    EXPECT_EQ(fail(with([&](Options& o) {
                  o.port = first.port();
              })).find("cannot listen on 127.0.0.1:" + port),
              0U);
    const auto tls = [](Options& o) { o.certificateFile = o.keyFile = "/nowhere/at\nall.pem"; };
    EXPECT_EQ(fail(with(tls)).find(R"(certificateFile: "/nowhere/at\x0aall.pem" is no PEM file)"),
              0U);
    EXPECT_THROW(static_cast<void>(loadAsset("/", "/nowhere.html")), std::runtime_error);
}

TEST(Endpoint, TheListeningSocketStaysInThisProcessAndCanBeHadAgain) {
    boost::asio::io_context context;
    auto acceptor = listenOn(context, {});
    EXPECT_NE(::fcntl(acceptor.native_handle(), F_GETFD) & FD_CLOEXEC, 0);
    boost::asio::socket_base::reuse_address isReused;
    acceptor.get_option(isReused);
    EXPECT_TRUE(isReused.value()) << "a port is kept for a while after its last connection";
}

TEST(ClientAssets, AreTheModulesAsTheyAre) {
    EXPECT_FALSE(clientAssets().empty());
    for (const auto& asset : clientAssets()) {
        const auto file =
            loadAsset("/", KIROWEB_CLIENT_DIR + asset.name.substr(asset.name.rfind('/')));
        EXPECT_EQ(asset.body, file.body) << asset.name;
        EXPECT_EQ(asset.contentType, file.contentType);
    }
}
