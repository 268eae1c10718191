#include "kiro/web/binary/DataID.hpp"

#include <istream>
#include <locale>
#include <streambuf>

namespace kiro::web::binary {

namespace {

/// Reads a string in place: no copy, so no lack of memory.
class ViewBuffer : public std::streambuf {
  public:
    explicit ViewBuffer(const std::string& text) {
        // A get area is never written to.
        // NOLINTNEXTLINE(cppcoreguidelines-pro-type-const-cast)
        auto* begin = const_cast<char*>(text.data());
        setg(begin, begin, begin + text.size());
    }
};

}  // namespace

std::string DataID::convert_to_string() const {
    return std::to_string(first) + ' ' + std::to_string(second);
}

bool DataID::construct_from_string(const std::string& text, DataID& out) {
    ViewBuffer buffer(text);
    std::istream stream(&buffer);
    stream.imbue(std::locale::classic());
    out = DataID();
    stream >> out.first >> out.second;
    // The end of the text, not the success of the reading: a half that is missing reads as 0, but
    // nothing may follow.
    return stream.eof();
}

}  // namespace kiro::web::binary
