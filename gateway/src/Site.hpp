#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "AccessPolicy.hpp"
#include "Fanout.hpp"
#include "Session.hpp"
#include "Wakeup.hpp"

namespace kirogateway {

/// What is served at one place: the pages of one engine. Connections share it, so that it goes with
/// the last of them.
class Site {
  public:
    /// `viewsBefore`, `lastPageGone`: see `ViewRegistry`.
    Site(std::string thePlace, std::shared_ptr<Context> theContext,
         const std::shared_ptr<Wakeup>& wakeup, std::function<void()> lastPageGone,
         std::uint64_t viewsBefore = 0);
    Site(const Site&) = delete;
    Site& operator=(const Site&) = delete;
    ~Site() = default;

    const std::string place;   ///< "/s/NAME", or a host that is its own: "name.host:8443"; or empty
    const std::string prefix;  ///< of the targets that are its own: "/s/NAME"; or empty
    const std::shared_ptr<Context> context;
    Inbound inbound;
    const std::shared_ptr<ViewRegistry> views;
    const std::shared_ptr<Fanout> fanout;
    const SessionServices services;
    std::unique_ptr<AccessPolicy> access;  ///< there when the site is served
    std::size_t connections = 0;           ///< that have upgraded; the gateway's thread
};

/// The sites of one server. The gateway's thread.
class Sites {
  public:
    using TimePoint = std::chrono::steady_clock::time_point;
    struct Found {
        std::shared_ptr<Site> site;  ///< null: the root's
        bool stays = true;           ///< for who asks next; else it goes with the connection
    };
    /// Returns a site for a place that has none. It may take others away to make room. It may
    /// throw.
    using Finder = std::function<Found(Sites& sites, std::string_view place)>;

    /// `root` is what belongs to no other site. `host`: below it sites may have hosts of their own;
    /// empty: none has.
    explicit Sites(std::shared_ptr<Site> root, Finder finder = {}, const std::string& host = {});

    [[nodiscard]] const std::shared_ptr<Site>& root() const noexcept { return fRoot; }
    /// Whose a request is.
    [[nodiscard]] std::shared_ptr<Site> find(const Request& request);

    /// Puts a site where another one may be, whose views end. `why` is said to
    /// their pages. Throws std::bad_alloc; nothing has happened then.
    void put(std::shared_ptr<Site> site, std::string_view why, wire::CloseCode code);
    void remove(std::string_view place, std::string_view why) noexcept;
    /// The site that is there now, if there is one.
    [[nodiscard]] std::shared_ptr<Site> at(std::string_view place) const noexcept;
    [[nodiscard]] bool areViewsEmpty() const;
    void tick(TimePoint now) noexcept;
    void shut() noexcept;

  private:
    [[nodiscard]] bool isOwnHost(std::string_view host) const;

    const std::shared_ptr<Site> fRoot;
    const Finder fFinder;
    const std::string fBelow;  ///< what hosts of sites' own end with
    std::map<std::string, std::shared_ptr<Site>, std::less<>> fNamed;
};

/// What prefixes begin with.
inline constexpr std::string_view kSites = "/s/";
/// "/s/NAME" of "/s/NAME/...", "/s/NAME" and "/s/NAME?..."; empty for another target. A name is one
/// by `text::isName`.
[[nodiscard]] std::string_view sitePrefix(std::string_view target) noexcept;

}  // namespace kirogateway
