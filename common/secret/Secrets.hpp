#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "annotated/Mutex.hpp"
#include "checked/Require.hpp"
#include "secret/RandomHex.hpp"

namespace secret {

/// Compares in a time that depends on the length of `given` only.
[[nodiscard]] inline bool isSecret(std::string_view given, std::string_view secret) noexcept {
    unsigned difference = given.size() == secret.size() ? 0 : 1;
    for (std::size_t i = 0; i < given.size(); ++i) {
        const char expected = secret.empty() ? '\0' : secret[i % secret.size()];
        difference |= static_cast<unsigned char>(given[i] ^ expected);
    }
    // An optimiser that saw a plain loop might leave it early.
    const volatile unsigned result = difference;
    return result == 0;
}

/// A token of which only a digest is known, and how that is made of what is offered.
struct HashedToken {
    std::string hash;
    std::string (*digest)(std::string_view given);
};

/// What lets a page in: the token of the link, and the single-use codes. Any thread.
class Secrets {
  public:
    using TimePoint = std::chrono::steady_clock::time_point;

    /// Codes are good for `codeLife`. Without a token there is a new one.
    explicit Secrets(std::chrono::milliseconds codeLife, std::string token = {})
        : fCodeLife(codeLife), fToken(token.empty() ? randomHex(kBytes) : std::move(token)) {}
    /// There are no codes then: nobody here could give the token for one.
    explicit Secrets(HashedToken token) : fToken(std::move(token.hash)), fDigest(token.digest) {}

    /// REQUIRES: it is known.
    [[nodiscard]] const std::string& token() const noexcept {
        KIROWEB_REQUIRE(fDigest == nullptr);
        return fToken;
    }
    /// Returns a code that is good for one use. There are at most 16: a further one ends the
    /// oldest.
    [[nodiscard]] std::string makeCode(TimePoint now) {
        auto code = randomHex(kBytes);
        annotated::Lock lock(fMutex);
        if (fCodes.size() == kMaxCodes) fCodes.erase(fCodes.begin());
        fCodes.push_back({code, now + fCodeLife});
        return code;
    }

    /// Throws what making a digest throws.
    [[nodiscard]] bool isToken(std::string_view given) const {
        return fDigest == nullptr ? isSecret(given, fToken) : isSecret(fDigest(given), fToken);
    }
    /// Returns whether `given` is a code that is good, and ends it.
    [[nodiscard]] bool useCode(std::string_view given, TimePoint now) {
        annotated::Lock lock(fMutex);
        std::erase_if(fCodes, [now](const Code& code) { return code.end < now; });
        // No early end, as with the other comparisons.
        return std::erase_if(fCodes,
                             [given](const Code& code) { return isSecret(given, code.text); }) > 0;
    }

  private:
    struct Code {
        std::string text;
        TimePoint end;
    };
    static constexpr std::size_t kBytes = 32;
    /// The oldest code goes when there are more: nobody opens that many browsers within a minute.
    static constexpr std::size_t kMaxCodes = 16;

    const std::chrono::milliseconds fCodeLife{0};
    const std::string fToken;  ///< or its digest
    std::string (*const fDigest)(std::string_view given) = nullptr;
    annotated::Mutex fMutex;
    std::vector<Code> fCodes GUARDED_BY(fMutex);
};

}  // namespace secret
