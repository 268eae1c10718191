#include "kiro/web/JSONPayload.hpp"

#include <algorithm>
#include <array>
#include <boost/json.hpp>
#include <charconv>
#include <cstdint>
#include <iterator>
#include <stdexcept>
#include <string_view>
#include <type_traits>
#include <utility>

#include "UTF8.hpp"
#include "checked/Require.hpp"
#include "kiro/web/binary/DataID.hpp"
#include "ui_objects/Cookie.hpp"
#include "ui_objects/FontTypes.hpp"
#include "ui_objects/UTF16String.hpp"

namespace kiro::web {

namespace {

/// Copies and destruction of an object go into it level by level, on the stack.
constexpr unsigned kMostLevels = 500;
/// Of a text, at most: Boost.JSON's own bound.
constexpr unsigned kLevelsOfText = 32;
/// Fields for which there is room at first, and then; with more of them it grows by half.
constexpr std::size_t kFirstRoom = 4;
constexpr std::size_t kSecondRoom = 9;

}  // namespace

struct JSONPayload::Impl {
    boost::json::object fObject;
    unsigned fLevels = 1;  ///< of objects within each other, at most
};

namespace {

/// Enough for any signed 64-bit value with its sign.
using CookieText = std::array<char, 24>;

std::string_view formatCookie(ui_objects::Cookie cookie, CookieText& buffer) {
    const auto end = std::to_chars(buffer.data(), buffer.data() + buffer.size(), cookie.value());
    return {buffer.data(), static_cast<std::size_t>(end.ptr - buffer.data())};
}

template <std::size_t Count>
std::string_view nameOf(int value, const std::array<std::string_view, Count>& names) {
    const auto index = static_cast<std::size_t>(value);
    return value >= 0 && index < Count ? names[index] : std::string_view();
}

constexpr std::array<std::string_view, 4> kFontWeights = {"light", "normal", "demi", "bold"};
constexpr std::array<std::string_view, 3> kFontAngles = {"normal", "italic", "oblique"};

boost::json::value encodeElement(const std::string& text) { return boost::json::value(text); }

boost::json::value encodeElement(ui_objects::Cookie cookie) {
    CookieText buffer;
    return boost::json::value(formatCookie(cookie, buffer));
}

template <typename Number>
requires std::is_arithmetic_v<Number> boost::json::value encodeElement(Number number) {
    if constexpr (std::is_floating_point_v<Number>) {
        return static_cast<double>(number);
    } else {
        return static_cast<std::uint64_t>(number);
    }
}

template <typename Element>
boost::json::value encodeElement(const std::vector<Element>& elements) {
    boost::json::array array;
    array.reserve(elements.size());
    for (const auto& element : elements) array.emplace_back(encodeElement(element));
    return array;
}

/// An object that begins with room for one field moves all of them with nearly each that comes.
void makeRoom(boost::json::object& object) {
    if (object.size() < kSecondRoom) object.reserve(object.empty() ? kFirstRoom : kSecondRoom);
}

/// Appends one field. `emplace` looks the key up once, and leaves a field that is there alone: the
/// first value of a key stays.
template <typename Value>
void append(boost::json::object& object, std::string_view key, Value&& value) {
    if (object.size() == object.capacity()) makeRoom(object);
    object.emplace(key, std::forward<Value>(value));
}

/// An empty name stands for an enumeration value outside its table: no field.
void appendName(boost::json::object& object, std::string_view key, std::string_view name) {
    if (!name.empty()) append(object, key, name);
}

}  // namespace

JSONPayload::JSONPayload() : fImpl(std::make_unique<Impl>()) {}

JSONPayload::JSONPayload(const std::string& json) : fImpl(std::make_unique<Impl>()) {
    auto value = boost::json::parse(json);
    auto* object = value.if_object();
    if (object == nullptr) throw std::invalid_argument("not an object");
    fImpl->fObject = std::move(*object);
    fImpl->fLevels = kLevelsOfText;
}

JSONPayload::JSONPayload(JSONPayload&& other) noexcept = default;
JSONPayload::~JSONPayload() = default;

template <PayloadValue T>
void JSONPayload::addDataToPayload(const std::string& key, const T& value) {
    auto& object = fImpl->fObject;
    if constexpr (std::is_same_v<T, bool> || std::is_same_v<T, double>) {
        append(object, key, value);
    } else if constexpr (std::is_same_v<T, float>) {
        append(object, key, static_cast<double>(value));
    } else if constexpr (std::is_same_v<T, unsigned long>) {
        append(object, key, std::uint64_t{value});
    } else if constexpr (std::is_integral_v<T>) {
        append(object, key, std::int64_t{value});
    } else if constexpr (std::is_same_v<T, std::string>) {
        append(object, key, std::string_view(value));
    } else if constexpr (std::is_same_v<T, ui_objects::UTF16String>) {
        append(object, key, std::string_view(toUTF8({value.data(), value.length()})));
    } else if constexpr (std::is_same_v<T, ui_objects::Cookie>) {
        CookieText buffer;
        append(object, key, formatCookie(value, buffer));
    } else if constexpr (std::is_same_v<T, binary::DataID>) {
        append(object, key, std::string_view(value.convert_to_string()));
    } else if constexpr (std::is_same_v<T, FontWeightType>) {
        appendName(object, key, nameOf(value, kFontWeights));
    } else if constexpr (std::is_same_v<T, FontAngleType>) {
        appendName(object, key, nameOf(value, kFontAngles));
    } else if constexpr (std::is_same_v<T, JSONPayload>) {
        if (object.contains(key)) return;
        const auto levels = value.fImpl->fLevels + 1;
        if (levels > kMostLevels) throw std::length_error("payloads nested too deep");
        append(object, key, std::as_const(value.fImpl->fObject));
        fImpl->fLevels = std::max(fImpl->fLevels, levels);
    } else {
        append(object, key, encodeElement(value));
    }
}

void JSONPayload::addDataToPayload(const std::string& key, const char* value) {
    KIROWEB_REQUIRE(value != nullptr);
    append(fImpl->fObject, key, std::string_view(value));
}

void JSONPayload::takeFields(JSONPayload&& other) {
    auto& object = fImpl->fObject;
    const auto before = object.size();
    try {
        for (auto& field : other.fImpl->fObject) {
            append(object, field.key(), std::move(field.value()));
        }
    } catch (...) {
        while (object.size() > before) object.erase(std::prev(object.end()));
        throw;
    }
    fImpl->fLevels = std::max(fImpl->fLevels, other.fImpl->fLevels);
}

bool JSONPayload::isEmpty() const { return fImpl->fObject.empty(); }

std::size_t JSONPayload::getNumFields() const { return fImpl->fObject.size(); }

bool JSONPayload::isFieldInPayload(const std::string& key) const {
    return fImpl->fObject.contains(key);
}

bool JSONPayload::isString(const std::string& key) const {
    const auto* value = fImpl->fObject.if_contains(key);
    return value != nullptr && value->is_string();
}

std::string JSONPayload::convertToString() const { return boost::json::serialize(fImpl->fObject); }

#define KIROWEB_ENCODES(...)                                                       \
    template KIROWEB_EXPORT void JSONPayload::addDataToPayload(const std::string&, \
                                                               const __VA_ARGS__&)
KIROWEB_ENCODES(bool);
KIROWEB_ENCODES(int);
KIROWEB_ENCODES(long);
KIROWEB_ENCODES(unsigned long);
KIROWEB_ENCODES(double);
KIROWEB_ENCODES(float);
KIROWEB_ENCODES(std::string);
KIROWEB_ENCODES(ui_objects::UTF16String);
KIROWEB_ENCODES(ui_objects::Cookie);
KIROWEB_ENCODES(std::vector<ui_objects::Cookie>);
KIROWEB_ENCODES(binary::DataID);
KIROWEB_ENCODES(FontWeightType);
KIROWEB_ENCODES(FontAngleType);
KIROWEB_ENCODES(JSONPayload);
KIROWEB_ENCODES(std::vector<std::string>);
KIROWEB_ENCODES(std::vector<std::vector<std::string>>);
KIROWEB_ENCODES(std::vector<unsigned char>);
KIROWEB_ENCODES(std::vector<unsigned int>);
KIROWEB_ENCODES(std::vector<unsigned long>);
KIROWEB_ENCODES(std::vector<double>);
KIROWEB_ENCODES(std::vector<float>);
#undef KIROWEB_ENCODES

}  // namespace kiro::web
