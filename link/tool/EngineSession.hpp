#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <boost/asio/thread_pool.hpp>

#include "GatewayEnd.hpp"
#include "LinkBus.hpp"
#include "Server.hpp"
#include "annotated/Mutex.hpp"

namespace link_tool {

/// What all sessions share. It outlives them.
struct Common {
    kirolink::Cluster& cluster;
    kirogateway::Server& server;
    boost::asio::thread_pool& work;  ///< of what takes long
    std::shared_ptr<kirogateway::Wakeup> wakeup;
    std::shared_ptr<const kirogateway::AssetTable> assets;
    std::shared_ptr<const kirogateway::AssetTable> waiting;  ///< until an engine's own have come
    std::shared_ptr<kirogateway::Counters> counters;
    kirogateway::Options options;     ///< of each session, unless its engine says otherwise
    std::size_t pages = 0;            ///< of one session that may be connected
    std::vector<std::string> others;  ///< origins of the other gateways
    std::string name;                 ///< this gateway's
    std::string address;              ///< "https://HOST:PORT"
    std::size_t pageSize = 0;         ///< bytes of a page that an engine brings
    std::shared_ptr<kirogateway::Budget> ownPages;  ///< of all such pages
    kirolink::Surroundings surroundings;
    kirolink::GatewayEnd::Settings link{};
};

/// One engine that is followed: its end of the link, and the site of its pages, which is another
/// one each time that the gateway joins. If it brings a page of its own that is at an origin of its
/// own, and where the site would be otherwise is one that leads there.
class EngineSession final : public kirolink::Follower,
                            public std::enable_shared_from_this<EngineSession> {
  public:
    using TimePoint = std::chrono::steady_clock::time_point;

    /// REQUIRES: if it has a page of its own, there is an origin for that (`ownOrigin`).
    EngineSession(const Common& common, std::string name, bool hasPage);

    /// Begins to join; nobody is let in until it has. Throws as `kirolink::GatewayEnd`.
    /// REQUIRES: called once, on the gateway's thread.
    void begin();

    [[nodiscard]] const std::string& name() const noexcept { return fName; }

    // --- One thread, not the gateway's ---

    /// To be called about every 50 ms.
    void tick(TimePoint now);
    /// To be called about every second: sees whether pages are there.
    void look(TimePoint now) noexcept;

    // --- Any thread ---

    [[nodiscard]] bool hasPages() const noexcept { return fBus.pagesThere() > 0; }
    /// When a page was seen last, or some more of one of its own came, or it began. Of its own it
    /// is waited for up to 9 minutes.
    [[nodiscard]] TimePoint idleSince() const noexcept { return fIdleSince; }
    /// A page of its own has been offered, and is not there.
    [[nodiscard]] bool lacksPage() const noexcept;
    /// It has joined, and could not serve what it was told of.
    [[nodiscard]] bool hasFailed() const noexcept { return fHasFailed; }
    /// The newest one that is there; null: none is.
    [[nodiscard]] std::shared_ptr<kirogateway::Site> siteAt(std::string_view place) const noexcept;
    /// Bytes that wait for its pages.
    [[nodiscard]] std::size_t waiting() const noexcept { return site()->context->memory->used(); }
    /// The same, and those of a page of its own.
    [[nodiscard]] std::size_t held() const noexcept { return waiting() + fPageSize; }
    /// Ends pages, those for which most waits first, until no more than `bytes` wait.
    void holdAtMost(std::size_t bytes);
    struct Report {
        kirolink::GatewayEnd::Statistics link;
        std::size_t pages = 0;
        std::size_t held = 0;                  ///< bytes that wait for pages
        std::chrono::milliseconds silence{0};  ///< of an engine that has been joined
    };
    [[nodiscard]] Report report(TimePoint now) const;

    /// Follows the engine no more. REQUIRES: the gateway's thread is over, and nobody ticks.
    void stop() noexcept { fEnd.reset(); }

    // --- The gateway's thread ---

    /// Takes the site away, once, unless a page has come. Returns whether it did so.
    bool end(kirogateway::Sites& sites, std::string_view why) noexcept;

    // --- As a follower ---

    PageWanted pageOffered(const kirolink::PageDigest& page) noexcept override;
    bool pageGrows(std::size_t bytes) noexcept override;
    void pageCame(std::string bytes) noexcept override;
    void joined(const kirolink::Description& session) noexcept override;
    void text(const std::string& channel, std::string_view text) noexcept override;
    void block(const std::string& channel, std::shared_ptr<const std::string> block,
               std::unique_ptr<kirolink::BlockTicket> ticket) noexcept override;
    void silent(TimePoint since) noexcept override;
    void heard() noexcept override;
    void left(std::string_view why, Whose whose) noexcept override;

  private:
    using Site = kirogateway::Site;

    [[nodiscard]] std::shared_ptr<Site> site() const noexcept;
    [[nodiscard]] std::shared_ptr<Site> makeRedirect() const;
    [[nodiscard]] kirogateway::Options optionsOf(const kirolink::Description& session) const;
    /// Without `secrets` nobody is let in.
    [[nodiscard]] std::shared_ptr<Site> makeSite(kirogateway::Options options,
                                                 std::shared_ptr<kirogateway::Secrets> secrets,
                                                 std::uint64_t views);
    /// Has pages get `site`, and those of the one before it end.
    void replace(std::shared_ptr<Site> site, const std::string& why,
                 kirogateway::wire::CloseCode code);
    void refuse(std::string_view why) noexcept;
    /// Reads the page that was offered as that one. Any thread; takes long.
    void openPage(std::uint64_t offer, const kirolink::PageDigest& page, std::string bytes,
                  kirogateway::Charge charge) noexcept;
    /// Gives these to pages from now on, unless others have been offered since.
    void serve(std::uint64_t offer, std::shared_ptr<const kirogateway::AssetTable> assets,
               kirogateway::Charge charge) noexcept;
    /// Whether it is silent is looked at on the gateway's thread, where it comes behind what was
    /// told before: an engine that is heard meanwhile is not called silent.
    void tellSilence(TimePoint now);
    void tellPages(const std::string& control);

    const Common& fCommon;
    const std::string fName;
    const std::string fPrefix;  ///< "/s/NAME"
    const std::string fOrigin;  ///< of a page of its own; empty: it brings none
    const std::string fPlace;   ///< of its sites
    kirogateway::GuardedLog fLog;
    LinkBus fBus;
    std::atomic<TimePoint> fSilentSince{TimePoint{}};  ///< none: it is heard
    std::atomic<TimePoint> fIdleSince;
    std::atomic<bool> fHasFailed{false};
    std::atomic<std::size_t> fPageSize{0};  ///< bytes of a page of its own that have come
    TimePoint fNextTelling;                 ///< of the one that ticks
    bool fHasEnded = false;                 ///< the gateway's thread's

    mutable annotated::Mutex fMutex;
    std::shared_ptr<Site> fSite GUARDED_BY(fMutex);  ///< the newest
    std::uint64_t fOffer GUARDED_BY(fMutex) = 0;     ///< counts the pages that were offered
    std::shared_ptr<const kirogateway::AssetTable> fAssets
        GUARDED_BY(fMutex);  ///< of the page that was offered last; null: not there yet
    kirogateway::Charge fHeldCharge GUARDED_BY(fMutex);  ///< for those
    std::shared_ptr<Site> fRedirect;                     ///< constant once it has begun

    // The following thread's.
    std::shared_ptr<Site> fFollowed;  ///< the newest
    kirolink::PageDigest fDigest;     ///< of the page that was offered last
    kirogateway::Charge fCharge;      ///< for what has come of that page, until it is all there
    TimePoint fOfferedAt;

    std::unique_ptr<kirolink::GatewayEnd> fEnd;
};

}  // namespace link_tool
