#include "kiro/web/PubSubACTRequestor.hpp"

#include "Fixture.hpp"
#include "kiro/web/ExportCommandSender.hpp"
#include "kiroutils/Logger.hpp"

namespace {

using namespace kiro::web;
using kiroutils::CompletionToken;
using kiroutils::Logger;
using namespace support;

const char* const kReturn = "/return";
const char* const kLog = "DrawnowTimeout";

/// Records commands as text and is ready when the test says so.
class FakeSender : public kiro::web::ExportCommandSender {
  public:
    [[nodiscard]] bool queryCommandSenderReadyStatus() const override { return ready; }
    bool ready = false;
};

std::string record(const std::string& event, const std::string& data) {
    return R"({"Channel":"/return","Event":")" + event + R"(","EventData":)" + data +
           R"(,"LogType":"Server","Source":"engine"})";
}

std::string eventOf(const std::string& event, const CompletionToken& token) {
    return record(event, R"({"Token Id":")" + token.convertToString() + "\"}");
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
    /// The wake-up tasks queued for this thread's interpreter, which run here.
    static Lines wakeUps() {
        Lines tasks;
        for (const auto& task : kirohost::pendingTasks(graphics_util::getContextQCRID())) {
            tasks.push_back(task.source + " " + std::to_string(task.whenToDequeue));
        }
        EXPECT_EQ(kirohost::runPendingTasks(), tasks.size());
        return tasks;
    }
    /// The warnings when a token of `from` times out, on a developers' host or another.
    static std::vector<kirohost::Warning> timeOut(kiro::ACTRequestor& from, bool atOstrel = true) {
        const FakeClock clock;
        const ScopedSettings settings([atOstrel](auto& changed) {
            changed.atOstrel = atOstrel;
            changed.drawnowTimeoutSeconds = 1;
        });
        const support::WarningCapture warnings;
        const auto late = from.checkoutToken();
        FakeClock::advanceSeconds(2);
        EXPECT_FALSE(from.isACTPending());
        from.discardTimedOutTokens();
        from.returnToken(late);
        return warnings.all();
    }

    const Lines oneWakeUp{"src/ACTRequestor 1"};
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
        const auto warnings = timeOut(*requestor);
        ASSERT_EQ(warnings.size(), 2U);
        EXPECT_EQ(warnings[0].arguments, Lines{c.customer});
        EXPECT_EQ(warnings[1].id.key, "drawnowTimeout");
        EXPECT_EQ(warnings[1].arguments.at(0), "1");
        EXPECT_EQ(warnings[1].arguments.at(1), "engine(/return)");
        EXPECT_EQ(warnings[1].arguments.at(3),
                  std::string(c.internal) + "\ndrawnowTimeoutLogger disabled");
    }
}

/// What every requestor says by itself.
struct Plain : kiro::ACTRequestor {
    Plain() : ACTRequestor(kLog, "engine", kReturn) {}
    void convertToPayload(JSONPayload&, const CompletionToken&) const override {}
    void doSendACT(const CompletionToken&) override {}
    std::string getDetailsForCustomerTimeoutWarning() const override { return "the cause"; }
};

TEST_F(PubSubRequestor, ReportsATimeOutOnceAndCallsTheHookOnTheDevelopersHostsOnly) {
    for (const bool atOstrel : {false, true}) {
        Plain plain;
        int hooks = 0;
        const ScopedSettings settings(
            [&](auto& changed) { changed.drawnowTimeoutCallback = [&hooks] { ++hooks; }; });
        const LogCapture log(kLog);
        const auto warnings = timeOut(plain, atOstrel);
        ASSERT_EQ(warnings.size(), atOstrel ? 2U : 1U);
        EXPECT_EQ(textOf(warnings[0]), "Quarn:graphics:timeoutDuringDrawnow(the cause)");
        EXPECT_EQ(hooks, atOstrel ? 1 : 0);
        ASSERT_EQ(log.size(), 2U);
        const auto report = log.texts()[1];
        EXPECT_EQ(report.substr(0, 40), record("Timeout", "").substr(0, 40));
        EXPECT_NE(report.find(R"("Timeout":"1"})"), std::string::npos);
    }
    EXPECT_TRUE(wakeUps().empty()) << "a time-out wakes nobody";
}

