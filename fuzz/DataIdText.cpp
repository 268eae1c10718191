// Identifiers as numbers and as text, under a global locale that groups digits.
#include <locale>
#include <string>

#include "Fuzz.hpp"
#include "kiro/web/binary/DataID.hpp"

namespace {

using fuzz::require;
using kiro::web::binary::DataID;

struct Grouping : std::numpunct<char> {
    char do_thousands_sep() const override { return ' '; }
    std::string do_grouping() const override { return "\3"; }
};

[[maybe_unused]] const auto previousLocale =
    std::locale::global(std::locale(std::locale::classic(), new Grouping));

void checkNumber(std::uint64_t value) {
    const DataID id(value);
    require(id.value() == value, "a number survives");
    require(DataID(id.first, id.second) == id, "the halves make the whole");
    DataID read(~value);
    require(DataID::construct_from_string(id.convert_to_string(), read), "its own text is read");
    require(read == id, "its own text is read back");
}

void checkText(const std::string& text) {
    DataID read(0);
    DataID again(~std::uint64_t{0});
    const bool answer = DataID::construct_from_string(text, read);
    require(DataID::construct_from_string(text, again) == answer, "the answer is the same again");
    require(read == again, "what was there before does not matter");
    require(answer || text != read.convert_to_string(), "a text like ours is always read");
    checkNumber(read.value());

    DataID unfinished;
    require(!DataID::construct_from_string(read.convert_to_string() + " " + text, unfinished),
            "what follows a blank is not used up");
    require(unfinished == read, "what follows the numbers does not change them");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider input(data, size);
    const auto a = input.ConsumeIntegral<std::uint64_t>();
    const auto b = input.ConsumeIntegral<std::uint64_t>();
    checkNumber(a);
    require((DataID(a) <=> DataID(b)) == (a <=> b), "identifiers order by their numbers");
    checkText(input.ConsumeRemainingBytesAsString());
    return 0;
}
