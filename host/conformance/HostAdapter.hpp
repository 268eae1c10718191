#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

/// What the conformance tests need beyond the platform interfaces: the parts that a client, in
/// production a browser page, plays. Somebody with a host application of their own writes these
/// functions for it and links them with the tests in place of StandInAdapter.cpp.
///
/// A test waits without a time limit: a host that loses what it accepted makes it hang, and the
/// test runner's time-out ends it.
namespace conformance {

/// Makes the calling thread the one on which `utIsSignalThread()` answers true and the main
/// context's tasks run. Called once, by main(), before any test.
void adoptSignalThread();

/// A client publishes `text` on `channel`, to everybody who subscribed in this process. It does
/// not wait for the delivery.
void publishAsClient(const std::string& channel, const std::string& text);

/// A client's ear: while it lives, every message that the process publishes reaches the callback,
/// in publish order and on any thread. What `publishAsClient` sent need not. The destructor waits
/// for a call that runs.
class ClientListener {
  public:
    virtual ~ClientListener() = default;
};
using ClientCallback = std::function<void(const std::string& channel, const std::string& text)>;
[[nodiscard]] std::unique_ptr<ClientListener> listenAsClient(ClientCallback callback);

/// A client's end of the binary stream of one channel. It keeps the blocks that arrive, oldest
/// first, unanswered until it is told. Used by one thread at a time; blocks may arrive meanwhile.
class StreamClient {
  public:
    virtual ~StreamClient() = default;

    /// Blocks until the client has `count` unanswered blocks.
    virtual void awaitBlocks(std::size_t count) = 0;
    /// The bytes of the unanswered block `index`. REQUIRES: it has arrived.
    [[nodiscard]] virtual std::string bytes(std::size_t index) = 0;
    /// Confirms or refuses the unanswered block `index` and forgets it; on the calling thread, or
    /// started from there. REQUIRES: it has arrived.
    virtual void answer(std::size_t index, bool delivered) = 0;
    /// Sends a block to the engine's ends of the channel, which may arrive later.
    virtual void send(const std::string& bytes) = 0;
};
/// REQUIRES: the channel has no other client, and the stream's engine end may not exist yet.
[[nodiscard]] std::unique_ptr<StreamClient> openStreamClient(const std::string& channel);

}  // namespace conformance
