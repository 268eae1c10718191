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

using kiro::web::PubSubACTRequestor;
using kiroutils::CompletionToken;
using kiroutils::Logger;
using support::FakeClock;
using support::Lines;
using support::LogCapture;
using support::publish;
using support::ScopedSettings;

static_assert(std::is_nothrow_destructible_v<PubSubACTRequestor>);

const char* const kReturn = "/return";
const char* const kLog = "DrawnowTimeout";

/// Records commands as text and is ready when the test says so.
class FakeSender : public kiro::web::ExportCommandSender {
  public:
    [[nodiscard]] bool queryCommandSenderReadyStatus() const override { return ready; }
    bool ready = false;
};

std::string lifecycle(const std::string& event, const std::string& data) {
    return R"({"Channel":"","Event":")" + event + R"(","EventData":)" + data +
           R"(,"LogType":"Server","Source":"PubSubACTRequestor"})";
}

std::string eventOf(const std::string& event, const CompletionToken& token) {
    return R"({"Channel":"/return","Event":")" + event + R"(","EventData":{"Token Id":")" +
           token.convertToString() + R"("},"LogType":"Server","Source":"engine"})";
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
    /// The texts of the warnings when a token of `requestor` times out on a developers' host.
    std::vector<kirohost::Warning> timeOut() {
        const FakeClock clock;
        const ScopedSettings settings([](auto& changed) {
            changed.atOstrel = true;
            changed.drawnowTimeoutSeconds = 1;
        });
        const support::WarningCapture warnings;
        requestor->checkoutToken();
        FakeClock::advanceSeconds(2);
        if (Logger::instance().isHistoryEnabled(kLog)) Logger::instance().clearHistory(kLog);
        EXPECT_FALSE(requestor->isACTPending());
        return warnings.all();
    }

    std::shared_ptr<FakeSender> sender = std::make_shared<FakeSender>();
    std::unique_ptr<PubSubACTRequestor> requestor;
};

// The first test of the process: once made, the recorder stays.
TEST_F(PubSubRequestor, SaysWhyATokenMayNotHaveComeBack) {
    const char* const kDisabled = "\ndrawnowTimeoutLogger disabled";
    struct {
        bool hasSender;
        bool ready;
        std::string customer;
        std::string internal;
    } const cases[] = {
        {false, false, "an uninitialized web communicator", kDisabled},
        {true, true, "an unresponsive web client",
         std::string("Client may be connected.") + kDisabled},
        {true, false, "a web handshaking issue",
         std::string("Client may not be connected.") + kDisabled},
    };
    make();
    for (const auto& c : cases) {
        sender->ready = c.ready;
        requestor->setCommandSender(c.hasSender ? sender : nullptr);
        const auto warnings = timeOut();
        ASSERT_EQ(warnings.size(), 2U);
        EXPECT_EQ(warnings[0].arguments, Lines{c.customer});
        EXPECT_EQ(warnings[1].arguments.at(1), "engine(/return)");
        EXPECT_EQ(warnings[1].arguments.at(3), c.internal);
    }
    // Without a recorder its history is nobody's to clear.
    kiro::web::test::enablePubSubACTRequestorTesting();
    Logger::instance().setHistoryEnabled(kLog, true, 10, false);
    Logger::instance().log(kLog, "kept");
    kirohost::takeMemorySnapshot();
    EXPECT_EQ(Logger::instance().history(kLog), Lines{"kept"});
    Logger::instance().setHistoryEnabled(kLog, false, 0, false);
}

