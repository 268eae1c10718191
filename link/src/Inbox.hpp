#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "annotated/Mutex.hpp"

namespace kirolink {

/// What has come from gateways and waits for the engine's thread of the link. What there is no room
/// for counts as lost on the way: it will be sent again. Any thread.
class Inbox {
  public:
    static constexpr std::size_t kMost = std::size_t{64} << 20U;

    struct Letter {
        std::string gateway;
        std::string bytes;
        std::chrono::microseconds receivedAt{0};  ///< wall clock
    };

    /// Returns whether it is the first one, which somebody has to be told of. Throws
    /// std::bad_alloc.
    bool put(std::string_view gateway, std::string_view bytes, std::chrono::microseconds at) {
        const annotated::Lock lock(fMutex);
        const auto size = bytes.size() + kPlace;
        if (fBytes + size > kMost) {
            ++fLost;
            return false;
        }
        fLetters.push_back({std::string(gateway), std::string(bytes), at});
        fBytes += size;
        return fLetters.size() == 1;
    }
    [[nodiscard]] std::vector<Letter> take() noexcept {
        const annotated::Lock lock(fMutex);
        fBytes = 0;
        return std::exchange(fLetters, {});
    }
    [[nodiscard]] std::uint64_t lost() const noexcept {
        const annotated::Lock lock(fMutex);
        return fLost;
    }

  private:
    static constexpr std::size_t kPlace = 256;  // that a letter takes besides

    mutable annotated::Mutex fMutex;
    std::vector<Letter> fLetters GUARDED_BY(fMutex);
    std::size_t fBytes GUARDED_BY(fMutex) = 0;
    std::uint64_t fLost GUARDED_BY(fMutex) = 0;
};

}  // namespace kirolink
