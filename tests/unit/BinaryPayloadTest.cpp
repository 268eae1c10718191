#include "kiro/web/binary/BinaryDataPayload.hpp"

#include <gmock/gmock.h>

#include <limits>
#include <locale>
#include <set>
#include <stdexcept>
#include <thread>
#include <type_traits>

#include "Binary.hpp"
#include "CHeap.hpp"
#include "FailingNew.hpp"
#include "kiro/web/JSONPayload.hpp"

namespace {

using namespace kiro::web;
using namespace kiro::web::binary;
using namespace support;

static_assert(std::is_nothrow_move_constructible_v<BinaryDataPayload>);
static_assert(!std::is_copy_constructible_v<BinaryDataPayload>);
static_assert(std::is_nothrow_destructible_v<BinaryDataPayload>);

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

TEST(CreateID, StartsAtFourAndNeverGivesOneTwice) {
    // In a process of its own, where nobody has asked yet.
    EXPECT_EXIT(std::exit(BinaryDataPayload::createID() == DataID(4) ? 0 : 1),
                testing::ExitedWithCode(0), "");
    std::set<DataID> ids[2];
    const auto ask = [&ids](int self) {
        for (int i = 0; i < 1000; ++i) ids[self].insert(BinaryDataPayload::createID());
    };
    std::thread other(ask, 1);
    ask(0);
    other.join();
    ids[0].merge(ids[1]);
    EXPECT_EQ(ids[0].size(), 2000U);
}

TEST(BinaryDataPayload, KeepsBlocksWithTheirLittleEndianHeader) {
    BinaryDataPayload payload;
    EXPECT_TRUE(payload.isEmpty());
    EXPECT_EQ(payload.size(), 0U);
    add(payload, 0x0807060504030201U, "abc");
    payload.addDataToPayloadInternalWithID(nullptr, 0, DataID(1));
    const auto fresh = payload.addDataToPayloadInternal("z", 1);
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
    add(payload, 7, "\xFB\xFF\xBE\xFF");     // a slash is an ordinary character of a JSON text
    add(payload, 6, std::string(300, 'a'));  // longer than a line of an encoder that breaks lines
    std::string aLine;
    for (int i = 0; i < 100; ++i) aLine += "YWFh";
    EXPECT_EQ(convert(payload), R"({"cmd":"binarydata","data":{"9 0":"","8 0":"Zm9vYmFy",)"
                                R"("7 0":"+/++/w==","6 0":")" +
                                    aLine + "\"}}");
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
        JSONPayload out;
        const auto [failed, error] = failingNew(n, [&] { payload.convertToJSONPayload(out); });
        EXPECT_EQ(error, failed ? "Out of memory!" : "") << "allocation " << n;
        EXPECT_EQ(payload.size(), failed ? 1017U : 0U) << "allocation " << n;
        if (!failed) {
            EXPECT_EQ(out.convertToString(), convert(make()));
        }
        return failed;
    });
    EXPECT_GT(failures, 5U);
}

TEST(BinaryDataPayload, SaysOutOfMemoryAndKeepsWhatWasComplete) {
    using testing::ThrowsMessage;
    BinaryDataPayload payload;
    add(payload, 4, "kept");
    std::size_t length = std::numeric_limits<std::size_t>::max();
    const auto addLong = [&] { payload.addDataToPayloadInternal("", length); };
    for (const std::size_t less : {0, 1, 7}) {
        length -= less;
        EXPECT_THAT(addLong, ThrowsMessage<std::runtime_error>("Out of memory!")) << length;
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

TEST(BinaryDataPayload, RefusesAReadyMadeBlockThatIsShorterThanItsHeader) {
    BinaryDataPayload payload;
    auto block = bufferOf(std::string(7, 'x'));
    EXPECT_THROW(payload.addDataToPayload(std::move(block)), std::invalid_argument);
    EXPECT_EQ(block.size(), 7U);
    EXPECT_TRUE(payload.isEmpty());
}

}  // namespace
