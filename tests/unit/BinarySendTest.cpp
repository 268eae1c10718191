#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <new>
#include <stdexcept>
#include <thread>

#include "Binary.hpp"
#include "CHeap.hpp"
#include "Captures.hpp"
#include "FailingNew.hpp"
#include "Fixture.hpp"
#include "graphics_util/getContextQCRID.hpp"
#include "kiro/web/PubSubFactory.hpp"
#include "kiro/web/binary/BinaryDataPayload.hpp"
#include "relay/binary/experimental/ClientEnd.hpp"

namespace {

using kiro::web::PayloadInterface;
using kiro::web::PubSubFactory;
using kiro::web::Subscriber;
using kiro::web::binary::BinaryDataPayload;
using support::answer;
using support::blockBytes;
using support::DataBuffer;
using support::DataID;
using support::Lines;
using support::ScopedSettings;
using support::ScriptedSender;
using support::SendFuture;
using support::SendResult;
using Promise = relay::Promise<SendResult>;

const char* const kChannel = "/figure/2";

BinaryDataPayload payloadOf(const std::vector<std::uint64_t>& ids) {
    BinaryDataPayload payload;
    for (const auto id : ids) payload.addDataToPayloadInternalWithID("x", 1, DataID(id));
    return payload;
}

std::string fallback(const std::string& id, const std::string& value = "eA==") {
    return R"({"cmd":"binarydata","data":{")" + id + R"(":")" + value + "\"}}";
}

class BinarySend : public testing::Test {
  protected:
    /// A script that keeps its promises for the test to set.
    [[nodiscard]] ScriptedSender::Script later() {
        return [this](DataBuffer&&) {
            promises.emplace_back();
            return promises.back().getFuture();
        };
    }
    [[nodiscard]] Lines published() const { return client.messagesOn(kChannel); }

    std::vector<Promise> promises;
    support::Recorder client;
    std::unique_ptr<Subscriber> subscription =
        subscribe(PubSubFactory::pubsubInstance(), kChannel, client.callback());
    support::DiagnosticCapture trace{"graphics::BinaryDataSend", 8};
};

TEST_F(BinarySend, PublishesEachBlockAsTextWithoutASender) {
    BinaryDataPayload().sendUsing(nullptr, kChannel);
    auto payload = payloadOf({4, 5, 0x100000002U});
    payload.sendUsing(nullptr, kChannel);
    const Lines expected{fallback("4 0"), fallback("5 0"), fallback("2 1")};
    EXPECT_EQ(published(), expected);
    EXPECT_EQ(payload.size(), 0U);
    EXPECT_FALSE(payload.isEmpty()) << "the entries remain";
    payload.sendUsing(nullptr, kChannel);
    payload.sendUsing(std::make_shared<ScriptedSender>(), kChannel);
    EXPECT_EQ(published(), expected) << "what is gone is skipped";
    EXPECT_EQ(trace.size(), 0U);
}

TEST_F(BinarySend, HandsACopyToTheSenderAndIsSilentAboutADeliveredBlock) {
    int asked = 0;
    const ScopedSettings settings(
        [&](auto& changed) { changed.answerWarnAboutFallback = [&asked] { return ++asked > 0; }; });
    const auto sender = std::make_shared<ScriptedSender>();
    BinaryDataPayload().sendUsing(sender, kChannel);
    auto payload = payloadOf({4, 0x100000002U});
    payload.sendUsing(sender, kChannel);
    EXPECT_EQ(sender->blocks.all(), (Lines{blockBytes(4, "x"), blockBytes(0x100000002U, "x")}));
    EXPECT_EQ(payload.size(), 18U);
    EXPECT_EQ(trace.texts(), (Lines{"BinaryData 4 send", "BinaryData 4294967298 send"}));
    EXPECT_EQ(trace.all()[0].level, 8);
    EXPECT_EQ(asked, 2) << "once for each block, whatever the answer";
    EXPECT_EQ(sender->warnings.size(), 0U);
    EXPECT_TRUE(client.all().empty());

    kirohost::setDiagnosticLevel("graphics::BinaryDataSend", 7);
    payload.sendUsing(sender, kChannel);
    EXPECT_EQ(trace.size(), 2U);
}

