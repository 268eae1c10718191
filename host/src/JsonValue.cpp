#include <array>
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <boost/json/value.hpp>
#include <charconv>
#include <cstddef>
#include <iterator>
#include <new>
#include <string_view>
#include <type_traits>
#include <utility>

#include "bedrock/json/Value.hpp"

namespace bedrock::json {

Value::Value(Array array) : fData(std::make_shared<const Array>(std::move(array))) {}
Value::Value(Object object) : fData(std::make_shared<const Object>(std::move(object))) {}
Value::Value(TypedArray array) : fData(std::make_shared<const TypedArray>(std::move(array))) {}

std::optional<std::string> Value::textOf(const std::string& key) const {
    const auto* const object = as<Object>();
    if (object == nullptr) return std::nullopt;
    const auto found = object->find(key);
    if (found == object->end()) return std::nullopt;
    const auto* const text = found->second.as<std::string>();
    return text != nullptr ? *text : serialize(found->second);
}

namespace {

constexpr const char* kType = "vxtype";
constexpr const char* kData = "vxdata";
/// In the order of the alternatives of `TypedArray`.
constexpr std::array<std::string_view, 8> kTypeNames = {"int64",  "int32",  "int16",  "int8",
                                                        "uint64", "uint32", "uint16", "uint8"};
static_assert(kTypeNames.size() == std::variant_size_v<TypedArray>);

template <typename Number>
std::optional<TypedArray> numbers(const boost::json::array& data) {
    std::vector<Number> result;
    result.reserve(data.size());
    for (const auto& element : data) {
        boost::json::error_code error;
        result.push_back(element.to_number<Number>(error));
        if (error) return std::nullopt;
    }
    return TypedArray(std::move(result));
}

template <std::size_t... Index>
std::optional<TypedArray> numbersOfType(std::string_view type, const boost::json::array& data,
                                        std::index_sequence<Index...> /*all*/) {
    std::optional<TypedArray> result;
    const auto tryType = [&]<typename Vector>(std::string_view name, const Vector* /*type*/) {
        if (name == type) result = numbers<typename Vector::value_type>(data);
    };
    (tryType(kTypeNames[Index],
             static_cast<const std::variant_alternative_t<Index, TypedArray>*>(nullptr)),
     ...);
    return result;
}

std::optional<TypedArray> typedArray(const boost::json::object& object) {
    const auto* const type = object.if_contains(kType);
    const auto* const data = object.if_contains(kData);
    // With further members it is no typed array, which would lose them.
    if (object.size() != 2 || type == nullptr || data == nullptr) return std::nullopt;
    if (!type->is_string() || !data->is_array()) return std::nullopt;
    return numbersOfType(std::string_view(type->get_string()), data->get_array(),
                         std::make_index_sequence<kTypeNames.size()>());
}

Value fromBoost(const boost::json::value& value);

Value fromBoost(const boost::json::object& object) {
    if (auto typed = typedArray(object)) return {std::move(*typed)};
    Object result;
    for (const auto& [key, member] : object) result.emplace(key, fromBoost(member));
    return {std::move(result)};
}

Value fromBoost(const boost::json::array& array) {
    Array result;
    result.reserve(array.size());
    for (const auto& element : array) result.push_back(fromBoost(element));
    return {std::move(result)};
}

Value fromBoost(const boost::json::value& value) {
    switch (value.kind()) {
        case boost::json::kind::bool_:
            return {value.get_bool()};
        case boost::json::kind::int64:
            return {std::int64_t{value.get_int64()}};
        case boost::json::kind::uint64:
            return {std::uint64_t{value.get_uint64()}};
        case boost::json::kind::double_:
            return {value.get_double()};
        case boost::json::kind::string:
            return {std::string(value.get_string())};
        case boost::json::kind::array:
            return fromBoost(value.get_array());
        case boost::json::kind::object:
            return fromBoost(value.get_object());
        case boost::json::kind::null:
            break;
    }
    return {};
}

}  // namespace

/// Appends values to a text. Event records are written on the way of every flush, so the text is
/// made without a tree of Boost.JSON's values in between.
class Writer {
  public:
    Writer() { fText.reserve(256); }
    void write(const Value& value) {
        std::visit([this](const auto& data) { append(data); }, value.fData);
    }
    [[nodiscard]] std::string take() { return std::move(fText); }

  private:
    void append(std::nullptr_t /*null*/) { fText += "null"; }
    void append(bool truth) { fText += truth ? "true" : "false"; }
    void append(double number) { fText += boost::json::serialize(boost::json::value(number)); }
    template <typename Integer>
    requires std::is_integral_v<Integer>
    void append(Integer number) {
        char digits[24];
        fText.append(digits, std::to_chars(digits, std::end(digits), number).ptr);
    }
    void append(std::string_view text);
    void append(const std::shared_ptr<const std::string>& text) { append(std::string_view(*text)); }
    void append(const std::shared_ptr<const Array>& array) {
        list('[', *array, ']', [this](const Value& element) { write(element); });
    }
    void append(const std::shared_ptr<const Object>& object) {
        list('{', *object, '}', [this](const auto& member) {
            append(std::string_view(member.first));
            fText += ':';
            write(member.second);
        });
    }
    void append(const std::shared_ptr<const TypedArray>& typed) {
        fText.append("{\"").append(kData).append("\":");
        const auto appendNumber = [this](auto number) { append(number); };
        std::visit([&](const auto& all) { list('[', all, ']', appendNumber); }, *typed);
        fText.append(",\"").append(kType).append("\":");
        append(kTypeNames[typed->index()]);
        fText += '}';
    }

    template <typename Elements, typename AppendElement>
    void list(char begin, const Elements& elements, char end, const AppendElement& appendElement) {
        fText += begin;
        bool isFirst = true;
        for (const auto& element : elements) {
            if (!std::exchange(isFirst, false)) fText += ',';
            appendElement(element);
        }
        fText += end;
    }

    std::string fText;
};

namespace {

/// What follows the backslash: 0 for a character that stands for itself, 'u' for its number.
constexpr std::array<char, 256> escapes() {
    std::array<char, 256> result{};
    for (std::size_t code = 0; code < 0x20; ++code) result[code] = 'u';
    result['"'] = '"';
    result['\\'] = '\\';
    result['\b'] = 'b';
    result['\f'] = 'f';
    result['\n'] = 'n';
    result['\r'] = 'r';
    result['\t'] = 't';
    return result;
}

}  // namespace

void Writer::append(std::string_view text) {
    static constexpr auto kEscapes = escapes();
    constexpr std::string_view kHex = "0123456789abcdef";
    fText += '"';
    auto copied = text.begin();
    for (auto next = text.begin(); next != text.end(); ++next) {
        const auto code = static_cast<unsigned char>(*next);
        const char escape = kEscapes[code];
        if (escape == 0) continue;
        fText.append(copied, next) += {'\\', escape};
        copied = next + 1;
        if (escape == 'u') fText += {'0', '0', kHex[code >> 4U], kHex[code & 0xFU]};
    }
    fText.append(copied, text.end()) += '"';
}

std::optional<Value> parse(std::string_view text) {
    boost::json::error_code error;
    const auto value = boost::json::parse(text, error);
    if (error) return std::nullopt;
    return fromBoost(value);
}

std::string serialize(const Value& value) {
    Writer writer;
    writer.write(value);
    return writer.take();
}

}  // namespace bedrock::json
