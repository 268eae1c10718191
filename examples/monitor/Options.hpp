#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>

namespace monitor {

/// What the user asked for.
struct Options {
    bool headless = false;
    std::optional<std::uint64_t> frames;
    std::optional<std::chrono::duration<double>> duration;
    double speed = 1;  ///< 0: as fast as possible
    std::chrono::seconds timeout{60};
    std::filesystem::path data;
    std::optional<std::filesystem::path> record;
    std::uint64_t dropEvery = 0;  ///< tokens; 0: none
    std::uint64_t failEvery = 0;  ///< blocks; 0: none
    bool silent = false;
    std::uint16_t port = 0;  ///< 0: one that is free
    bool opensBrowser = true;
    std::chrono::duration<double> remind{30};  ///< 0: never
    std::optional<std::filesystem::path> diagnostics;

    /// Whether the run ends by itself.
    [[nodiscard]] bool hasEnd() const { return frames || duration; }
    [[nodiscard]] bool losesTokens() const { return silent || dropEvery != 0; }
};

/// A wrong option; the text is one line.
class OptionError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// Options to run with, or a text that was asked for instead.
struct ParsedOptions {
    std::optional<Options> options;
    std::string text;
};

/// Throws `OptionError`.
[[nodiscard]] ParsedOptions parseOptions(int argc, const char* const* argv);

}  // namespace monitor
