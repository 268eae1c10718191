#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Cluster.hpp"
#include "Surroundings.hpp"

namespace kirolink {

/// What is known of a page that an engine brings before it has come; see OwnPage.hpp.
struct PageDigest {
    std::size_t files = 0;
    std::uint64_t size = 0;  ///< bytes of the whole
    std::string hash;        ///< its SHA-256, 64 small hexadecimal digits

    [[nodiscard]] bool isThere() const noexcept { return files > 0; }
    friend bool operator==(const PageDigest&, const PageDigest&) = default;
};

/// What an engine says of its session when a gateway joins it. As in `kirogateway::Options`.
struct Description {
    std::string configuration = "{}";
    std::vector<std::string> mayPublish;
    std::vector<std::string> maySubscribe;
    std::vector<std::string> blockChannels;
    std::vector<std::vector<std::string>> lanes;
    std::string tokenHash;      ///< SHA-256 of what lets a page in, 64 small hexadecimal digits
    std::uint64_t views = 0;    ///< that the session has had, over all its gateways
    std::size_t pieceSize = 0;  ///< as `kirogateway::Limits::pieceSize`; 0: as usual
    PageDigest page{};          ///< of its own, if it brings one
};

/// What became of a block at one gateway.
enum class BlockOutcome : std::uint8_t { kDelivered, kRefused, kNobody };

/// Answers a block of an engine's once; destroyed without an answer it counts as refused. Any
/// thread.
class BlockTicket {
  public:
    BlockTicket() = default;
    BlockTicket(const BlockTicket&) = delete;
    BlockTicket& operator=(const BlockTicket&) = delete;
    virtual ~BlockTicket() = default;
    virtual void answer(BlockOutcome outcome) noexcept = 0;
};

/// Who is given what an engine sends: the pages of one gateway. Calls come one at a time, on
/// threads of the cluster's or on the one that calls `tick`; they do not block.
class Follower {
  public:
    Follower() = default;
    Follower(const Follower&) = delete;
    Follower& operator=(const Follower&) = delete;
    virtual ~Follower() = default;

