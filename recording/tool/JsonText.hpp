#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace recording_tool {

/// A JSON text that cannot be taken apart.
struct WrongText {
    const char* what;
};

/// The parts of a JSON text as they stand in it: numbers in all their digits, and the bare words
/// NaN and Infinity, which an engine writes. What throws throws WrongText.

/// An object's members: what stands behind each name.
using Members = std::map<std::string, std::string_view, std::less<>>;
[[nodiscard]] Members membersOf(std::string_view object);

/// An array's elements.
[[nodiscard]] std::vector<std::string_view> elementsOf(std::string_view array);

/// A text without its quotation marks and escapes.
[[nodiscard]] std::string textOf(std::string_view value);
/// A number, which may be NaN or an infinity.
[[nodiscard]] double numberOf(std::string_view value);
/// A number from 0 on without fraction.
[[nodiscard]] std::uint64_t countOf(std::string_view value);

/// The member of that name; nothing when there is none, or null.
[[nodiscard]] std::optional<std::string_view> find(const Members& members, std::string_view name);
/// Throws WrongText when there is none.
[[nodiscard]] std::string_view demand(const Members& members, std::string_view name);

}  // namespace recording_tool