TEST_F(PubSubRequestor, TimesOutAfterMoreWholeSecondsThanTheTimeOut) {
    struct {
        std::int64_t timeout;
        long milliseconds;
        bool isOver;
    } const cases[] = {{5, 5999, false}, {5, 6000, true}, {0, 1000000000, false}, {-1, 0, true}};
    const FakeClock clock;
    const support::WarningCapture warnings;
    Plain plain;
    for (const auto& c : cases) {
        static_cast<void>(plain.checkoutToken());
        FakeClock::advance(std::chrono::milliseconds(c.milliseconds));
        const ScopedSettings settings(  // a change counts at the next check
            [&c](auto& changed) { changed.drawnowTimeoutSeconds = c.timeout; });
        EXPECT_EQ(plain.isACTPending(), !c.isOver) << c.timeout << " s, " << c.milliseconds;
    }
}

TEST_F(PubSubRequestor, WakesTheInterpreterInWhichItWasMade) {
    kirohost::Vm vm;
    std::unique_ptr<Plain> theirs;
    {
        const auto bound = vm.bindThisThread();
        theirs = std::make_unique<Plain>();
    }
    std::thread([&] { theirs->returnToken(theirs->checkoutToken()); }).join();
    EXPECT_TRUE(wakeUps().empty());
    const auto bound = vm.bindThisThread();
    EXPECT_EQ(wakeUps(), oneWakeUp);
}

TEST_F(PubSubRequestor, SendsTheTokenBehindAllElseTakesItBackAndRecordsEachStep) {
    make();
    const LogCapture log(kLog);
    const auto token = requestor->sendACT();
    EXPECT_EQ(sender->getCommandsAsStrings(),
              Lines{R"({"ACT":")" + token.convertToString() +
                    R"(","returnChannel":"/return","cmd":"sendACT"})"});
    EXPECT_TRUE(requestor->isACTPending());
    returnToken(token);
    EXPECT_FALSE(requestor->isACTPending());
    EXPECT_EQ(wakeUps(), oneWakeUp);
    requestor->setCommandSender(nullptr);
    const auto discarded = requestor->sendACT();
    EXPECT_EQ(sender->getCommandsAsStrings().size(), 1U);
    EXPECT_TRUE(requestor->isACTPending());
    requestor->discardAllTokens();
    requestor->returnToken(discarded);
    requestor->log("LogType", {{"LogType", "Client"}, {"Source", 1}});
    EXPECT_EQ(log.texts(),
              (Lines{eventOf("checkoutToken", token), eventOf("sendACT", token),
                     eventOf("return ACT", token), eventOf("checkoutToken", discarded),
                     eventOf("sendACT", discarded), record("All drawnow tokens discarded", "{}"),
                     record("LogType", R"({"LogType":"Client","Source":1})")}));
}

TEST_F(PubSubRequestor, WritesAndReadsTimeStampsWhileTheyAreLogged) {
    make();
    EXPECT_EQ(requestor->sendACT().getTimeStamps().serverSend, 0U);
    requestor->enableTimeStampLogging(true);
    auto token = requestor->sendACT();
    EXPECT_GT(token.getTimeStamps().serverSend, 1000000000000000U) << "microseconds since 1970";
    token.getTimeStamps() = {1, 2, 3, 18446744073709551615U};
    JSONPayload payload;
    requestor->convertToPayload(payload, token);
    EXPECT_EQ(
        payload.convertToString(),
        R"({"ACT":")" + token.convertToString() +
            R"(","returnChannel":"/return","serverSendTS":1,)"
            R"("clientReceiveTS":2,"clientSendTS":3,"serverReceiveTS":18446744073709551615})");
    returnToken(token, R"(,"serverSendTS":18446744073709551615,"clientReceiveTS":1e3,)"
                       R"("clientSendTS":-1,"serverReceiveTS":1)");
    const auto stamps = requestor->getTimeStampLog().back();
    EXPECT_EQ(stamps.serverSend, 18446744073709551615U);
    EXPECT_EQ(stamps.clientReceive, 1000U);
    EXPECT_EQ(stamps.clientSend, 0U) << "not a stamp";
    EXPECT_GT(stamps.serverReceive, 1U) << "ours";
    EXPECT_TRUE(requestor->hasTimeStamps());
    requestor->clearTimeStampLog();
    EXPECT_FALSE(requestor->hasTimeStamps());
    requestor->setAnnotation("frame 7");
    EXPECT_EQ(requestor->getAnnotation(), "frame 7");
}

