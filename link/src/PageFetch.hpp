#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "OwnPage.hpp"
#include "SendWindow.hpp"
#include "checked/Require.hpp"

namespace kirolink {

/// What a gateway asks for of a session's page until all of it is there. Not synchronised.
class PageFetch {
  public:
    using TimePoint = std::chrono::steady_clock::time_point;
    /// Until what has had no answer is asked for again; then twice as long each time.
    static constexpr std::chrono::milliseconds kAgain{300};
    static constexpr std::chrono::milliseconds kLongest{2000};

    /// Throws std::bad_alloc. REQUIRES: `size` > 0.
    explicit PageFetch(std::uint64_t size)
        : fSize(size), fParts((size + kPagePart - 1) / kPagePart) {}

    /// Where the parts begin that are to be asked for now. Throws std::bad_alloc.
    [[nodiscard]] std::vector<std::uint64_t> due(TimePoint now) {
        std::vector<std::uint64_t> offsets;
        const auto ask = [&](std::size_t which) {
            offsets.push_back(which * kPagePart);
            fParts[which].ask = ++fAsks;
        };
        for (auto which = fFirst; which < fNext; ++which) {
            // What was asked for later has come: answers do not overtake each other.
            if (!fParts[which].isHere && fParts[which].ask < fAnswered) askAgain(which, ask);
        }
        if (fFirst < fNext && now - fQuietSince >= fPatience) {
            // One only: it may be that all are late.
            askAgain(fFirst, ask);
            fPatience = std::min(2 * fPatience, kLongest);
            fQuietSince = now;
        }
        while (fNext < fParts.size() && fWindow.mayGo(underWay(), kPagePart)) {
            if (fNext == 0) fQuietSince = now;
            fParts[fNext].asked = now;
            ask(fNext++);
        }
        return offsets;
    }
    /// Bytes that are held once this part is: not all of what an engine may only claim. 0: it was
    /// not asked for, or came already.
    [[nodiscard]] std::size_t roomWith(std::uint64_t offset,
                                       std::string_view bytes) const noexcept {
        const auto which = offset / kPagePart;
        if (offset % kPagePart != 0 || which < fFirst || which >= fNext) return 0;
        const auto size = std::min<std::uint64_t>(kPagePart, fSize - offset);
        if (fParts[which].isHere || bytes.size() != size) return 0;
        return std::max<std::size_t>(fBytes.size(), offset + size);
    }
    /// Returns false for what there is no room for by that. Throws std::bad_alloc; nothing has come
    /// then.
    bool arrived(std::uint64_t offset, std::string_view bytes, TimePoint now) {
        const auto room = roomWith(offset, bytes);
        if (room == 0) return false;
        fBytes.resize(room);
        std::ranges::copy(bytes, fBytes.begin() + static_cast<std::ptrdiff_t>(offset));
        auto& part = fParts[offset / kPagePart];
        part.isHere = true;
        ++fCame;
        fQuietSince = now;
        while (fFirst < fNext && fParts[fFirst].isHere) ++fFirst;
        // Of one that was asked for twice nobody knows which answer this is.
        if (!part.isAgain) learn(part, now);
        return true;
    }
    [[nodiscard]] bool isWhole() const noexcept { return fFirst == fParts.size(); }
    /// REQUIRES: it is whole. Nothing is to be done afterwards.
    [[nodiscard]] std::string take() noexcept {
        KIROWEB_REQUIRE(isWhole());
        return std::move(fBytes);
    }

  private:
    struct Part {
        TimePoint asked{};      ///< for the first time
        std::uint64_t ask = 0;  ///< the number of the last question
        bool isAgain = false;   ///< it was not the only one
        bool isHere = false;
    };

    template <typename Ask>
    void askAgain(std::size_t which, const Ask& ask) {
        ask(which);
        fParts[which].isAgain = true;
    }
    void learn(const Part& part, TimePoint now) noexcept {
        const auto age = std::chrono::duration_cast<std::chrono::milliseconds>(now - part.asked);
        fAnswered = std::max(fAnswered, part.ask);
        fPatience = std::clamp(2 * age, kAgain, kLongest);
        fWindow.acknowledged(kPagePart, age, underWay(), now);
    }
    [[nodiscard]] std::uint64_t underWay() const noexcept { return (fNext - fCame) * kPagePart; }

    const std::uint64_t fSize;
    std::vector<Part> fParts;
    std::size_t fFirst = 0;  ///< all parts below are there
    std::size_t fNext = 0;   ///< none from here on has been asked for
    std::size_t fCame = 0;
    std::string fBytes;
    std::uint64_t fAsks = 0;
    std::uint64_t fAnswered = 0;  ///< the last question to which an answer is known
    TimePoint fQuietSince{};
    std::chrono::milliseconds fPatience = kAgain;
    SendWindow fWindow;
};

}  // namespace kirolink
