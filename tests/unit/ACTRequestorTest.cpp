#include "kiro/ACTRequestor.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <type_traits>

#include "Captures.hpp"
#include "Fixture.hpp"
#include "kiro/web/JSONPayload.hpp"

namespace {

using kiro::ACTRequestor;
using kiroutils::CompletionToken;
using namespace support;

static_assert(std::is_nothrow_destructible_v<ACTRequestor>);
static_assert(!std::is_copy_constructible_v<ACTRequestor>);

class Requestor : public ACTRequestor {
  public:
    explicit Requestor(std::function<void(const CompletionToken&)> deliver = nullptr)
        : ACTRequestor("Tokens", "source", "/return"), fDeliver(std::move(deliver)) {}

    void convertToPayload(kiro::web::JSONPayload&, const CompletionToken&) const override {}

  protected:
    void doSendACT(const CompletionToken& token) override {
        if (fDeliver) fDeliver(token);
    }
    [[nodiscard]] std::string getDetailsForCustomerTimeoutWarning() const override {
        return "the cause";
    }

  private:
    std::function<void(const CompletionToken&)> fDeliver;
};

std::string record(const std::string& event, const std::string& data) {
    return R"({"Channel":"/return","Event":")" + event + R"(","EventData":)" + data +
           R"(,"LogType":"Server","Source":"source"})";
}

std::string tokenRecord(const std::string& event, const CompletionToken& token) {
    return record(event, R"({"Token Id":")" + token.convertToString() + "\"}");
}

TEST(ACTRequestor, RecordsEachStepOfATokensLife) {
    const LogCapture log("Tokens");
    std::size_t before = 0;  // how many records there are at the time of delivery
    Requestor requestor([&](const CompletionToken&) { before = log.size(); });
    const auto token = requestor.sendACT();
    EXPECT_EQ(before, 2U);
    EXPECT_TRUE(requestor.isACTPending());
    requestor.returnToken(token);
    EXPECT_FALSE(requestor.isACTPending());
    const auto discarded = requestor.checkoutToken();
    requestor.discardAllTokens();
    requestor.returnToken(discarded);
    EXPECT_FALSE(requestor.isACTPending());
    requestor.log("LogType", {{"LogType", "Client"}, {"Source", 1}});
    EXPECT_EQ(kirohost::runPendingTasks(), 1U);
    EXPECT_EQ(log.texts(),
              (Lines{tokenRecord("checkoutToken", token), tokenRecord("sendACT", token),
                     tokenRecord("return ACT", token), tokenRecord("checkoutToken", discarded),
                     record("All drawnow tokens discarded", "{}"),
                     record("LogType", R"({"LogType":"Client","Source":1})")}));
}

TEST(ACTRequestor, ReportsATimeOutOnceAndCallsTheHookOnTheDevelopersHostsOnly) {
    const FakeClock clock;
    for (const bool atOstrel : {false, true}) {
        SCOPED_TRACE(atOstrel);
        int hooks = 0;
        const ScopedSettings settings([&](auto& changed) {
            changed.drawnowTimeoutSeconds = 5;
            changed.atOstrel = atOstrel;
            changed.drawnowTimeoutCallback = [&hooks] { ++hooks; };
        });
        Requestor requestor;
        const auto token = requestor.sendACT();
        FakeClock::advanceSeconds(5);
        EXPECT_TRUE(requestor.isACTPending());
        const LogCapture log("Tokens");
        const support::WarningCapture warnings;
        FakeClock::advanceSeconds(1);
        EXPECT_FALSE(requestor.isACTPending());
        requestor.discardTimedOutTokens();
        requestor.returnToken(token);  // late
        const auto id = token.convertToString();
        EXPECT_EQ(log.texts(),
                  Lines{record("Timeout", R"({"ACT":")" + id + R"(","Timeout":"5"})")});
        Lines expected{"Quarn:graphics:timeoutDuringDrawnow(the cause)"};
        if (atOstrel) {
            expected.push_back("Quarn:graphics:drawnowTimeout(5, source(/return), " + id + ", )");
        }
        EXPECT_EQ(warnings.texts(), expected);
        EXPECT_EQ(hooks, atOstrel ? 1 : 0);
        EXPECT_EQ(kirohost::runPendingTasks(), 0U) << "a time-out wakes nobody";
    }
}

TEST(ACTRequestor, SharesItsManagerWithWhoeverReceivesReplies) {
    auto requestor = std::make_unique<Requestor>();
    const auto replies = requestor->getReturnTokenInterface();
    requestor->enableTimeStampLogging(true);
    EXPECT_TRUE(requestor->isTimeStampLoggingEnabled() && replies->isTimeStampLoggingEnabled());
    replies->returnToken(requestor->sendACT());
    EXPECT_FALSE(requestor->isACTPending());
    EXPECT_TRUE(requestor->hasTimeStamps());
    EXPECT_EQ(requestor->getTimeStampLog().size(), 1U);
    requestor->clearTimeStampLog();
    EXPECT_FALSE(requestor->hasTimeStamps());

    const auto late = requestor->sendACT();
    requestor.reset();
    const LogCapture log("Tokens");
    replies->returnToken(late);
    EXPECT_EQ(log.texts(), Lines{tokenRecord("return ACT", late)});
    EXPECT_EQ(kirohost::runPendingTasks(), 2U);
}

}  // namespace
