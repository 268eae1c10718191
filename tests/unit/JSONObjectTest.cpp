#include "kiro/web/JSONObject.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "kiro/web/binary/DataID.hpp"
#include "ui_objects/Cookie.hpp"

namespace kiro::web {
namespace {

static_assert(std::is_nothrow_destructible_v<JSONObject>);
static_assert(std::is_copy_constructible_v<JSONObject>);
static_assert(!std::is_copy_assignable_v<JSONObject>);

using ui_objects::Cookie;

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
    constexpr double kLimit = 9223372036854774784.0;
    const struct {
        const char* json;
        std::optional<long> asLong;
        std::optional<int> asInt;
        std::optional<unsigned long> asUnsigned;
    } table[] = {
        {"7", 7, 7, 7},
        {"-7", -7, -7, kNothing},
        {"3.0", 3, 3, 3},
        {"-0.0", 0, 0, 0},
        {"3.5", kNothing, kNothing, kNothing},
        {"1e300", kNothing, kNothing, kNothing},
        {"-1e300", kNothing, kNothing, kNothing},
        {"1e99999", kNothing, kNothing, kNothing},
        {"5e-324", kNothing, kNothing, kNothing},
        {"2147483647", 2147483647, 2147483647, 2147483647},
        {"2147483648", 2147483648, kNothing, 2147483648},
        {"-2147483648.0", -2147483648, -2147483648, kNothing},
        {"2147483648.0", 2147483648, kNothing, 2147483648},
        {"9223372036854775807", INT64_MAX, kNothing, INT64_MAX},
        {"-9223372036854775808", INT64_MIN, kNothing, kNothing},
        {"9223372036854775808", kNothing, kNothing, 9223372036854775808U},
        {"18446744073709551615", kNothing, kNothing, UINT64_MAX},
        // The largest double inside the signed range, and the next one outside it.
        {"9223372036854774784.0", static_cast<long>(kLimit), kNothing, 9223372036854774784U},
        {"-9223372036854774784.0", -static_cast<long>(kLimit), kNothing, kNothing},
        {"9223372036854775808.0", kNothing, kNothing, 9223372036854775808U},
        {"-9223372036854775808.0", kNothing, kNothing, kNothing},
        {"18446744073709549568.0", kNothing, kNothing, 18446744073709549568U},
        {"18446744073709551616.0", kNothing, kNothing, kNothing},
        {"true", kNothing, kNothing, kNothing},
        {"null", kNothing, kNothing, kNothing},
        {R"("7")", kNothing, kNothing, kNothing},
        {"[7]", kNothing, kNothing, kNothing},
        {"{}", kNothing, kNothing, kNothing},
    };
    for (const auto& row : table) {
        EXPECT_EQ(readAs(row.json, 99L), row.asLong) << row.json;
        EXPECT_EQ(readAs(row.json, 99), row.asInt) << row.json;
        EXPECT_EQ(readAs(row.json, 99UL), row.asUnsigned) << row.json;
    }
}

TEST(JSONObject, readsTruth) {
    const struct {
        const char* json;
        std::optional<bool> truth;
    } table[] = {
        {"true", true},     {"false", false},        {"0", false},
        {"-1", true},       {"0.0", false},          {"-0.0", false},
        {"0.5", true},      {"1e-400", false},       {"18446744073709551615", true},
        {"null", kNothing}, {R"("true")", kNothing}, {"[]", kNothing},
        {"{}", kNothing},
    };
    for (const auto& row : table) {
        EXPECT_EQ(readAs(row.json, false), row.truth) << row.json;
        EXPECT_EQ(readAs(row.json, true), row.truth) << row.json;
    }
}

TEST(JSONObject, readsFloatingPointNumbersAndTheWordsForTheOthers) {
    constexpr double kInfinity = std::numeric_limits<double>::infinity();
    const struct {
        const char* json;
        std::optional<double> number;
    } table[] = {
        {"5", 5.0},
        {"-2.5", -2.5},
        {"18446744073709551615", 18446744073709551616.0},
        {R"("Inf")", kInfinity},
        {R"("Infinity")", kInfinity},
        {R"("-Inf")", -kInfinity},
        {R"("-Infinity")", -kInfinity},
        {R"("inf")", kNothing},
        {R"("+Inf")", kNothing},
        {R"("Inf ")", kNothing},
        {R"("Inf\u0000")", kNothing},
        {R"("nan")", kNothing},
        {R"("-NaN")", kNothing},
        {R"("5")", kNothing},
        {R"("")", kNothing},
        {"true", kNothing},
        {"null", kNothing},
        {"[5]", kNothing},
    };
    for (const auto& row : table) {
        EXPECT_EQ(readAs(row.json, 99.0), row.number) << row.json;
        const auto narrowed =
            row.number ? std::optional(static_cast<float>(*row.number)) : std::nullopt;
        EXPECT_EQ(readAs(row.json, 99.0F), narrowed) << row.json;
    }
    EXPECT_EQ(readAs("0.1", 99.0F), 0.1F);
    EXPECT_EQ(readAs("1e300", 99.0), 1e300);
    EXPECT_EQ(readAs("1e300", 99.0F), static_cast<float>(kInfinity));
    EXPECT_TRUE(std::isnan(readAs(R"("NaN")", 99.0).value()));
    EXPECT_TRUE(std::isnan(readAs(R"("NaN")", 99.0F).value()));
}

TEST(JSONObject, readsTexts) {
    const std::string before = "before";
    EXPECT_EQ(readAs("7", before), "7");
    EXPECT_EQ(readAs("null", before), "null");
    EXPECT_EQ(readAs(R"("a\nb\u0000")", before), std::string("a\nb\0", 4));
    EXPECT_EQ(readAs(R"({ "a" : [ 1 , "x" ] })", before), R"({"a":[1,"x"]})");

    const std::vector<std::string> none;
    using Texts = std::vector<std::string>;
    EXPECT_EQ(readAs(R"(["a",""])", Texts{"before"}), (Texts{"a", ""}));
    EXPECT_EQ(readAs("[]", Texts{"before"}), Texts());
    // A failure may clear the vector.
    for (const char* json : {R"(["a",1])", R"("a")", "null", "{}"}) {
        EXPECT_EQ(readAs(json, none), kNothing) << json;
    }
}

TEST(JSONObject, readsHandlesAndIdentifiers) {
    const struct {
        const char* json;
        std::optional<Cookie> cookie;
    } cookies[] = {
        {"-42", Cookie(-42)},
        {R"("-42")", Cookie(-42)},
        {R"(" 7 ")", Cookie(7)},
        {R"("9223372036854775807")", Cookie(INT64_MAX)},
        {R"("-9223372036854775808")", Cookie(INT64_MIN)},
        {R"("9223372036854775808")", kNothing},
        {"9223372036854775808", kNothing},
        {"7.0", kNothing},
        {R"("7.0")", kNothing},
        {R"("+7")", kNothing},
        {R"("")", kNothing},
        {R"("7x")", kNothing},
        {R"("[7]")", kNothing},
        {R"("\"7\"")", kNothing},
        {"true", kNothing},
        {"[7]", kNothing},
    };
    for (const auto& row : cookies) EXPECT_EQ(readAs(row.json, Cookie(99)), row.cookie) << row.json;

    using binary::DataID;
    const DataID before(99);
    EXPECT_EQ(readAs(R"("7 9")", before), DataID(7, 9));
    EXPECT_EQ(readAs("7", before), DataID(7, 0));
    EXPECT_EQ(readAs(R"("x")", before), kNothing);
    EXPECT_EQ(readAs("{}", before), kNothing);
}

TEST(JSONObject, isInvalidUnlessTheTextIsOneObject) {
    std::string deep = "{\"k\":1}";
    for (int depth = 2; depth <= 32; ++depth) deep = "{\"k\":" + deep + "}";
    EXPECT_TRUE(JSONObject(deep).isValid());
    for (const auto& text : std::vector<std::string>{
             "", "x", "[1]", "1", "true", "null", "\"{}\"", "{", "{}}", "{\"k\":1,}", "{'k':1}",
             "{\"k\":NaN}", "{\"k\":\"\xFF\"}", "{} {}", std::string("{}\0", 3),
             "{\"k\":" + deep + "}", std::string(100000, '['), std::string(100000, '{')}) {
        const JSONObject object(text);
        EXPECT_FALSE(object.isValid()) << text.substr(0, 40);
        EXPECT_TRUE(object.getNames().empty());
        long number = 99;
        std::string word = "before";
        std::vector<std::string> texts{"before"};
        EXPECT_FALSE(object.getValue("k", number));
        EXPECT_FALSE(object.getValue("k", word));
        EXPECT_FALSE(object.getValue("k", texts));
        EXPECT_EQ(number, 99);
        EXPECT_EQ(word, "before");
        EXPECT_FALSE(object.getObject("k").isValid());
    }
}

TEST(JSONObject, readsUTF16) {
    std::string word;
    EXPECT_TRUE(JSONObject(std::u16string(u"{\"k\":\"\u20AC\"}")).getValue("k", word));
    EXPECT_EQ(word, "\xE2\x82\xAC");
    const std::u16string lone = {u'{', u'"', u'k', u'"', u':', u'"', 0xD83D, u'"', u'}'};
    EXPECT_TRUE(JSONObject(lone).getValue("k", word));
    EXPECT_EQ(word, "\xEF\xBF\xBD");
    EXPECT_FALSE(JSONObject(std::u16string()).isValid());
}

TEST(JSONObject, sharesItsDataWithCopiesAndOwnsWhatItTakesOutOfAnother) {
    auto object = std::make_unique<JSONObject>(R"({"z":1,"a":{"n":[1]},"m":[{}]})");
    const JSONObject copy(*object);
    const JSONObject nested = object->getObject("a");
    for (const char* key : {"z", "m", "absent", ""}) {
        EXPECT_FALSE(object->getObject(key).isValid()) << key;
    }
    object.reset();
    EXPECT_EQ(copy.getNames(), (std::vector<std::string>{"z", "a", "m"}));
    std::string text;
    EXPECT_TRUE(nested.getValue("n", text));
    EXPECT_EQ(text, "[1]");
    EXPECT_FALSE(copy.getValue("absent", text));

    const JSONObject copyOfInvalid{JSONObject("[1]")};
    EXPECT_FALSE(copyOfInvalid.isValid());
    EXPECT_TRUE(JSONObject("{}").isValid());
    EXPECT_TRUE(JSONObject("{}").getNames().empty());
}

}  // namespace
}  // namespace kiro::web
