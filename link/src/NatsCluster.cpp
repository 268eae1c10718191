#include "NatsCluster.hpp"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <csignal>
#include <cstdint>
#include <deque>
#include <optional>
#include <set>
#include <system_error>
#include <thread>
#include <utility>

#include "Credentials.hpp"
#include "NatsLine.hpp"
#include "annotated/Mutex.hpp"
#include "checked/Require.hpp"
#include "process/Thread.hpp"
#include "text/Escape.hpp"

namespace kirolink {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr std::size_t kMostBytes = std::size_t{1} << 20U;  // of a message
/// What a message takes in the queue besides its bytes, so that many small ones have a bound.
constexpr std::size_t kOverhead = 128;
constexpr auto kBetweenRounds = 100ms;
constexpr auto kAfterRefusal = 1s;
/// A connection that did not hold for so long is not made again at once.
constexpr auto kShort = 1s;
constexpr auto kLongestWait = 100ms;
/// So long what waits still goes out when the cluster is left.
constexpr auto kForTheRest = 1s;
/// Different lines of complaints, and of why no node can be used; further ones are dropped.
constexpr std::size_t kMostComplaints = 64;
constexpr std::size_t kMostReasons = 8;

/// Wakes the thread that waits for it. Any thread.
class Wakeup {
  public:
    Wakeup() : fDescriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
        if (fDescriptor < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
    }
    ~Wakeup() { close(fDescriptor); }
    Wakeup(const Wakeup&) = delete;
    Wakeup& operator=(const Wakeup&) = delete;

    void wake() const noexcept {
        // It can only fail when there are very many that have not been heard yet.
        static_cast<void>(eventfd_write(fDescriptor, 1));
    }
    void clear() const noexcept {
        eventfd_t count = 0;
        static_cast<void>(eventfd_read(fDescriptor, &count));
    }
    void wait(std::chrono::milliseconds patience) const noexcept {
        pollfd waiting{fDescriptor, POLLIN, 0};
        poll(&waiting, 1, static_cast<int>(patience.count()));
        clear();
    }
    [[nodiscard]] int descriptor() const noexcept { return fDescriptor; }

  private:
    const int fDescriptor;
};

/// One subscription. `isEnded` and `isCalling` belong to the cluster's mutex; the rest is for the
/// cluster's thread, but for the listener, which goes when no call is under way any more.
struct Heard {
    Heard(std::string name, Cluster::Listener to)
        : subject(std::move(name)), listener(std::move(to)) {}

    const std::string subject;
    Cluster::Listener listener;
    NatsLine::Owned<natsSubscription> source;
    bool isEnded = false;
    bool isCalling = false;
};

class NatsCluster final : public Cluster {
  public:
    explicit NatsCluster(NatsOptions options)
        : fOptions(std::move(options)),
          fThread(process::makeThread("the cluster", [this] { run(); })) {}
    ~NatsCluster() override {
        {
            annotated::Lock lock(fMutex);
            fIsStopping = true;
        }
        fWakeup.wake();
        fThread.join();
        KIROWEB_REQUIRE(fHeard.empty() && fNew.empty());  // subscriptions end before their cluster
    }

    bool publish(const std::string& subject, Bytes bytes) noexcept override;
    std::unique_ptr<Subscription> subscribe(const std::string& subject, Listener listener) override;
    [[nodiscard]] bool isConnected() const noexcept override { return fIsConnected; }

  private:
    class OneSubscription;
    struct Message {
        std::string subject;
        Bytes bytes;
        [[nodiscard]] std::size_t size() const {
            return subject.size() + bytes->size() + kOverhead;
        }
    };

    void run() noexcept;
    bool connectToAny();
    void connect(const std::string& server);
    void lose(const std::string& why) noexcept;
    /// The next node is the one to be tried.
    void leaveLine() noexcept;
    void waitToTryAgain();
    void sendTheRest() noexcept;
    void attend();
    void takeSubscriptions();
    void passMessages();
    [[nodiscard]] std::optional<Message> nextMessage();
    [[nodiscard]] bool hasMessages();
    void forgetNew();
    [[nodiscard]] bool isStopping();
    void deliver(Heard& heard);
    void call(Heard& heard, std::string_view subject, std::string_view bytes);
    void end(const std::shared_ptr<Heard>& heard) noexcept;
    void waitForCallLocked() REQUIRES_LOCK(fMutex);
    void say(const std::string& line) noexcept;
    void sayComplaint(const std::string& line);
    void sayReason(const std::string& why);

