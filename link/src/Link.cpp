#include "kirolink/Link.hpp"

#include <atomic>
#include <boost/json.hpp>
#include <condition_variable>
#include <optional>
#include <stdexcept>
#include <thread>
#include <utility>

#include "Context.hpp"
#include "EngineEnd.hpp"
#include "Frame.hpp"
#include "HostBus.hpp"
#include "Interpreter.hpp"
#include "NatsCluster.hpp"
#include "OptionsCheck.hpp"
#include "OwnPage.hpp"
#include "Subjects.hpp"
#include "Traffic.hpp"
#include "annotated/Mutex.hpp"
#include "process/Thread.hpp"
#include "relay/Relay.hpp"
#include "relay/binary/experimental/ClientEnd.hpp"
#include "secret/RandomHex.hpp"
#include "secret/Sha256.hpp"
#include "text/Name.hpp"

namespace kirolink {
namespace {

namespace json = boost::json;
using kirogateway::HostBus;
using relay::binary::experimental::ClientEnd;
using relay::binary::experimental::Delivery;

/// Has the link's thread look at what is to be done. Any thread.
class Bell {
  public:
    void ring() noexcept { set(fHasRung); }
    void stop() noexcept { set(fIsStopped); }
    /// Until it rings or that time has come; returns whether it goes on.
    [[nodiscard]] bool wait(EngineEnd::TimePoint until) NO_THREAD_SAFETY_ANALYSIS {
        // The condition unlocks and locks behind the analysis's back.
        const annotated::Lock lock(fMutex);
        std::unique_lock native(fMutex.native(), std::adopt_lock);
        fCondition.wait_until(native, until, [this] { return fHasRung || fIsStopped; });
        native.release();
        fHasRung = false;
        return !fIsStopped;
    }

  private:
    void set(bool& flag) noexcept {
        {
            const annotated::Lock lock(fMutex);
            flag = true;
        }
        fCondition.notify_one();
    }

    annotated::Mutex fMutex;
    std::condition_variable fCondition;
    bool fHasRung = false;  ///< guarded by the mutex, as the other
    bool fIsStopped = false;
};

/// The way of texts from the process.
class Outgoing final : public relay::Transport {
  public:
    explicit Outgoing(std::shared_ptr<DownStream> down) : fDown(std::move(down)) {}
    void messagePublished(const relay::Publication& message) override {
        fDown->text(message.channel(), message.text());
    }

  private:
    const std::shared_ptr<DownStream> fDown;
};

/// A block that waits for its gateways.
class DeliveryWait final : public BlockWait {
  public:
    explicit DeliveryWait(Delivery delivery) : fDelivery(std::move(delivery)) {}
    void finished(bool isDelivered) noexcept override {
        try {
            isDelivered ? fDelivery.deliver() : fDelivery.fail();
        } catch (...) {  // what the engine's code throws is its own
        }
    }
    [[nodiscard]] const Delivery& delivery() const noexcept { return fDelivery; }

