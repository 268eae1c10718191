#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <vector>

#include "GatewayEnd.hpp"

namespace kirolink {

/// Waits for what becomes of a block of the engine's. Engine code may run in it.
class BlockWait {
  public:
    BlockWait() = default;
    BlockWait(const BlockWait&) = delete;
    BlockWait& operator=(const BlockWait&) = delete;
    virtual ~BlockWait() = default;
    /// Called once.
    virtual void finished(bool isDelivered) noexcept = 0;
};

/// How a block ended.
enum class BlockEnd : std::uint8_t {
    kDelivered,  ///< every gateway that was there has it at its pages, or has none; and one has it
    kRefused,    ///< by a page
    kNobody,     ///< no gateway has a page that hears it
    kGone,       ///< a gateway with pages has gone, or one has not answered in time
};

/// The blocks that gateways have not answered yet. Not synchronised; `finished` and `onEnd` are
/// called from within.
class BlockWaits {
  public:
    using TimePoint = std::chrono::steady_clock::time_point;
    /// Pages have less time than that, so it takes a gateway with a fault to reach it.
    static constexpr std::chrono::seconds kLongest{60};

    explicit BlockWaits(std::function<void(BlockEnd)> onEnd) : fOnEnd(std::move(onEnd)) {}

    /// `number`: of the frame with the block's last piece; `readers`: who has to answer. Throws
    /// std::bad_alloc; nothing has happened then, and `wait` is as it was.
    void add(std::uint64_t number, std::unique_ptr<BlockWait>&& wait,
             std::vector<std::uint64_t> readers, TimePoint now);
    void answered(std::uint64_t reader, std::uint64_t number, BlockOutcome outcome);
    /// That one does not answer any more. Without a page it is as if it had not been there.
    void gone(std::uint64_t reader, bool hadPages);
    /// Ends what has waited for too long.
    void expire(TimePoint now);
    /// Ends all: gone.
    void clear();
    [[nodiscard]] std::size_t size() const noexcept { return fWaits.size(); }

  private:
    struct Entry {
        std::unique_ptr<BlockWait> wait;
        std::vector<std::uint64_t> readers;  ///< who have not answered
        TimePoint since;
        bool isDelivered = false;  ///< somewhere, as the others
        bool isRefused = false;
        bool isGone = false;
    };
    using Waits = std::map<std::uint64_t, Entry>;

    /// Ends the block if nobody is waited for. Returns what follows it.
    Waits::iterator settle(Waits::iterator at);
    void end(Entry& entry) const;

    const std::function<void(BlockEnd)> fOnEnd;
    Waits fWaits;
};

}  // namespace kirolink
