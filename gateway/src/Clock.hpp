#pragma once

#include <chrono>

namespace kirogateway {

/// The time, where no caller says it. In a file of its own, like what reaches a socket: a program
/// that plays time to the gateway's logic brings another definition. Any thread.
[[nodiscard]] std::chrono::steady_clock::time_point timeNow() noexcept;

}  // namespace kirogateway
