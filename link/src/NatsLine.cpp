#include "NatsLine.hpp"

#include <linux/sockios.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <map>
#include <new>
#include <utility>

#include "Credentials.hpp"
#include "annotated/Mutex.hpp"
#include "process/Immortal.hpp"
#include "process/Thread.hpp"
#include "text/Escape.hpp"

namespace kirolink {

/// What came on libnats' thread for errors, until it is fetched.
struct NatsLine::Complaints {
    annotated::Mutex mutex;
    std::vector<std::string> texts GUARDED_BY(mutex);
};

namespace {

constexpr std::int64_t kConnectMilliseconds = 2000;
/// So many bytes are read at once, and as many may wait within libnats to be written: beyond, they
/// stay in the queue, which has a bound.
constexpr int kBufferSize = 256 * 1024;
/// Bytes to write from which on nothing is added. While libnats writes it does not read: a slow
/// line, of 1 Mbit/s, has this and the frame that passed it written in less than a second, after
/// which whoever is not heard counts as gone.
constexpr int kMostUnwritten = 16 * 1024;
constexpr std::size_t kMostTexts = 16;
/// What is not fetched is lost then, which is a gap like any other.
constexpr int kMostPendingMessages = 64 * 1024;
constexpr int kMostPendingBytes = 64 * 1024 * 1024;

/// libnats may call its handlers after the connection was destroyed: they are given an address, and
/// look here whether it still stands for something. A later line may have it then, which costs no
/// more than a strange line in a log.
template <typename T>
class Registry {
  public:
    void add(const std::shared_ptr<T>& object) {
        annotated::Lock lock(fMutex);
        fObjects.emplace(object.get(), object);
    }
    void remove(const void* address) noexcept {
        annotated::Lock lock(fMutex);
        fObjects.erase(address);
    }
    std::shared_ptr<T> find(const void* address) {
        annotated::Lock lock(fMutex);
        const auto found = fObjects.find(address);
        return found == fObjects.end() ? nullptr : found->second;
    }

