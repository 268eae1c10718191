#include "kiro/web/JSONPayload.hpp"
// The header above compiles by itself; so do these.
#include "kiro/web/JSONObject.hpp"
#include "kiro/web/StringPayload.hpp"

#include <boost/system/system_error.hpp>
#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>

#include "Fixture.hpp"
#include "kiro/web/binary/BinaryDataPayload.hpp"
#include "ui_objects/Cookie.hpp"
#include "ui_objects/FontTypes.hpp"
#include "ui_objects/UTF16String.hpp"

namespace kiro::web {
namespace {

static_assert(std::is_nothrow_destructible_v<JSONPayload>);
static_assert(std::is_nothrow_move_constructible_v<JSONPayload>);
static_assert(!std::is_copy_constructible_v<JSONPayload>);
static_assert(std::is_nothrow_destructible_v<StringPayload>);
static_assert(std::has_virtual_destructor_v<PayloadInterface>);

static_assert(std::is_nothrow_destructible_v<JSONObject>);
static_assert(std::is_copy_constructible_v<JSONObject>);

using ui_objects::Cookie;
using ui_objects::UTF16String;

template <typename T>
using Limits = std::numeric_limits<T>;

/// What `value` becomes on the wire.
template <typename T>
std::string encoded(const T& value) {
    JSONPayload payload;
    payload.addDataToPayload("k", value);
    return payload.convertToString();
}

std::string field(const std::string& json) { return "{\"k\":" + json + "}"; }

TEST(JSONPayload, writesEachTypeInItsOneEncoding) {
    JSONPayload nested;
    nested.addDataToPayload("n", 1);
    const std::pair<std::string, const char*> table[] = {
        {encoded(true), "true"},
        {encoded(Limits<unsigned long>::max()), "18446744073709551615"},
        {encoded(Limits<long>::min()), "-9223372036854775808"},
        {encoded(0.25), "2.5E-1"},
        {encoded(-0.0), "-0E0"},
        // A float is widened, not written with its own few digits.
        {encoded(0.1F), "1.0000000149011612E-1"},
        {encoded(Limits<double>::quiet_NaN()), "NaN"},
        {encoded(-Limits<float>::infinity()), "-Infinity"},
        {encoded(std::string("a\"\\\n\0b", 6)), R"("a\"\\\n\u0000b")"},
        // Taken to be UTF-8 and passed on unseen.
        {encoded(std::string("\xFF")), "\"\xFF\""},
        {encoded(UTF16String(u"\u00FC\u20AC")), "\"\xC3\xBC\xE2\x82\xAC\""},
        {encoded(UTF16String({u'a', 0xDE00, 0xD83D})), "\"\x61\xEF\xBF\xBD\xEF\xBF\xBD\""},
        // Handles are strings, unlike the other 64-bit integers.
        {encoded(Cookie(Limits<std::int64_t>::min())), R"("-9223372036854775808")"},
        {encoded(std::vector{Cookie(1), Cookie(-2)}), R"(["1","-2"])"},
        {encoded(binary::DataID(7, 9)), R"("7 9")"},
        {encoded(nested), R"({"n":1})"},
        {encoded(std::vector<std::string>{"a", ""}), R"(["a",""])"},
        {encoded(std::vector<std::vector<std::string>>{{"a", "b"}, {}}), R"([["a","b"],[]])"},
        {encoded(std::vector<unsigned char>{0, 255}), "[0,255]"},
        {encoded(std::vector<unsigned>{4294967295U}), "[4294967295]"},
        {encoded(std::vector<unsigned long>{1UL << 63U}), "[9223372036854775808]"},
        {encoded(std::vector<float>{0.5F, 0.1F}), "[5E-1,1.0000000149011612E-1]"},
    };
    for (const auto& [written, json] : table) EXPECT_EQ(written, field(json));

    JSONPayload literal;
    literal.addDataToPayload("", "text\0hidden");
    EXPECT_EQ(literal.convertToString(), R"({"":"text"})");
}

TEST(JSONPayload, writesFontsAsWordsAndNoFieldForAValueOutsideTheirTable) {
    JSONPayload payload;
    for (const int value : {-1, 0, 1, 2, 3, 4}) {
        payload.addDataToPayload("w" + std::to_string(value), static_cast<FontWeightType>(value));
        payload.addDataToPayload("a" + std::to_string(value), static_cast<FontAngleType>(value));
    }
    EXPECT_EQ(payload.convertToString(),
              R"({"w0":"light","a0":"normal","w1":"normal","a1":"italic",)"
              R"("w2":"demi","a2":"oblique","w3":"bold"})");
}

TEST(JSONPayload, keepsTheFirstValueOfAKeyTheOrderOfAdditionAndDeepCopies) {
    JSONPayload inner;
    inner.addDataToPayload("n", 1);
    JSONPayload payload;
    payload.addDataToPayload("z", inner);
    payload.addDataToPayload("a", "first");
    inner.addDataToPayload("late", true);
    payload.addDataToPayload("self", payload);
    const auto before = payload.convertToString();
    EXPECT_EQ(before, R"({"z":{"n":1},"a":"first","self":{"z":{"n":1},"a":"first"}})");
    for (const char* key : {"z", "a", "self"}) {
        payload.addDataToPayload(key, "second");
        payload.addDataToPayload(key, inner);
        payload.addDataToPayload(key, std::vector<double>{1.0});
    }
    const JSONPayload taken = std::move(payload);
    EXPECT_EQ(taken.convertToString(), before);
    EXPECT_EQ(taken.getNumFields(), 3U);
    EXPECT_TRUE(taken.isString("a") && !taken.isString("z"));
    EXPECT_TRUE(taken.isFieldInPayload("z") && !taken.isFieldInPayload("late"));
    EXPECT_FALSE(taken.isEmpty());
}

TEST(JSONPayload, isNested500LevelsDeepAndNoDeeper) {
    // A text counts as 32, whatever it holds.
    auto payload = std::make_unique<JSONPayload>("{\"k\":1}");
    const auto nest = [&payload] {
        auto outer = std::make_unique<JSONPayload>();
        outer->addDataToPayload("k", *payload);
        payload = std::move(outer);
    };
    for (int level = 32; level < 500; ++level) nest();
    const auto text = payload->convertToString();
    JSONPayload flat;
    flat.addDataToPayload("there", 1);
    EXPECT_NO_THROW(flat.addDataToPayload("there", *payload));
    EXPECT_THROW(flat.addDataToPayload("k", *payload), std::length_error);
    EXPECT_EQ(flat.convertToString(), "{\"there\":1}");
    EXPECT_EQ(text.size(), 7U + 468U * 6U);
}

TEST(JSONPayload, isMadeFromTheTextOfAnObjectOnly) {
    JSONPayload payload(R"( {"k" : 1, "b":[true,null], "k":2} )");
    payload.addDataToPayload("c", 3);
    payload.addDataToPayload("b", 3);
    EXPECT_EQ(payload.convertToString(), R"({"k":2,"b":[true,null],"c":3})");
    EXPECT_THROW(JSONPayload{std::string("{} x")}, boost::system::system_error);
    EXPECT_THAT([] { JSONPayload{std::string("[1,2]")}; },
                testing::ThrowsMessage<std::invalid_argument>("not an object"));
}

/// The field `json` read as `T`, whose output starts as `before`; checks that a failure leaves
/// that alone.
template <typename T>
std::optional<T> readAs(const std::string& json, T before) {
    const JSONObject object("{\"k\":" + json + "}");
    EXPECT_TRUE(object.isValid()) << json;
    T out = before;
    if (object.getValue("k", out)) return out;
    EXPECT_EQ(out, before) << json;
    return std::nullopt;
}

constexpr auto kNothing = std::nullopt;

TEST(JSONObject, readsWholeNumbersInRange) {
    const struct {
        const char* json;
        std::optional<long> asLong;
        std::optional<int> asInt;
        std::optional<unsigned long> asUnsigned;
    } table[] = {
        {"3.0", 3, 3, 3},
        {"2147483648", 2147483648, kNothing, 2147483648},
        {"-2147483648.0", -2147483648, -2147483648, kNothing},
        // The largest double inside the signed range, and the next one outside it.
        {"9223372036854774784.0", 9223372036854774784, kNothing, 9223372036854774784U},
        {"9223372036854775808.0", kNothing, kNothing, 9223372036854775808U},
        {"-9223372036854775808.0", kNothing, kNothing, kNothing},
        {"3.5", kNothing, kNothing, kNothing},
        {R"("7")", kNothing, kNothing, kNothing},
    };
    for (const auto& row : table) {
        EXPECT_EQ(readAs(row.json, 99L), row.asLong) << row.json;
        EXPECT_EQ(readAs(row.json, 99), row.asInt) << row.json;
        EXPECT_EQ(readAs(row.json, 99UL), row.asUnsigned) << row.json;
    }
}

TEST(JSONObject, readsTruth) {
    for (const char* json : {"true", "-1", "0.5"}) EXPECT_EQ(readAs(json, false), true) << json;
    for (const char* json : {"false", "0", "-0.0"}) EXPECT_EQ(readAs(json, true), false) << json;
    EXPECT_EQ(readAs(R"("true")", true), kNothing);
}

TEST(JSONObject, readsFloatingPointNumbersAndTheWordsForTheOthers) {
    constexpr double kInfinity = std::numeric_limits<double>::infinity();
    EXPECT_EQ(readAs(R"("Inf")", 99.0), kInfinity);
    EXPECT_EQ(readAs(R"("-Infinity")", 99.0), -kInfinity);
    for (const char* json : {R"("inf")", R"("-NaN")", R"("5")", "true"}) {
        EXPECT_EQ(readAs(json, 99.0), kNothing) << json;
    }
    EXPECT_EQ(readAs("1e300", 99.0F), static_cast<float>(kInfinity));
    EXPECT_TRUE(std::isnan(readAs(R"("NaN")", 99.0F).value()));
}

TEST(JSONObject, readsTexts) {
    const std::string before = "before";
    EXPECT_EQ(readAs("null", before), "null");
    EXPECT_EQ(readAs(R"("a\nb\u0000")", before), std::string("a\nb\0", 4));
    EXPECT_EQ(readAs(R"({ "a" : [ 1 , "x" ] })", before), R"({"a":[1,"x"]})");

    using Texts = std::vector<std::string>;
    EXPECT_EQ(readAs(R"(["a",""])", Texts{"before"}), (Texts{"a", ""}));
    EXPECT_EQ(readAs(R"(["a",1])", Texts()), kNothing);  // which may clear the vector
}

TEST(JSONObject, readsHandlesAndIdentifiers) {
    EXPECT_EQ(readAs(R"(" -42 ")", Cookie(99)), Cookie(-42));
    EXPECT_EQ(readAs(R"("9223372036854775807")", Cookie(99)), Cookie(INT64_MAX));
    for (const char* json : {R"("9223372036854775808")", "7.0", R"("7.0")", R"("")", R"("7x")"}) {
        EXPECT_EQ(readAs(json, Cookie(99)), kNothing) << json;
    }

    using binary::DataID;
    EXPECT_EQ(readAs(R"("7 9")", DataID(99)), DataID(7, 9));
    EXPECT_EQ(readAs("{}", DataID(99)), kNothing);
}

TEST(JSONObject, isInvalidUnlessTheTextInUTF8OrUTF16IsOneObject) {
    std::string word;
    std::string deep = "{\"k\":1}";
    for (int depth = 2; depth <= 32; ++depth) deep = "{\"k\":" + deep + "}";
    EXPECT_TRUE(JSONObject(deep).isValid());
    for (const auto& text : std::vector<std::string>{
             "", "[1]", "null", "{", "{\"k\":1,}", "{\"k\":\"\xFF\"}", "{} {}",
             std::string("{}\0", 3), "{\"k\":" + deep + "}", std::string(100000, '{')}) {
        const JSONObject object(text);
        EXPECT_FALSE(object.isValid()) << text.substr(0, 40);
        EXPECT_TRUE(object.getNames().empty());
        EXPECT_FALSE(object.getObject("k").isValid());
        EXPECT_FALSE(object.getValue("k", word));
    }
    EXPECT_TRUE(JSONObject(std::u16string(u"{\"k\":\"\u20AC\"}")).getValue("k", word));
    EXPECT_EQ(word, "\xE2\x82\xAC");

    std::string many = "{\"" + std::string(std::size_t{10} << 20U, 'k') + "\":0";
    for (int i = 0; i < 1'000'000; ++i) many += ",\"" + std::to_string(i) + "\":1";
    const JSONObject large(many + "}");
    EXPECT_EQ(large.getNames().size(), 1'000'001U);
    EXPECT_TRUE(large.getValue("999999", word));
}

TEST(JSONObject, sharesItsDataWithCopiesAndOwnsWhatItTakesOutOfAnother) {
    auto object = std::make_unique<JSONObject>(R"({"z":1,"a":{"n":[1]},"m":[{}]})");
    const JSONObject copy(*object);
    const JSONObject nested = object->getObject("a");
    for (const char* key : {"z", "m", ""}) EXPECT_FALSE(object->getObject(key).isValid()) << key;
    object.reset();
    EXPECT_EQ(copy.getNames(), (std::vector<std::string>{"z", "a", "m"}));
    std::string text;
    EXPECT_TRUE(nested.getValue("n", text));
    EXPECT_EQ(text, "[1]");
}

#if defined(KIROWEB_CHECKED)
TEST(PreconditionsDeathTest, StopTheProgramWhereTheyAreBroken) {
    JSONPayload payload;
    binary::BinaryDataPayload blocks;
    const char* const nothing = nullptr;
    EXPECT_DEATH(payload.addDataToPayload("k", nothing), "broken precondition: value");
    EXPECT_DEATH(blocks.addDataToPayloadInternal(nothing, 1), "broken precondition: data");
    EXPECT_DEATH((void)subscribe(nullptr, "c", {}), "broken precondition: pubsub");
}
#endif

}  // namespace
}  // namespace kiro::web