TEST_F(PubSubRequestor, SendsTheTokenBehindAllElseAndTakesItBack) {
    make();
    const auto log = std::make_unique<LogCapture>(kLog);
    auto token = requestor->sendACT();
    const auto id = token.convertToString();
    EXPECT_EQ(sender->getCommandsAsStrings(),
              Lines{R"({"ACT":")" + id + R"(","returnChannel":"/return","cmd":"sendACT"})"});
    EXPECT_TRUE(requestor->isACTPending());
    returnToken(token);
    EXPECT_FALSE(requestor->isACTPending());
    EXPECT_EQ(log->texts(), (Lines{eventOf("checkoutToken", token), eventOf("sendACT", token),
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

    sender->reset();
    requestor->setCommandSender(nullptr);
    requestor->sendACT();
    EXPECT_TRUE(sender->getCommandsAsStrings().empty());
    EXPECT_TRUE(requestor->isACTPending());
    EXPECT_EQ(log->size(), 5U) << "checked out and sent, no more";
}

TEST_F(PubSubRequestor, ReadsTheStampsOfAReply) {
    struct {
        const char* text;
        std::uint64_t stamp;
    } const cases[] = {
        {"0", 0},
        {"7", 7},
        {"9223372036854775808", 9223372036854775808U},
        {"18446744073709551615", 18446744073709551615U},
        {"1e3", 1000},
        {"18446744073709551616", 0},
        {"-1", 0},
        {"1.5", 0},
        {"1e300", 0},
        {R"("7")", 0},
        {"true", 0},
        {"null", 0},
        {"[7]", 0},
    };
    make();
    const auto returnWith = [this](const std::string& stamp) {
        returnToken(requestor->sendACT(), R"(,"serverSendTS":)" + stamp + R"(,"clientReceiveTS":)" +
                                              stamp + R"(,"clientSendTS":)" + stamp +
                                              R"(,"serverReceiveTS":1)");
        EXPECT_FALSE(requestor->isACTPending());
    };
    returnWith("7");
    EXPECT_FALSE(requestor->hasTimeStamps());
    requestor->enableTimeStampLogging(true);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        requestor->clearTimeStampLog();
        returnWith(c.text);
        ASSERT_EQ(requestor->getTimeStampLog().size(), 1U);
        const auto stamps = requestor->getTimeStampLog().front();
        EXPECT_EQ(stamps.serverSend, c.stamp);
        EXPECT_EQ(stamps.clientReceive, c.stamp);
        EXPECT_EQ(stamps.clientSend, c.stamp);
        EXPECT_GT(stamps.serverReceive, 1U) << "ours";
    }
    returnToken(requestor->sendACT());
    EXPECT_EQ(requestor->getTimeStampLog().back().clientSend, 0U) << "no stamps at all";
}

TEST_F(PubSubRequestor, DropsRepliesThatAreMalformedForgedOrStale) {
    make();
    const auto stale = requestor->sendACT();
    const auto token = requestor->sendACT();
    const LogCapture log(kLog);
    const auto id = token.convertToString();
    for (const auto& text :
         {std::string(), std::string("nonsense"), "\"" + id + "\"", "[\"" + id + "\"]",
          std::string("{}"), R"({"act":")" + id + "\"}", R"({"ACT":")" + id + "\"",
          std::string(R"({"ACT":null})"), std::string(R"({"ACT":""})"),
          R"({"ACT":[")" + id + "\"]}", R"({"ACT":"x)" + id + "\"}",
          R"({"ACT":")" + stale.convertToString() + "\"}",
          R"({"ACT":")" + id + R"(","x":)" + std::string(100, '[') + std::string(100, ']') + "}",
          R"({"ACT":"\xFF)" + id + "\"}"}) {
        reply(text);
        EXPECT_TRUE(requestor->isACTPending()) << text;
    }
    publish("/return/other", R"({"ACT":")" + id + "\"}");
    kirohost::waitForDelivery();
    EXPECT_EQ(log.size(), 0U);
    EXPECT_EQ(kirohost::runPendingTasks(), 0U);
    returnToken(token, R"(,"more":{"ignored":1})");
    EXPECT_FALSE(requestor->isACTPending());
    const auto late = requestor->sendACT();
    const auto manager = requestor->getReturnTokenInterface();
    requestor.reset();
    const auto before = log.size();
    returnToken(late);  // the manager is there, but nobody listens for it
    EXPECT_EQ(log.size(), before);
}

TEST_F(PubSubRequestor, TracesReturnedTokensOnDemand) {
    const support::DiagnosticCapture trace("graphics::ACT", 8);
    make();
    returnToken(requestor->sendACT());
    EXPECT_EQ(trace.size(), 0U);
    requestor.reset();
    make(true);
    const auto token = requestor->sendACT();
    reply(R"({"ACT":"stranger"})");
    reply("{}");
    returnToken(token);
    EXPECT_EQ(trace.texts(), (Lines{"graphics::ACT lifecycle stranger",
                                    "graphics::ACT lifecycle " + token.convertToString()}));
    kirohost::setDiagnosticLevel("graphics::ACT", 7);
    returnToken(requestor->sendACT());
    EXPECT_EQ(trace.size(), 2U);
}

