#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

namespace bench {

/// A port of this machine that hands on to another one, and counts. Its threads end with the
/// process.
class CountingPort {
  public:
    CountingPort();

    [[nodiscard]] std::uint16_t port() const noexcept;
    /// From now on connections are made to `target`. Once.
    void handOnTo(std::uint16_t target);

    /// What browsers have asked for, and how many bytes came back.
    [[nodiscard]] std::size_t requests() const noexcept;
    [[nodiscard]] std::size_t bytes() const noexcept;

  private:
    struct State;
    std::shared_ptr<State> fState;
};

}  // namespace bench