  private:
    Delivery fDelivery;
};

void offer(DownStream& down, Delivery delivery) {
    auto wait = std::make_unique<DeliveryWait>(std::move(delivery));
    const auto& block = wait->delivery().block();
    const auto& channel = wait->delivery().channel();
    const std::string_view bytes(block.data(), block.size());
    // Both live as long as the wait.
    static_cast<void>(down.block(channel, bytes, std::move(wait)));
}

/// What the gateway's own checks and parts look at.
kirogateway::Options gatewayOptions(const Options& options) {
    kirogateway::Options gateway;
    gateway.token = options.token;
    copyTraffic(options, gateway);
    gateway.newViewChannel = options.newViewChannel;
    gateway.reconnectChannel = options.reconnectChannel;
    gateway.assets = options.assets;
    auto checked = kirogateway::checked(std::move(gateway));
    checked.assets.clear();  // the page that is made of them has them
    return checked;
}

EngineEnd::Settings settingsOf(const Options& options, const std::string& token) {
    if (!subjects::isName(options.session)) {
        throw std::invalid_argument(
            R"(session: it has to be 1 to 64 of letters, digits, "_" and "-")");
    }
    if (options.memory < std::size_t{1} << 20U) {
        throw std::invalid_argument("memory: it has to be at least 1 MiB");
    }
    EngineEnd::Settings settings;
    settings.session = options.session;
    settings.memory = options.memory;
    if (!options.assets.empty()) {
        settings.page = writePage(options.assets);
        if (text::hostLabel(options.session).empty()) {
            throw std::invalid_argument(
                "session: with a page of its own it is a part of a host's name: without \"_\", at "
                "most 63 characters, a letter or digit first and last");
        }
    }
    auto& description = settings.description;
    copyTraffic(options, description);
    description.tokenHash = secret::sha256Hex(token);
    description.pieceSize = options.pieceSize;
    if (!canBeSent(description)) {
        throw std::invalid_argument(
            "configuration and lists of channels: more than goes into a message");
    }
    return settings;
}

NatsOptions natsOptions(const Options& options, std::shared_ptr<kirogateway::Context> context) {
    NatsOptions nats;
    nats.servers = options.servers;
    nats.credentialsFile = options.credentials;
    nats.caFile = options.caFile;
    nats.isPlainAllowed = options.isPlainAllowed;
    nats.name = "session-" + options.session;
    nats.inboxPrefix = "_INBOX.session-" + options.session;
    nats.log = [context = std::move(context)](std::string_view line) {
        context->log.write(line, {});
    };
    return nats;
}

std::string addressesOf(const std::vector<std::string>& servers) {
    std::string all;
    for (const auto& server : servers) all += (all.empty() ? "" : ", ") + server;
    return all;
}

json::object objectOf(const EngineEnd::GatewayReport& gateway) {
    const char* const state = gateway.isSilent    ? "silent"
                              : gateway.pages > 0 ? "connected"
                                                  : "idle";
    return {{"gateway", gateway.name},
            {"address", gateway.address},
            {"state", state},
            {"pages", gateway.pages},
            {"nextMessage", gateway.sent},
            {"acknowledged", gateway.has - 1},
            {"lastSignOfLifeMilliseconds", gateway.silence.count()},
            {"clockOffsetMicroseconds", gateway.clockOffset.count()},
            {"clockUncertaintyMicroseconds", gateway.clockUncertainty.count()}};
}

/// Each with its name, for the diagnosis.
constexpr std::pair<const char*, std::uint64_t Statistics::*> kCounts[] = {
    {"views", &Statistics::views},
    {"framesSent", &Statistics::framesSent},
    {"bytesSent", &Statistics::bytesSent},
    {"resends", &Statistics::resends},
    {"textsReceived", &Statistics::textsReceived},
    {"blocksReceived", &Statistics::blocksReceived},
    {"blocksDelivered", &Statistics::blocksDelivered},
    {"blocksRefused", &Statistics::blocksRefused},
    {"blocksNobody", &Statistics::blocksNobody},
    {"blocksGone", &Statistics::blocksGone},
    {"gaps", &Statistics::gaps},
    {"refusals", &Statistics::refusals},
    {"dropped", &Statistics::dropped},
};
static_assert(sizeof(Statistics) == (std::size(kCounts) + 3) * sizeof(std::uint64_t),
              "a figure is not shown");

/// The engine's process, for the end of the link.
class Process final : public EngineHost {
  public:
    Process(const Options& options, std::string token,
            std::shared_ptr<kirogateway::Context> context)
        : fToken(std::move(token)),
          fOnGateway(options.onGateway),
          fOnLastPageGone(options.onLastPageGone
                              ? options.onLastPageGone
                              : kirogateway::interpreterWaking("kirolink::Link")),
          fContext(std::move(context)) {}

    /// REQUIRES: before any other call; `bus` outlives them.
    void connect(HostBus& bus) noexcept { fBus = &bus; }
    [[nodiscard]] std::string linkOf(const std::string& address) const {
        return address + (address.ends_with('/') ? "#token=" : "/#token=") + fToken;
    }

    void text(const std::string& channel, std::string text,
              std::shared_ptr<const void> ticket) override {
        fBus->texts().deliver(channel, std::make_shared<const std::string>(std::move(text)),
                              std::move(ticket));
    }
    void block(const std::string& channel, std::string_view block) override {
        static_cast<void>(fBus->send(channel, block));
    }
    void view(View kind, std::uint64_t count, std::string_view client) override {
        using Kind = kirogateway::wire::ViewKind;
        static constexpr Kind kKinds[] = {Kind::kFirst, Kind::kFurther, Kind::kReturn};
        fBus->announce(kKinds[static_cast<std::size_t>(kind)], {{}, count, std::string(client)});
    }
    void gatewayFound(const std::string& address) override {
        call([&] {
            if (fOnGateway) fOnGateway(linkOf(address));
        });
    }
    void lastPageGone() override { call(fOnLastPageGone); }
    void note(std::string_view event, std::string_view detail) noexcept override {
        fContext->log.write(event, detail);
    }