    const NatsOptions fOptions;
    Wakeup fWakeup;
    std::atomic<bool> fIsConnected{false};

    // The thread's own.
    std::optional<NatsLine> fLine;
    std::vector<std::shared_ptr<Heard>> fHeard;
    std::size_t fServer = 0;
    std::set<std::string> fComplaints;  ///< that were told
    std::set<std::string> fReasons;     ///< that were told since the last connection
    bool fIsRefused = false;
    Clock::time_point fConnectedSince;

    annotated::Mutex fMutex;
    std::condition_variable fCallEnded;
    std::deque<Message> fQueue GUARDED_BY(fMutex);
    std::size_t fQueued GUARDED_BY(fMutex) = 0;
    std::vector<std::shared_ptr<Heard>> fNew GUARDED_BY(fMutex);
    bool fHasEnded GUARDED_BY(fMutex) = false;  ///< some of `fHeard` are to be left
    bool fIsAsleep GUARDED_BY(fMutex) = false;  ///< the thread is to be woken for a message
    bool fIsStopping GUARDED_BY(fMutex) = false;

    std::thread fThread;  ///< the last: it uses all the others
};

class NatsCluster::OneSubscription final : public Subscription {
  public:
    OneSubscription(NatsCluster& cluster, std::shared_ptr<Heard> heard)
        : fCluster(cluster), fHeard(std::move(heard)) {}
    ~OneSubscription() override { fCluster.end(fHeard); }
    OneSubscription(const OneSubscription&) = delete;
    OneSubscription& operator=(const OneSubscription&) = delete;

  private:
    NatsCluster& fCluster;
    const std::shared_ptr<Heard> fHeard;
};

bool NatsCluster::publish(const std::string& subject, Bytes bytes) noexcept {
    KIROWEB_REQUIRE(bytes != nullptr && bytes->size() <= kMostBytes);
    bool isAsleep = false;
    try {
        Message message{subject, std::move(bytes)};
        annotated::Lock lock(fMutex);
        // Asked under the mutex: what comes after the queue was emptied stays out of it.
        if (!fIsConnected || fQueued + message.size() > fOptions.queueSize) return false;
        const auto size = message.size();
        fQueue.push_back(std::move(message));
        fQueued += size;
        isAsleep = std::exchange(fIsAsleep, false);
    } catch (const std::bad_alloc&) {
        return false;
    }
    if (isAsleep) fWakeup.wake();
    return true;
}

std::unique_ptr<Cluster::Subscription> NatsCluster::subscribe(const std::string& subject,
                                                              Listener listener) {
    auto heard = std::make_shared<Heard>(subject, std::move(listener));
    auto subscription = std::make_unique<OneSubscription>(*this, heard);
    {
        annotated::Lock lock(fMutex);
        fNew.push_back(std::move(heard));
    }
    fWakeup.wake();
    return subscription;
}

void NatsCluster::end(const std::shared_ptr<Heard>& heard) noexcept {
    const bool isWithin = std::this_thread::get_id() == fThread.get_id();
    Listener last;
    {
        annotated::Lock lock(fMutex);
        heard->isEnded = true;
        fHasEnded = true;
        while (heard->isCalling && !isWithin) waitForCallLocked();
        // Within its own call it goes with the subscription, after the call.
        if (!heard->isCalling) last = std::exchange(heard->listener, nullptr);
    }
    fWakeup.wake();
}

void NatsCluster::waitForCallLocked() {
    std::unique_lock native(fMutex.native(), std::adopt_lock);
    fCallEnded.wait(native);
    native.release();
}

bool NatsCluster::isStopping() {
    annotated::Lock lock(fMutex);
    return fIsStopping;
}

void NatsCluster::run() noexcept {
    // Signals are for the program's own threads; those of libnats begin here.
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, nullptr);
    while (!isStopping()) {
        try {
            takeSubscriptions();
            if (fLine || connectToAny()) {
                attend();
            } else {
                waitToTryAgain();
            }
        } catch (const std::exception& error) {
            lose(error.what());
        }
    }
    sendTheRest();
    lose({});
    fHeard.clear();
    forgetNew();
    nats_ReleaseThreadMemory();
}

