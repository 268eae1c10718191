#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "kirohost/Export.hpp"

namespace bedrock::json {

class Value;

/// Keys in ascending order of their bytes.
using Object = std::map<std::string, Value>;
using Array = std::vector<Value>;
/// What {"vxdata": [...], "vxtype": "int32"} becomes: an array of one integer type.
using TypedArray =
    std::variant<std::vector<std::int64_t>, std::vector<std::int32_t>, std::vector<std::int16_t>,
                 std::vector<std::int8_t>, std::vector<std::uint64_t>, std::vector<std::uint32_t>,
                 std::vector<std::uint16_t>, std::vector<std::uint8_t>>;

/// An immutable JSON value. Copies are cheap and never throw: they share texts, arrays and objects.
class KIROHOST_EXPORT Value {
  public:
    Value() noexcept = default;  ///< null
    Value(bool value) noexcept : fData(value) {}
    Value(int value) noexcept : fData(std::int64_t{value}) {}
    Value(std::int64_t value) noexcept : fData(value) {}
    Value(std::uint64_t value) noexcept : fData(value) {}
    Value(double value) noexcept : fData(value) {}
    Value(const char* text) : Value(std::string(text)) {}
    Value(std::string text) : fData(std::make_shared<const std::string>(std::move(text))) {}
    Value(Array array);
    Value(Object object);
    Value(TypedArray array);

    /// The value as `T` (one of the types above), or null when it is of another kind.
    template <typename T>
    [[nodiscard]] const T* as() const noexcept {
        if constexpr (std::is_same_v<T, std::string> || std::is_same_v<T, Array> ||
                      std::is_same_v<T, Object> || std::is_same_v<T, TypedArray>) {
            const auto* shared = std::get_if<std::shared_ptr<const T>>(&fData);
            return shared != nullptr ? shared->get() : nullptr;
        } else {
            return std::get_if<T>(&fData);
        }
    }

    /// The member `key` as text: a JSON string's characters, any other kind as its JSON text.
    /// Empty when this is no object or has no such member.
    [[nodiscard]] std::optional<std::string> textOf(const std::string& key) const;

  private:
    friend class Writer;
    // Text is shared too: a variant with an alternative whose copy may throw cannot be copied
    // safely with every standard library.
    std::variant<std::nullptr_t, bool, std::int64_t, std::uint64_t, double,
                 std::shared_ptr<const std::string>, std::shared_ptr<const Array>,
                 std::shared_ptr<const Object>, std::shared_ptr<const TypedArray>>
        fData;
};

/// Parses JSON text (nesting depth at most 32). An object whose only members are "vxtype"
/// (one of int64, int32, int16, int8, uint64, uint32, uint16, uint8) and "vxdata" (an array of
/// numbers that all fit) becomes a typed array; any other stays an object. Text that is no
/// JSON gives nothing. Throws for lack of memory only. Any thread.
KIROHOST_EXPORT std::optional<Value> parse(std::string_view text);

/// The value as compact JSON text, keys ascending; typed arrays in the form they are parsed from.
KIROHOST_EXPORT std::string serialize(const Value& value);

}  // namespace bedrock::json