TEST_F(BinarySend, FallsBackAndWarnsAsTheHostAnswers) {
    struct {
        bool fallbackAllowed;
        std::vector<bool> warnAnswers;  // to the first question, to the second
    } const cases[] = {
        {true, {true, true}},   {true, {false, true}},   {true, {true, false}},
        {false, {false, true}}, {false, {false, false}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.warnAnswers) + (c.fallbackAllowed ? " allowed" : ""));
        std::size_t asked = 0;
        const ScopedSettings settings([&](auto& changed) {
            changed.binaryChannelFallback = c.fallbackAllowed;
            changed.answerWarnAboutFallback = [&] { return c.warnAnswers.at(asked++); };
        });
        const auto sender =
            std::make_shared<ScriptedSender>([](DataBuffer&&) { return answer(false); });
        client.clear();
        trace.clear();
        payloadOf({4}).sendUsing(sender, kChannel);
        EXPECT_EQ(asked, 2U);
        EXPECT_EQ(published(), c.fallbackAllowed ? Lines{fallback("4 0")} : Lines());
        EXPECT_EQ(trace.texts(), c.fallbackAllowed
                                     ? (Lines{"BinaryData 4 send", "BinaryData 4 sendFail"})
                                     : Lines{"BinaryData 4 send"});
        EXPECT_EQ(sender->warnings.all(), c.warnAnswers[1] ? Lines{kChannel} : Lines());
    }
}

TEST_F(BinarySend, StopsAtAFutureWithoutStateAndAtLackOfMemory) {
    const auto runtimeError = [](auto& payload, auto sender) -> std::string {
        try {
            payload.sendUsing(sender, kChannel);
        } catch (const std::runtime_error& error) {
            return error.what();
        }
        return "";
    };
    int sent = 0;
    const auto sender = std::make_shared<ScriptedSender>(
        [&sent](DataBuffer&&) { return ++sent == 2 ? SendFuture() : answer(true); });
    auto payload = payloadOf({4, 5, 6});
    EXPECT_EQ(runtimeError(payload, sender), "Future state isn't valid!");
    EXPECT_EQ(sender->blocks.all(), (Lines{blockBytes(4, "x"), blockBytes(5, "x")}));

    static thread_local int copies = 0;
    kiro::replaceAllocate(
        [](std::size_t size) -> void* { return ++copies == 2 ? nullptr : std::malloc(size); });
    sender->blocks.clear();
    EXPECT_EQ(runtimeError(payload, sender), "Out of memory!");
    kiro::replaceAllocate(nullptr);
    EXPECT_EQ(sender->blocks.all(), Lines{blockBytes(4, "x")});
    EXPECT_EQ(payload.size(), 27U);
}

TEST_F(BinarySend, SubstitutesANoticeWhenTheFallbackMessageCannotBeBuilt) {
    struct {
        std::uint64_t id;
        const char* whole;
        const char* rawIdentifier;
    } const cases[] = {{5, "5 0", "\\u0005"}, {256, "256 0", ""}, {0x4142, "16706 0", "BA"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.id);
        const auto whole = fallback(c.whole);
        const auto notice = fallback("2 0", c.rawIdentifier);
        std::size_t notices = 0;
        bool failed = true;
        for (std::size_t n = 1; failed; ++n) {
            client.clear();
            auto payload = payloadOf({c.id});
            bool threw = false;
            {
                const support::FailingNew failing(n);
                try {
                    payload.sendUsing(nullptr, kChannel);
                } catch (const std::bad_alloc&) {
                    threw = true;  // while publishing: the message had been built
                }
                failed = failing.hasFailed();
            }
            const auto tasks = kirohost::pendingTasks(graphics_util::getContextQCRID());
            const support::WarningCapture warnings;
            kirohost::runPendingTasks();
            if (threw || published() == Lines{whole}) {
                EXPECT_EQ(warnings.size(), 0U) << "allocation " << n;
                continue;
            }
            ++notices;
            EXPECT_EQ(published(), Lines{notice}) << "allocation " << n;
            ASSERT_EQ(tasks.size(), 1U);
            EXPECT_EQ(tasks[0].source, "src/BinaryDataPayload");
            EXPECT_EQ(tasks[0].whenToDequeue, 1);
            EXPECT_EQ(warnings.texts(), Lines{"Quarn:graphics:GraphicsBinaryOOM()"});
        }
        EXPECT_GT(notices, 3U);
        EXPECT_EQ(published(), Lines{whole}) << "with memory again";
    }
}

TEST_F(BinarySend, TakesNothingThatPublishThrowsForLackOfMemory) {
    const auto thrower =
        subscribe(PubSubFactory::pubsubInstance(), kChannel,
                  [](const std::string&, const PayloadInterface&) { throw std::bad_alloc(); });
    EXPECT_THROW(payloadOf({4}).sendUsing(nullptr, kChannel), std::bad_alloc);
    EXPECT_EQ(published(), Lines{fallback("4 0")});
    EXPECT_TRUE(kirohost::pendingTasks(graphics_util::getContextQCRID()).empty());

    // In a completion it ends in the future that nobody reads.
    const auto sender =
        std::make_shared<ScriptedSender>([](DataBuffer&&) { return answer(false); });
    payloadOf({5}).sendUsing(sender, kChannel);
    EXPECT_EQ(published().size(), 2U);
    EXPECT_EQ(trace.texts(), Lines{"BinaryData 5 send"});
}

