#pragma once

#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <string_view>

namespace process {

/// Calls what answers as a system call does, again as long as a signal interrupts it.
template <typename Call>
ssize_t againIfInterrupted(const Call& call) {
    for (;;) {
        const ssize_t result = call();
        if (result >= 0 || errno != EINTR) return result;
    }
}

/// Writes all of `bytes`, which may take several calls. Returns whether it could; otherwise `errno`
/// says why. A disk that becomes full takes what has room, and refuses the rest.
[[nodiscard]] inline bool writeAll(int descriptor, std::string_view bytes) noexcept {
    while (!bytes.empty()) {
        const auto written =
            againIfInterrupted([&] { return ::write(descriptor, bytes.data(), bytes.size()); });
        if (written < 0) return false;
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

}  // namespace process
