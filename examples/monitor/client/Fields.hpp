#pragma once

#include <boost/json/object.hpp>
#include <boost/json/value.hpp>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace monitor::client {

/// A command lacks a field or has one of the wrong kind.
class FieldError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// The value of `key`. This and the next throw `FieldError`.
inline const boost::json::value& field(const boost::json::object& object, std::string_view key) {
    const boost::json::value* value = object.if_contains(key);
    if (value == nullptr) throw FieldError("no field \"" + std::string(key) + '"');
    return *value;
}

inline std::string text(const boost::json::object& object, std::string_view key) {
    const auto* value = field(object, key).if_string();
    if (value == nullptr) throw FieldError('"' + std::string(key) + "\" is no text");
    return {value->data(), value->size()};
}

inline bool boolean(const boost::json::object& object, std::string_view key) {
    const bool* value = field(object, key).if_bool();
    if (value == nullptr) throw FieldError('"' + std::string(key) + "\" is no boolean");
    return *value;
}

/// A whole number that is not negative.
inline std::uint64_t count(const boost::json::object& object, std::string_view key) {
    const boost::json::value& value = field(object, key);
    if (const auto* number = value.if_uint64()) return *number;
    const auto* number = value.if_int64();
    if (number == nullptr || *number < 0) {
        throw FieldError('"' + std::string(key) + "\" is no count");
    }
    return static_cast<std::uint64_t>(*number);
}

inline std::vector<double> numbers(const boost::json::object& object, std::string_view key) {
    const auto* array = field(object, key).if_array();
    if (array == nullptr) throw FieldError('"' + std::string(key) + "\" is no array");
    std::vector<double> result;
    for (const boost::json::value& value : *array) {
        if (!value.is_number()) throw FieldError('"' + std::string(key) + "\" holds no number");
        result.push_back(value.to_number<double>());
    }
    return result;
}

}  // namespace monitor::client
