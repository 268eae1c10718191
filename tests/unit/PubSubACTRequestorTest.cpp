#include "kiro/web/PubSubACTRequestor.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <memory>
#include <thread>
#include <type_traits>

#include "Captures.hpp"
#include "Fixture.hpp"
#include "kiro/web/BootstrappingCommandSender.hpp"
#include "kiro/web/ExportCommandSender.hpp"
#include "kiro/web/JSONPayload.hpp"
#include "kiro/web/PubSubFactory.hpp"
#include "kiro/web/Subscriber.hpp"
#include "kiroutils/Logger.hpp"

namespace {

using namespace kiro::web;
using kiroutils::CompletionToken;
using kiroutils::Logger;
using namespace support;

static_assert(std::is_nothrow_destructible_v<PubSubACTRequestor>);

const char* const kReturn = "/return";
const char* const kLog = "DrawnowTimeout";

/// Records commands as text and is ready when the test says so.
class FakeSender : public kiro::web::ExportCommandSender {
  public:
    [[nodiscard]] bool queryCommandSenderReadyStatus() const override { return ready; }
    bool ready = false;
};

std::string record(const std::string& event, const std::string& data,
                   const std::string& channel = "",
                   const std::string& source = "PubSubACTRequestor") {
    return R"({"Channel":")" + channel + R"(","Event":")" + event + R"(","EventData":)" + data +
           R"(,"LogType":"Server","Source":")" + source + "\"}";
}

std::string eventOf(const std::string& event, const CompletionToken& token) {
    return record(event, R"({"Token Id":")" + token.convertToString() + "\"}", kReturn, "engine");
}

ScopedSettings timeoutLogging(bool on) {
    return ScopedSettings([on](auto& settings) { settings.drawnowTimeoutLogging = on; });
}

class PubSubRequestor : public testing::Test {
  protected:
    ~PubSubRequestor() override {
        kirohost::waitForDelivery();
        kirohost::runPendingTasks();
    }
    void make(bool tracing = false) {
        requestor = std::make_unique<PubSubACTRequestor>(sender, kReturn, "engine", "web", tracing);
    }
    static void reply(const std::string& text) {
        publish(kReturn, text);
        kirohost::waitForDelivery();
    }
    static void returnToken(const CompletionToken& token, const std::string& more = "") {
        reply(R"({"ACT":")" + token.convertToString() + '"' + more + "}");
    }
    /// The warnings when a token of `requestor` times out on a developers' host.
    std::vector<kirohost::Warning> timeOut() {
        const FakeClock clock;
        const ScopedSettings settings([](auto& changed) {
            changed.atOstrel = true;
            changed.drawnowTimeoutSeconds = 1;
        });
        const support::WarningCapture warnings;
        requestor->checkoutToken();
        FakeClock::advanceSeconds(2);
        EXPECT_FALSE(requestor->isACTPending());
        return warnings.all();
    }

    std::shared_ptr<FakeSender> sender = std::make_shared<FakeSender>();
    std::unique_ptr<PubSubACTRequestor> requestor;
};

// The first test of the process: once made, the recorder stays.
TEST_F(PubSubRequestor, SaysWhyATokenMayNotHaveComeBack) {
    struct {
        bool hasSender;
        bool ready;
        const char* customer;
        const char* internal;
    } const cases[] = {{false, false, "an uninitialized web communicator", ""},
                       {true, true, "an unresponsive web client", "Client may be connected."},
                       {true, false, "a web handshaking issue", "Client may not be connected."}};
    make();
    for (const auto& c : cases) {
        sender->ready = c.ready;
        requestor->setCommandSender(c.hasSender ? sender : nullptr);
        const auto warnings = timeOut();
        ASSERT_EQ(warnings.size(), 2U);
        EXPECT_EQ(warnings[0].arguments, Lines{c.customer});
        EXPECT_EQ(warnings[1].arguments.at(1), "engine(/return)");
        EXPECT_EQ(warnings[1].arguments.at(3),
                  std::string(c.internal) + "\ndrawnowTimeoutLogger disabled");
    }
}