TEST_F(PubSubRequestor, DropsRepliesThatAreMalformedForgedOrStale) {
    make();
    reply(R"({"ACT":""})");  // the name of no token, and none is out
    const auto stale = requestor->sendACT().convertToString();
    const auto token = requestor->sendACT();
    const LogCapture log(kLog);
    const auto id = token.convertToString();
    for (const auto& text : {std::string(), R"({"ACT":")" + id + "\"", R"({"ACT":[")" + id + "\"]}",
                             R"({"ACT":"x)" + id + "\"}", R"({"ACT":")" + stale + "\"}"}) {
        reply(text);
        EXPECT_TRUE(requestor->isACTPending()) << text;
    }
    EXPECT_TRUE(wakeUps().empty());
    const auto manager = requestor->getReturnTokenInterface();
    requestor.reset();
    returnToken(token);  // the manager is there, but nobody listens for it
    EXPECT_EQ(log.size(), 0U);
    EXPECT_FALSE(manager->isTimeStampLoggingEnabled());
    for (int i = 0; i < 2; ++i) manager->returnToken(token);
    EXPECT_EQ(log.size(), 1U) << "once";
}

TEST_F(PubSubRequestor, PrintsTheHistoryUntilASnapshotClearsIt) {
    const ScopedSettings on([](auto& settings) { settings.drawnowTimeoutLogging = true; });
    make();
    // One recorder, however many requestors.
    const PubSubACTRequestor second(nullptr, "/second", "other", "web", false);
    auto& logger = Logger::instance();
    for (int i = 0; i < 500; ++i) logger.log(kLog, std::to_string(i));
    EXPECT_EQ(logger.history(kLog).size(), 400U);
    kiro::web::test::enablePubSubACTRequestorTesting();
    kirohost::takeMemorySnapshot();
    EXPECT_TRUE(logger.history(kLog).empty());

    publish("/graphics/a", "{}");
    kirohost::waitForDelivery();
    const auto printed = timeOut(*requestor).at(1).arguments.at(3);
    const auto history = logger.history(kLog);
    ASSERT_EQ(history.size(), 3U) << "the client's, the token's and that of its time-out";
    EXPECT_EQ(printed, "Client may not be connected.\nLast 3 messages:\n\n " + history[0] + "\n " +
                           history[1] + "\n " + history[2]);
}

TEST_F(PubSubRequestor, MayBeDestroyedWithRepliesInFlight) {
    support::Collector<std::string> tokens;
    std::jthread client([&tokens] {
        for (auto token = tokens.take(); !token.empty(); token = tokens.take()) {
            publish(kReturn, R"({"ACT":")" + token + "\"}");
        }
    });
    for (int i = 0; i < 100; ++i) {
        make(true);
        for (int n = 0; n < 3; ++n) tokens.add(requestor->sendACT().convertToString());
        requestor.reset();
    }
    tokens.add("");
}

// Behind those that find no recorder.
TEST_F(PubSubRequestor, RecordsItsLifeWhenTheHostWantsThat) {
    const ScopedSettings settings([](auto& changed) { changed.drawnowTimeoutLogging = true; });
    const auto life = [](const std::string& event, const std::string& data) {
        return R"({"Channel":"","Event":")" + event + R"(","EventData":)" + data +
               R"(,"LogType":"Server","Source":"PubSubACTRequestor"})";
    };
    auto& logger = Logger::instance();
    logger.clearHistory(kLog);
    make();
    requestor->setAnnotation("a");
    const auto token = requestor->checkoutToken();
    requestor->sendACT(token);
    returnToken(token);
    requestor.reset();
    const auto id = token.convertToString();
    EXPECT_EQ(
        logger.history(kLog),
        (Lines{life("Created PubSubACTRequestor", R"({"Id":"/return"})"),
               eventOf("checkoutToken", token), eventOf("sendACT", token),
               life("Sending ACT", R"({"ACT":")" + id + R"(","Id":"/return"})"),
               life("Logging Annotation", R"({"Annotation":"a"})"), eventOf("return ACT", token),
               life("Destroyed PubSubACTRequestor", R"({"Id":"/return"})")}));
}

}  // namespace
