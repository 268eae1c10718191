#include "kirohost/Controls.hpp"

#include <utility>

namespace kirohost {

Scope::Scope(std::function<void()> end) noexcept : fEnd(std::move(end)) {}

// std::function leaves a moved-from object in any state; this one has to be empty.
Scope::Scope(Scope&& other) noexcept : fEnd(std::exchange(other.fEnd, nullptr)) {}

Scope& Scope::operator=(Scope&& other) noexcept {
    // What this scope kept ends when `ended` goes, after the new one is in place.
    const Scope ended(std::exchange(fEnd, std::exchange(other.fEnd, nullptr)));
    return *this;
}

Scope::~Scope() {
    if (fEnd) fEnd();
}

}  // namespace kirohost
