#include "kiro/web/JSONObject.hpp"

#include <boost/json.hpp>
#include <limits>
#include <optional>
#include <string_view>
#include <type_traits>
#include <utility>

#include "UTF8.hpp"
#include "kiro/web/binary/DataID.hpp"
#include "ui_objects/Cookie.hpp"

namespace kiro::web {

class JSONObject::Impl {
  public:
    explicit Impl(boost::json::value&& value) {
        if (auto* object = value.if_object()) {
            fObject = std::make_shared<const boost::json::object>(std::move(*object));
        }
    }

    [[nodiscard]] bool isValid() const { return fObject != nullptr; }

    /// The field, null when this is invalid or has none.
    [[nodiscard]] const boost::json::value* find(std::string_view key) const {
        return isValid() ? fObject->if_contains(key) : nullptr;
    }

    /// Empty when the text was no JSON object.
    std::shared_ptr<const boost::json::object> fObject;
};

namespace {

/// No value at all becomes JSON's null, which makes an invalid object like any other non-object.
boost::json::value parseQuietly(std::string_view text) {
    try {
        return boost::json::parse(text);
    } catch (const boost::system::system_error&) {
        return nullptr;
    }
}

/// A whole number in the range of `Integer`; Boost.JSON takes doubles as well, when they are exact.
template <typename Integer>
std::optional<Integer> toInteger(const boost::json::value& value) {
    boost::system::error_code error;
    const auto number = value.to_number<Integer>(error);
    if (error) return std::nullopt;
    return number;
}

std::optional<double> toDouble(const boost::json::value& value) {
    if (const auto* text = value.if_string()) {
        constexpr double kInfinity = std::numeric_limits<double>::infinity();
        if (*text == "NaN") return std::numeric_limits<double>::quiet_NaN();
        if (*text == "Infinity" || *text == "Inf") return kInfinity;
        if (*text == "-Infinity" || *text == "-Inf") return -kInfinity;
        return std::nullopt;
    }
    boost::system::error_code error;
    const auto number = value.to_number<double>(error);
    if (error) return std::nullopt;
    return number;
}

std::optional<bool> toBool(const boost::json::value& value) {
    if (const auto* truth = value.if_bool()) return *truth;
    if (const auto* number = value.if_int64()) return *number != 0;
    if (const auto* number = value.if_uint64()) return *number != 0;
    if (const auto* number = value.if_double()) return *number != 0.0;
    return std::nullopt;
}

std::string toText(const boost::json::value& value) {
    if (const auto* text = value.if_string()) return {text->data(), text->size()};
    return boost::json::serialize(value);
}

std::optional<ui_objects::Cookie> toCookie(const boost::json::value& value) {
    if (const auto* number = value.if_int64()) return ui_objects::Cookie(*number);
    const auto* text = value.if_string();
    if (text == nullptr) return std::nullopt;
    const auto parsed = parseQuietly(*text);
    if (const auto* number = parsed.if_int64()) return ui_objects::Cookie(*number);
    return std::nullopt;
}

/// Of an array that holds nothing but strings.
std::optional<std::vector<std::string>> toTexts(const boost::json::value& value) {
    const auto* array = value.if_array();
    if (array == nullptr) return std::nullopt;
    std::vector<std::string> texts;
    texts.reserve(array->size());
    for (const auto& element : *array) {
        const auto* text = element.if_string();
        if (text == nullptr) return std::nullopt;
        texts.emplace_back(text->data(), text->size());
    }
    return texts;
}

template <typename T, typename Source>
bool store(std::optional<Source>&& value, T& out) {
    if (!value) return false;
    out = static_cast<T>(*std::move(value));
    return true;
}

}  // namespace

JSONObject::JSONObject(const std::string& utf8Text)
    : fImpl(std::make_unique<Impl>(parseQuietly(utf8Text))) {}

JSONObject::JSONObject(const std::u16string& utf16Text) : JSONObject(toUTF8(utf16Text)) {}

JSONObject::JSONObject(std::unique_ptr<Impl> impl) : fImpl(std::move(impl)) {}

JSONObject::JSONObject(const JSONObject& other) : fImpl(std::make_unique<Impl>(*other.fImpl)) {}

JSONObject::~JSONObject() = default;

bool JSONObject::isValid() const { return fImpl->isValid(); }

template <ReadableValue T>
bool JSONObject::getValue(const std::string& key, T& out) const {
    const auto* value = fImpl->find(key);
    if (value == nullptr) return false;
    if constexpr (std::is_same_v<T, bool>) {
        return store(toBool(*value), out);
    } else if constexpr (std::is_integral_v<T>) {
        return store(toInteger<T>(*value), out);
    } else if constexpr (std::is_floating_point_v<T>) {
        return store(toDouble(*value), out);
    } else if constexpr (std::is_same_v<T, std::string>) {
        out = toText(*value);
        return true;
    } else if constexpr (std::is_same_v<T, std::vector<std::string>>) {
        return store(toTexts(*value), out);
    } else if constexpr (std::is_same_v<T, ui_objects::Cookie>) {
        return store(toCookie(*value), out);
    } else {
        binary::DataID id;
        if (!binary::DataID::construct_from_string(toText(*value), id)) return false;
        out = id;
        return true;
    }
}

std::vector<std::string> JSONObject::getNames() const {
    std::vector<std::string> names;
    if (!isValid()) return names;
    names.reserve(fImpl->fObject->size());
    for (const auto& field : *fImpl->fObject) names.emplace_back(field.key());
    return names;
}

JSONObject JSONObject::getObject(const std::string& key) const {
    const auto* value = fImpl->find(key);
    const bool isObject = value != nullptr && value->is_object();
    return JSONObject(
        std::make_unique<Impl>(isObject ? boost::json::value(*value) : boost::json::value()));
}

#define KIROWEB_READS(...) \
    template KIROWEB_EXPORT bool JSONObject::getValue(const std::string&, __VA_ARGS__&) const
KIROWEB_READS(long);
KIROWEB_READS(int);
KIROWEB_READS(unsigned long);
KIROWEB_READS(bool);
KIROWEB_READS(double);
KIROWEB_READS(float);
KIROWEB_READS(std::string);
KIROWEB_READS(std::vector<std::string>);
KIROWEB_READS(ui_objects::Cookie);
KIROWEB_READS(binary::DataID);
#undef KIROWEB_READS

}  // namespace kiro::web