  private:
    annotated::Mutex fMutex;
    std::map<const void*, std::shared_ptr<T>> fObjects GUARDED_BY(fMutex);
};

template <typename T>
Registry<T>& registry() {
    static Immortal<Registry<T>> all;
    return *all;
}

std::string statusText(natsStatus status) {
    natsStatus last = NATS_OK;
    const char* detail = nats_GetLastError(&last);
    if (last != status || detail == nullptr || *detail == '\0') return natsStatus_GetText(status);
    // It begins with libnats' own place, "(conn.c:1905): ".
    const std::string_view text(detail);
    const auto end = text.starts_with('(') ? text.find("): ") : std::string_view::npos;
    return text::escaped(end == std::string_view::npos ? text : text.substr(end + 3));
}

void require(natsStatus status) {
    if (status == NATS_OK) return;
    const bool refused = status == NATS_CONNECTION_AUTH_FAILED || status == NATS_SSL_ERROR ||
                         status == NATS_SECURE_CONNECTION_WANTED ||
                         status == NATS_SECURE_CONNECTION_REQUIRED;
    throw LineError(statusText(status), refused);
}

std::string withoutScheme(const std::string& server) {
    const auto scheme = server.find("://");
    return scheme == std::string::npos ? server : server.substr(scheme + 3);
}

struct Sent {
    std::uint64_t arrived;
    std::uint64_t waiting;
};

/// What the kernel knows of what was written.
Sent sentThrough(int socket) {
    struct tcp_info info {};
    socklen_t size = sizeof info;
    int waiting = 0;
    getsockopt(socket, IPPROTO_TCP, TCP_INFO, &info, &size);
    ioctl(socket, SIOCOUTQ, &waiting);
    return {info.tcpi_bytes_acked, static_cast<std::uint64_t>(waiting)};
}

}  // namespace

std::string hostOf(const std::string& server) {
    const std::string address = withoutScheme(server);
    if (address.starts_with('[')) return address.substr(1, address.find(']') - 1);
    return address.substr(0, address.find(':'));
}

void NatsLine::Destroy::operator()(natsConnection* connection) const noexcept {
    natsConnection_Close(connection);
    natsConnection_Destroy(connection);
}

void NatsLine::Destroy::operator()(natsSubscription* subscription) const noexcept {
    natsSubscription_Unsubscribe(subscription);
    natsSubscription_Destroy(subscription);
}

NatsLine::NatsLine(const NatsOptions& options, const std::string& server)
    : fComplaints(std::make_shared<Complaints>()),
      fLiveness(options.silence, std::chrono::steady_clock::now()) {
    registry<Complaints>().add(fComplaints);
    try {
        const auto prepared = makeOptions(options, server);
        natsConnection* connection = nullptr;
        require(natsConnection_Connect(&connection, prepared.get()));
        fConnection.reset(connection);
        fWatch = process::makeThread("watching a node", [this] { watch(); });
    } catch (...) {
        fConnection.reset();  // it says so to members that go before it
        registry<Complaints>().remove(fComplaints.get());
        throw;
    }
}

NatsLine::~NatsLine() {
    {
        annotated::Lock lock(fMutex);
        fIsOver = true;
    }
    fChanged.notify_all();
    fWatch.join();
    fConnection.reset();
    registry<Complaints>().remove(fComplaints.get());
}

NatsLine::Owned<natsOptions> NatsLine::makeOptions(const NatsOptions& options,
                                                   const std::string& server) {
    natsOptions* raw = nullptr;
    require(natsOptions_Create(&raw));
    Owned<natsOptions> made(raw);
    const bool isSecure = !options.caFile.empty();
    const std::string url = (isSecure ? "tls://" : "nats://") + withoutScheme(server);
    require(natsOptions_SetURL(raw, url.c_str()));
    if (isSecure) {
        require(natsOptions_SetSecure(raw, true));
        require(natsOptions_LoadCATrustedCertificates(raw, options.caFile.c_str()));
        // Not every build of libnats asks by itself whether it is for this host.
        require(natsOptions_SetExpectedHostname(raw, hostOf(server).c_str()));
    }
    if (!options.credentialsFile.empty()) {
        const auto who = readCredentials(options.credentialsFile);
        require(who.natsFile.empty()
                    ? natsOptions_SetUserInfo(raw, who.user.c_str(), who.password.c_str())
                    : natsOptions_SetUserCredentialsFromFiles(raw, who.natsFile.c_str(), nullptr));
    }
    if (!options.name.empty()) require(natsOptions_SetName(raw, options.name.c_str()));
    if (!options.inboxPrefix.empty()) {
        require(natsOptions_SetCustomInboxPrefix(raw, options.inboxPrefix.c_str()));
    }
    require(natsOptions_SetTimeout(raw, kConnectMilliseconds));
    // Whoever uses this line makes the next one: libnats would keep what was published meanwhile
    // and send it later, and gives up after it was refused twice.
    require(natsOptions_SetAllowReconnect(raw, false));
    require(natsOptions_SetSendAsap(raw, true));
    require(natsOptions_SetIOBufSize(raw, kBufferSize));
    require(natsOptions_SetMaxPendingMsgs(raw, kMostPendingMessages));
    // The node is asked from here; libnats would do so for all lines on one thread, which a line
    // that waits holds up.
    require(natsOptions_SetPingInterval(raw, 0));
    require(natsOptions_SetEventLoop(raw, this, attached, reads, writes, detached));
    require(natsOptions_SetErrorHandler(raw, complained, fComplaints.get()));
    return made;
}

void NatsLine::complained(natsConnection* /*connection*/, natsSubscription* /*subscription*/,
                          natsStatus status, void* address) {
    try {
        const auto complaints = registry<Complaints>().find(address);
        if (complaints == nullptr) return;
        annotated::Lock lock(complaints->mutex);
        if (complaints->texts.size() == kMostTexts) return;
        complaints->texts.push_back(statusText(status));
    } catch (const std::bad_alloc&) {
        // A line of the log less.
    }
}

natsStatus NatsLine::attached(void** own, void* line, natsConnection* /*connection*/,
                              natsSock socket) {
    *own = line;
    auto& self = *static_cast<NatsLine*>(line);
    self.fSocket = socket;
    annotated::Lock lock(self.fMutex);
    self.fWatched = socket;
    self.fLiveness.heard(std::chrono::steady_clock::now());
    return NATS_OK;
}

natsStatus NatsLine::reads(void* /*line*/, bool /*add*/) { return NATS_OK; }

natsStatus NatsLine::writes(void* line, bool add) {
    static_cast<NatsLine*>(line)->fWrites = add;
    return NATS_OK;
}

natsStatus NatsLine::detached(void* line) {
    auto& self = *static_cast<NatsLine*>(line);
    self.fSocket = -1;
    annotated::Lock lock(self.fMutex);
    self.fWatched = -1;
    return NATS_OK;
}

NatsLine::Owned<natsSubscription> NatsLine::subscribe(const std::string& subject) {
    natsSubscription* subscription = nullptr;
    require(natsConnection_SubscribeSync(&subscription, fConnection.get(), subject.c_str()));
    Owned<natsSubscription> owned(subscription);
    require(
        natsSubscription_SetPendingLimits(subscription, kMostPendingMessages, kMostPendingBytes));
    return owned;
}

void NatsLine::publish(const std::string& subject, std::string_view bytes) {
    const auto status = natsConnection_Publish(fConnection.get(), subject.c_str(), bytes.data(),
                                               static_cast<int>(bytes.size()));
    if (status != NATS_MAX_PAYLOAD && status != NATS_INVALID_SUBJECT) return require(status);
    // The line is as good as before; only this message does not go.
    annotated::Lock lock(fComplaints->mutex);
    if (fComplaints->texts.size() < kMostTexts) {
        fComplaints->texts.push_back("cannot send on " + text::escaped(subject) + ": " +
                                     natsStatus_GetText(status));
    }
}

bool NatsLine::hasRoom() const {
    return natsConnection_Buffered(fConnection.get()) < kMostUnwritten;
}

void NatsLine::write() {
    // Without asking first whether it can: mostly it can.
    if (fWrites) natsConnection_ProcessWriteEvent(fConnection.get());
}

void NatsLine::attend(int wakeup, std::chrono::milliseconds patience) {
    const short events = fWrites ? POLLIN | POLLOUT : POLLIN;
    std::array<pollfd, 2> ready{{{fSocket, events, 0}, {wakeup, POLLIN, 0}}};
    if (fSocket >= 0) poll(ready.data(), ready.size(), static_cast<int>(patience.count()));
    const auto now = std::chrono::steady_clock::now();
    if ((ready[0].revents & POLLOUT) != 0) write();
    if ((ready[0].revents & ~POLLOUT) != 0) {
        natsConnection_ProcessReadEvent(fConnection.get());
        annotated::Lock lock(fMutex);
        fLiveness.heard(now);
    }
    requireOpen();
    ask(now);
}

void NatsLine::requireOpen() {
    if (!natsConnection_IsClosed(fConnection.get())) return;
    {
        annotated::Lock lock(fMutex);
        if (fIsLost) throw LineError("it hangs", false);
    }
    const char* text = nullptr;
    const auto status = natsConnection_GetLastError(fConnection.get(), &text);
    // The text may be an older one, of something that was not permitted.
    const bool refused = status == NATS_CONNECTION_AUTH_FAILED;
    throw LineError(refused ? text::escaped(text) : natsStatus_GetText(status), refused);
}

void NatsLine::ask(std::chrono::steady_clock::time_point now) {
    {
        annotated::Lock lock(fMutex);
        if (!fLiveness.mustAsk(now)) return;
    }
    // Sends a ping, and gives up at once to wait for the answer: that is read here.
    natsConnection_FlushTimeout(fConnection.get(), 1);
    write();
    annotated::Lock lock(fMutex);
    if (fWatched < 0 || fWrites) return;
    const auto sent = sentThrough(fWatched);
    fLiveness.asked(sent.arrived + sent.waiting);
}

void NatsLine::watch() {
    constexpr std::chrono::milliseconds kPeriod{100};
    annotated::Lock lock(fMutex);
    while (!fIsOver && !fIsLost) {
        // Ends a write that waits as well.
        fIsLost = isLostLocked();
        if (fIsLost) shutdown(fWatched, SHUT_RDWR);
        std::unique_lock native(fMutex.native(), std::adopt_lock);
        fChanged.wait_for(native, kPeriod);
        native.release();
    }
}

bool NatsLine::isLostLocked() {
    if (fWatched < 0) return false;
    const auto now = std::chrono::steady_clock::now();
    int unread = 0;
    // While the line's thread waits to write it does not read.
    if (ioctl(fWatched, FIONREAD, &unread) == 0 && unread > 0) fLiveness.heard(now);
    const auto sent = sentThrough(fWatched);
    return fLiveness.isLost(now, sent.arrived, sent.waiting);
}

std::vector<std::string> NatsLine::takeComplaints() {
    annotated::Lock lock(fComplaints->mutex);
    return std::exchange(fComplaints->texts, {});
}

}  // namespace kirolink
