#include "kiro/web/binary/BinaryDataPayload.hpp"

#include <limits>
#include <locale>

#include "Binary.hpp"
#include "CHeap.hpp"
#include "FailingNew.hpp"
#include "Fixture.hpp"

namespace {

using namespace kiro::web;
using namespace kiro::web::binary;
using namespace support;
using Promise = relay::Promise<SendResult>;
using testing::ThrowsMessage;

const char* const kChannel = "/figure/2";

void add(BinaryDataPayload& payload, std::uint64_t id, const std::string& data) {
    payload.addDataToPayloadInternalWithID(data.data(), data.size(), DataID(id));
}

std::string convert(const BinaryDataPayload& payload) {
    JSONPayload out;
    payload.convertToJSONPayload(out);
    return out.convertToString();
}

struct GroupingByThrees : std::numpunct<char> {
    [[nodiscard]] char do_thousands_sep() const override { return ','; }
    [[nodiscard]] std::string do_grouping() const override { return "\3"; }
};

TEST(DataID, ReadsAndWritesItsTwoNumbersInTheClassicLocale) {
    std::locale::global({std::locale::classic(), new GroupingByThrees});
    constexpr std::uint32_t kMax = 4294967295U;
    struct {
        const char* text;
        bool answer;
        DataID id;
    } const cases[] = {{"12", true, {12, 0}},
                       {" 7\t 0", true, {7, 0}},
                       {"", true, {0, 0}},
                       {"x", false, {0, 0}},
                       {"1,234 5", false, {1, 0}},
                       {"4294967296 5", false, {kMax, 0}},
                       {"7 99999999999999999999", true, {7, kMax}}};
    for (const auto& c : cases) {
        DataID id(77, 88);
        EXPECT_EQ(DataID::construct_from_string(c.text, id), c.answer) << '"' << c.text << '"';
        EXPECT_EQ(id, c.id) << '"' << c.text << "\" gave " << id.convert_to_string();
    }
    EXPECT_EQ(DataID(1234567, kMax).convert_to_string(), "1234567 4294967295");
    std::locale::global(std::locale::classic());
}

TEST(BinaryDataPayload, KeepsBlocksWithTheirLittleEndianHeader) {
    BinaryDataPayload payload;
    EXPECT_TRUE(payload.isEmpty());
    EXPECT_EQ(payload.size(), 0U);
    add(payload, 0x0807060504030201U, "abc");
    payload.addDataToPayloadInternalWithID(nullptr, 0, DataID(1));
    const auto fresh = payload.addDataToPayloadInternal("z", 1);
    auto tooShort = bufferOf(std::string(7, 'x'));
    EXPECT_THROW(payload.addDataToPayload(std::move(tooShort)), std::invalid_argument);
    EXPECT_EQ(tooShort.size(), 7U) << "still the caller's";
    auto ready = bufferOf(blockBytes(6, "ready"));
    const auto* bytes = ready.data();
    payload.addDataToPayload(std::move(ready));
    EXPECT_FALSE(payload.isEmpty());
    EXPECT_FALSE(payload.isTooBig());
    EXPECT_EQ(payload.size(), 11U + 8U + 9U + 13U);

    BinaryDataPayload moved(std::move(payload));
    EXPECT_EQ(bytesOf(moved.testExtract(DataID(0x0807060504030201U))), "\1\2\3\4\5\6\7\10abc");
    EXPECT_EQ(bytesOf(moved.testExtract(DataID(1))), blockBytes(1, ""));
    EXPECT_EQ(bytesOf(moved.testExtract(fresh)), blockBytes(fresh.value(), "z"));
    EXPECT_EQ(moved.testExtract(DataID(6)).data(), bytes) << "moved in and out, not copied";
    EXPECT_TRUE(moved.isEmpty());
}

TEST(BinaryDataPayload, ConvertsItsBlocksToOneMessageAndHandsThemOver) {
    BinaryDataPayload payload;
    EXPECT_EQ(convert(payload), "{}");
    add(payload, 9, "");
    add(payload, 8, "foobar");
    add(payload, 7, "\xFB\xFF\xBE\xFF");  // a slash is an ordinary character of a JSON text
    EXPECT_EQ(convert(payload), R"({"cmd":"binarydata","data":{"9 0":"","8 0":"Zm9vYmFy",)"
                                R"("7 0":"+/++/w=="}})");
    EXPECT_TRUE(payload.isEmpty());
    EXPECT_EQ(convert(payload), "{}");
}

TEST(BinaryDataPayload, ConvertsWholeOrNotAtAllWhenMemoryIsShort) {
    const auto make = [] {
        auto payload = payloadOf({4});
        add(payload, 6, std::string(1000, 'd'));
        return payload;
    };
    auto payload = make();
    const auto failures = failEachNew([&](std::size_t n) {
        JSONPayload out(R"({"before":1})");
        const auto [failed, error] = failingNew(n, [&] { payload.convertToJSONPayload(out); });
        EXPECT_EQ(error, failed ? "Out of memory!" : "") << "allocation " << n;
        EXPECT_EQ(payload.size(), failed ? 1017U : 0U) << "allocation " << n;
        const auto whole = R"({"before":1,)" + convert(make()).substr(1);
        EXPECT_EQ(out.convertToString(), failed ? R"({"before":1})" : whole) << "allocation " << n;
        return failed;
    });
    EXPECT_GT(failures, 5U);
}

TEST(BinaryDataPayload, SaysOutOfMemoryAndKeepsWhatWasComplete) {
    BinaryDataPayload payload;
    add(payload, 4, "kept");
    constexpr auto kMax = std::numeric_limits<std::size_t>::max();
    for (const std::size_t length : {kMax, kMax - 7, kMax - 8, kMax / 2}) {
        EXPECT_THAT([&] { payload.addDataToPayloadInternal("", length); },
                    ThrowsMessage<std::runtime_error>("Out of memory!"))
            << length;
    }
    kiro::replaceAllocate([](std::size_t) -> void* { return nullptr; });
    EXPECT_THAT([&] { add(payload, 5, "x"); }, ThrowsMessage<std::runtime_error>("Out of memory!"));
    kiro::replaceAllocate(nullptr);
    EXPECT_EQ(payload.size(), 12U);

    const auto failures = failEachNew([&payload](std::size_t n) {
        auto block = bufferOf(blockBytes(6));
        const auto [failed, error] =
            failingNew(n, [&] { payload.addDataToPayload(std::move(block)); });
        EXPECT_EQ(error, failed ? "Out of memory!" : "");
        EXPECT_EQ(bytesOf(block), failed ? blockBytes(6) : "") << "still the caller's";
        EXPECT_EQ(payload.size(), failed ? 12U : 21U);
        return failed;
    });
    EXPECT_GT(failures, 1U);
}

class BinarySend : public testing::Test {
  protected:
    /// A sender whose promises the test keeps or breaks.
    [[nodiscard]] std::shared_ptr<ScriptedSender> later() {
        return std::make_shared<ScriptedSender>([this](DataBuffer&&) {
            promises.emplace_back();
            return promises.back().getFuture();
        });
    }
    static std::vector<kirohost::PendingTask> pendingTasks() {
        return kirohost::pendingTasks(graphics_util::getContextQCRID());
    }
    std::size_t noticesOf(std::uint64_t id, const std::string& raw);
    [[nodiscard]] Lines published() const { return client.messagesOn(kChannel); }

