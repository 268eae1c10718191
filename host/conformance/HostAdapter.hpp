#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

/// What the conformance tests need beyond the platform interfaces: the parts that a client, in
/// production a browser page, plays. Somebody with a host application of their own writes these
/// functions for it and links them with the tests in place of StandInAdapter.cpp; if the gateway
/// works with the host, RelayClients.cpp has those of the clients.
///
/// A test waits without a time limit of its own: a host that loses what it accepted makes it hang,
/// and the suite's watchdog (Watchdog.hpp) fails it by its name.
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

// --- What an embedding program sets and sees ---------------------------------------------------

/// The host's graphics settings and switches.
struct Settings {
    bool binaryChannelForCommands = false;
    bool binaryChannelFallback = false;
    bool warnAboutFallback = false;
    std::int64_t drawnowTimeoutSeconds = 0;
    bool drawnowTimeoutLogging = false;
    bool atOstrel = false;
    std::function<void()> drawnowTimeoutHook;  ///< may be empty
};
/// Puts all of them in force.
void apply(const Settings& settings);

/// Runs `body` on this thread, and returns "component:key" of each warning that the host has issued
/// meanwhile, in order.
[[nodiscard]] std::vector<std::string> warningsOf(const std::function<void()>& body);

/// The diagnostic loggers called `logger` write records up to `level` from now on.
void setDiagnosticLevel(const std::string& logger, int level);
/// Runs `body` on this thread, and returns the texts that those loggers have written meanwhile.
[[nodiscard]] std::vector<std::string> diagnosticsOf(const std::string& logger,
                                                     const std::function<void()>& body);

/// Sends the event that comes before a memory snapshot.
void takeMemorySnapshot();

/// From now on what the host reports of a failed assertion or of a terminate is written to standard
/// error as well, on one line with the condition, the source, the line and the function. Called in
/// a process of its own, which ends afterwards.
void showAssertions();

}  // namespace conformance
