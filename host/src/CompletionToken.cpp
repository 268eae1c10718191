#include "kiroutils/CompletionToken.hpp"

#include <chrono>
#include <random>
#include <string_view>
#include <utility>

#include "kiroutils/UniqueIDGenerator.hpp"
#include "kiroutils/timestamp.hpp"

namespace kiroutils {

CompletionToken::CompletionToken(std::string identifier) : fIdentifier(std::move(identifier)) {}

bool CompletionToken::isDefaultToken() const noexcept {
    return fIdentifier.empty() && fTimeStamps.serverSend == 0 && fTimeStamps.clientReceive == 0 &&
           fTimeStamps.clientSend == 0 && fTimeStamps.serverReceive == 0;
}

bool CompletionToken::operator==(const CompletionToken& other) const noexcept {
    return fIdentifier == other.fIdentifier;
}

std::string CompletionToken::convertToString() const { return fIdentifier; }

UniqueIDGenerator::UniqueIDGenerator() {
    constexpr std::string_view digits = "0123456789abcdef";
    std::random_device random;
    for (int word = 0; word < 4; ++word) {
        auto bits = random();
        for (int digit = 0; digit < 8; ++digit, bits >>= 4U) fPrefix += digits[bits & 0xfU];
    }
    fPrefix += '-';
}

std::string UniqueIDGenerator::nextID() { return fPrefix + std::to_string(fNext++); }

std::uint64_t timestamp() {
    using std::chrono::microseconds;
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<std::uint64_t>(std::chrono::duration_cast<microseconds>(now).count());
}

}  // namespace kiroutils
