#include "Serving.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <system_error>

#include "Fixture.hpp"
#include "TokenFile.hpp"

namespace figures_test {
namespace {

using namespace kirofigures;
using testing::HasSubstr;

class TokenFile : public testing::Test {
  protected:
    TokenFile() : fFile(testing::TempDir() + "kirofigures_token") {
        std::filesystem::remove(fFile);
    }
    ~TokenFile() override { std::filesystem::remove(fFile); }

    const std::string fFile;
};

TEST_F(TokenFile, IsMadeOnceForItsOwnerAndReadFromThenOn) {
    const auto token = detail::tokenFrom(fFile);
    EXPECT_EQ(token.size(), 64U);
    struct stat known {};
    ASSERT_EQ(stat(fFile.c_str(), &known), 0);
    EXPECT_EQ(known.st_mode & 0777U, 0600U);
    EXPECT_EQ(detail::tokenFrom(fFile), token);
    std::filesystem::remove(fFile);
    EXPECT_NE(detail::tokenFrom(fFile), token);
}

TEST_F(TokenFile, IsRefusedWhenOthersMayReadItOrItHoldsSomethingElse) {
    static_cast<void>(detail::tokenFrom(fFile));
    chmod(fFile.c_str(), 0640);
    EXPECT_THAT(refusalOf([this] { static_cast<void>(detail::tokenFrom(fFile)); }),
                HasSubstr("others may read " + fFile));
    chmod(fFile.c_str(), 0600);
    for (const char* text :
         {"", "short", "G123456789012345678901234567890123456789012345678901234567890123"}) {
        std::ofstream(fFile, std::ios::trunc) << text;
        EXPECT_THAT(refusalOf([this] { static_cast<void>(detail::tokenFrom(fFile)); }),
                    HasSubstr(fFile + " holds no token"));
    }
    EXPECT_THROW(static_cast<void>(detail::tokenFrom("/no/such/folder/file")), std::system_error);
}

TEST_F(TokenFile, KeepsTheLinkOverRestarts) {
    WindowOptions options;
    options.handlesSignals = options.printsLink = options.opensBrowser = false;
    options.tokenFile = fFile;
    const auto tokenOf = [](const std::string& link) { return link.substr(link.find('#')); };
    const auto first = tokenOf(Window(options).link());
    EXPECT_EQ(tokenOf(Window(options).link()), first);
}

TEST(Serving, LetsAPageDoWhatItHasToAndNoMore) {
    const Channels channels{"/c", "/b", "/c/channelReady", "/v", "/r", "/e", {"/t", "/u"}};
    WindowOptions options;
    options.title = "T";
    const auto gateway = detail::gatewayOptions(options, channels);
    EXPECT_EQ(gateway.configuration,
              R"({"vocabulary":"kirofigures/1","commands":"/c","blocks":"/b",)"
              R"("ready":"/c/channelReady","newView":"/v","events":"/e","title":"T"})");
    EXPECT_THAT(gateway.mayPublish,
                testing::UnorderedElementsAre("/c/channelReady", "/v", "/e", "/t", "/u",
                                              "/services/ErrorLoggingService/JSErrors"));
    EXPECT_THAT(gateway.maySubscribe, testing::UnorderedElementsAre("/c", "/b"));
    EXPECT_EQ(gateway.reconnectChannel, "/r");
    EXPECT_EQ(gateway.lanes.size(), 1U);
    ASSERT_FALSE(gateway.assets.empty());
    EXPECT_THAT(gateway.assets, testing::Contains(testing::Field(&kirogateway::Asset::name, "/")));
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
