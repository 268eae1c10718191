#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

#include "annotated/Mutex.hpp"

namespace kirogateway {

/// Compares in a time that depends on the length of `given` only.
[[nodiscard]] bool isSecret(std::string_view given, std::string_view secret) noexcept;

/// What lets a client in: the token of the link, and the single-use codes. Any thread.
class Secrets {
  public:
    using TimePoint = std::chrono::steady_clock::time_point;

    /// Codes are good for `codeLife`. Without a token there is a new one.
    explicit Secrets(std::chrono::milliseconds codeLife, std::string token = {});

    [[nodiscard]] const std::string& token() const noexcept { return fToken; }
    /// Returns a code that is good for one use. There are at most 16: a further one ends the
    /// oldest.
    [[nodiscard]] std::string makeCode(TimePoint now);

    [[nodiscard]] bool isToken(std::string_view given) const noexcept;
    /// Returns whether `given` is a code that is good, and ends it.
    [[nodiscard]] bool useCode(std::string_view given, TimePoint now);

  private:
    struct Code {
        std::string text;
        TimePoint end;
    };

    const std::chrono::milliseconds fCodeLife;
    const std::string fToken;
    annotated::Mutex fMutex;
    std::vector<Code> fCodes GUARDED_BY(fMutex);
};

}  // namespace kirogateway