TEST_F(PubSubRequestor, SendsTheTokenBehindAllElseAndTakesItBack) {
    make();
    const LogCapture log(kLog);
    auto token = requestor->sendACT();
    const auto id = token.convertToString();
    EXPECT_EQ(sender->getCommandsAsStrings(),
              Lines{R"({"ACT":")" + id + R"(","returnChannel":"/return","cmd":"sendACT"})"});
    EXPECT_TRUE(requestor->isACTPending());
    returnToken(token);
    EXPECT_FALSE(requestor->isACTPending());
    EXPECT_EQ(log.texts(), (Lines{eventOf("checkoutToken", token), eventOf("sendACT", token),
                                  eventOf("return ACT", token)}));
    EXPECT_EQ(kirohost::runPendingTasks(), 1U) << "the interpreter is woken";

    requestor->enableTimeStampLogging(true);
    token.getTimeStamps() = {1, 2, 3, 18446744073709551615U};
    kiro::web::JSONPayload payload;
    requestor->convertToPayload(payload, token);
    EXPECT_EQ(
        payload.convertToString(),
        R"({"ACT":")" + id + R"(","returnChannel":"/return","serverSendTS":1,)" +
            R"("clientReceiveTS":2,"clientSendTS":3,"serverReceiveTS":18446744073709551615})");

    requestor->setCommandSender(nullptr);
    requestor->sendACT();
    EXPECT_EQ(sender->getCommandsAsStrings().size(), 1U);
    EXPECT_TRUE(requestor->isACTPending());
    EXPECT_EQ(log.size(), 5U) << "checked out and sent, no more";
}

TEST_F(PubSubRequestor, ReadsTheStampsOfAReply) {
    const std::pair<const char*, std::uint64_t> cases[] = {
        {"7", 7},      {"18446744073709551615", 18446744073709551615U},
        {"1e3", 1000}, {"18446744073709551616", 0},
        {"-1", 0},     {"1.5", 0},
        {R"("7")", 0}, {"null", 0}};
    make();
    requestor->enableTimeStampLogging(true);
    for (const auto& [text, stamp] : cases) {
        SCOPED_TRACE(text);
        const std::string value = text;
        returnToken(requestor->sendACT(), R"(,"serverSendTS":)" + value + R"(,"clientReceiveTS":)" +
                                              value + R"(,"clientSendTS":)" + value +
                                              R"(,"serverReceiveTS":1)");
        EXPECT_FALSE(requestor->isACTPending());
        const auto stamps = requestor->getTimeStampLog().back();
        EXPECT_EQ(stamps.serverSend, stamp);
        EXPECT_EQ(stamps.clientReceive, stamp);
        EXPECT_EQ(stamps.clientSend, stamp);
        EXPECT_GT(stamps.serverReceive, 1U) << "ours";
    }
    returnToken(requestor->sendACT());
    EXPECT_EQ(requestor->getTimeStampLog().back().clientSend, 0U) << "no stamps at all";
}

TEST_F(PubSubRequestor, DropsRepliesThatAreMalformedForgedOrStale) {
    make();
    const auto stale = requestor->sendACT().convertToString();
    const auto token = requestor->sendACT();
    const LogCapture log(kLog);
    const auto id = token.convertToString();
    for (const auto& text : {std::string(), std::string("{}"), R"({"ACT":")" + id + "\"",
                             std::string(R"({"ACT":null})"), std::string(R"({"ACT":""})"),
                             R"({"ACT":[")" + id + "\"]}", R"({"ACT":"x)" + id + "\"}",
                             R"({"ACT":")" + stale + "\"}", R"({"ACT":"\xFF)" + id + "\"}"}) {
        reply(text);
        EXPECT_TRUE(requestor->isACTPending()) << text;
    }
    publish("/return/other", R"({"ACT":")" + id + "\"}");
    kirohost::waitForDelivery();
    EXPECT_EQ(kirohost::runPendingTasks(), 0U);
    const auto manager = requestor->getReturnTokenInterface();
    requestor.reset();
    returnToken(token);  // the manager is there, but nobody listens for it
    EXPECT_EQ(log.size(), 0U);
}

TEST_F(PubSubRequestor, TracesReturnedTokens) {
    const support::DiagnosticCapture trace("graphics::ACT", 8);
    make(true);
    const auto token = requestor->sendACT();
    reply(R"({"ACT":"stranger"})");
    reply("{}");
    returnToken(token);
    EXPECT_EQ(trace.texts(), (Lines{"graphics::ACT lifecycle stranger",
                                    "graphics::ACT lifecycle " + token.convertToString()}));
}

