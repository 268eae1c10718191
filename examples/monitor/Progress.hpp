#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

namespace monitor {

/// Shows on standard error how far a run is: one line that is updated on a terminal, a line every
/// few seconds elsewhere.
class Progress {
  public:
    explicit Progress(std::optional<std::uint64_t> framesExpected);

    void frameOver(std::uint64_t frames);
    /// Leaves the updated line.
    void end() const;

  private:
    void show(std::uint64_t frames) const;

    const std::optional<std::uint64_t> fExpected;
    const bool fIsTerminal;
    std::chrono::steady_clock::time_point fNext;
};

}  // namespace monitor
