#pragma once

#include <concepts>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "kiro/Export.hpp"
#include "kiro/web/PayloadInterface.hpp"
#include "ui_objects/FontTypes.hpp"

namespace ui_objects {
class Cookie;
class UTF16String;
}  // namespace ui_objects

namespace kiro::web {

namespace binary {
class BinaryDataPayload;
class DataID;
}  // namespace binary
class JSONPayload;

/// The types that have an encoding in a payload.
template <typename T>
concept PayloadValue = std::same_as<T, bool> || std::same_as<T, int> || std::same_as<T, long> ||
    std::same_as<T, unsigned long> || std::same_as<T, double> || std::same_as<T, float> ||
    std::same_as<T, std::string> || std::same_as<T, ui_objects::UTF16String> ||
    std::same_as<T, ui_objects::Cookie> || std::same_as<T, std::vector<ui_objects::Cookie>> ||
    std::same_as<T, binary::DataID> || std::same_as<T, FontWeightType> ||
    std::same_as<T, FontAngleType> || std::same_as<T, JSONPayload> ||
    std::same_as<T, std::vector<std::string>> ||
    std::same_as<T, std::vector<std::vector<std::string>>> ||
    std::same_as<T, std::vector<unsigned char>> || std::same_as<T, std::vector<unsigned int>> ||
    std::same_as<T, std::vector<unsigned long>> || std::same_as<T, std::vector<double>> ||
    std::same_as<T, std::vector<float>>;

/// A JSON object built field by field. It only grows: a field is never removed or replaced.
///
/// Movable, not copyable; a moved-from payload may only be destroyed.
class KIROWEB_EXPORT JSONPayload : public PayloadInterface {
  public:
    /// An empty object.
    JSONPayload();

    /// The object that `json` holds, its members in their order.
    ///
    /// Parsed with Boost.JSON's default options: nesting depth at most 32, no comments, no
    /// trailing commas, invalid UTF-8 rejected.
    /// Throws `boost::system::system_error` when the text is no JSON, `std::invalid_argument`
    /// ("not an object") when its top-level value is no object.
    explicit JSONPayload(const std::string& json);

    JSONPayload(JSONPayload&& other) noexcept;
    JSONPayload(const JSONPayload&) = delete;
    JSONPayload& operator=(const JSONPayload&) = delete;
    JSONPayload& operator=(JSONPayload&&) = delete;
    ~JSONPayload() override;

    /// Appends the field `key`. The first value given for a key is kept: when the key is there
    /// already, nothing happens, whatever the type. On an exception the payload is unchanged; a
    /// key longer than Boost.JSON allows throws its length error, a 501st level of payloads
    /// within each other `std::length_error` (one made from a text counts as 32).
    ///
    /// | type | written as |
    /// |---|---|
    /// | `bool` | `true`, `false` |
    /// | `int`, `long`, `unsigned long` | an integer |
    /// | `double`, `float` (widened) | a number; NaN and infinities as Boost.JSON writes them |
    /// | `std::string` | a string, the bytes unchanged (taken to be UTF-8) |
    /// | `UTF16String` | a string, converted to UTF-8 |
    /// | `Cookie` | a *string* of the decimal value: a page's numbers hold 53 bits only |
    /// | `DataID` | a string, see `DataID::convert_to_string` |
    /// | `FontWeightType` | "light", "normal", "demi", "bold"; another value adds no field |
    /// | `FontAngleType` | "normal", "italic", "oblique"; another value adds no field |
    /// | `JSONPayload` | an object: a deep copy taken now |
    /// | vectors | an array of the elements' encodings; bytes as numbers, `float` widened |
    template <PayloadValue T>
    void addDataToPayload(const std::string& key, const T& value);

    /// As above, with the zero-terminated text `value`. REQUIRES: `value` is not null.
    void addDataToPayload(const std::string& key, const char* value);

    /// True when there is no field.
    [[nodiscard]] bool isEmpty() const;
    [[nodiscard]] std::size_t getNumFields() const;
    /// True when a field with exactly this key is there.
    [[nodiscard]] bool isFieldInPayload(const std::string& key) const;
    /// True when the field is there and holds a JSON string.
    [[nodiscard]] bool isString(const std::string& key) const;

    /// The object as compact JSON text, fields in the order of their addition.
    [[nodiscard]] std::string convertToString() const override;

  private:
    friend class binary::BinaryDataPayload;

    /// Appends the fields of `other`, in their order, as `addDataToPayload` does; all of them, or
    /// none when it throws.
    KIROWEB_HIDDEN void takeFields(JSONPayload&& other);

    struct KIROWEB_HIDDEN Impl;
    std::unique_ptr<Impl> fImpl;
};

}  // namespace kiro::web
