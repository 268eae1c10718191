#pragma once

#include <functional>
#include <memory>
#include <string>

#include "kirohost/Export.hpp"
#include "relay/common/DataBuffer.hpp"

namespace relay::binary::experimental {

/// One block on its way to the client. Movable, not copyable; it answers once, a further answer
/// does nothing. Destroyed without an answer, the block counts as not delivered. An answer after
/// the stream, its interpreter or the client's end has gone does nothing either: the end of each
/// has answered already and given a copy of the block back, so that this one stays readable.
/// REQUIRES, for all but assignment and destruction: not moved from.
class KIROHOST_EXPORT Delivery {
  public:
    struct Impl;
    explicit Delivery(std::unique_ptr<Impl> impl) noexcept;
    Delivery(Delivery&&) noexcept;
    Delivery& operator=(Delivery&&) noexcept;
    Delivery(const Delivery&) = delete;
    Delivery& operator=(const Delivery&) = delete;
    ~Delivery();

    /// The channel and the block, header included. The bytes stay valid until this delivery
    /// answers or is destroyed, whatever becomes of the stream.
    [[nodiscard]] const std::string& channel() const noexcept;
    [[nodiscard]] const common::DataBuffer& block() const noexcept;

    /// The client has the block. Completes the engine's future on this thread. Any thread.
    void deliver();
    /// The client does not have it. Completes the engine's future on this thread. Any thread.
    void fail();

  private:
    std::unique_ptr<Impl> fImpl;
};

/// The client's end of the streams of one channel: it receives, answers and fails on demand.
///
/// `channel` may end in "/*", with the meaning that it has for message channels; an exact name
/// goes before a wildcard, an older end before a younger one. While no end is there, a block
/// sent on the channel completes at once as not delivered.
class KIROHOST_EXPORT ClientEnd {
  public:
    /// Called for each block, in the order of sending, on the sending thread and with no lock
    /// held. It answers there and then, or keeps the delivery and answers later from anywhere.
    /// What it throws is logged, and the block is not delivered.
    using BlockHandler = std::function<void(Delivery)>;

    ClientEnd(std::string channel, BlockHandler handler);
    /// No new call of the handler begins afterwards. What was not answered completes as not
    /// delivered, on this thread; deliveries that the handler kept stay readable.
    ~ClientEnd();
    ClientEnd(const ClientEnd&) = delete;
    ClientEnd& operator=(const ClientEnd&) = delete;

    /// Hands a copy of `block` to the receive callback of every stream of `channel`, on this
    /// thread. Blocks that nobody receives are dropped, what a callback throws is logged. Throws
    /// std::bad_alloc when there is no memory for a copy. Any thread.
    void send(const std::string& channel, const common::DataBuffer& block);

  private:
    struct Impl;
    std::shared_ptr<Impl> fImpl;
};

}  // namespace relay::binary::experimental
