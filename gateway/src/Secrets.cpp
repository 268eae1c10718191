#include "Secrets.hpp"

#include <sys/random.h>

#include <cerrno>
#include <cstddef>
#include <system_error>
#include <utility>

namespace kirogateway {
namespace {

constexpr std::size_t kSecretBytes = 32;
/// The oldest code goes when there are more: nobody opens that many browsers within a minute.
constexpr std::size_t kMaxCodes = 16;

}  // namespace

std::string randomHex(std::size_t bytes) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string random(bytes, '\0');
    for (std::size_t done = 0; done < bytes;) {
        const auto got = ::getrandom(random.data() + done, bytes - done, 0);
        if (got < 0 && errno != EINTR) {
            throw std::system_error(errno, std::generic_category(), "getrandom");
        }
        if (got > 0) done += static_cast<std::size_t>(got);
    }
    std::string text;
    for (const char byte : random) {
        text += kDigits[static_cast<unsigned char>(byte) >> 4U];
        text += kDigits[static_cast<unsigned char>(byte) & 0xfU];
    }
    return text;
}

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
    : fCodeLife(codeLife), fToken(token.empty() ? randomHex(kSecretBytes) : std::move(token)) {}

std::string Secrets::makeCode(TimePoint now) {
    auto code = randomHex(kSecretBytes);
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
