#include "kirogateway/Gateway.hpp"

#include <boost/system/system_error.hpp>
#include <chrono>
#include <optional>
#include <system_error>
#include <utility>
#include <vector>

#include "Context.hpp"
#include "HostBus.hpp"
#include "Interpreter.hpp"
#include "OptionsCheck.hpp"
#include "Server.hpp"
#include "annotated/Mutex.hpp"

namespace kirogateway {
namespace {

using relay::binary::experimental::ClientEnd;
using relay::binary::experimental::Delivery;

}  // namespace

struct Gateway::Impl {
    explicit Impl(Options options)
        : assets(std::make_shared<const AssetTable>(std::exchange(options.assets, {}))),
          context(contextOf(std::move(options))),
          wakeup(std::make_shared<Wakeup>()),
          site(std::make_shared<Site>(std::string(), context, wakeup, lastPageGone())),
          secrets(std::make_shared<Secrets>(context->options.limits.code, context->options.token)),
          server(context, wakeup) {}

    /// Which counts what waits together with all other gateways of the process.
    [[nodiscard]] static std::shared_ptr<Context> contextOf(Options options) {
        return std::make_shared<Context>(std::move(options), std::string(),
                                         std::make_shared<Counters>(), std::vector<std::string>(),
                                         Account::ofProcess());
    }
    void start();
    void stop() noexcept;
    [[nodiscard]] std::function<void()> lastPageGone() const {
        const auto& own = context->options.onLastPageGone;
        if (own) return own;
        return interpreterWaking("kirogateway::Gateway");
    }

    const std::shared_ptr<const AssetTable> assets;
    const std::shared_ptr<Context> context;
    const std::shared_ptr<Wakeup> wakeup;
    const std::shared_ptr<Site> site;  ///< the only one
    const std::shared_ptr<Secrets> secrets;
    std::string address;
    Server server;
    std::vector<std::unique_ptr<ClientEnd>> ends;
    std::unique_ptr<relay::TransportLink> link;
    std::optional<HostBus> bus;
    annotated::Mutex mutex{annotated::Rank::kGatewayStop};  ///< two may stop at once
};

void Gateway::Impl::start() {
    const auto& options = context->options;
    site->access =
        std::make_unique<AccessPolicy>(options, server.port(), Entrance{assets, secrets});
    address = site->access->address();
    for (const auto& channel : options.blockChannels) {
        // The end's handler may still run when this gateway is gone.
        ends.push_back(std::make_unique<ClientEnd>(
            channel, [to = site->fanout](Delivery delivery) { to->offer(std::move(delivery)); }));
    }
    link = relay::getRelay().attach(site->fanout);
    bus.emplace(*link, ends.empty() ? nullptr : ends.front().get(), context);
    site->inbound.connect(*bus);
    server.start(Sites(site));
}

void Gateway::Impl::stop() noexcept {
    const annotated::Lock lock(mutex);
    // The thread first: it is the one that uses the link and the ends.
    server.stop();
    ends.clear();
    link.reset();
}

Gateway::Gateway(Options options) try : fImpl(std::make_unique<Impl>(checked(std::move(options)))) {
    fImpl->start();
} catch (const boost::system::system_error& error) {
    // A type that needs no Boost to catch, and no place within Boost in its text.
    throw std::system_error(error.code(), "the gateway cannot start");
}

Gateway::~Gateway() { stop(); }

void Gateway::stop() noexcept { fImpl->stop(); }

std::uint16_t Gateway::port() const noexcept { return fImpl->server.port(); }

std::string Gateway::link() const { return fImpl->address + "/#token=" + fImpl->secrets->token(); }

std::string Gateway::singleUseLink() {
    return fImpl->address + "/#code=" + fImpl->secrets->makeCode(std::chrono::steady_clock::now());
}

bool Gateway::lastPageGone() const noexcept { return fImpl->site->views->lastPageGone(); }

Statistics Gateway::statistics() const { return fImpl->site->views->statistics(); }

std::string Gateway::diagnostics() const {
    return fImpl->site->views->diagnostics(std::chrono::steady_clock::now());
}

}  // namespace kirogateway
