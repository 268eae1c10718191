#pragma once

#include <cstdint>
#include <string>

#include "kirohost/Export.hpp"

namespace kiroutils {

/// An identifier that travels to the client and back, with four time stamps on its way.
class KIROHOST_EXPORT CompletionToken {
  public:
    /// Microseconds since 1970, as `timestamp()` gives them; 0 is "not set".
    struct CompletionTokenTimeStamps {
        std::uint64_t serverSend = 0;
        std::uint64_t clientReceive = 0;
        std::uint64_t clientSend = 0;
        std::uint64_t serverReceive = 0;
    };

    /// The default token: empty identifier, all stamps 0.
    CompletionToken() = default;
    explicit CompletionToken(std::string identifier);

    /// True when the identifier is empty and all stamps are 0.
    [[nodiscard]] bool isDefaultToken() const noexcept;
    /// Equality by identifier; the stamps do not count.
    bool operator==(const CompletionToken& other) const noexcept;
    /// The identifier, as it stands on the wire and in the logs.
    [[nodiscard]] std::string convertToString() const;

    [[nodiscard]] CompletionTokenTimeStamps& getTimeStamps() noexcept { return fTimeStamps; }
    [[nodiscard]] const CompletionTokenTimeStamps& getTimeStamps() const noexcept {
        return fTimeStamps;
    }

  private:
    std::string fIdentifier;
    CompletionTokenTimeStamps fTimeStamps;
};

}  // namespace kiroutils
