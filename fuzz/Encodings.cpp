// Arbitrary bytes in each encoding that texts travel in: Base64, a block's identifier, UTF-8.
#include <Poco/Base64Decoder.h>

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <iterator>
#include <sstream>
#include <string>

#include "Fuzz.hpp"
#include "TextEncoding.hpp"
#include "encoding/Base64.hpp"
#include "kiro/web/binary/DataID.hpp"

namespace {

using fuzz::require;
using kiro::web::binary::DataID;

void checkBase64(const std::string& bytes) {
    const auto text = encoding::encodeBase64(bytes);
    require(text == kirogateway::encodeBase64(bytes), "there is one Base64");
    require(text.size() == encoding::base64Length(bytes.size()), "its length is known before");
    std::istringstream stream(text);
    Poco::Base64Decoder decoder(stream);
    require(std::string(std::istreambuf_iterator<char>(decoder), {}) == bytes, "it is undone");
}

void checkID(const std::string& text) {
    DataID id;
    static_cast<void>(DataID::construct_from_string(text, id));
    DataID again;
    require(DataID::construct_from_string(id.convert_to_string(), again), "its own text is read");
    require(again == id && DataID(id.value()) == id, "and is the same");
}

/// A parser's opinion: it takes no string that is not UTF-8.
void checkUtf8(const std::string& text) {
    const bool hasSeparator = text.find_first_of("\x1e\x1f") != std::string::npos;
    boost::system::error_code error;
    boost::json::parse(boost::json::serialize(boost::json::string(text)), error);
    require(kirogateway::isPlain(text) == (!error && !hasSeparator), "plain is UTF-8 alone");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string bytes(data, data + size);
    checkBase64(bytes);
    checkID(bytes);
    checkUtf8(bytes);
    return 0;
}
