#include "SurrogateMender.hpp"

#include <cstddef>
#include <cstring>

namespace kirogateway {
namespace {

constexpr std::size_t kEscape = 6;  // "\ud83d"
constexpr std::string_view kReplacement = "\\ufffd";

/// Whether `text` begins like an escape of a surrogate, as far as it goes, with a third digit as in
/// `thirds`.
bool mayBeSurrogate(std::string_view text, std::string_view thirds) {
    static constexpr std::string_view kBegin = "\\u";
    for (std::size_t i = 0; i < text.size() && i < 4; ++i) {
        const bool fits = i < 2    ? text[i] == kBegin[i]
                          : i == 2 ? text[i] == 'd' || text[i] == 'D'
                                   : thirds.find(text[i]) != std::string_view::npos;
        if (!fits) return false;
    }
    return true;
}

}  // namespace

std::string_view SurrogateMender::mend(std::string_view bytes, bool isLast) {
    if (fHeldBack.empty() && std::memchr(bytes.data(), '\\', bytes.size()) == nullptr) return bytes;
    fText = fHeldBack;
    fText += bytes;
    fHeldBack.clear();
    for (auto at = fText.find('\\'); at != std::string::npos; at = fText.find('\\', at)) {
        const std::string_view rest = std::string_view(fText).substr(at);
        const bool isCut = !isLast && rest.size() < 2 * kEscape;
        if (!mayBeSurrogate(rest, "89abABcdefCDEF")) {
            at += 2;
            continue;
        }
        const bool isHigh = mayBeSurrogate(rest, "89abAB");
        const auto second = rest.size() > kEscape ? rest.substr(kEscape) : std::string_view();
        const bool mayHaveSecond = isHigh && mayBeSurrogate(second, "cdefCDEF");
        if (isCut && (rest.size() < kEscape || mayHaveSecond)) {
            fHeldBack = rest;
            fText.resize(at);
            break;
        }
        if (mayHaveSecond && second.size() >= kEscape) {
            at += 2 * kEscape;
        } else {
            if (rest.size() >= kEscape) fText.replace(at, kEscape, kReplacement);
            at += kEscape;
        }
        if (at >= fText.size()) break;
    }
    return fText;
}

}  // namespace kirogateway