TEST_F(PubSubRequestor, RecordsItsLifeOnceTheHostWantsItAndGoesOn) {
    make();
    LogCapture log(kLog);
    {
        const auto on = timeoutLogging(true);
        const auto first = requestor->sendACT();
        EXPECT_EQ(log.texts(),
                  (Lines{eventOf("checkoutToken", first), eventOf("sendACT", first),
                         lifecycle("Sending ACT", R"({"ACT":")" + first.convertToString() +
                                                      R"(","Id":"/return"})"),
                         lifecycle("Logging Annotation", R"({"Annotation":""})")}));
        PubSubACTRequestor second(nullptr, "/second", "other", "web", false);
    }
    ASSERT_EQ(log.size(), 6U);
    EXPECT_EQ(log.texts()[4], lifecycle("Created PubSubACTRequestor", R"({"Id":"/second"})"));
    EXPECT_EQ(log.texts()[5], lifecycle("Destroyed PubSubACTRequestor", R"({"Id":"/second"})"));

    log.clear();  // the recorder stays when the host switches it off
    requestor->setAnnotation("frame 7");
    requestor->sendACT();
    EXPECT_EQ(log.texts().at(3), lifecycle("Logging Annotation", R"({"Annotation":"frame 7"})"));
    requestor.reset();
    EXPECT_EQ(log.texts().back(), lifecycle("Destroyed PubSubACTRequestor", R"({"Id":"/return"})"));
    log.clear();
    publish("/graphics/figure", R"({"Type":"Draw","message":"m","Description":"d"})");
    kirohost::waitForDelivery();
    EXPECT_EQ(log.texts(), Lines{R"({"Channel":"/graphics/figure","Event":"Draw","EventData":"m",)"
                                 R"("LogType":"Client","Source":"d"})"})
        << "one recorder, however many requestors";
}

TEST_F(PubSubRequestor, PrintsTheHistoryUntilASnapshotClearsIt) {
    const auto on = timeoutLogging(true);
    make();
    const support::WarningCapture warnings;
    const FakeClock clock;
    const ScopedSettings settings([](auto& changed) { changed.atOstrel = true; });
    requestor->checkoutToken();
    FakeClock::advanceSeconds(100);
    auto& logger = Logger::instance();
    ASSERT_TRUE(logger.isHistoryEnabled(kLog));
    logger.clearHistory(kLog);
    publish("/graphics/a", "{}");
    publish("/graphics/b", "{}");
    kirohost::waitForDelivery();
    EXPECT_FALSE(requestor->isACTPending());  // the time-out is the third record
    const auto history = logger.history(kLog);
    ASSERT_EQ(history.size(), 3U);
    EXPECT_EQ(warnings.all().at(1).arguments.at(3),
              "Client may not be connected.\nLast 3 messages:\n\n " + history[0] + "\n " +
                  history[1] + "\n " + history[2]);

    for (int i = 0; i < 500; ++i) logger.log(kLog, std::to_string(i));
    EXPECT_EQ(logger.history(kLog).size(), 400U);
    kiro::web::test::enablePubSubACTRequestorTesting();
    kiro::web::test::enablePubSubACTRequestorTesting();
    kirohost::takeMemorySnapshot();
    EXPECT_TRUE(logger.history(kLog).empty());
    EXPECT_NE(timeOut().at(1).arguments.at(3).find("\nLast 1 messages:\n\n {"), std::string::npos);
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
    std::atomic<bool> stop = false;
    std::latch started(1);
    std::thread client([&] {
        started.count_down();
        while (!stop) publish("/sender/channelReady", R"({"binaryChannelStatus":1})");
    });
    started.wait();
    support::Recorder received;
    const auto subscription =
        subscribe(kiro::web::PubSubFactory::pubsubInstance(), "/sender", received.callback());
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