  private:
    template <typename Callback>
    void call(const Callback& callback) noexcept {
        try {
            callback();
        } catch (...) {
            fContext->log.writeCaught("a callback of the link's threw");
        }
    }

    const std::string fToken;
    const std::function<void(const std::string&)> fOnGateway;
    const std::function<void()> fOnLastPageGone;
    const std::shared_ptr<kirogateway::Context> fContext;
    HostBus* fBus = nullptr;
};

}  // namespace

struct Link::Impl {
    explicit Impl(const Options& options)
        : session(options.session),
          token(options.token.empty() ? secret::randomHex(32) : options.token),
          context(std::make_shared<kirogateway::Context>(gatewayOptions(options))),
          process(options, token, context),
          settings(settingsOf(options, token)),
          cluster(connectNats(natsOptions(options, context))),
          end(*cluster, std::move(settings), process, [bell = bell] { bell->ring(); }) {}

    void start(const Options& options);
    void stop() noexcept;
    void run() {
        while (bell->wait(end.step(std::chrono::steady_clock::now()))) {
        }
    }

    const std::string session;
    const std::string token;
    const std::shared_ptr<kirogateway::Context> context;
    const std::shared_ptr<Bell> bell = std::make_shared<Bell>();
    Process process;
    EngineEnd::Settings settings;  ///< until the end has them
    const std::unique_ptr<Cluster> cluster;
    EngineEnd end;
    std::vector<std::unique_ptr<ClientEnd>> ends;
    std::unique_ptr<relay::TransportLink> link;
    std::optional<HostBus> bus;
    std::thread thread;
    annotated::Mutex mutex{annotated::Rank::kGatewayStop};  ///< two may stop at once
};

void Link::Impl::start(const Options& options) {
    context->log.write(
        "the session " + session + " is reached over " + addressesOf(options.servers), {});
    for (const auto& channel : options.blockChannels) {
        // The end's handler may still run when this link is gone.
        ends.push_back(std::make_unique<ClientEnd>(
            channel, [to = end.down()](Delivery delivery) { offer(*to, std::move(delivery)); }));
    }
    link = relay::getRelay().attach(std::make_shared<Outgoing>(end.down()));
    bus.emplace(*link, ends.empty() ? nullptr : ends.front().get(), context);
    process.connect(*bus);
    thread = process::makeThread("the link", [this] { run(); });
}

void Link::Impl::stop() noexcept {
    const annotated::Lock lock(mutex);
    // The thread first: it is the one that uses the rest.
    bell->stop();
    if (thread.joinable()) thread.join();
    end.stop();
    ends.clear();
    link.reset();
}

Link::Link(Options options) : fImpl(std::make_unique<Impl>(options)) { fImpl->start(options); }

Link::~Link() { stop(); }

void Link::stop() noexcept { fImpl->stop(); }

const std::string& Link::session() const noexcept { return fImpl->session; }

std::vector<std::string> Link::links() const {
    std::vector<std::string> links;
    for (const auto& address : fImpl->end.addresses()) {
        links.push_back(fImpl->process.linkOf(address));
    }
    return links;
}

bool Link::lastPageGone() const noexcept { return fImpl->end.lastPageGone(); }

Statistics Link::statistics() const { return fImpl->end.statistics(); }

std::string Link::diagnostics() const {
    const auto statistics = fImpl->end.statistics();
    json::array gateways;
    for (const auto& gateway : fImpl->end.gateways()) gateways.push_back(objectOf(gateway));
    json::object all{{"session", fImpl->session},
                     {"connected", fImpl->cluster->isConnected()},
                     {"pages", statistics.pages},
                     {"lastPageGone", lastPageGone()},
                     {"bytesHeld", statistics.waiting}};
    for (const auto& [name, figure] : kCounts) all[name] = statistics.*figure;
    all["detail"] = std::move(gateways);
    return json::serialize(all);
}

}  // namespace kirolink
