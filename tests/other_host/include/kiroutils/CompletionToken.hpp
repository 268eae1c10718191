#pragma once

#include <cstdint>
#include <string>
#include <utility>

namespace kiroutils {

class CompletionToken {
  public:
    struct CompletionTokenTimeStamps {
        std::uint64_t serverSend, clientReceive, clientSend, serverReceive;
        bool operator==(const CompletionTokenTimeStamps&) const = default;
    };

    CompletionToken() = default;
    explicit CompletionToken(const std::string& identifier) : fIdentifier(identifier) {}

    bool isDefaultToken() const;
    bool operator==(const CompletionToken& other) const;
    const std::string& convertToString() const { return fIdentifier; }
    CompletionTokenTimeStamps& getTimeStamps() { return fTimeStamps; }
    const CompletionTokenTimeStamps& getTimeStamps() const { return fTimeStamps; }

  private:
    std::string fIdentifier;
    CompletionTokenTimeStamps fTimeStamps{};
};

}  // namespace kiroutils
