#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>

#include "kirohost/Export.hpp"
#include "relay/Future.hpp"
#include "relay/common/DataBuffer.hpp"

namespace relay::binary::experimental {

/// How a send ended.
struct SendResult {
    bool delivered = false;
    /// The block given back, when it was not delivered and the stream's option "returnOnFail" is
    /// "true"; otherwise empty.
    common::DataBuffer buffer;
};

using ReceiveCallback = std::function<void(common::DataBuffer&&)>;

/// The engine's end of one channel's stream of data blocks. All operations on any thread.
class KIROHOST_EXPORT BinaryStream {
  public:
    virtual ~BinaryStream();

    /// Hands `block` over. The future completes exactly once if the stream ever answers: inside
    /// this call, later on another thread, or when the stream, the interpreter that it was made in
    /// or the client's end goes (not delivered, with the block). Blocks may complete out of order
    /// and on several threads at once.
    Future<SendResult> send(common::DataBuffer&& block) { return doSend(std::move(block)); }

    /// Replaces the callback that gets every block arriving from the client, whole. It runs on
    /// the thread on which the client's end sends; an empty one drops the blocks.
    void receive(ReceiveCallback callback) { doReceive(std::move(callback)); }

  protected:
    virtual Future<SendResult> doSend(common::DataBuffer&& block) = 0;
    virtual void doReceive(ReceiveCallback callback) = 0;
};

using StreamOptions = std::map<std::string, std::string>;

/// Makes the engine's end of the stream of `channel`. The stand-in knows the option
/// "returnOnFail" ("true": a block that is not delivered is given back). Several ends of one
/// channel may exist at a time; what the client sends reaches each of them.
KIROHOST_EXPORT std::shared_ptr<BinaryStream> createBinaryStream(const std::string& channel,
                                                                 const StreamOptions& options);

}  // namespace relay::binary::experimental
