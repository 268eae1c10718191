#include "Serving.hpp"

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>

#include "Fixture.hpp"
#include "TokenFile.hpp"
#include "kirogateway/Gateway.hpp"

namespace figures_test {
namespace {

using namespace kirofigures;
using testing::HasSubstr;

class TokenFile : public testing::Test {
  protected:
    TokenFile() { std::filesystem::remove(fFile); }
    ~TokenFile() override { std::filesystem::remove(fFile); }
    [[nodiscard]] std::string token() const { return detail::tokenFrom(fFile); }

    const std::string fFile =
        testing::TempDir() + "kirofigures_token_" + std::to_string(::getpid());
};

TEST_F(TokenFile, IsMadeOnceForItsOwnerAndReadFromThenOn) {
    const auto first = token();
    EXPECT_EQ(first.size(), 64U);
    const auto others = std::filesystem::perms::all ^ std::filesystem::perms::owner_read ^
                        std::filesystem::perms::owner_write;
    EXPECT_EQ(std::filesystem::status(fFile).permissions() & others, std::filesystem::perms::none);
    EXPECT_EQ(token(), first);
    WindowOptions options;
    options.handlesSignals = options.printsLink = options.opensBrowser = false;
    options.tokenFile = fFile;
    testing::internal::CaptureStdout();
    EXPECT_TRUE(Window(options).link().ends_with("#token=" + first));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    options.printsLink = true;
    testing::internal::CaptureStdout();
    const Window window(options);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), window.link() + "\n");
    EXPECT_TRUE(window.isServed() && !window.isClientGone() && window.gateway() != nullptr);
    EXPECT_EQ(window.statistics().pages, 0U);
    EXPECT_THAT(window.diagnostics(), HasSubstr("\"pages\":0"));
    std::filesystem::remove(fFile);
    EXPECT_NE(token(), first);
}

TEST_F(TokenFile, IsRefusedWhenOthersMayReadItOrItHoldsSomethingElse) {
    const auto refusal = [this] { return refusalOf([this] { static_cast<void>(token()); }); };
    static_cast<void>(token());
    chmod(fFile.c_str(), 0640);
    EXPECT_THAT(refusal(), HasSubstr("others may read " + fFile));
    chmod(fFile.c_str(), 0600);
    for (const auto& text : {std::string(), std::string("short"), std::string(64, 'G')}) {
        std::ofstream(fFile, std::ios::trunc) << text;
        EXPECT_THAT(refusal(), HasSubstr(fFile + " holds no token"));
    }
    EXPECT_THROW(static_cast<void>(detail::tokenFrom("/no/such/folder/file")), std::system_error);
    std::filesystem::remove(fFile);
    std::filesystem::create_symlink("/no/such/file", fFile);
    EXPECT_THAT([this] { static_cast<void>(token()); },
                testing::ThrowsMessage<std::system_error>(HasSubstr("be read: No such file")));
    // A disk that becomes full in the middle of it.
    std::filesystem::remove(fFile);
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit usual{};
    getrlimit(RLIMIT_FSIZE, &usual);
    const rlimit small{9, usual.rlim_max};
    setrlimit(RLIMIT_FSIZE, &small);
    EXPECT_THAT([this] { static_cast<void>(token()); },
                testing::ThrowsMessage<std::system_error>(HasSubstr("be written: File too large")));
    setrlimit(RLIMIT_FSIZE, &usual);
}

