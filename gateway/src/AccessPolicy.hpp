#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "AssetTable.hpp"
#include "kirogateway/Options.hpp"
#include "secret/Secrets.hpp"
#include "served/Http.hpp"

namespace kirogateway {

using secret::Secrets;
using served::kMaxBody;
using served::kPlainText;
using served::kTokenPath;

/// The path of the WebSocket.
inline constexpr std::string_view kSocketPath = "/kiroweb";
/// The subprotocol that is spoken, and the start of the one that carries the token. A browser lets
/// a page choose subprotocols, but no other field of an upgrade.
inline constexpr std::string_view kSubprotocol = "kiroweb.v1";
inline constexpr std::string_view kTokenOffer = "kiroweb.token.";

/// What the access policy looks at of an HTTP request. The views are valid as long as what they
/// were taken from.
struct Request {
    std::string_view method;
    std::string_view site;                       ///< the prefix of its site
    std::string_view target;                     ///< what follows that
    std::vector<std::string_view> hosts;         ///< every Host field
    std::vector<std::string_view> origins;       ///< every Origin field
    std::vector<std::string_view> subprotocols;  ///< those offered, over all fields
    bool isUpgrade = false;                      ///< a well-formed WebSocket upgrade
    std::string_view key;                        ///< of the upgrade
    bool isEncoded = false;                      ///< it has a Transfer-Encoding
    bool takesGzip = false;                      ///< the body of the answer may be in gzip
    std::uint64_t bodySize = 0;                  ///< as it announces
    std::string_view body;                       ///< what has been read of it
    bool isKeptAlive = false;                    ///< the client wants to send another
};

/// Whether the body of `request` is to be read before it is decided on. All other bodies stay
/// unread: they are refused.
[[nodiscard]] bool awaitsBody(const Request& request) noexcept;

/// What is answered. The views are valid as long as the policy, and those of a file as long as
/// `assets`.
struct Admission {
    unsigned status = 400;      ///< for 101 the connection becomes a WebSocket
    std::string_view reason{};  ///< of a refusal, for log and answer; holds no secret
    std::string_view body{};    ///< what is served
    std::string_view contentType = kPlainText;
    std::string_view allowedMethods{};  ///< for 405
    bool isGzip = false;                ///< the body is
    bool variesByEncoding = false;      ///< another client may be answered in another encoding
    bool comesLater = false;            ///< nobody gets in yet: to be asked again a second later
    std::string location{};             ///< for 302 and 308
    std::string_view logged{};          ///< what the log says instead of the reason
    std::shared_ptr<const AssetTable> assets{};  ///< of which a file is served
};

/// "wss://plot.example:8443" of "https://plot.example:8443". REQUIRES: it is an origin.
[[nodiscard]] inline std::string socketOf(const std::string& origin) {
    return "ws" + origin.substr(4);
}

/// "plot.example:8443" of "https://plot.example:8443". REQUIRES: it is an origin.
[[nodiscard]] inline std::string hostOf(const std::string& origin) {
    return origin.substr(origin.find("//") + 2);
}

/// What the pages of one site get in with, and what they get.
struct Entrance {
    std::shared_ptr<const AssetTable> assets;
    std::shared_ptr<Secrets> secrets;  ///< null: nobody gets in yet
    /// Origins of other servers of the same pages, which may come from there and go there.
    std::vector<std::string> others{};
    /// The one at which the site is, instead of those of the options.
    std::string origin{};
    /// Where the page is instead; nothing else is served then.
    std::string movedTo{};
    /// Whoever has no token is answered as where nobody gets in yet, so that asking for a site does
    /// not tell whether there is one.
    bool isDiscreet = false;
};

/// Decides who gets in and what is served. Knows neither sockets nor a parser. Any
/// thread, but for `serveInstead`.
class AccessPolicy {
  public:
    using TimePoint = Secrets::TimePoint;

    AccessPolicy(const Options& options, std::uint16_t port, Entrance entrance);

    /// Decides on `request`, and uses up the code that it exchanges.
    /// REQUIRES: its body has been read, if it awaits one.
    [[nodiscard]] Admission decide(const Request& request, TimePoint now);

    /// Whether `request` has one Host, and that is one of ours.
    [[nodiscard]] bool isForUs(const Request& request) const { return !refuseHost(request); }

    /// Serves `assets` from now on. REQUIRES: nobody decides meanwhile.
    void serveInstead(std::shared_ptr<const AssetTable> assets) noexcept {
        fEntrance.assets = std::move(assets);
    }

    /// "http://127.0.0.1:8080", as it stands in links.
    [[nodiscard]] const std::string& address() const noexcept { return fAddress; }
    /// The header fields that every answer but 101 carries, each with its line end. `host` is one
    /// that `decide` let pass, or empty.
    [[nodiscard]] std::string commonFields(std::string_view host) const;

  private:
    [[nodiscard]] std::optional<Admission> refuseHost(const Request& request) const;
    [[nodiscard]] std::optional<Admission> refuseOrigin(const Request& request) const;
    [[nodiscard]] std::optional<Admission> refuseToken(const Request& request) const;
    [[nodiscard]] Admission serve(const Request& request) const;
    [[nodiscard]] Admission redirect(const Request& request) const;
    [[nodiscard]] Admission decideUpgrade(const Request& request) const;
    [[nodiscard]] Admission decideExchange(const Request& request, TimePoint now);

    Entrance fEntrance;
    const bool fIsSecure;
    std::string fAddress;
    std::vector<std::string> fHosts;
    std::string fFrameAncestors;  ///< as they stand in the header
    std::vector<std::string> fOrigins;
    std::string fSockets;  ///< of the other servers, as they stand in the header
};

}  // namespace kirogateway
