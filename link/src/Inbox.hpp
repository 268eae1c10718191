#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "annotated/Mutex.hpp"

namespace kirolink {

/// What has come from gateways and waits for the engine's thread of the link. What there is no room
/// for counts as lost on the way: it will be sent again. Any thread.
class Inbox {
  public:
    static constexpr std::size_t kMost = std::size_t{64} << 20U;
    /// Of one gateway's, so that it leaves room for the others.
    static constexpr std::size_t kMostOfOne = kMost / 4;

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
        const auto known = fOf.find(gateway);
        const auto before = known == fOf.end() ? 0 : known->second;
        if (fBytes + size > kMost || before + size > kMostOfOne) {
            ++fLost;
            return false;
        }
        Letter letter{std::string(gateway), std::string(bytes), at};
        auto& ofIt = fOf[letter.gateway];
        fLetters.push_back(std::move(letter));
        ofIt += size;
        fBytes += size;
        return fLetters.size() == 1;
    }
    /// The oldest one, if there is one.
    [[nodiscard]] std::optional<Letter> take() noexcept {
        const annotated::Lock lock(fMutex);
        if (fLetters.empty()) return {};
        auto letter = std::move(fLetters.front());
        fLetters.pop_front();
        const auto size = letter.bytes.size() + kPlace;
        fBytes -= size;
        const auto of = fOf.find(letter.gateway);
        of->second -= size;
        if (of->second == 0) fOf.erase(of);
        return letter;
    }
    [[nodiscard]] bool isEmpty() const noexcept {
        const annotated::Lock lock(fMutex);
        return fLetters.empty();
    }
    [[nodiscard]] std::uint64_t lost() const noexcept {
        const annotated::Lock lock(fMutex);
        return fLost;
    }

  private:
    static constexpr std::size_t kPlace = 256;  // that a letter takes besides

    mutable annotated::Mutex fMutex;
    std::deque<Letter> fLetters GUARDED_BY(fMutex);
    std::size_t fBytes GUARDED_BY(fMutex) = 0;
    std::map<std::string, std::size_t, std::less<>> fOf GUARDED_BY(fMutex);  ///< of each gateway's
    std::uint64_t fLost GUARDED_BY(fMutex) = 0;
};

}  // namespace kirolink
