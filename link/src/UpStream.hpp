#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "GatewayEnd.hpp"
#include "NumberedLog.hpp"
#include "annotated/Mutex.hpp"

namespace kirolink {

/// What a gateway sends to the engine: numbered for each joining, kept until the engine has it, and
/// sent at once. Any thread.
class UpStream {
  public:
    /// Bytes that may wait, with what each frame takes besides. What pages say may be the half: the
    /// rest is for what the engine has to know.
    static constexpr std::size_t kMost = std::size_t{64} << 20U;
    static constexpr std::size_t kMostOfPages = kMost / 2;

    /// REQUIRES: `cluster` lives until `detach`.
    UpStream(Cluster& cluster, std::string subject)
        : fCluster(&cluster), fSubject(std::move(subject)) {}

    /// The gateway has joined: numbers begin anew, and the engine is told of the pages.
    void open(std::uint64_t epoch, std::uint64_t incarnation) noexcept;
    /// It has left: nothing is sent any more.
    void close() noexcept;
    /// As `close`, for good.
    void detach() noexcept;

    /// As `GatewayEnd::publish`.
    void publish(std::string_view channel, std::string_view text);
    void sendBlock(std::string_view channel, std::string_view block);
    void announce(GatewayEnd::ViewKind kind, std::string_view client, std::uint64_t view);
    void pages(std::size_t count) noexcept;
    [[nodiscard]] bool hasRoomForPages() const noexcept;
    /// What became of a block that came while the gateway had joined as `incarnation`.
    void answer(std::uint64_t incarnation, std::uint64_t block, BlockOutcome outcome) noexcept;

    /// Everything below this number has been sent.
    [[nodiscard]] std::uint64_t sentBelow() const noexcept;
    /// The engine has everything below `next`. Returns false if that cannot be.
    bool acknowledged(std::uint64_t next) noexcept;
    /// Sends what there was no room for.
    void retry() noexcept;
    void sendAgain(const frame::Ask& ask, NumberedLog::TimePoint now);
    /// Something that the engine has to know could not be sent: the gateway has to join anew.
    [[nodiscard]] bool isBroken() const noexcept;

    struct Statistics {
        std::uint64_t frames = 0;
        std::uint64_t bytes = 0;
    };
    [[nodiscard]] Statistics statistics() const noexcept;
    /// Bytes that the engine has not said that it has.
    [[nodiscard]] std::size_t waiting() const noexcept;

  private:
    [[nodiscard]] frame::Header headerLocked(std::uint64_t ahead = 0) const noexcept
        REQUIRES_LOCK(fMutex) {
        return {fEpoch, fIncarnation, fLog.next() + ahead};
    }
    [[nodiscard]] std::vector<std::string> piecesLocked(bool isBlock, std::string_view channel,
                                                        std::string_view whole) const
        REQUIRES_LOCK(fMutex);
    /// REQUIRES: `most` is one of the bounds. Throws std::length_error.
    void sendLocked(std::vector<std::string> frames, std::size_t most) REQUIRES_LOCK(fMutex);
    void sendLocked(const frame::Body& body) REQUIRES_LOCK(fMutex);
    /// As the one before; what cannot be sent breaks the stream.
    void sendSurelyLocked(const frame::Body& body) noexcept REQUIRES_LOCK(fMutex);
    void flushLocked() noexcept REQUIRES_LOCK(fMutex);
    [[nodiscard]] std::size_t waitingLocked() const noexcept REQUIRES_LOCK(fMutex);

    mutable annotated::Mutex fMutex{annotated::Rank::kLinkSend};
    Cluster* fCluster GUARDED_BY(fMutex);
    const std::string fSubject;
    bool fIsOpen GUARDED_BY(fMutex) = false;
    bool fIsBroken GUARDED_BY(fMutex) = false;
    std::uint64_t fEpoch GUARDED_BY(fMutex) = 0;
    std::uint64_t fIncarnation GUARDED_BY(fMutex) = 0;
    std::size_t fPages GUARDED_BY(fMutex) = 0;
    NumberedLog fLog GUARDED_BY(fMutex);
    Resends fResends GUARDED_BY(fMutex);
    Statistics fStatistics GUARDED_BY(fMutex);
};

}  // namespace kirolink
