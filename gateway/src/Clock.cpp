#include "Clock.hpp"

namespace kirogateway {

std::chrono::steady_clock::time_point timeNow() noexcept {
    return std::chrono::steady_clock::now();
}

}  // namespace kirogateway