TEST_F(PubSubRequestor, RecordsItsLifeOnceTheHostWantsItAndGoesOn) {
    make();
    LogCapture log(kLog);
    CompletionToken token;
    {
        const auto on = timeoutLogging(true);
        token = requestor->sendACT();
        const PubSubACTRequestor second(nullptr, "/second", "other", "web", false);
    }
    EXPECT_EQ(log.texts(), (Lines{eventOf("checkoutToken", token), eventOf("sendACT", token),
                                  record("Sending ACT", R"({"ACT":")" + token.convertToString() +
                                                            R"(","Id":"/return"})"),
                                  record("Logging Annotation", R"({"Annotation":""})"),
                                  record("Created PubSubACTRequestor", R"({"Id":"/second"})"),
                                  record("Destroyed PubSubACTRequestor", R"({"Id":"/second"})")}));
    log.clear();  // the recorder stays when the host switches it off
    requestor->setAnnotation("frame 7");
    requestor->sendACT();
    requestor.reset();
    EXPECT_EQ(log.texts().at(3), record("Logging Annotation", R"({"Annotation":"frame 7"})"));
    EXPECT_EQ(log.texts().at(4), record("Destroyed PubSubACTRequestor", R"({"Id":"/return"})"));
    publish("/graphics/figure", "{}");
    kirohost::waitForDelivery();
    EXPECT_EQ(log.size(), 6U) << "one recorder, however many requestors";
}

TEST_F(PubSubRequestor, PrintsTheHistoryUntilASnapshotClearsIt) {
    const auto on = timeoutLogging(true);
    make();
    auto& logger = Logger::instance();
    for (int i = 0; i < 500; ++i) logger.log(kLog, std::to_string(i));
    EXPECT_EQ(logger.history(kLog).size(), 400U);
    kiro::web::test::enablePubSubACTRequestorTesting();
    kiro::web::test::enablePubSubACTRequestorTesting();
    kirohost::takeMemorySnapshot();
    EXPECT_TRUE(logger.history(kLog).empty());

    publish("/graphics/a", "{}");
    kirohost::waitForDelivery();
    const auto printed = timeOut().at(1).arguments.at(3);
    const auto history = logger.history(kLog);
    ASSERT_EQ(history.size(), 3U) << "the client's, the token's and that of its time-out";
    EXPECT_EQ(printed, "Client may not be connected.\nLast 3 messages:\n\n " + history[0] + "\n " +
                           history[1] + "\n " + history[2]);
}

TEST_F(PubSubRequestor, MayBeDestroyedWithRepliesInFlight) {
    std::atomic<bool> stop = false;
    support::Collector<std::string> tokens;
    std::thread client([&] {
        for (std::size_t seen = 0; !stop; ++seen) {
            tokens.awaitSize(seen + 1);
            publish(kReturn, R"({"ACT":")" + tokens.all()[seen] + "\"}");
        }
    });
    for (int i = 0; i < 100; ++i) {
        make(true);
        for (int n = 0; n < 3; ++n) tokens.add(requestor->sendACT().convertToString());
        requestor.reset();
    }
    stop = true;
    tokens.add("the last");
    client.join();
}

TEST(MessagesInFlight, DoNotReachADestroyedSender) {
    support::Recorder received;
    const auto subscription =
        subscribe(kiro::web::PubSubFactory::pubsubInstance(), "/sender", received.callback());
    std::atomic<bool> stop = false;
    std::latch started(1);
    std::thread client([&] {
        started.count_down();
        while (!stop) publish("/sender/channelReady", R"({"binaryChannelStatus":1})");
    });
    started.wait();
    for (int i = 0; i < 100; ++i) {
        kiro::web::BootstrappingCommandSender sender("/sender");
        sender.sendCommand("a", {});
        static_cast<void>(sender.queryUsingBinary());
        sender.sendCommand("b", {});
    }
    stop = true;
    client.join();
    kirohost::waitForDelivery();
    // Whatever arrived is whole and in order: an "a" before each "b", never a lone "b".
    bool afterA = false;
    for (const auto& text : received.messagesOn("/sender")) {
        EXPECT_TRUE(afterA || text != R"({"cmd":"b"})");
        afterA = text == R"({"cmd":"a"})";
    }
}

}  // namespace
