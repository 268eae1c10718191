#pragma once

#include <concepts>
#include <memory>
#include <string>
#include <vector>

#include "kiro/Export.hpp"

namespace ui_objects {
class Cookie;
}

namespace kiro::web {

namespace binary {
class DataID;
}

/// The types that a field can be read as.
template <typename T>
concept ReadableValue =
    std::same_as<T, long> || std::same_as<T, int> || std::same_as<T, unsigned long> ||
    std::same_as<T, bool> || std::same_as<T, double> || std::same_as<T, float> ||
    std::same_as<T, std::string> || std::same_as<T, std::vector<std::string>> ||
    std::same_as<T, ui_objects::Cookie> || std::same_as<T, binary::DataID>;

/// A read-only view of a JSON message from the client.
///
/// A malformed message makes an invalid object, a field of the wrong kind a false answer: nothing
/// here throws on data (lack of memory does). Immutable, so its operations may run on several
/// threads at once; copies share the parsed object.
class KIROWEB_EXPORT JSONObject {
  public:
    class KIROWEB_HIDDEN Impl;

    /// Parses with Boost.JSON's default options (nesting depth at most 32). Anything but one JSON
    /// object makes this invalid.
    explicit JSONObject(const std::string& utf8Text);
    /// As above, after conversion to UTF-8.
    explicit JSONObject(const std::u16string& utf16Text);
    explicit JSONObject(std::unique_ptr<Impl> impl);
    JSONObject(const JSONObject& other);
    JSONObject& operator=(const JSONObject&) = delete;
    ~JSONObject();

    [[nodiscard]] bool isValid() const;

    /// Reads the field `key` into `out` and answers whether it could. Otherwise `out` is left
    /// alone.
    ///
    /// | into | from |
    /// |---|---|
    /// | `long`, `int`, `unsigned long` | a number that is whole and in range |
    /// | `bool` | a boolean; a number, which is true unless it is zero |
    /// | `double`, `float` | a number; "NaN", "Infinity", "Inf", "-Infinity", "-Inf" |
    /// | `std::string` | a string's text; anything else as its JSON text |
    /// | `std::vector<std::string>` | an array of strings only |
    /// | `Cookie` | a signed integer, or a string that holds one |
    /// | `DataID` | the text, read by `DataID::construct_from_string`, if that answers true |
    template <ReadableValue T>
    [[nodiscard]] bool getValue(const std::string& key, T& out) const;

    /// The keys in the object's order; none when this is invalid.
    [[nodiscard]] std::vector<std::string> getNames() const;

    /// The nested object under `key`, as a copy of its own; invalid when there is none.
    [[nodiscard]] JSONObject getObject(const std::string& key) const;

  private:
    std::unique_ptr<Impl> fImpl;
};

}  // namespace kiro::web
