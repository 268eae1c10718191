#include <array>
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <boost/json/value_from.hpp>
#include <boost/json/value_to.hpp>
#include <string>

#include "bedrock/json/Value.hpp"
#include "bedrock/text/convertUTF16.hpp"

namespace bedrock::json {

Value::Value(Array array) : fData(std::make_shared<const Array>(std::move(array))) {}
Value::Value(Object object) : fData(std::make_shared<const Object>(std::move(object))) {}
Value::Value(TypedArray array) : fData(std::make_shared<const TypedArray>(std::move(array))) {}

namespace {

constexpr std::array kTypes{"int64",  "int32",  "int16",  "int8",
                            "uint64", "uint32", "uint16", "uint8"};

template <std::size_t Index = 0>
std::optional<Value> typedArray(const boost::json::string& type, const boost::json::value& data) {
    if constexpr (Index < kTypes.size()) {
        if (type != kTypes[Index]) return typedArray<Index + 1>(type, data);
        using Numbers = std::variant_alternative_t<Index, TypedArray>;
        auto numbers = boost::json::try_value_to<Numbers>(data);
        if (numbers) return Value(TypedArray(std::move(*numbers)));
    }
    return std::nullopt;
}

Value convert(const boost::json::value& from) {
    if (const auto* flag = from.if_bool()) return *flag;
    if (const auto* number = from.if_int64()) return std::int64_t{*number};
    if (const auto* number = from.if_uint64()) return std::uint64_t{*number};
    if (const auto* number = from.if_double()) return *number;
    if (const auto* text = from.if_string()) return std::string(*text);
    if (const auto* array = from.if_array()) {
        Array result;
        for (const auto& element : *array) result.push_back(convert(element));
        return result;
    }
    const auto* const object = from.if_object();
    if (object == nullptr) return {};
    const auto* const type = object->if_contains("vxtype");
    const auto* const data = object->if_contains("vxdata");
    if (object->size() == 2 && type && data && type->is_string() && data->is_array()) {
        if (auto typed = typedArray(type->get_string(), *data)) return *typed;
    }
    Object result;
    for (const auto& [key, member] : *object) result.emplace(key, convert(member));
    return result;
}

}  // namespace

/// The value's friend: whatever has to look into it.
class Writer {
  public:
    static boost::json::value convert(const Value& value) {
        return std::visit(Writer{}, value.fData);
    }

    template <typename Scalar>
    boost::json::value operator()(const Scalar& scalar) const {
        return scalar;
    }
    boost::json::value operator()(const std::shared_ptr<const std::string>& text) const {
        return boost::json::string(*text);
    }
    boost::json::value operator()(const std::shared_ptr<const Array>& array) const {
        boost::json::array result;
        for (const auto& element : *array) result.push_back(convert(element));
        return result;
    }
    boost::json::value operator()(const std::shared_ptr<const Object>& object) const {
        boost::json::object result;
        for (const auto& [key, member] : *object) result.emplace(key, convert(member));
        return result;
    }
    boost::json::value operator()(const std::shared_ptr<const TypedArray>& array) const {
        const auto from = [](const auto& numbers) { return boost::json::value_from(numbers); };
        return boost::json::object{{"vxdata", std::visit(from, *array)},
                                   {"vxtype", kTypes[array->index()]}};
    }
};

std::optional<Value> parse(std::string_view text) {
    boost::json::error_code error;
    const auto value = boost::json::parse(text, error);
    if (error) return std::nullopt;
    return convert(value);
}

std::string serialize(const Value& value) { return boost::json::serialize(Writer::convert(value)); }

std::optional<std::string> Value::textOf(const std::string& key) const {
    const auto* const object = as<Object>();
    if (object == nullptr || !object->contains(key)) return std::nullopt;
    const Value& member = object->at(key);
    return member.as<std::string>() != nullptr ? *member.as<std::string>() : serialize(member);
}

}  // namespace bedrock::json

namespace bedrock::text {

CharsetConverter::CharsetConverter(std::string_view /*charset: always UTF-8*/) {}

std::string CharsetConverter::fromUTF16(std::u16string_view text) const {
    std::string result;
    const auto put = [&result](unsigned byte) { result += static_cast<char>(byte); };
    for (std::size_t at = 0; at < text.size(); ++at) {
        std::uint32_t code = text[at];
        const bool isPair = code >= 0xd800 && code < 0xdc00 && at + 1 < text.size() &&
                            text[at + 1] >= 0xdc00 && text[at + 1] < 0xe000;
        if (isPair) {
            code = 0x10000 + ((code - 0xd800) << 10U) + (text[++at] - 0xdc00U);
        } else if (code >= 0xd800 && code < 0xe000) {
            code = 0xfffd;
        }
        if (code < 0x80) {
            put(code);
            continue;
        }
        const unsigned tails = code < 0x800 ? 1 : code < 0x10000 ? 2 : 3;
        constexpr unsigned kLeads[] = {0, 0xc0, 0xe0, 0xf0};
        put(kLeads[tails] | code >> (6 * tails));
        for (unsigned tail = tails; tail-- > 0;) put(0x80 | (code >> (6 * tail) & 0x3f));
    }
    return result;
}

}  // namespace bedrock::text
