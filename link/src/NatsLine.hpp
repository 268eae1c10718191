#pragma once

#include <nats/nats.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "Liveness.hpp"
#include "NatsCluster.hpp"
#include "annotated/Mutex.hpp"

namespace kirolink {

/// A node could not be reached, or has been lost; the text has one line.
struct LineError : std::runtime_error {
    LineError(const std::string& text, bool refused)
        : std::runtime_error(text), isRefused(refused) {}
    bool isRefused;  ///< the node is there, and does not want us
};

/// Returns the host in "tls://host:port"; an IPv6 address without its brackets.
[[nodiscard]] std::string hostOf(const std::string& server);

/// The connection to one node. All of it happens on the thread that calls it: libnats reads and
/// writes when it is told to. But it waits until all is written, for as long as that takes, so a
/// thread beside it looks whether the node hangs, and ends the connection then. One thread.
class NatsLine {
  public:
    struct Destroy {
        void operator()(natsOptions* options) const noexcept { natsOptions_Destroy(options); }
        void operator()(natsConnection* connection) const noexcept;
        void operator()(natsSubscription* subscription) const noexcept;
        void operator()(natsMsg* message) const noexcept { natsMsg_Destroy(message); }
    };
    template <typename T>
    using Owned = std::unique_ptr<T, Destroy>;

    /// Connects to `server`, one of `options.servers`, and waits for that, 2 s at most. Throws
    /// LineError.
    NatsLine(const NatsOptions& options, const std::string& server);
    ~NatsLine();
    NatsLine(const NatsLine&) = delete;
    NatsLine& operator=(const NatsLine&) = delete;

    /// REQUIRES: what it returns is destroyed before this. Throws LineError, as what follows.
    [[nodiscard]] Owned<natsSubscription> subscribe(const std::string& subject);
    void publish(const std::string& subject, std::string_view bytes);
    /// Whether more should be given to `publish`: little of it has not been written yet.
    [[nodiscard]] bool hasRoom() const;
    void write();
    /// Reads and writes what can be, after waiting for that up to `patience`, or until `wakeup`, a
    /// descriptor, is readable.
    void attend(int wakeup, std::chrono::milliseconds patience);
    /// Returns what the node complained about since the last call.
    [[nodiscard]] std::vector<std::string> takeComplaints();

  private:
    struct Complaints;

    [[nodiscard]] Owned<natsOptions> makeOptions(const NatsOptions& options,
                                                 const std::string& server);
    void ask(std::chrono::steady_clock::time_point now);
    void requireOpen();
    void watch();
    [[nodiscard]] bool isLostLocked() REQUIRES_LOCK(fMutex);
    static void complained(natsConnection*, natsSubscription*, natsStatus status, void* address);
    static natsStatus attached(void** own, void* line, natsConnection*, natsSock socket);
    static natsStatus reads(void* line, bool add);
    static natsStatus writes(void* line, bool add);
    static natsStatus detached(void* line);

    int fSocket = -1;                  ///< as `fWatched`
    std::atomic<bool> fWrites{false};  ///< libnats has something to write
    const std::shared_ptr<Complaints> fComplaints;
    Owned<natsConnection> fConnection;

    annotated::Mutex fMutex;
    std::condition_variable fChanged;
    Liveness fLiveness GUARDED_BY(fMutex);
    int fWatched GUARDED_BY(fMutex) = -1;  ///< the socket, until libnats closes it
    bool fIsLost GUARDED_BY(fMutex) = false;
    bool fIsOver GUARDED_BY(fMutex) = false;
    std::thread fWatch;
};

}  // namespace kirolink