TEST_F(BinarySend, CompletesLateOutOfOrderAndOnSeveralThreadsWhenAllElseIsGone) {
    support::Collector<std::string> warnings;
    std::weak_ptr<ScriptedSender> weak;
    {
        const auto sender = std::make_shared<ScriptedSender>(later());
        weak = sender;
        payloadOf({4, 5, 6, 7}).sendUsing(sender, std::string(kChannel));
    }
    ASSERT_NE(weak.lock(), nullptr) << "held by the completions";
    EXPECT_TRUE(client.all().empty());
    {
        const auto sender = weak.lock();
        promises[3].setValue({true, {}});
        promises[2].setValue({false, support::bufferOf(blockBytes(6, "x"))});
        EXPECT_EQ(published(), Lines{fallback("6 0")});
        std::thread other([this] { promises[0].setValue({false, {}}); });
        promises[1].setValue({false, {}});
        other.join();
        EXPECT_EQ(sender->warnings.all(), (Lines{kChannel, kChannel, kChannel}));
    }
    auto messages = published();
    std::sort(messages.begin(), messages.end());
    EXPECT_EQ(messages, (Lines{fallback("4 0"), fallback("5 0"), fallback("6 0")}));
    EXPECT_TRUE(weak.expired());
}

TEST_F(BinarySend, ToleratesAStreamThatNeverAnswersOrAnswersWithAnError) {
    const auto sender = std::make_shared<ScriptedSender>(later());
    auto payload = payloadOf({4, 5});
    payload.sendUsing(sender, kChannel);
    promises[0].setException(std::make_exception_ptr(std::runtime_error("broken")));
    promises.clear();
    EXPECT_TRUE(client.all().empty());
    EXPECT_EQ(sender->warnings.size(), 0U);
    EXPECT_EQ(payload.size(), 18U);
    EXPECT_EQ(sender.use_count(), 1) << "nothing is held any more";
}

TEST_F(BinarySend, FallsBackWhenTheStreamIsDestroyedWithSendsUnderWay) {
    namespace experimental = relay::binary::experimental;
    std::vector<experimental::Delivery> kept;
    const experimental::ClientEnd clientEnd("/binary", [&kept](experimental::Delivery delivery) {
        kept.push_back(std::move(delivery));
    });
    auto stream = experimental::createBinaryStream("/binary", {{"returnOnFail", "true"}});
    const auto sender = std::make_shared<ScriptedSender>(
        [&stream](DataBuffer&& block) { return stream->send(std::move(block)); });
    payloadOf({4, 5, 6}).sendUsing(sender, kChannel);
    ASSERT_EQ(kept.size(), 3U);
    kept[1].deliver();
    stream.reset();
    EXPECT_EQ(published(), (Lines{fallback("4 0"), fallback("6 0")}));
    EXPECT_EQ(sender->warnings.size(), 2U);
}

TEST_F(BinarySend, SkipsWhatIsTakenWithoutALogLineButWarns) {
    const auto sender = std::make_shared<ScriptedSender>(later());
    auto payload = payloadOf({4, 5});
    payload.sendUsing(sender, kChannel);
    payload.sendUsing(sender, kChannel);
    EXPECT_EQ(support::bytesOf(payload.testExtract(DataID(5))), blockBytes(5, "x"));
    trace.clear();
    for (auto& promise : promises) promise.setValue({false, {}});
    EXPECT_EQ(published(), Lines{fallback("4 0")});
    EXPECT_EQ(trace.texts(), Lines{"BinaryData 4 sendFail"});
    EXPECT_EQ(sender->warnings.size(), 4U);
    payload.sendUsing(sender, kChannel);
    EXPECT_EQ(sender->blocks.size(), 4U);
    EXPECT_EQ(trace.size(), 1U);
}

TEST_F(BinarySend, TakesAndCopiesABlockOneAtATime) {
    std::vector<std::uint64_t> ids(50);
    for (std::size_t i = 0; i < ids.size(); ++i) ids[i] = i + 4;
    auto payload = payloadOf(ids);
    const auto first = std::make_shared<ScriptedSender>(later());
    payload.sendUsing(first, kChannel);
    std::thread completions([this] {
        for (auto& promise : promises) promise.setValue({false, {}});
    });
    const auto second = std::make_shared<ScriptedSender>();
    payload.sendUsing(second, kChannel);
    completions.join();
    EXPECT_EQ(published().size(), ids.size());
    for (const auto& bytes : second->blocks.all()) EXPECT_EQ(bytes.size(), 9U) << "a whole block";
}

}  // namespace
