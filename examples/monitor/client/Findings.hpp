#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace monitor::client {

/// What a client found wrong with what it received.
class Findings {
  public:
    void missing(const std::string& text) { note(fMissing, "missing: " + text); }
    void outOfOrder(const std::string& text) { note(fOutOfOrder, "out of order: " + text); }
    void wrong(const std::string& text) { note(fWrong, "wrong: " + text); }

    [[nodiscard]] std::uint64_t missing() const { return fMissing; }
    [[nodiscard]] std::uint64_t outOfOrder() const { return fOutOfOrder; }
    [[nodiscard]] std::uint64_t wrong() const { return fWrong; }
    [[nodiscard]] bool none() const { return fMissing + fOutOfOrder + fWrong == 0; }
    /// The first few, in words.
    [[nodiscard]] const std::vector<std::string>& texts() const { return fTexts; }

  private:
    void note(std::uint64_t& count, const std::string& text) {
        constexpr std::size_t kTextsKept = 10;
        ++count;
        if (fTexts.size() < kTextsKept) fTexts.push_back(text);
    }

    std::uint64_t fMissing = 0;
    std::uint64_t fOutOfOrder = 0;
    std::uint64_t fWrong = 0;
    std::vector<std::string> fTexts;
};

}  // namespace monitor::client
