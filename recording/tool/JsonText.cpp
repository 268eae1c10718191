#include "JsonText.hpp"

#include <boost/json/parse.hpp>
#include <charconv>
#include <cstdint>
#include <limits>

namespace recording_tool {

namespace {

/// A recording's largest arrays are the commands of a snapshot: some for each object.
constexpr std::size_t kMostElements = 2'000'000;
constexpr std::string_view kSpace = " \t\r\n";

std::string_view trimmed(std::string_view text) {
    const auto begin = text.find_first_not_of(kSpace);
    if (begin == std::string_view::npos) return {};
    return text.substr(begin, text.find_last_not_of(kSpace) - begin + 1);
}

/// Where the text ends that begins at `at`: behind its second quotation mark.
std::size_t endOfText(std::string_view text, std::size_t at) {
    for (++at; at < text.size(); ++at) {
        if (text[at] == '\\') {
            ++at;
        } else if (text[at] == '"') {
            return at + 1;
        }
    }
    throw WrongText{"a text without an end"};
}

/// Where the value that begins at `at` ends: before the next of `ends` outside of all brackets.
std::size_t endOfValue(std::string_view text, std::size_t at, char end) {
    std::size_t depth = 0;
    while (at < text.size()) {
        const char one = text[at];
        if (one == '"') {
            at = endOfText(text, at);
            continue;
        }
        if (depth == 0 && one == end) break;
        if (one == '{' || one == '[') ++depth;
        if (one == '}' || one == ']') {
            if (depth == 0) throw WrongText{"a bracket that nothing opens"};
            --depth;
        }
        ++at;
    }
    if (depth > 0) throw WrongText{"a bracket without an end"};
    return at;
}

/// What stands between these brackets.
std::string_view within(std::string_view text, char open, char close) {
    text = trimmed(text);
    if (text.size() < 2 || text.front() != open || text.back() != close) {
        throw WrongText{open == '{' ? "no object" : "no array"};
    }
    return trimmed(text.substr(1, text.size() - 2));
}

template <typename Number>
std::optional<Number> parsed(std::string_view value) {
    Number number{};
    const auto* end = value.data() + value.size();
    const auto [stop, error] = std::from_chars(value.data(), end, number);
    if (error != std::errc() || stop != end) return std::nullopt;
    return number;
}

}  // namespace

std::vector<std::string_view> elementsOf(std::string_view array) {
    const auto text = within(array, '[', ']');
    std::vector<std::string_view> elements;
    for (std::size_t at = 0; at < text.size();) {
        const auto end = endOfValue(text, at, ',');
        elements.push_back(trimmed(text.substr(at, end - at)));
        if (elements.back().empty()) throw WrongText{"an element is missing"};
        if (elements.size() > kMostElements) throw WrongText{"too many elements"};
        at = end + 1;
    }
    return elements;
}

Members membersOf(std::string_view object) {
    const auto text = within(object, '{', '}');
    Members members;
    for (std::size_t at = 0; at < text.size();) {
        const auto colon = endOfValue(text, at, ':');
        if (colon == text.size()) throw WrongText{"a member without a value"};
        const auto end = endOfValue(text, colon + 1, ',');
        members.insert_or_assign(textOf(trimmed(text.substr(at, colon - at))),
                                 trimmed(text.substr(colon + 1, end - colon - 1)));
        at = end + 1;
    }
    return members;
}

std::string textOf(std::string_view value) {
    boost::json::error_code error;
    const auto parsedValue = boost::json::parse(value, error);
    if (error || !parsedValue.is_string()) throw WrongText{"what is to be a text is none"};
    return std::string(parsedValue.get_string());
}

double numberOf(std::string_view value) {
    using Limits = std::numeric_limits<double>;
    if (value == "NaN") return Limits::quiet_NaN();
    if (value == "Infinity") return Limits::infinity();
    if (value == "-Infinity") return -Limits::infinity();
    if (const auto number = parsed<double>(value)) return *number;
    throw WrongText{"what is to be a number is none"};
}

std::uint64_t countOf(std::string_view value) {
    if (const auto number = parsed<std::uint64_t>(value)) return *number;
    throw WrongText{"what is to be a count is none"};
}

std::optional<std::string_view> find(const Members& members, std::string_view name) {
    const auto found = members.find(name);
    if (found == members.end() || found->second == "null") return std::nullopt;
    return found->second;
}

std::string_view demand(const Members& members, std::string_view name) {
    if (const auto value = find(members, name)) return *value;
    throw WrongText{"a member is missing"};
}

}  // namespace recording_tool