    std::vector<Promise> promises;
    support::Recorder client;
    std::unique_ptr<Subscriber> subscription =
        subscribe(PubSubFactory::pubsubInstance(), kChannel, client.callback());
};

TEST_F(BinarySend, PublishesEachBlockAsTextWithoutASender) {
    auto payload = payloadOf({4, 5, 0x100000002U});
    payload.sendUsing(nullptr, kChannel);
    const Lines expected{fallback("4 0"), fallback("5 0"), fallback("2 1")};
    EXPECT_EQ(published(), expected);
    EXPECT_EQ(payload.size(), 0U);
    EXPECT_FALSE(payload.isEmpty()) << "the entries remain";
    payload.sendUsing(nullptr, kChannel);
    payload.sendUsing(std::make_shared<ScriptedSender>(), kChannel);
    EXPECT_EQ(published(), expected) << "what is gone is skipped";
}

TEST_F(BinarySend, IsSilentAboutADeliveredBlockAndElseFallsBackAndWarnsAsTheHostAnswers) {
    for (unsigned row = 0; row < 8; ++row) {
        const bool delivered = (row & 1U) != 0;
        const bool allowed = (row & 2U) != 0;
        const bool warn = (row & 4U) != 0;
        SCOPED_TRACE(row);
        int asked = 0;
        const ScopedSettings settings([&](auto& changed) {
            changed.binaryChannelFallback = allowed;
            // The second answer counts.
            changed.answerWarnAboutFallback = [&] { return (++asked == 2) == warn; };
        });
        const auto sender = std::make_shared<ScriptedSender>(
            [delivered](DataBuffer&&) { return answer(delivered); });
        auto payload = payloadOf({0x100000002U});
        payload.sendUsing(sender, kChannel);
        EXPECT_EQ(sender->blocks.all(), Lines{blockBytes(0x100000002U)});
        EXPECT_EQ(payload.size(), delivered || !allowed ? 9U : 0U) << "a copy was handed over";
        EXPECT_EQ(asked, delivered ? 1 : 2);
        EXPECT_EQ(sender->warnings.all(), warn && !delivered ? Lines{kChannel} : Lines());
        EXPECT_EQ(published(), allowed && !delivered ? Lines{fallback("2 1")} : Lines());
        client.clear();
    }
}

TEST_F(BinarySend, StopsAtAFutureWithoutStateAndAtLackOfMemory) {
    int sent = 0;
    const auto sender = std::make_shared<ScriptedSender>(
        [&sent](DataBuffer&&) { return ++sent == 2 ? SendFuture() : answer(true); });
    auto payload = payloadOf({4, 5, 6});
    const auto send = [&] { payload.sendUsing(sender, kChannel); };
    EXPECT_THAT(send, ThrowsMessage<std::runtime_error>("Future state isn't valid!"));
    EXPECT_EQ(sender->blocks.all(), (Lines{blockBytes(4), blockBytes(5)}));

    static int copies;
    copies = 0;
    kiro::replaceAllocate(
        [](std::size_t size) -> void* { return ++copies == 2 ? nullptr : std::malloc(size); });
    sender->blocks.clear();
    EXPECT_THAT(send, ThrowsMessage<std::runtime_error>("Out of memory!"));
    kiro::replaceAllocate(nullptr);
    EXPECT_EQ(sender->blocks.all(), Lines{blockBytes(4)});
    EXPECT_EQ(payload.size(), 27U);
}

/// Sends block `id` as text with each allocation failing in turn; `raw` is its identifier in a
/// notice. Answers how many notices were sent instead.
std::size_t BinarySend::noticesOf(std::uint64_t id, const std::string& raw) {
    const Lines whole{fallback(std::to_string(id) + " 0")};
    std::size_t notices = 0;
    failEachNew([&](std::size_t n) {
        client.clear();
        auto payload = payloadOf({id});
        const auto outcome = failingNew(n, [&] { payload.sendUsing(nullptr, kChannel); });
        // What is thrown comes out of publishing: the message had been built.
        const bool isNotice = outcome.error.empty() && published() != whole;
        EXPECT_EQ(pendingTasks().size(), isNotice ? 1U : 0U) << "allocation " << n;
        if (!isNotice) return outcome.failed;
        ++notices;
        EXPECT_EQ(published(), Lines{fallback("2 0", raw)}) << "allocation " << n;
        EXPECT_EQ(pendingTasks().at(0).source, "src/BinaryDataPayload");
        const support::WarningCapture warnings;
        kirohost::runPendingTasks();
        EXPECT_EQ(warnings.texts(), Lines{"Quarn:graphics:GraphicsBinaryOOM()"});
        return outcome.failed;
    });
    EXPECT_EQ(published(), whole) << "with memory again";
    return notices;
}

TEST_F(BinarySend, SubstitutesANoticeWhenTheFallbackMessageCannotBeBuilt) {
    EXPECT_GT(noticesOf(5, "\\u0005"), 0U);
    EXPECT_GT(noticesOf(0x4142, "BA"), 0U);
}

TEST_F(BinarySend, CompletesLateOutOfOrderAndOnSeveralThreadsWhenAllElseIsGone) {
    auto sender = later();
    payloadOf({4, 5, 6, 7}).sendUsing(sender, std::string(kChannel));
    const auto weak = std::weak_ptr(sender);
    sender.reset();
    EXPECT_FALSE(weak.expired()) << "held by the completions";
    promises[3].setValue({true, {}});
    promises[2].setValue({false, bufferOf(blockBytes(6))});
    EXPECT_EQ(published(), Lines{fallback("6 0")});
    sender = weak.lock();
    std::thread other([this] { promises[0].setValue({false, {}}); });
    promises[1].setValue({false, {}});
    other.join();
    EXPECT_EQ(sender->warnings.all(), (Lines{kChannel, kChannel, kChannel}));
    EXPECT_EQ(sender.use_count(), 1);
    EXPECT_THAT(published(),
                testing::UnorderedElementsAre(fallback("4 0"), fallback("5 0"), fallback("6 0")));
}

TEST_F(BinarySend, ToleratesAStreamThatNeverAnswersOrAnswersWithAnError) {
    const auto sender = later();
    auto payload = payloadOf({4, 5});
    payload.sendUsing(sender, kChannel);
    promises[0].setException(std::make_exception_ptr(std::runtime_error("broken")));
    promises.clear();
    EXPECT_TRUE(client.all().empty());
    EXPECT_EQ(sender->warnings.size(), 0U);
    EXPECT_EQ(payload.size(), 18U);
    EXPECT_EQ(sender.use_count(), 1) << "nothing is held any more";
}

}  // namespace
