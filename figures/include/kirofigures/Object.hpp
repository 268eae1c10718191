#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>

namespace kirofigures {

class Color;
enum class ColorMap;
namespace detail {
class Node;
}

/// Anything that is shown. An object belongs to what made it: a reference to it is good until it or
/// what it is in is removed, or its window goes.
///
/// All operations on the engine's thread. What they change travels with the next draw. What cannot
/// be meant (a text that is not UTF-8, a colour that is none, limits that are not numbers) throws
/// std::invalid_argument, whose text names figure, axes and series; nothing has changed then.
class Object {
  public:
    virtual ~Object();
    Object(const Object&) = delete;
    Object& operator=(const Object&) = delete;

    /// Takes this away with everything in it. This is destroyed by it.
    void remove();

    /// The number that the page knows this by.
    [[nodiscard]] std::uint64_t id() const noexcept;

  protected:
    enum class Bound { kNone, kNotNegative, kPositive, kFraction };

    explicit Object(detail::Node& node) noexcept : fNode(node) {}

    [[nodiscard]] detail::Node& node() const noexcept { return fNode; }

    // Each gives a property its value after a check; `putNothing` gives it back its default.
    void putText(const char* key, std::string_view text);
    void putWord(const char* key, std::string_view word);  // one of the vocabulary's own
    void putFlag(const char* key, bool value);
    void putNumber(const char* key, double value, Bound bound = Bound::kNone);
    void putPlace(const char* key, double x, double y);
    void putLimits(const char* key, double low, double high);
    void putColor(const Color& color);
    void putColorMap(ColorMap map);
    void putNothing(const char* key);

    /// Throws std::invalid_argument: where this is, and `what`.
    [[noreturn]] void refuse(const std::string& what) const;

  private:
    friend class detail::Node;
    detail::Node& fNode;
};

}  // namespace kirofigures
