#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "Secrets.hpp"
#include "kirogateway/Options.hpp"

namespace kirogateway {

/// The path of the WebSocket.
inline constexpr std::string_view kSocketPath = "/kiroweb";
inline constexpr std::string_view kSubprotocol = "kiroweb.v1";

/// What the door looks at of a request. The views are valid during the call.
struct Knock {
    std::string_view method;
    std::string_view target;
    std::vector<std::string_view> hosts;    ///< every Host field
    std::vector<std::string_view> origins;  ///< every Origin field
    std::vector<std::string_view> cookies;  ///< every Cookie field
    bool isUpgrade = false;                 ///< a well-formed WebSocket upgrade
    bool offersSubprotocol = false;         ///< `kSubprotocol` is among those offered
    bool hasBody = false;
};

/// What the door says. For 101 the caller goes on with the handshake.
struct Verdict {
    unsigned status = 400;
    std::string_view reason;       ///< for the log and the answer's text; holds no secret
    const Asset* asset = nullptr;  ///< for 200
    std::string cookie{};          ///< for 303: the whole Set-Cookie value
};

/// Decides who gets in and what is served. It knows no socket. Any thread.
class Door {
  public:
    using TimePoint = Secrets::TimePoint;

    /// REQUIRES: `options` and `secrets` outlive the door.
    Door(const Options& options, std::uint16_t port, Secrets& secrets);

    [[nodiscard]] Verdict decide(const Knock& knock, TimePoint now);

    /// "http://127.0.0.1:8080", as it stands in links.
    [[nodiscard]] const std::string& address() const noexcept { return fAddress; }
    /// The header fields that every answer carries, each with its line end. `host` is one that
    /// `decide` let pass, or empty.
    [[nodiscard]] std::string commonFields(std::string_view host) const;

  private:
    [[nodiscard]] Verdict decideUpgrade(const Knock& knock) const;
    [[nodiscard]] Verdict decideExchange(std::string_view query, TimePoint now);
    [[nodiscard]] bool hasCookie(const std::vector<std::string_view>& fields) const;

    Secrets& fSecrets;
    const bool fIsSecure;
    const std::string fCookieName;
    std::string fAddress;
    std::vector<std::string> fHosts;
    std::vector<std::string> fOrigins;
    std::unordered_map<std::string_view, const Asset*> fAssets;
};

}  // namespace kirogateway