bool NatsCluster::connectToAny() {
    fIsRefused = false;
    if (Clock::now() - fConnectedSince < kShort) return false;
    std::string why;
    for (std::size_t i = 0; i < fOptions.servers.size() && !isStopping(); ++i) {
        const auto& server = fOptions.servers[fServer];
        try {
            connect(server);
            return true;
        } catch (const std::runtime_error& error) {
            // Either the node's, or credentials that cannot be read just now.
            const auto* const lineError = dynamic_cast<const LineError*>(&error);
            fIsRefused = fIsRefused || lineError == nullptr || lineError->isRefused;
            why += (why.empty() ? "" : "; ") + server + ": " + error.what();
        }
        leaveLine();
    }
    if (!isStopping()) sayReason(why);
    return false;
}

void NatsCluster::connect(const std::string& server) {
    fLine.emplace(fOptions, server);
    for (const auto& heard : fHeard) heard->source = fLine->subscribe(heard->subject);
    fConnectedSince = Clock::now();
    fReasons.clear();
    {
        annotated::Lock lock(fMutex);
        fIsConnected = true;
    }
    say("connected to the cluster's node " + server);
}

void NatsCluster::lose(const std::string& why) noexcept {
    std::deque<Message> lost;
    {
        annotated::Lock lock(fMutex);
        fIsConnected = false;
        fQueue.swap(lost);
        fQueued = 0;
    }
    if (!fLine) return;
    try {
        for (const auto& complaint : fLine->takeComplaints()) sayComplaint(complaint);
        if (!why.empty()) say("lost the cluster's node " + fOptions.servers[fServer] + ": " + why);
    } catch (const std::bad_alloc&) {
        // A line of the log less.
    }
    leaveLine();
}

void NatsCluster::leaveLine() noexcept {
    for (const auto& heard : fHeard) heard->source.reset();
    fLine.reset();
    fServer = (fServer + 1) % fOptions.servers.size();
}

void NatsCluster::sendTheRest() noexcept {
    try {
        if (!fLine) return;
        // A line has room for a part of it at a time.
        const auto end = Clock::now() + kForTheRest;
        do {
            passMessages();
            fLine->write();
        } while (hasMessages() && Clock::now() < end);
    } catch (const std::exception&) {
        // Lost, as it may be.
    }
}

void NatsCluster::waitToTryAgain() {
    const auto end = Clock::now() + (fIsRefused ? kAfterRefusal : kBetweenRounds);
    while (!isStopping()) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
        if (left <= 0ms) return;
        fWakeup.wait(left);
        takeSubscriptions();
    }
}

void NatsCluster::takeSubscriptions() {
    std::vector<std::shared_ptr<Heard>> ended;
    {
        annotated::Lock lock(fMutex);
        if (fNew.empty() && !fHasEnded) return;
        // All of them first: when the line breaks with one of them, the next line has the others.
        fHeard.insert(fHeard.end(), fNew.begin(), fNew.end());
        fNew.clear();
        if (fHasEnded) {
            const auto isOver = [](const auto& heard) { return heard->isEnded; };
            std::copy_if(fHeard.begin(), fHeard.end(), std::back_inserter(ended), isOver);
            std::erase_if(fHeard, isOver);
            fHasEnded = false;
        }
    }
    if (!fLine) return;
    for (const auto& heard : fHeard) {
        if (heard->source == nullptr) heard->source = fLine->subscribe(heard->subject);
    }
}

void NatsCluster::forgetNew() {
    // Those that came and went while a node was tried.
    annotated::Lock lock(fMutex);
    fNew.clear();
}

bool NatsCluster::hasMessages() {
    annotated::Lock lock(fMutex);
    return !fQueue.empty();
}

