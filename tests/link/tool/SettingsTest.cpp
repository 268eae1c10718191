#include "Settings.hpp"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <utility>

#include "Log.hpp"

using namespace link_tool;

namespace {

const std::string kGood =
    "# a comment\nname = east_1\ntls = off\nservers = a:4222, tls://b:4222\ncredentials = c\n";

Settings read(const std::string& text) {
    std::istringstream lines(text);
    return readSettings(lines, "gateway.conf");
}

std::string complaint(const std::string& text) {
    try {
        static_cast<void>(read(text));
        return "nothing";
    } catch (const WrongSetting& error) {
        return error.what();
    }
}

}  // namespace

TEST(Settings, SayWhatTheFileSays) {
    const auto usual = read(kGood);
    EXPECT_EQ(usual.name, "east_1");
    EXPECT_EQ(usual.cluster.servers, (std::vector<std::string>{"a:4222", "tls://b:4222"}));
    EXPECT_EQ(usual.cluster.credentialsFile, "c");
    EXPECT_EQ(usual.cluster.inboxPrefix, "_INBOX.gateway-east_1");
    EXPECT_FALSE(usual.cluster.isPlainAllowed);
    EXPECT_EQ(usual.statusAddress, "127.0.0.1");
    const auto given = read(kGood +
                            "address = ::1\nport = 1\nca = d\ncluster-tls = off\nmemory = 3\n"
                            "public = https://plots.example:8443\ngateways = https://b:1,http://c\n"
                            "status-address = 0.0.0.0\nstatus-port = 9\nsessions = 7\npages = 8\n"
                            "session-pages = 6\nall-memory = 5\nmessage-size = 4\n");
    EXPECT_EQ(given.address, "::1");
    EXPECT_EQ(given.publicAddress, "https://plots.example:8443");
    EXPECT_EQ(given.others, (std::vector<std::string>{"https://b:1", "http://c"}));
    EXPECT_EQ(given.cluster.caFile, "d");
    EXPECT_TRUE(given.cluster.isPlainAllowed);
    EXPECT_EQ(given.statusAddress, "0.0.0.0");
    EXPECT_EQ((std::vector<std::size_t>{given.port, given.statusPort, given.sessions, given.pages,
                                        given.memory, given.pagesOfOne(), given.allMemory,
                                        given.largest}),
              (std::vector<std::size_t>{1, 9, 7, 8, 3UL << 20U, 6, 5UL << 20U, 4UL << 20U}));
    EXPECT_EQ(usual.pagesOfOne(), 500U);
    EXPECT_EQ(usual.largest, 256UL << 20U);
}

TEST(Settings, NameWhatIsWrong) {
    const std::pair<std::string, std::string> table[] = {
        {"", "gateway.conf: name: "},
        {"name = a.b\n", "name = a.b: "},
        {"name = a\n", "certificate: a file is needed"},
        {"name = a\ntls = maybe\n", "tls = maybe: "},
        {"name = a\ntls = off\naddress = 0.0.0.0\n", "tls = off: "},
        {"name = a\ntls = off\nkey = k\n", "key = k: it is not used"},
        {"name = a\ncertificate = /none\nkey = /none\n", "certificate = /none: the file cannot"},
        {"name = a\ncertificate = /dev/null\nkey = /dev/null\n", "certificate = /dev/null: "},
        {"name = a\ntls = off\n", "servers: "},
        {"name = a\ntls = off\nservers = a,,b\n", "servers = a,,b: "},
        {"name = a\naddress = localhost\n", "address = localhost: "},
        {kGood + "port = 65536\n", "port = 65536: "},
        {kGood + "port = -1\n", "port = -1: "},
        {kGood + "sessions = 0\n", "sessions = 0: "},
        {kGood + "memory = 1 GiB\n", "memory = 1 GiB: "},
        {kGood + "page-size = 5\n", "page-size = 5: "},
        {kGood + "message-size = 0\n", "message-size = 0: "},
        {kGood + "public = https://a/b\n", "public = https://a/b: "},
        {kGood + "gateways = b:1\n", "gateways = b:1: "},
        {kGood + "cluster-tls = no\n", "cluster-tls = no: "},
        {kGood + "status-address = here\n", "status-address = here: "},
        {kGood + "colour = red\n", "colour"},
        {kGood + "port = 1\nport = 2\n", "port"},
        {kGood + "nothing\n", "nothing"},
    };
    for (const auto& [text, expected] : table) {
        const auto said = complaint(text);
        EXPECT_TRUE(said.starts_with("gateway.conf: ")) << said;
        EXPECT_NE(said.find(expected), std::string::npos) << text << said;
        EXPECT_EQ(said.find('\n'), std::string::npos) << said;
    }
    EXPECT_THROW(static_cast<void>(readSettings("/none")), WrongSetting);
}

TEST(Log, LinesCannotBeForged) {
    EXPECT_EQ(lineText("page said", "s", "a\n\"b\\"),
              R"(event="page said" session="s" detail="a\x0a\"b\\")");
}
