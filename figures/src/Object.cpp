#include "kirofigures/Object.hpp"

#include <array>
#include <boost/json/array.hpp>
#include <boost/json/string.hpp>
#include <cmath>

#include "Node.hpp"
#include "Text.hpp"
#include "kirofigures/Color.hpp"
#include "text/Escape.hpp"

namespace kirofigures {

namespace json = boost::json;

namespace {

const char* wrongNumber(double value, bool mayBeNegative, bool mayBeZero, double most) {
    if (!std::isfinite(value)) return " has to be a number";
    if (!mayBeNegative && value < 0) return mayBeZero ? " is below 0" : " has to be above 0";
    if (!mayBeZero && value == 0) return " has to be above 0";
    return value > most ? " is above 1" : nullptr;
}

}  // namespace

Object::~Object() = default;

void Object::remove() { fNode.remove(); }

std::uint64_t Object::id() const noexcept { return fNode.id(); }

void Object::refuse(const std::string& what) const { fNode.refuse(what); }

void Object::putText(const char* key, std::string_view text) {
    if (!detail::isUTF8(text)) refuse(std::string(key) + " is not UTF-8");
    fNode.put(key, json::string(text));
}

void Object::putWord(const char* key, std::string_view word) { fNode.put(key, json::string(word)); }

void Object::putFlag(const char* key, bool value) { fNode.put(key, value); }

void Object::putNumber(const char* key, double value, Bound bound) {
    const double most = bound == Bound::kFraction ? 1 : HUGE_VAL;
    const char* const wrong =
        wrongNumber(value, bound == Bound::kNone, bound != Bound::kPositive, most);
    if (wrong != nullptr) refuse(key + std::string(wrong));
    fNode.put(key, value);
}

void Object::putPlace(const char* key, double x, double y) {
    if (!std::isfinite(x) || !std::isfinite(y)) refuse(key + std::string(" has to be numbers"));
    fNode.put(key, json::array{x, y});
}

void Object::putLimits(const char* key, double low, double high) {
    if (!std::isfinite(low) || !std::isfinite(high)) {
        refuse(key + std::string(" has to be numbers"));
    }
    if (low >= high) refuse(key + std::string(": the lower one is not below the upper one"));
    fNode.put(key, json::array{low, high});
}

void Object::putColor(const Color& color) {
    if (!color.isValid()) {
        refuse("color \"" + text::escaped(color.text()) +
               R"(" is none; "#1f77b4" is one, "#1f77b480" half of it)");
    }
    fNode.put("color", json::string(color.text()));
}

void Object::putColorMap(ColorMap map) {
    static constexpr std::array<const char*, 4> kNames{"viridis", "cividis", "gray", "turbo"};
    putWord("colorMap", kNames.at(static_cast<std::size_t>(map)));
}

void Object::putNothing(const char* key) { fNode.put(key, nullptr); }

}  // namespace kirofigures