    enum class PageWanted : std::uint8_t { kHere, kFetch, kRefused };
    /// The session brings a page of its own. kHere: it need not come again; kRefused: the end has
    /// no more to do with the session. Called before `joined`.
    [[nodiscard]] virtual PageWanted pageOffered(const PageDigest& page) noexcept {
        static_cast<void>(page);
        return PageWanted::kRefused;
    }
    /// More of it is there: so many bytes are held from now on. Returns whether it is to go on;
    /// false is as kRefused. Between `joined` and `left`, as the one that follows.
    [[nodiscard]] virtual bool pageGrows(std::size_t bytes) noexcept {
        static_cast<void>(bytes);
        return true;
    }
    /// It has been fetched: as many bytes as it was said to have. Nobody has looked at them yet;
    /// whoever finds that they are not what was said calls `GatewayEnd::refuse`.
    virtual void pageCame(std::string bytes) noexcept { static_cast<void>(bytes); }
    /// The gateway has joined; what comes from now on is without a gap. Called again when the
    /// session begins anew, with another engine or because the gateway was dropped: views of before
    /// are over.
    virtual void joined(const Description& session) noexcept = 0;
    virtual void text(const std::string& channel, std::string_view text) noexcept = 0;
    /// `block` with its header.
    virtual void block(const std::string& channel, std::shared_ptr<const std::string> block,
                       std::unique_ptr<BlockTicket> ticket) noexcept = 0;
    /// Nothing has been heard of the engine for a second; `since`: when it was last heard. This,
    /// and what follows, only between `joined` and `left`.
    virtual void silent(std::chrono::steady_clock::time_point since) noexcept = 0;
    /// It is heard again, and goes on without a gap.
    virtual void heard() noexcept = 0;
    /// kEngine: as far as this gateway can tell, no other one has it either.
    enum class Whose : std::uint8_t { kEngine, kGateway };
    /// The session is over for this gateway: `why` in a few words ("the engine is gone"). Views are
    /// over. The gateway's end tries to join again, unless the session was refused.
    virtual void left(std::string_view why, Whose whose) noexcept = 0;
};

/// The gateway's end of one session's link: joins, asks for what is missing, keeps what pages say
/// until the engine has it. Any thread.
class GatewayEnd {
  public:
    using TimePoint = std::chrono::steady_clock::time_point;
    struct Identity {
        std::string session;
        std::string gateway;  ///< one that no other gateway has, of letters and digits
        std::string address;  ///< where a browser finds the session: "https://host:port/s/NAME"
    };
    /// What engines can rely on.
    static constexpr std::size_t kLargest = std::size_t{256} << 20U;
    struct Settings {
        /// Bytes that a text or block of the engine's may have. So many may be held of one that
        /// has not come in full.
        std::size_t largest = kLargest;
    };
    /// What is counted from the beginning on.
    struct Totals {
        std::uint64_t framesReceived = 0;
        std::uint64_t bytesReceived = 0;
        std::uint64_t gaps = 0;     ///< times that something was missing
        std::uint64_t resends = 0;  ///< frames that came because they were asked for
        std::uint64_t framesSent = 0;
        std::uint64_t bytesSent = 0;
        std::uint64_t refusals = 0;  ///< frames that could not be read
        Totals& operator+=(const Totals& others) noexcept;
    };
    struct Statistics : Totals {
        std::size_t waiting = 0;                   ///< as `waiting()`
        std::chrono::microseconds clockOffset{0};  ///< engine's wall clock minus this one's
        /// Half the shortest round trip; 0 while the offset is not known.
        std::chrono::microseconds clockUncertainty{0};
        bool isJoined = false;
    };

    /// Begins to join. REQUIRES: `cluster` and `follower` outlive it.
    GatewayEnd(Cluster& cluster, Identity identity, Follower& follower,
               Surroundings surroundings = Surroundings::real());
    GatewayEnd(Cluster& cluster, Identity identity, Follower& follower, Surroundings surroundings,
               const Settings& settings);
    ~GatewayEnd();
    GatewayEnd(const GatewayEnd&) = delete;
    GatewayEnd& operator=(const GatewayEnd&) = delete;

    /// What a page published; in order, and kept until the engine has it. Throws std::bad_alloc
    /// and, when too much waits of it, std::length_error; nothing is sent then. While the gateway
    /// has not joined there are no views, and nothing is sent either. As the two that follow.
    void publish(std::string_view channel, std::string_view text);
    void sendBlock(std::string_view channel, std::string_view block);
    /// False: what waits takes half of the room that there is for what pages say, so they should
    /// not be read on.
    [[nodiscard]] bool hasRoomForPages() const noexcept;
    enum class ViewKind : std::uint8_t { kNew, kReturn };
    /// A view has come or come back. The engine's end says which of the session it is. `view`: the
    /// gateway's own number of it, by which the engine's end knows it again when it comes back.
    void announce(ViewKind kind, std::string_view client, std::uint64_t view = 0);
    /// How many pages are there now; none after some: the last one has gone.
    void pages(std::size_t count) noexcept;
    /// Has no more to do with the session, and tells the engine; unless `isMeant` says by then that
    /// it is not this joining that was meant. That is asked between calls of the follower.
    void refuse(const std::function<bool()>& isMeant = {}) noexcept;
    /// To be called about every 50 ms: beats, time limits, what was asked for and did not come.
    void tick(TimePoint now) noexcept;
    [[nodiscard]] Statistics statistics() const;
    /// Bytes that the engine has not said that it has.
    [[nodiscard]] std::size_t waiting() const noexcept;

  private:
    struct Impl;
    std::unique_ptr<Impl> fImpl;
};

}  // namespace kirolink
