// Arbitrary text as a client's message: every getter on every field, under a global locale that
// groups digits.
#include <algorithm>
#include <cmath>
#include <locale>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Fuzz.hpp"
#include "kiro/web/JSONObject.hpp"
#include "kiro/web/binary/DataID.hpp"
#include "ui_objects/Cookie.hpp"

namespace {

using fuzz::require;
using kiro::web::JSONObject;
using kiro::web::binary::DataID;
using ui_objects::Cookie;

struct Grouping : std::numpunct<char> {
    char do_thousands_sep() const override { return ' '; }
    std::string do_grouping() const override { return "\3"; }
};

/// While it is there. The fuzzer writes numbers, too, and reads them again.
class GroupedDigits {
  public:
    GroupedDigits() {
        static const std::locale grouping(std::locale::classic(), new Grouping);
        std::locale::global(grouping);
    }
    ~GroupedDigits() { std::locale::global(std::locale::classic()); }
    GroupedDigits(const GroupedDigits&) = delete;
    GroupedDigits& operator=(const GroupedDigits&) = delete;
};

/// Reads `key` twice into different values: what is read does not depend on what was there, and
/// what is not read is left alone.
template <typename T>
bool read(const JSONObject& object, const std::string& key, T& out, const T& other) {
    const T before = out;
    T second = other;
    const bool answer = object.getValue(key, out);
    require(object.getValue(key, second) == answer, "the answer is the same again");
    // A NaN is unequal to itself.
    const bool same = out == second || (out != out && second != second);
    require(answer ? same : out == before && second == other, "only a true answer writes");
    return answer;
}

void checkNumbers(const JSONObject& object, const std::string& key) {
    long signedLong = 1;
    int small = 1;
    unsigned long unsignedLong = 1;
    double wide = 1;
    bool truth = true;
    const bool isLong = read(object, key, signedLong, 2L);
    const bool isInt = read(object, key, small, 2);
    const bool isUnsigned = read(object, key, unsignedLong, 2UL);
    const bool isDouble = read(object, key, wide, 2.0);
    const bool isBool = read(object, key, truth, false);

    require(isInt == (isLong && std::in_range<int>(signedLong)), "int reads what fits");
    require(!isInt || small == signedLong, "int and long agree");
    require(!isLong || isUnsigned == (signedLong >= 0), "unsigned reads what is not negative");
    require(!(isLong || isUnsigned) || (isDouble && isBool), "a whole number is a number");
}

void checkTexts(const JSONObject& object, const std::string& key) {
    std::string text = "before";
    require(read(object, key, text, std::string("other")), "every field has a text");

    float narrow = 1;
    double wide = 1;
    require(read(object, key, narrow, 2.0F) == read(object, key, wide, 2.0), "both or none");
    require(std::isnan(wide) || narrow == static_cast<float>(wide), "a float is a double's");
    Cookie handle(1);
    read(object, key, handle, Cookie(2));
    DataID id(1);
    DataID expected;
    const bool isID = read(object, key, id, DataID(2));
    require(isID == DataID::construct_from_string(text, expected), "an identifier is its text's");
    require(!isID || id == expected, "an identifier's value is its text's");
    std::vector<std::string> list;
    const bool isList = read(object, key, list, {"other"});
    require(!isList || text.starts_with('['), "a list's text is one");
}

void check(const JSONObject& object) {
    const auto names = object.getNames();
    require(object.isValid() || names.empty(), "an invalid object has no fields");
    require(std::set(names.begin(), names.end()).size() == names.size(), "keys are unique");
    for (const auto& name : names) {
        checkNumbers(object, name);
        checkTexts(object, name);
        const auto nested = object.getObject(name);
        if (nested.isValid()) check(JSONObject(nested));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const GroupedDigits digits;
    const std::string text(data, data + size);
    const JSONObject object(text);
    check(object);

    // As UTF-16: widened, which is the same message if it is ASCII, and with every unit arbitrary.
    const JSONObject widened(std::u16string(data, data + size));
    if (std::all_of(data, data + size, [](auto byte) { return byte < 0x80; })) {
        require(widened.isValid() == object.isValid(), "ASCII is valid in both encodings");
        require(widened.getNames() == object.getNames(), "ASCII has the same keys in both");
    }
    std::u16string units;
    for (std::size_t i = 0; i + 1 < size; i += 2) {
        units += static_cast<char16_t>(data[i] | (data[i + 1] << 8U));
    }
    check(JSONObject(units));
    return 0;
}
