#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <boost/asio/thread_pool.hpp>

#include "EngineSession.hpp"
#include "Offers.hpp"
#include "Settings.hpp"

namespace link_tool {

using LinkTotals = kirolink::GatewayEnd::Totals;

/// How the program does.
struct ServiceReport {
    bool isConnected = false;  ///< to the cluster
    std::size_t known = 0;     ///< sessions whose engines are heard
    std::size_t followed = 0;
    std::size_t joined = 0;
    std::size_t pages = 0;
    std::size_t held = 0;                      ///< bytes that wait for pages
    std::size_t heldOfOne = 0;                 ///< for those of the session with most
    std::size_t waiting = 0;                   ///< bytes that engines have not said that they have
    std::chrono::milliseconds silence{0};      ///< the longest of an engine's
    std::chrono::microseconds clockOffset{0};  ///< the largest, either way
    std::chrono::microseconds clockUncertainty{0};
    LinkTotals link;                  ///< over all sessions that were followed
    kirogateway::Statistics traffic;  ///< with pages
};

/// The gateway: a server whose sites are the sessions that the cluster has and a page asks for.
class Service {
  public:
    using TimePoint = std::chrono::steady_clock::time_point;

    /// Listens, and serves pages. Throws as `kirogateway::Gateway` and as the cluster.
    /// REQUIRES: `cluster` outlives it.
    Service(const Settings& settings, kirolink::Cluster& cluster,
            kirolink::Surroundings surroundings = kirolink::Surroundings::real());
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;
    /// As `stop`.
    ~Service();

    /// Closes pages so that they go to another gateway, and follows nobody any more.
    void stop() noexcept;

    /// Where browsers find it, "https://HOST:PORT".
    [[nodiscard]] const std::string& address() const noexcept { return fCommon->address; }
    [[nodiscard]] std::uint16_t port() const noexcept { return fServer.port(); }

    // --- One thread ---

    /// To be called about every 50 ms.
    void tick(TimePoint now) noexcept;
    [[nodiscard]] ServiceReport report(TimePoint now) const;

  private:
    using Sessions = std::map<std::string, std::shared_ptr<EngineSession>, std::less<>>;

    struct Heard {
        TimePoint when{};
        bool hasPage = false;           ///< of its own
        const char* refusal = nullptr;  ///< why it is not served
    };

    /// A session's engine lives. Returns the address of its page; empty: it is not served.
    std::string hear(const std::string& name, bool hasPage);
    /// Why a session with a page of its own is not served; null: it is.
    [[nodiscard]] const char* refusalOf(const std::string& name) const;
    /// Of a session that is served, and whose engine is heard.
    [[nodiscard]] std::optional<Heard> heardOf(std::string_view name) const;
    /// One that is followed; null: none is.
    [[nodiscard]] std::shared_ptr<EngineSession> sessionOf(std::string_view name) const;

    // --- The gateway's thread ---

    [[nodiscard]] kirogateway::Sites::Found find(kirogateway::Sites& sites, std::string_view place);
    /// The site of a session whose engine is heard; null: it cannot be followed.
    [[nodiscard]] std::shared_ptr<kirogateway::Site> follow(kirogateway::Sites& sites,
                                                            const std::string& name, bool hasPage,
                                                            std::string_view place);
    /// What there is where no session is, as where one is whose engine has not been reached.
    [[nodiscard]] std::shared_ptr<kirogateway::Site> nobody(std::string_view place) const;
    /// Ends the session that has had no page for longest. Returns whether there was one.
    [[nodiscard]] bool makeRoom(kirogateway::Sites& sites);
    /// Returns whether it has been ended.
    bool end(kirogateway::Sites& sites, EngineSession& session, std::string_view why) noexcept;

    // --- Any thread ---

    /// Ends a session a moment later, if it has no page then.
    void endLater(const std::shared_ptr<EngineSession>& session, std::string why);
    void forget(const EngineSession& session) noexcept;
    [[nodiscard]] std::vector<std::shared_ptr<EngineSession>> sessions() const;
    void forgetSilent(TimePoint now);

    /// Has the session with most give so much up that all together hold no more than they may.
    void boundMemory(const std::vector<std::shared_ptr<EngineSession>>& all) const;

    const std::size_t fMostSessions;
    const std::size_t fMostMemory;
    kirolink::Cluster& fCluster;
    const std::shared_ptr<kirogateway::Context> fContext;
    const std::shared_ptr<kirogateway::Wakeup> fWakeup;
    kirogateway::Server fServer;
    boost::asio::thread_pool fWork{1};  ///< what takes long, one after the other
    std::unique_ptr<Common> fCommon;
    TimePoint fNextLook;

    mutable annotated::Mutex fMutex;
    Sessions fSessions GUARDED_BY(fMutex);
    std::map<std::string, Heard, std::less<>> fHeard GUARDED_BY(fMutex);  ///< by sessions' names
    LinkTotals fPast GUARDED_BY(fMutex);  ///< of sessions that are not followed any more

    std::optional<kirolink::Offers> fOffers;  ///< the beats' thread's
    std::unique_ptr<kirolink::Cluster::Subscription> fBeats;
};

}  // namespace link_tool
