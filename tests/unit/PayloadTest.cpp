#include "kiro/web/JSONPayload.hpp"
// The header above compiles by itself; so does this one.
#include "kiro/web/StringPayload.hpp"

#include <gtest/gtest.h>
#include <boost/system/system_error.hpp>

#include <cstdint>
#include <functional>
#include <limits>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "kiro/web/binary/DataID.hpp"
#include "ui_objects/Cookie.hpp"
#include "ui_objects/FontTypes.hpp"
#include "ui_objects/UTF16String.hpp"

namespace kiro::web {
namespace {

static_assert(std::is_nothrow_destructible_v<JSONPayload>);
static_assert(std::is_nothrow_move_constructible_v<JSONPayload>);
static_assert(!std::is_copy_constructible_v<JSONPayload>);
static_assert(!std::is_assignable_v<JSONPayload&, JSONPayload>);
static_assert(std::is_nothrow_destructible_v<StringPayload>);
static_assert(std::has_virtual_destructor_v<PayloadInterface>);

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
    const struct {
        std::string written;
        const char* json;
    } table[] = {
        {encoded(true), "true"},
        {encoded(false), "false"},
        {encoded(Limits<int>::min()), "-2147483648"},
        {encoded(Limits<long>::min()), "-9223372036854775808"},
        {encoded(Limits<long>::max()), "9223372036854775807"},
        {encoded(Limits<unsigned long>::max()), "18446744073709551615"},
        {encoded(0.25), "2.5E-1"},
        {encoded(-0.0), "-0E0"},
        {encoded(0.5F), "5E-1"},
        // A float is widened, not written with its own few digits.
        {encoded(0.1F), "1.0000000149011612E-1"},
        {encoded(Limits<double>::quiet_NaN()), "NaN"},
        {encoded(Limits<double>::infinity()), "Infinity"},
        {encoded(-Limits<float>::infinity()), "-Infinity"},
        {encoded(std::string()), R"("")"},
        {encoded(std::string("a\"\\\n\0b", 6)), R"("a\"\\\n\u0000b")"},
        {encoded(std::string("gr\xC3\xBC\xC3\x9F")), "\"gr\xC3\xBC\xC3\x9F\""},
        // Taken to be UTF-8 and passed on unseen.
        {encoded(std::string("\xFF")), "\"\xFF\""},
        {encoded(UTF16String()), R"("")"},
        {encoded(UTF16String(u"\u00FC\u20AC")), "\"\xC3\xBC\xE2\x82\xAC\""},
        {encoded(UTF16String(u"\U0001F600")), "\"\xF0\x9F\x98\x80\""},
        {encoded(UTF16String({0xD83D, u'a'})), "\"\xEF\xBF\xBD\x61\""},
        {encoded(UTF16String({u'a', 0xDE00, 0xD83D})), "\"\x61\xEF\xBF\xBD\xEF\xBF\xBD\""},
        // Handles are strings, unlike the other 64-bit integers.
        {encoded(Cookie(0)), R"("0")"},
        {encoded(Cookie(-42)), R"("-42")"},
        {encoded(Cookie(Limits<std::int64_t>::min())), R"("-9223372036854775808")"},
        {encoded(Cookie(Limits<std::int64_t>::max())), R"("9223372036854775807")"},
        {encoded(std::vector{Cookie(1), Cookie(-2)}), R"(["1","-2"])"},
        {encoded(std::vector<Cookie>()), "[]"},
        {encoded(binary::DataID(7, 9)), R"("7 9")"},
        {encoded(FONT_WEIGHT_LIGHT), R"("light")"},
        {encoded(FONT_WEIGHT_NORMAL), R"("normal")"},
        {encoded(FONT_WEIGHT_DEMI), R"("demi")"},
        {encoded(FONT_WEIGHT_BOLD), R"("bold")"},
        {encoded(FONT_ANGLE_NORMAL), R"("normal")"},
        {encoded(FONT_ANGLE_ITALIC), R"("italic")"},
        {encoded(FONT_ANGLE_OBLIQUE), R"("oblique")"},
        {encoded(JSONPayload()), "{}"},
        {encoded(nested), R"({"n":1})"},
        {encoded(std::vector<std::string>{"a", ""}), R"(["a",""])"},
        {encoded(std::vector<std::vector<std::string>>{{"a", "b"}, {}}), R"([["a","b"],[]])"},
        {encoded(std::vector<unsigned char>{0, 255}), "[0,255]"},
        {encoded(std::vector<unsigned int>{4294967295U}), "[4294967295]"},
        {encoded(std::vector<unsigned long>{Limits<unsigned long>::max()}),
         "[18446744073709551615]"},
        {encoded(std::vector<double>{0.25, -1.0}), "[2.5E-1,-1E0]"},
        {encoded(std::vector<float>{0.5F, 0.1F}), "[5E-1,1.0000000149011612E-1]"},
        {encoded(std::vector<float>()), "[]"},
    };
    for (const auto& row : table) EXPECT_EQ(row.written, field(row.json));

