#pragma once

#include <spawn.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <string>

#include "Environment.hpp"

namespace process {

/// How a program begins that has nothing to do with this one: in a session of its own, to which the
/// terminal's signals do not go, and with no signal blocked or ignored.
class Separately {
  public:
    Separately() {
        sigset_t none;
        sigset_t all;
        sigemptyset(&none);
        sigfillset(&all);
        posix_spawnattr_init(&fAttributes);
        posix_spawnattr_setsigmask(&fAttributes, &none);
        posix_spawnattr_setsigdefault(&fAttributes, &all);
        posix_spawnattr_setflags(
            &fAttributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSID);
    }
    ~Separately() { posix_spawnattr_destroy(&fAttributes); }
    Separately(const Separately&) = delete;
    Separately& operator=(const Separately&) = delete;

    [[nodiscard]] const posix_spawnattr_t* get() const { return &fAttributes; }

  private:
    posix_spawnattr_t fAttributes{};
};

/// A browser that was asked to open an address. Nothing is said of what does not work.
class Browser {
  public:
    /// Opens `link` in the user's browser if there is a graphical session. Everybody on this
    /// machine can read the arguments of a program: what the link brings should be good once only.
    void open(const std::string& link) {
        if (environmentText("DISPLAY").empty() && environmentText("WAYLAND_DISPLAY").empty()) {
            return;
        }
        std::string program = "xdg-open";
        std::string argument = link;
        const std::array<char*, 3> arguments{program.data(), argument.data(), nullptr};
        const Separately separately;
        if (posix_spawnp(&fOpener, program.c_str(), nullptr, separately.get(), arguments.data(),
                         environ) != 0) {
            fOpener = 0;
        }
    }
    Browser() = default;
    /// Clears away what is left of the opener; the browser itself goes on.
    ~Browser() {
        // Not waited for: one that still runs is cleared away when the program ends.
        if (fOpener > 0) static_cast<void>(waitpid(fOpener, nullptr, WNOHANG));
    }
    Browser(const Browser&) = delete;
    Browser& operator=(const Browser&) = delete;

  private:
    pid_t fOpener = 0;
};

}  // namespace process