TEST(Serving, LetsAPageDoWhatItHasToAndNoMore) {
    const Channels channels{"/c", "/b", "/c/channelReady", "/v", "/r", "/e", {"/t", "/u"}};
    WindowOptions options;
    options.certificateFile = "c.pem";
    options.keyFile = "k.pem";
    options.extraHosts = {"a.example"};
    options.extraOrigins = {"http://b.example"};
    options.frameAncestors = {"http://c.example"};
    options.pages = 5;
    options.address = "127.0.0.2";
    options.port = 8123;
    const auto gateway = detail::gatewayOptions(options, channels);
    EXPECT_EQ(gateway.certificateFile, "c.pem");
    EXPECT_EQ(gateway.keyFile, "k.pem");
    EXPECT_EQ(gateway.address + std::to_string(gateway.port), "127.0.0.28123");
    EXPECT_EQ(gateway.extraHosts, options.extraHosts);
    EXPECT_EQ(gateway.extraOrigins, options.extraOrigins);
    EXPECT_EQ(gateway.frameAncestors, options.frameAncestors);
    EXPECT_EQ(gateway.limits.connections - gateway.limits.unauthenticatedConnections, 5U);
    EXPECT_THAT(gateway.mayPublish,
                testing::UnorderedElementsAre("/c/channelReady", "/v", "/e", "/t", "/u",
                                              "/services/ErrorLoggingService/JSErrors"));
    EXPECT_THAT(gateway.maySubscribe, testing::UnorderedElementsAre("/c", "/b"));
    EXPECT_EQ(gateway.reconnectChannel, "/r");
    EXPECT_EQ(gateway.lanes.size(), 1U);
}

TEST(Serving, LeadsToGatewaysElsewhere) {
    const Channels channels{"/c", "/b", "/c/channelReady", "/v", "/r", "/e", {"/t", "/u"}};
    const auto file = testing::TempDir() + "kirofigures_link_" + std::to_string(::getpid());
    std::ofstream(file) << "servers = a:4222\nsession = run-7\n";
    WindowOptions options;
    options.handlesSignals = options.opensBrowser = false;
    const auto gateway = detail::gatewayOptions(options, channels);
    auto link = detail::linkOptions(options, channels, file);
    EXPECT_EQ(link.session, "run-7");
    EXPECT_EQ(link.configuration, gateway.configuration);
    EXPECT_EQ(link.mayPublish, gateway.mayPublish);
    EXPECT_EQ(link.maySubscribe, gateway.maySubscribe);
    EXPECT_EQ(link.blockChannels, gateway.blockChannels);
    EXPECT_EQ(link.lanes, gateway.lanes);
    EXPECT_EQ(link.reconnectChannel, "/r");
    EXPECT_EQ(link.pieceSize, gateway.limits.pieceSize);
    EXPECT_TRUE(link.onGateway != nullptr);
    options.printsLink = false;
    EXPECT_TRUE(detail::linkOptions(options, channels, file).onGateway == nullptr);
    // By the option and by the environment; such a cluster needs an authority's file.
    options.link = file;
    EXPECT_THAT(refusalOf([&] { Window{options}; }), HasSubstr("a CA's file is missing"));
    options.link.clear();
    setenv("KIROWEB_LINK", "/no/such/file", 1);
    EXPECT_THAT([&] { Window{options}; },
                testing::ThrowsMessage<std::runtime_error>(HasSubstr("/no/such/file")));
    unsetenv("KIROWEB_LINK");
    std::filesystem::remove(file);
}

TEST(Serving, NamesTheCauseOfALateAnswer) {
    const std::string lost = R"({"state": "lost", "acknowledged": 1, "nextMessage": 2})";
    const std::string current = R"({"state": "connected", "acknowledged": 4, "nextMessage": 5})";
    const std::string behind = R"({"state": "connected", "acknowledged": 2, "nextMessage": 5})";
    const auto cause = [](bool hasAnnounced, const std::string& pages) {
        return detail::lateCause(hasAnnounced, R"({"detail": [)" + pages + "]}");
    };
    EXPECT_EQ(cause(false, ""), "no client yet");
    EXPECT_EQ(cause(true, lost), "client gone");
    EXPECT_EQ(cause(true, behind + "," + lost), "client stalled");
    EXPECT_EQ(cause(true, behind + "," + current), "token lost");
}

}  // namespace
}  // namespace figures_test
