#include "kiro/web/binary/BinaryDataPayload.hpp"

#include <gtest/gtest.h>

#include <algorithm>
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

using kiro::web::JSONPayload;
using kiro::web::binary::BinaryDataPayload;
using kiro::web::binary::DataID;
using support::blockBytes;
using support::bufferOf;
using support::bytesOf;
using support::FailingNew;

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

/// The text of what `call` throws, which must be a `std::runtime_error`; empty if nothing.
template <typename Call>
std::string runtimeError(const Call& call) {
    try {
        call();
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return {};
}

/// Makes the global locale group digits by threes, while it lives.
class GroupingLocale {
  public:
    GroupingLocale() : fBefore(std::locale::global({std::locale::classic(), new Grouping})) {}
    ~GroupingLocale() { std::locale::global(fBefore); }
    GroupingLocale(const GroupingLocale&) = delete;
    GroupingLocale& operator=(const GroupingLocale&) = delete;

  private:
    struct Grouping : std::numpunct<char> {
        char do_thousands_sep() const override { return ','; }
        std::string do_grouping() const override { return "\3"; }
    };
    std::locale fBefore;
};

void checkDataIDTexts() {
    constexpr std::uint32_t kMax = 4294967295U;
    struct {
        const char* text;
        bool answer;
        DataID id;
    } const cases[] = {
        {"12 34", true, {12, 34}},
        {"12 34 ", false, {12, 34}},
        {"12", true, {12, 0}},
        {"7 0", true, {7, 0}},
        {"7 0\n", false, {7, 0}},
        {" 7\t 0", true, {7, 0}},
        {"", true, {0, 0}},
        {"   ", true, {0, 0}},
        {"x", false, {0, 0}},
        {"12x", false, {12, 0}},
        {"12 x", false, {12, 0}},
        {"1,234 5", false, {1, 0}},
        {"4294967295 1", true, {kMax, 1}},
        {"4294967296", true, {kMax, 0}},
        {"4294967296 5", false, {kMax, 0}},
        {"7 99999999999999999999", true, {7, kMax}},
    };
    for (const auto& c : cases) {
        DataID id(77, 88);
        EXPECT_EQ(DataID::construct_from_string(c.text, id), c.answer) << '"' << c.text << '"';
        EXPECT_EQ(id, c.id) << '"' << c.text << "\" gave " << id.convert_to_string();
    }
    EXPECT_EQ(DataID(4).convert_to_string(), "4 0");
    EXPECT_EQ(DataID(1234567, kMax).convert_to_string(), "1234567 4294967295");
}

TEST(DataID, ReadsAndWritesItsTwoNumbersInTheClassicLocale) {
    checkDataIDTexts();
    const GroupingLocale grouping;
    SCOPED_TRACE("global locale with thousands separators");
    checkDataIDTexts();
}

TEST(DataID, IsOne64BitValueLowHalfFirst) {
    EXPECT_EQ(DataID().value(), 0U);
    EXPECT_EQ(DataID(0x500000004U), DataID(4, 5));
    EXPECT_EQ(DataID(4, 5).value(), 0x500000004U);
    EXPECT_LT(DataID(9, 0), DataID(0, 1));
}

TEST(CreateID, StartsAtFourAndNeverGivesOneTwice) {
    // In a process of its own, where nobody has asked yet.
    EXPECT_EXIT(std::exit(BinaryDataPayload::createID().convert_to_string() == "4 0" &&
                                  BinaryDataPayload::createID() == DataID(5)
                              ? 0
                              : 1),
                testing::ExitedWithCode(0), "");
    constexpr std::size_t kCount = 1000;
    std::vector<DataID> ids[2];
    std::thread other([&ids] {
        for (std::size_t i = 0; i < kCount; ++i) ids[1].push_back(BinaryDataPayload::createID());
    });
    for (std::size_t i = 0; i < kCount; ++i) ids[0].push_back(BinaryDataPayload::createID());
    other.join();
    std::set<DataID> distinct(ids[0].begin(), ids[0].end());
    distinct.insert(ids[1].begin(), ids[1].end());
    EXPECT_EQ(distinct.size(), 2 * kCount);
    for (const auto& each : ids) EXPECT_TRUE(std::is_sorted(each.begin(), each.end()));
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

TEST(BinaryDataPayload, ExtractsTheFirstBlockOfAnIdentifierAndKeepsTheOthersInOrder) {
    BinaryDataPayload payload;
    for (const std::uint64_t id : {4U, 5U, 6U}) add(payload, id, "x");
    add(payload, 4, "second");
    EXPECT_EQ(bytesOf(payload.testExtract(DataID(5))), blockBytes(5, "x"));
    EXPECT_TRUE(payload.testExtract(DataID(5)).empty());
    EXPECT_EQ(payload.size(), 9U + 9U + 14U);
    EXPECT_EQ(bytesOf(payload.testExtract(DataID(4))), blockBytes(4, "x"));
    EXPECT_EQ(bytesOf(payload.testExtract(DataID(4))), blockBytes(4, "second"));
    EXPECT_EQ(convert(payload), R"({"cmd":"binarydata","data":{"6 0":"eA=="}})");
}

TEST(BinaryDataPayload, ConvertsItsBlocksToOneMessageAndHandsThemOver) {
    struct {
        const char* data;
        const char* base64;
    } const cases[] = {{"", ""},        {"f", "Zg=="},          {"fo", "Zm8="},
                       {"foo", "Zm9v"}, {"foobar", "Zm9vYmFy"}, {"\xFB\xFF\xBE", "+/++"}};
    BinaryDataPayload payload;
    EXPECT_EQ(convert(payload), "{}");
    std::string expected;
    std::uint64_t id = 40;
    for (const auto& c : cases) {
        add(payload, --id, c.data);
        expected += (expected.empty() ? "" : ",") + std::string("\"") + std::to_string(id) +
                    " 0\":\"" + c.base64 + '"';
    }
    std::string aLine;  // longer than any line length an encoder might keep to
    for (int i = 0; i < 100; ++i) aLine += "YWFh";
    add(payload, 4, std::string(300, 'a'));
    expected = R"({"cmd":"binarydata","data":{)" + expected + R"(,"4 0":")" + aLine + "\"}}";
    // A slash is an ordinary character of a JSON text.
    EXPECT_EQ(convert(payload), expected);
    EXPECT_TRUE(payload.isEmpty());
    EXPECT_EQ(convert(payload), "{}");
}

TEST(BinaryDataPayload, ConvertsWholeOrNotAtAllWhenMemoryIsShort) {
    const std::string data(1000, 'd');
    BinaryDataPayload whole;
    add(whole, 4, data);
    add(whole, 5, data);
    const auto expected = convert(whole);
    BinaryDataPayload payload;
    add(payload, 4, data);
    add(payload, 5, data);
    std::size_t failures = 0;
    for (bool failed = true; failed; ++failures) {
        JSONPayload out;
        std::string error;
        {
            const FailingNew failing(failures + 1);
            error = runtimeError([&] { payload.convertToJSONPayload(out); });
            failed = failing.hasFailed();
        }
        if (failed) {
            ASSERT_EQ(error, "Out of memory!") << "allocation " << failures + 1;
            ASSERT_EQ(payload.size(), 2016U) << "allocation " << failures + 1;
        } else {
            EXPECT_EQ(error, "");
            EXPECT_EQ(out.convertToString(), expected);
        }
    }
    EXPECT_GT(failures, 5U);
}

TEST(BinaryDataPayload, SaysOutOfMemoryAndKeepsWhatWasComplete) {
    BinaryDataPayload payload;
    add(payload, 4, "kept");
    constexpr auto kMax = std::numeric_limits<std::size_t>::max();
    for (const std::size_t length : {kMax, kMax - 7, kMax - 8, kMax / 2}) {
        EXPECT_EQ(runtimeError([&] { payload.addDataToPayloadInternal("", length); }),
                  "Out of memory!")
            << length;
    }
    kiro::replaceAllocate([](std::size_t) -> void* { return nullptr; });
    EXPECT_EQ(runtimeError([&] { add(payload, 5, "x"); }), "Out of memory!");
    kiro::replaceAllocate(nullptr);
    EXPECT_EQ(payload.size(), 12U);

    std::size_t failures = 0;
    for (bool failed = true; failed; ++failures) {
        auto block = bufferOf(blockBytes(6, "ready"));
        std::string error;
        {
            const FailingNew failing(failures + 1);
            error = runtimeError([&] { payload.addDataToPayload(std::move(block)); });
            failed = failing.hasFailed();
        }
        EXPECT_EQ(error, failed ? "Out of memory!" : "");
        EXPECT_EQ(bytesOf(block), failed ? blockBytes(6, "ready") : "") << "still the caller's";
        EXPECT_EQ(payload.size(), failed ? 12U : 25U);
    }
    EXPECT_GT(failures, 1U);
}

TEST(BinaryDataPayload, RefusesAReadyMadeBlockThatIsShorterThanItsHeader) {
    BinaryDataPayload payload;
    add(payload, 4, "kept");
    for (std::size_t size = 0; size < 8; ++size) {
        auto block = bufferOf(std::string(size, 'x'));
        EXPECT_THROW(payload.addDataToPayload(std::move(block)), std::invalid_argument) << size;
        EXPECT_EQ(block.size(), size);
    }
    EXPECT_THROW(payload.addDataToPayload({}), std::invalid_argument);
    EXPECT_EQ(payload.size(), 12U);
    payload.addDataToPayload(bufferOf(blockBytes(7, "")));
    EXPECT_EQ(payload.size(), 20U);
}

}  // namespace
