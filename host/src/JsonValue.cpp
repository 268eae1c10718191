#include <array>
#include <boost/json/monotonic_resource.hpp>
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <boost/json/value.hpp>
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

/// Turns values into Boost.JSON's, in place, whose objects keep the order in which members are put
/// in. Memory comes from the resource of the outermost value.
class Writer {
  public:
    static void write(const Value& from, boost::json::value& to) {
        std::visit([&to](const auto& data) { put(data, to); }, from.fData);
    }

  private:
    template <typename Scalar>
    static void put(const Scalar& scalar, boost::json::value& to) {
        to = scalar;
    }
    static void put(const std::shared_ptr<const std::string>& text, boost::json::value& to) {
        to.emplace_string() = *text;
    }
    static void put(const std::shared_ptr<const Array>& array, boost::json::value& to) {
        auto& result = to.emplace_array();
        result.reserve(array->size());
        for (const auto& element : *array) write(element, result.emplace_back(nullptr));
    }
    static void put(const std::shared_ptr<const Object>& object, boost::json::value& to) {
        auto& result = to.emplace_object();
        result.reserve(object->size());
        for (const auto& [key, member] : *object) {
            write(member, result.emplace(key, nullptr).first->value());
        }
    }
    static void put(const std::shared_ptr<const TypedArray>& typed, boost::json::value& to) {
        auto& result = to.emplace_object();
        auto& data = result.emplace(kData, boost::json::array_kind).first->value().get_array();
        std::visit(
            [&data](const auto& all) {
                data.reserve(all.size());
                for (const auto number : all) data.emplace_back(number);
            },
            *typed);
        result.emplace(kType, kTypeNames[typed->index()]);
    }
};

std::optional<Value> parse(std::string_view text) {
    boost::json::error_code error;
    const auto value = boost::json::parse(text, error);
    if (error) return std::nullopt;
    return fromBoost(value);
}

std::string serialize(const Value& value) {
    constexpr std::size_t kUsualSize = 1024;
    std::array<unsigned char, kUsualSize> buffer{};
    // Gone as a whole when the text is there: an ordinary record costs no allocation but its text.
    boost::json::monotonic_resource memory(buffer.data(), buffer.size());
    boost::json::value result(&memory);
    Writer::write(value, result);
    return boost::json::serialize(result);
}

}  // namespace bedrock::json
