#include "Secrets.hpp"

#include <cstddef>
#include <utility>

#include "secret/RandomHex.hpp"

namespace kirogateway {
namespace {

constexpr std::size_t kSecretBytes = 32;
/// The oldest code goes when there are more: nobody opens that many browsers within a minute.
constexpr std::size_t kMaxCodes = 16;

}  // namespace

bool isSecret(std::string_view given, std::string_view secret) noexcept {
    unsigned difference = given.size() == secret.size() ? 0 : 1;
    for (std::size_t i = 0; i < given.size(); ++i) {
        const char expected = secret.empty() ? '\0' : secret[i % secret.size()];
        difference |= static_cast<unsigned char>(given[i] ^ expected);
    }
    // An optimiser that saw a plain loop might leave it early.
    const volatile unsigned result = difference;
    return result == 0;
}

Secrets::Secrets(std::chrono::milliseconds codeLife, std::string token)
    : fCodeLife(codeLife),
      fToken(token.empty() ? secret::randomHex(kSecretBytes) : std::move(token)) {}

std::string Secrets::makeCode(TimePoint now) {
    auto code = secret::randomHex(kSecretBytes);
    annotated::Lock lock(fMutex);
    if (fCodes.size() == kMaxCodes) fCodes.erase(fCodes.begin());
    fCodes.push_back({code, now + fCodeLife});
    return code;
}

bool Secrets::isToken(std::string_view given) const noexcept { return isSecret(given, fToken); }

bool Secrets::useCode(std::string_view given, TimePoint now) {
    annotated::Lock lock(fMutex);
    std::erase_if(fCodes, [now](const Code& code) { return code.end < now; });
    // No early end, as with the other comparisons.
    return std::erase_if(fCodes, [given](const Code& code) { return isSecret(given, code.text); }) >
           0;
}

}  // namespace kirogateway
