#include "NumberedReceiver.hpp"

#include <algorithm>
#include <utility>

namespace kirolink {
namespace {

constexpr std::size_t kEntryPlace = 128;  // that an entry takes, about

}  // namespace

bool NumberedReceiver::arrived(std::uint64_t number, std::string_view bytes) {
    expect(number);
    if (number == fNext) {
        ++fNext;
        fEnd = std::max(fEnd, fNext);
        return true;
    }
    if (number < fNext) return false;
    fEnd = std::max(fEnd, number + 1);
    const auto size = bytes.size() + kEntryPlace;
    if (fHeldBytes + size > kMostHeld) return false;
    if (fHeld.try_emplace(number, bytes).second) fHeldBytes += size;
    return false;
}

std::optional<std::string> NumberedReceiver::takeHeld() {
    const auto first = fHeld.begin();
    if (first == fHeld.end() || first->first != fNext) return {};
    auto bytes = std::move(first->second);
    fHeldBytes -= bytes.size() + kEntryPlace;
    fHeld.erase(first);
    ++fNext;
    return bytes;
}

void NumberedReceiver::expect(std::uint64_t end) {
    if (end <= fEnd) return;
    if (isComplete()) {
        ++fGaps;
        fAskAgain.reset();
        fPatience = kPatience;
    }
    fEnd = end;
}

void NumberedReceiver::resent() noexcept {
    // Without progress it would be the same question.
    if (fNext > fNextWhenAsked) fAskAgain.reset();
}

std::optional<frame::Ask> NumberedReceiver::ask(TimePoint now) {
    if (isComplete()) return {};
    const bool isComing = std::exchange(fNextWhenCalled, fNext) < fNext;
    const auto answered = [this, now](std::chrono::milliseconds patience) {
        return now + std::max<std::chrono::microseconds>(patience, 2 * fRoundTrip);
    };
    if (fAskAgain && now < *fAskAgain) {
        if (isComing) fAskAgain = answered(kPatience);
        return {};
    }
    auto question = missing();
    fPatience = fNext > fNextWhenAsked ? kPatience : std::min(2 * fPatience, kMostPatience);
    fNextWhenAsked = fNext;
    fAskAgain = answered(fPatience);
    return question;
}

frame::Ask NumberedReceiver::missing() const {
    frame::Ask ask;
    auto from = fNext;
    const auto add = [&](std::uint64_t end) {
        if (from < end && ask.ranges.size() < kMaxRanges) ask.ranges.push_back({from, end - 1});
    };
    for (const auto& [number, bytes] : fHeld) {
        add(number);
        from = number + 1;
        if (ask.ranges.size() == kMaxRanges) return ask;
    }
    add(fEnd);
    return ask;
}

}  // namespace kirolink
