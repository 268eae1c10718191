#include "OptionsCheck.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>

#include "Endpoint.hpp"
#include "kirogateway/Gateway.hpp"

using namespace kirogateway;

namespace {

/// The text with which `call` fails; it is one line, and names neither a source nor a category.
template <typename Error>
std::string failureOf(const std::function<void()>& call) {
    try {
        call();
    } catch (const Error& error) {
        const std::string text = error.what();
        for (const char* foreign : {"\n", " at /", "[system", "[asio", "/usr/"}) {
            EXPECT_EQ(text.find(foreign), std::string::npos) << text;
        }
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
        {withAsset(""), R"(assets: the name "" has to begin with "/")"},
        {withAsset("/"), R"(assets: the name "/" is given twice; leave one out)"},
        {withAsset("/a b"),
         R"(assets: the name "/a b" cannot stand in an address; give it as it stands there)"},
        {withAsset("/a?v=1"),
         R"(assets: the name "/a?v=1" cannot stand in an address; give it as it stands there)"},
        {withAsset("/kiroweb"),
         R"(assets: the name "/kiroweb" is the gateway's own; choose another)"},
        {withAsset("/kiroweb/token"),
         R"(assets: the name "/kiroweb/token" is the gateway's own; choose another)"},
        {withAsset("/a", "text/plain\r\nX: y"),
         R"(assets: the name "/a" has a content type with a line end; take that out)"},
        {with([](Options& o) { o.configuration = R"({"a":1,})"; }),
         "configuration: not JSON at byte 7, syntax error"},
        {with([](Options& o) { o.configuration = R"({"a":1)"; }),
         "configuration: not JSON at byte 6, incomplete JSON"},
        {with([](Options& o) { o.configuration = "{} {}"; }),
         "configuration: something follows the JSON object at byte 3"},
        {with([](Options& o) { o.configuration = "[]"; }),
         "configuration: not a JSON object; {} is an empty one"},
        {with([](Options& o) { o.address = "localhost"; }),
         R"(address: "localhost" is not numeric; give one such as "127.0.0.1" or "::1")"},
        {with([](Options& o) { o.certificateFile = "c.pem"; }),
         R"(certificateFile: "c.pem" needs its keyFile)"},
        {with([](Options& o) { o.keyFile = "k.pem"; }),
         R"(keyFile: "k.pem" needs its certificateFile)"},
        {with([](Options& o) { o.extraHosts = {"http://a.example"}; }),
         R"(extraHosts: "http://a.example" is no host; give it as a request names it, such as "plot.example:8080")"},
        {with([](Options& o) { o.extraHosts = {""}; }),
         R"(extraHosts: "" is no host; give it as a request names it, such as "plot.example:8080")"},
        {with([](Options& o) { o.extraOrigins = {"://a.example"}; }),
         R"(extraOrigins: "://a.example" is no origin; give scheme, host and port, such as "http://localhost:5173")"},
        {with([](Options& o) { o.extraOrigins = {"a.example"}; }),
         R"(extraOrigins: "a.example" is no origin; give scheme, host and port, such as "http://localhost:5173")"},
        {with([](Options& o) { o.extraOrigins = {"http://a.example/"}; }),
         R"(extraOrigins: "http://a.example/" is no origin; give scheme, host and port, such as "http://localhost:5173")"},
        {with([](Options& o) { o.extraOrigins = {"null"}; }),
         R"(extraOrigins: "null" is no origin; give scheme, host and port, such as "http://localhost:5173")"},
        {with([](Options& o) { o.newViewChannel = "/v/*"; }),
         R"(newViewChannel: "/v/*" are many channels; give a single one)"},
        {with([](Options& o) { o.reconnectChannel = "/*"; }),
         R"(reconnectChannel: "/*" are many channels; give a single one)"},
        {with([](Options& o) {
             o.lanes = {{"/a", "/b"}, {"/c", "/b"}};
         }),
         R"(lanes: the channel "/b" is in two groups; leave one out)"},
        {with([](Options& o) { o.limits.headerSize = 0x1'0000'0000; }),
         "limits.headerSize: it has to be below 4 GiB"},
        {with([](Options& o) { o.limits.code = std::chrono::milliseconds(-1); }),
         "limits.code is -1 ms: it has to be from 1 ms to a year"},
        {with([](Options& o) { o.limits.queue = std::chrono::milliseconds::max(); }),
         "limits.queue is 9223372036854775807 ms: it has to be from 1 ms to a year"},
    };
    for (const auto& [options, text] : table) {
        EXPECT_EQ(failureOf<std::invalid_argument>(
                      [&options = options] { static_cast<void>(checked(options)); }),
                  text);
    }
    EXPECT_EQ(failureOf<std::invalid_argument>([] { Gateway gateway(withAsset("page.mjs")); }),
              table[0].text);
    static_cast<void>(checked(with([](Options& o) {
        o.configuration = " {\"a\": [1]}\n";
        o.extraHosts = {"[2001:db8::1]:8080"};
        o.extraOrigins = {"https://a.example:8443"};
        o.lanes = {{"/a", "/a"}, {"/b/*"}};
        o.assets = clientAssets();
    })));
}

TEST(Options, ALimitOfZeroIsNamed) {
    // Every limit in turn, whichever there are: a limit is a size or a time, of eight bytes each.
    static_assert(sizeof(std::size_t) == sizeof(std::chrono::milliseconds));
    constexpr auto kCount = sizeof(Limits) / sizeof(std::size_t);
    std::set<std::string> texts;
    for (std::size_t i = 0; i < kCount; ++i) {
        Options options;
        auto* const bytes = reinterpret_cast<unsigned char*>(&options.limits);
        std::fill_n(bytes + i * sizeof(std::size_t), sizeof(std::size_t), std::uint8_t{0});
        texts.insert(
            failureOf<std::invalid_argument>([&] { static_cast<void>(checked(options)); }));
    }
    EXPECT_EQ(texts.size(), kCount);
    EXPECT_EQ(texts.count("limits.memory is 0: it has to be at least 1"), 1U);
    EXPECT_EQ(texts.count("limits.queue is 0 ms: it has to be from 1 ms to a year"), 1U);
    EXPECT_EQ(texts.count("nothing thrown"), 0U);
}

TEST(Options, AddressesAndFilesThatCannotBeHadAreNamed) {
    const Gateway first({});
    const auto taken = "cannot listen on 127.0.0.1:" + std::to_string(first.port()) +
                       " (choose another port, or 0 for a free one): Address already in use";
    const auto tls = [](Options& o) { o.certificateFile = o.keyFile = "/nowhere/at\nall.pem"; };
    const struct {
        Options options;
        std::string begin;
    } table[] = {
        {with([&](Options& o) { o.port = first.port(); }), taken},
        {with([](Options& o) { o.address = "192.0.2.1"; }),
         "cannot listen on 192.0.2.1:0 (choose an address of this machine, such as 127.0.0.1): "},
        {with([](Options& o) { o.address = "2001:db8::1"; }), "cannot listen on [2001:db8::1]:0"},
        {with(tls),
         R"(certificateFile: "/nowhere/at\x0aall.pem" is no PEM file that can be read: )"},
    };
    for (const auto& [options, begin] : table) {
        const auto text =
            failureOf<std::system_error>([&options = options] { Gateway gateway(options); });
        EXPECT_TRUE(text.starts_with(begin)) << text;
    }
    EXPECT_EQ(
        failureOf<std::runtime_error>([] { static_cast<void>(loadAsset("/", "/nowhere.html")); }),
        "asset /nowhere.html cannot be read: No such file or directory");
}

TEST(Endpoint, TheListeningSocketStaysInThisProcessAndCanBeHadAgain) {
    boost::asio::io_context context;
    auto acceptor = listenOn(context, {});
    EXPECT_NE(::fcntl(acceptor.native_handle(), F_GETFD) & FD_CLOEXEC, 0);
    boost::asio::socket_base::reuse_address isReused;
    acceptor.get_option(isReused);
    EXPECT_TRUE(isReused.value()) << "a port is kept for a while after its last connection";
}

TEST(ClientAssets, AreTheModulesAndAllThatTheyImport) {
    std::size_t imports = 0;
    std::set<std::string> names;
    for (const auto& asset : clientAssets()) names.insert(asset.name);
    EXPECT_EQ(names.count("/kiroweb/protocol.mjs"), 1U);
    for (const auto& asset : clientAssets()) {
        const auto file = asset.name.substr(asset.name.rfind('/'));
        EXPECT_EQ(asset.body, loadAsset("/", KIROWEB_CLIENT_DIR + file).body) << asset.name;
        EXPECT_EQ(asset.contentType, loadAsset("/", KIROWEB_CLIENT_DIR + file).contentType);
        std::istringstream lines(asset.body);
        for (std::string line; std::getline(lines, line);) {
            static constexpr std::string_view kFrom = " from \".";
            const auto from = line.find(kFrom);
            if (line.starts_with(' ') || from == std::string::npos) continue;
            const auto begin = from + kFrom.size();
            const auto name = line.substr(begin, line.rfind('"') - begin);
            EXPECT_EQ(names.count("/kiroweb" + name), 1U) << line;
            ++imports;
        }
    }
    EXPECT_GT(imports, 0U);
}