    JSONPayload literal;
    literal.addDataToPayload("", "text\0hidden");
    EXPECT_EQ(literal.convertToString(), R"({"":"text"})");
}

TEST(JSONPayload, addsNoFieldForAFontValueOutsideItsTable) {
    JSONPayload payload;
    for (const int value : {-1, 3, 4, Limits<int>::max(), Limits<int>::min()}) {
        if (value != 3) payload.addDataToPayload("weight", static_cast<FontWeightType>(value));
        payload.addDataToPayload("angle", static_cast<FontAngleType>(value));
    }
    EXPECT_TRUE(payload.isEmpty());
    EXPECT_EQ(payload.convertToString(), "{}");
}

TEST(JSONPayload, keepsTheFirstValueOfAKeyAndTheOrderOfAddition) {
    JSONPayload payload;
    JSONPayload other;
    payload.addDataToPayload("z", 1);
    payload.addDataToPayload("a", "first");
    payload.addDataToPayload("n", other);
    other.addDataToPayload("late", true);
    const auto before = payload.convertToString();
    for (const char* key : {"z", "a", "n"}) {
        payload.addDataToPayload(key, 2L);
        payload.addDataToPayload(key, "second");
        payload.addDataToPayload(key, Cookie(3));
        payload.addDataToPayload(key, other);
        payload.addDataToPayload(key, std::vector<double>{1.0});
    }
    EXPECT_EQ(payload.convertToString(), before);
    EXPECT_EQ(before, R"({"z":1,"a":"first","n":{}})");
    EXPECT_EQ(payload.getNumFields(), 3U);
}

TEST(JSONPayload, copiesANestedPayloadDeeplyAtTheTimeOfTheCall) {
    JSONPayload inner;
    inner.addDataToPayload("n", 1);
    JSONPayload payload;
    payload.addDataToPayload("in", inner);
    inner.addDataToPayload("more", 2);
    payload.addDataToPayload("self", payload);
    EXPECT_EQ(payload.convertToString(), R"({"in":{"n":1},"self":{"in":{"n":1}}})");

    const JSONPayload taken = std::move(payload);
    EXPECT_EQ(taken.getNumFields(), 2U);
}

TEST(JSONPayload, keepsManyFieldsInOrder) {
    JSONPayload payload;
    std::string expected = "{";
    for (int i = 0; i < 100; ++i) {
        const auto key = "key" + std::to_string(i);
        payload.addDataToPayload(key, i);
        payload.addDataToPayload(key, -i);
        expected += (i == 0 ? "\"" : ",\"") + key + "\":" + std::to_string(i);
    }
    EXPECT_EQ(payload.convertToString(), expected + "}");
}

TEST(JSONPayload, tellsWhatItHolds) {
    JSONPayload payload;
    EXPECT_TRUE(payload.isEmpty());
    EXPECT_FALSE(payload.isFieldInPayload(""));
    EXPECT_FALSE(payload.isString("cookie"));
    payload.addDataToPayload("cookie", Cookie(1));
    payload.addDataToPayload("id", binary::DataID(4));
    payload.addDataToPayload("font", FONT_WEIGHT_BOLD);
    payload.addDataToPayload("utf16", UTF16String(u"x"));
    payload.addDataToPayload("number", 1);
    payload.addDataToPayload("texts", std::vector<std::string>{"a"});
    EXPECT_FALSE(payload.isEmpty());
    EXPECT_EQ(payload.getNumFields(), 6U);
    for (const char* key : {"cookie", "id", "font", "utf16"}) EXPECT_TRUE(payload.isString(key));
    for (const char* key : {"number", "texts", "absent"}) EXPECT_FALSE(payload.isString(key));
    EXPECT_TRUE(payload.isFieldInPayload("number"));
    EXPECT_FALSE(payload.isFieldInPayload("Number"));
}

/// JSON text of arrays nested `depth` deep inside an object of its own.
std::string nestedObject(int depth) {
    std::string text;
    for (int i = 0; i < depth; ++i) text += R"({"k":)";
    return text + "1" + std::string(static_cast<std::size_t>(depth), '}');
}

TEST(JSONPayload, isMadeFromTheTextOfAnObjectOnly) {
    JSONPayload payload(R"( {"k" : 1, "b":[true,null], "k":2} )");
    EXPECT_TRUE(payload.isFieldInPayload("k"));
    EXPECT_EQ(payload.getNumFields(), 2U);
    payload.addDataToPayload("c", 3);
    EXPECT_EQ(payload.convertToString(), R"({"k":2,"b":[true,null],"c":3})");
    EXPECT_EQ(JSONPayload(nestedObject(32)).convertToString(), nestedObject(32));

    for (const char* text :
         {"", "{", "{\"k\":1,}", "{} x", "{/**/}", "{\"k\":\"\xFF\"}", "{k:1}"}) {
        EXPECT_THROW(JSONPayload{std::string(text)}, boost::system::system_error) << text;
    }
    EXPECT_THROW(JSONPayload{nestedObject(33)}, boost::system::system_error);
    for (const char* text : {"[1,2]", "1", "null", "\"{}\""}) {
        try {
            const JSONPayload made{std::string(text)};
            FAIL() << text;
        } catch (const std::invalid_argument& error) {
            EXPECT_STREQ(error.what(), "not an object");
        }
    }
}

TEST(JSONPayload, isLeftUnchangedByAKeyThatIsTooLong) {
    JSONPayload payload;
    payload.addDataToPayload("k", 1);
    const std::string tooLong(0x7fffffff, 'k');
    EXPECT_THROW(payload.addDataToPayload(tooLong, 2), std::length_error);
    EXPECT_EQ(payload.convertToString(), field("1"));
}

TEST(StringPayload, returnsItsTextByteForByte) {
    for (const auto& text : {std::string(), std::string("{}"), std::string("\0\xFF\n", 3)}) {
        EXPECT_EQ(StringPayload(text).convertToString(), text);
    }
}

}  // namespace
}  // namespace kiro::web