void NatsCluster::attend() {
    passMessages();
    fLine->write();
    auto patience = std::chrono::milliseconds(kLongestWait);
    {
        annotated::Lock lock(fMutex);
        fIsAsleep = fLine->hasRoom();
        if (fIsAsleep && !fQueue.empty()) patience = 0ms;
        if (!fNew.empty() || fHasEnded || fIsStopping) patience = 0ms;
    }
    fLine->attend(fWakeup.descriptor(), patience);
    {
        annotated::Lock lock(fMutex);
        fIsAsleep = false;
    }
    fWakeup.clear();
    for (const auto& heard : fHeard) deliver(*heard);
    for (const auto& complaint : fLine->takeComplaints()) sayComplaint(complaint);
}

void NatsCluster::passMessages() {
    while (fLine->hasRoom()) {
        const auto message = nextMessage();
        if (!message) return;
        fLine->publish(message->subject, *message->bytes);
    }
}

std::optional<NatsCluster::Message> NatsCluster::nextMessage() {
    annotated::Lock lock(fMutex);
    if (fQueue.empty()) return std::nullopt;
    auto message = std::move(fQueue.front());
    fQueue.pop_front();
    fQueued -= message.size();
    return message;
}

void NatsCluster::deliver(Heard& heard) {
    natsMsg* raw = nullptr;
    // A slow consumer is told in place of a message, and some are lost: a gap, no more.
    for (;;) {
        const auto status = natsSubscription_NextMsg(&raw, heard.source.get(), 0);
        if (status == NATS_SLOW_CONSUMER) continue;
        if (status != NATS_OK) return;
        const NatsLine::Owned<natsMsg> message(raw);
        call(heard, natsMsg_GetSubject(raw),
             {natsMsg_GetData(raw), static_cast<std::size_t>(natsMsg_GetDataLength(raw))});
    }
}

void NatsCluster::call(Heard& heard, std::string_view subject, std::string_view bytes) {
    {
        annotated::Lock lock(fMutex);
        if (heard.isEnded) return;
        heard.isCalling = true;
    }
    try {
        heard.listener(subject, bytes);
    } catch (const std::exception& error) {
        sayComplaint("a listener threw: " + text::escaped(error.what()));
    } catch (...) {
        sayComplaint("a listener threw");
    }
    {
        annotated::Lock lock(fMutex);
        heard.isCalling = false;
    }
    fCallEnded.notify_all();
}

void NatsCluster::say(const std::string& line) noexcept {
    try {
        if (fOptions.log) fOptions.log(line);
    } catch (...) {
        // The log is not worth the connection.
    }
}

void NatsCluster::sayComplaint(const std::string& line) {
    if (fComplaints.size() < kMostComplaints && fComplaints.insert(line).second) say(line);
}

void NatsCluster::sayReason(const std::string& why) {
    if (fReasons.size() == kMostReasons || !fReasons.insert(why).second) return;
    say("no node of the cluster can be used (" + why + "); trying on");
}

/// Only what is certainly this machine: a name may stand for another one.
bool isHere(const std::string& host) {
    in_addr address{};
    if (inet_pton(AF_INET, host.c_str(), &address) == 1) return ntohl(address.s_addr) >> 24U == 127;
    return host == "::1" || host == "localhost";
}

void requireRight(const NatsOptions& options) {
    if (options.servers.empty()) throw std::invalid_argument("no server of the cluster is named");
    for (const auto& server : options.servers) {
        if (server.empty() || server.find_first_of(" \t\r\n,@") != std::string::npos) {
            throw std::invalid_argument("not a server's \"host:port\": " + text::escaped(server));
        }
        if (options.caFile.empty() && !(options.isPlainAllowed && isHere(hostOf(server)))) {
            throw std::invalid_argument("no TLS to " + text::escaped(server) +
                                        ": a CA's file is missing");
        }
    }
    try {
        if (!options.credentialsFile.empty()) {
            static_cast<void>(readCredentials(options.credentialsFile));
        }
    } catch (const std::runtime_error& error) {
        throw std::invalid_argument(error.what());
    }
    if (!options.caFile.empty() && access(options.caFile.c_str(), R_OK) != 0) {
        throw std::invalid_argument("cannot read " + text::escaped(options.caFile));
    }
}

}  // namespace

std::unique_ptr<Cluster> connectNats(NatsOptions options) {
    requireRight(options);
    return std::make_unique<NatsCluster>(std::move(options));
}

}  // namespace kirolink
