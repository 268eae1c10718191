#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Beats.hpp"
#include "BlockWaits.hpp"
#include "DownStream.hpp"
#include "GatewayEnd.hpp"
#include "Inbox.hpp"
#include "NumberedReceiver.hpp"
#include "annotated/Mutex.hpp"
#include "kirolink/Statistics.hpp"

namespace kirolink {

/// Who is given what pages say, and told of gateways: the engine's process. Called on the thread
/// that calls `EngineEnd::step`, with no lock held.
class EngineHost {
  public:
    enum class View : std::uint8_t { kFirst, kFurther, kReturn };

    EngineHost() = default;
    EngineHost(const EngineHost&) = delete;
    EngineHost& operator=(const EngineHost&) = delete;
    virtual ~EngineHost() = default;

    /// On a channel on which pages may publish. `ticket` is let go of when whoever is to have the
    /// text has it: until then it counts against the gateway.
    virtual void text(const std::string& channel, std::string text,
                      std::shared_ptr<const void> ticket) = 0;
    virtual void block(const std::string& channel, std::string_view block) = 0;
    /// `count`: which view of the session it is, 0 if that is not known.
    virtual void view(View kind, std::uint64_t count, std::string_view client) = 0;
    /// A gateway serves the session's page at this address, or will when somebody asks for it
    /// there. Called once for each address, and for the first one of each gateway only.
    virtual void gatewayFound(const std::string& address) = 0;
    virtual void lastPageGone() = 0;
    /// Something to be told in a log; `detail` comes from outside.
    virtual void note(std::string_view event, std::string_view detail) noexcept = 0;
};

/// The engine's end of a session's link: sends once to all gateways, keeps it until each has it,
/// and gives the engine what their pages say.
class EngineEnd {
  public:
    using TimePoint = std::chrono::steady_clock::time_point;
    /// Of one gateway's: what has come of its pages and was not handed on yet.
    static constexpr std::size_t kMostUndelivered = std::size_t{16} << 20U;
    static constexpr std::size_t kMostGateways = 256;

    using Statistics = kirolink::Statistics;

    struct Settings {
        std::string session;
        Description description;  ///< its `views` are counted here
        std::string page;         ///< one of its own, as `writePage` makes it; empty: none
        std::size_t memory = std::size_t{256} << 20U;
    };
    struct GatewayReport {
        std::string name;
        std::string address;
        std::size_t pages = 0;
        std::uint64_t sent = 0;  ///< everything below this number has been
        std::uint64_t has = 0;   ///< and this is what the gateway has said that it has
        bool isSilent = false;
        std::chrono::milliseconds silence{0};
        std::chrono::microseconds clockOffset{0};  ///< engine's wall clock minus the gateway's
        std::chrono::microseconds clockUncertainty{0};
    };

    /// `wake`: called on any thread, without a lock, when `step` has something to do.
    /// Throws as `Cluster::subscribe`. REQUIRES: `cluster` and `host` outlive it.
    EngineEnd(Cluster& cluster, Settings settings, EngineHost& host, std::function<void()> wake,
              Surroundings surroundings = Surroundings::real());
    /// As `stop`.
    ~EngineEnd();
    EngineEnd(const EngineEnd&) = delete;
    EngineEnd& operator=(const EngineEnd&) = delete;

    // --- Any thread -----------------------------------------------------------------------------

    /// Where the engine's texts and blocks go. It may outlive this; nothing is taken then.
    [[nodiscard]] const std::shared_ptr<DownStream>& down() const noexcept { return fStream; }
    /// Whether a gateway that is there had a page, and none has any more.
    [[nodiscard]] bool lastPageGone() const noexcept { return fLastPageGone; }
    [[nodiscard]] Statistics statistics() const;
    [[nodiscard]] std::vector<GatewayReport> gateways() const;
    /// Where the session's page can be had: from gateways that have joined or offer to.
    [[nodiscard]] std::vector<std::string> addresses() const;

    // --- One thread -----------------------------------------------------------------------------

    /// Does what is to be done; returns when to call again at the latest.
    TimePoint step(TimePoint now) noexcept;
    /// Says that the session is over, and gives back all blocks that wait. Nothing is to be done
    /// afterwards; a second call does nothing.
    void stop() noexcept;

  private:
    struct Gateway;
    using Gateways = std::map<std::string, std::unique_ptr<Gateway>, std::less<>>;

    void stepOnce(TimePoint now);
    void handle(const Inbox::Letter& letter, TimePoint now);
    void hello(const std::string& name, const frame::Header& header, const frame::Hello& hello,
               TimePoint now);
    void welcome(const Gateway& gateway);
    void found(const std::string& name, std::string_view address, TimePoint now);
    void handleKnown(Gateway& gateway, const Frame& frame, const Inbox::Letter& letter,
                     TimePoint now);
    void presence(Gateway& gateway, const Frame& frame, const Inbox::Letter& letter, TimePoint now);
    void ask(Gateway& gateway, const Frame& frame, TimePoint now);
    void sendPart(Gateway& gateway, std::uint64_t offset, TimePoint now);
    void numbered(Gateway& gateway, const Frame& frame, std::string_view bytes);
    void take(Gateway& gateway, const frame::Body& body);
    void takePiece(Gateway& gateway, const frame::Piece& piece);
    void deliverText(Gateway& gateway, const std::string& channel, std::string text);
    void announce(Gateway& gateway, const frame::Announce& announce);
    [[nodiscard]] bool mayPublish(std::string_view channel) const noexcept;
    void await(DownStream::Block block, TimePoint now);
    void check(TimePoint now);
    void drop(const std::string& name, std::string_view why);
    void countPages();
    void acknowledge(Gateway& gateway, frame::Ask ask);
    void send(const std::string& gateway, const frame::Header& header, const frame::Body& body);
    void blockEnded(BlockEnd how);
    void report(TimePoint now);
    [[nodiscard]] Statistics reported() const {
        const annotated::Lock lock(fReportMutex);
        return fReported;
    }

    Cluster& fCluster;
    const Settings fSettings;
    EngineHost& fHost;
    const Surroundings fSurroundings;
    const std::uint64_t fEpoch;
    const std::string fDownSubject;
    const std::string fBeatSubject;
    const std::vector<ChannelPattern> fMayPublish;
    const std::shared_ptr<DownStream> fStream;
    Inbox fInbox;
    std::atomic<bool> fLastPageGone{false};

    // The stepping thread's.
    Gateways fGateways;
    struct Found {
        std::string address;
        TimePoint when{};
    };
    std::map<std::string, Found, std::less<>> fFound;       ///< by the names of gateways
    std::map<std::string, std::string, std::less<>> fTold;  ///< the first address of each gateway
    struct Pace {
        TimePoint next{};  ///< when it may be welcomed again
        std::chrono::milliseconds patience{0};
    };
    std::map<std::string, Pace, std::less<>> fPaces;  ///< by the names of gateways
    BlockWaits fWaits;
    Statistics fCounts;
    Steps fSteps;
    TimePoint fNextBeat{};
    TimePoint fNextCheck{};
    std::uint64_t fViews = 0;
    bool fHadPages = false;

    mutable annotated::Mutex fReportMutex;
    Statistics fReported GUARDED_BY(fReportMutex);
    std::vector<GatewayReport> fReportedGateways GUARDED_BY(fReportMutex);
    std::vector<std::string> fReportedAddresses GUARDED_BY(fReportMutex);

    std::unique_ptr<Cluster::Subscription> fSubscription;
};

}  // namespace kirolink
