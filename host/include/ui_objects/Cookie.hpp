#pragma once

#include <cstdint>

namespace ui_objects {

/// The handle of a graphics object.
class Cookie {
  public:
    Cookie() noexcept = default;
    explicit Cookie(std::int64_t value) noexcept : fValue(value) {}
    [[nodiscard]] std::int64_t value() const noexcept { return fValue; }
    bool operator==(const Cookie&) const = default;

  private:
    std::int64_t fValue = 0;
};

}  // namespace ui_objects
