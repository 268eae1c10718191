#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <iterator>

namespace simulate {

/// The same numbers from the same seed, on any machine.
class Random {
  public:
    explicit Random(std::uint64_t seed) noexcept : fState(seed) {}
    /// Numbers of its own for the `index`-th part of what has `seed`: whatever is left out of the
    /// other parts.
    Random(std::uint64_t seed, std::uint64_t index) noexcept : fState(seed) {
        fState = next() + index * 0xd1342543de82ef95U;
        next();
    }

    std::uint64_t next() noexcept {
        fState += 0x9e3779b97f4a7c15U;
        auto bits = fState;
        bits = (bits ^ (bits >> 30U)) * 0xbf58476d1ce4e5b9U;
        bits = (bits ^ (bits >> 27U)) * 0x94d049bb133111ebU;
        return bits ^ (bits >> 31U);
    }
    /// From 0 on. REQUIRES: `count` > 0.
    std::size_t below(std::size_t count) noexcept { return next() % count; }
    std::size_t between(std::size_t least, std::size_t most) noexcept {
        return least + below(most - least + 1);
    }
    [[nodiscard]] bool chance(std::size_t percent) noexcept { return below(100) < percent; }
    template <typename Value>
    Value pick(std::initializer_list<Value> values) noexcept {
        return *std::next(values.begin(), static_cast<std::ptrdiff_t>(below(values.size())));
    }
    template <typename Value, std::size_t kSize>
    const Value& from(const std::array<Value, kSize>& values) noexcept {
        return values[below(kSize)];
    }

  private:
    std::uint64_t fState;
};

}  // namespace simulate
