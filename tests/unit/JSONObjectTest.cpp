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
    const struct {
        const char* json;
        std::optional<long> asLong;
        std::optional<int> asInt;
        std::optional<unsigned long> asUnsigned;
    } table[] = {
        {"7", 7, 7, 7},
        {"3.0", 3, 3, 3},
        {"2147483648", 2147483648, kNothing, 2147483648},
        {"-2147483648.0", -2147483648, -2147483648, kNothing},
        // The largest double inside the signed range, and the next one outside it.
        {"9223372036854774784.0", 9223372036854774784, kNothing, 9223372036854774784U},
        {"9223372036854775808.0", kNothing, kNothing, 9223372036854775808U},
        {"-9223372036854775808.0", kNothing, kNothing, kNothing},
        {"18446744073709551616.0", kNothing, kNothing, kNothing},
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
    for (const char* json : {"true", "-1", "0.5", "18446744073709551615"}) {
        EXPECT_EQ(readAs(json, false), true) << json;
    }
    for (const char* json : {"false", "0", "-0.0"}) EXPECT_EQ(readAs(json, true), false) << json;
    for (const char* json : {"null", R"("true")"}) EXPECT_EQ(readAs(json, true), kNothing) << json;
}

TEST(JSONObject, readsFloatingPointNumbersAndTheWordsForTheOthers) {
    constexpr double kInfinity = std::numeric_limits<double>::infinity();
    EXPECT_EQ(readAs(R"("Inf")", 99.0), kInfinity);
    EXPECT_EQ(readAs(R"("-Infinity")", 99.0), -kInfinity);
    EXPECT_EQ(readAs("5", 99.0), 5.0);
    for (const char* json : {R"("inf")", R"("-NaN")", R"("5")", "true"}) {
        EXPECT_EQ(readAs(json, 99.0), kNothing) << json;
    }
    EXPECT_EQ(readAs("0.1", 99.0F), 0.1F);
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
    EXPECT_EQ(readAs("[]", Texts{"before"}), Texts());
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

}  // namespace
}  // namespace kiro::web
