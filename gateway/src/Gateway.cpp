#include "kirogateway/Gateway.hpp"

#include <boost/system/system_error.hpp>
#include <chrono>
#include <system_error>
#include <utility>
#include <vector>

#include "Hub.hpp"
#include "OptionsCheck.hpp"
#include "Server.hpp"
#include "annotated/Mutex.hpp"
#include "kirohost/Controls.hpp"

namespace kirogateway {
namespace {

using relay::binary::experimental::ClientEnd;
using relay::binary::experimental::Delivery;

std::function<void()> wakeOf(const Options& options) {
    return options.onLastPageGone ? options.onLastPageGone : [] { kirohost::wakeInterpreter(); };
}

}  // namespace

struct Gateway::Impl {
    explicit Impl(const Options& options)
        : hub(std::make_shared<Hub>(options, wakeOf(options))),
          secrets(options.limits.code),
          server(hub) {}

    void start();
    void stop() noexcept;

    const std::shared_ptr<Hub> hub;
    Secrets secrets;
    std::string address;
    Server server;
    std::vector<std::unique_ptr<ClientEnd>> ends;
    std::unique_ptr<relay::TransportLink> link;
    annotated::Mutex mutex{annotated::Rank::kGatewayStop};  ///< two may stop at once
};

void Gateway::Impl::start() {
    auto access = std::make_unique<AccessPolicy>(hub->options(), server.port(), secrets);
    address = access->address();
    for (const auto& channel : hub->options().blockChannels) {
        // The end's handler may still run when this gateway is gone.
        ends.push_back(std::make_unique<ClientEnd>(
            channel, [hub = hub](Delivery delivery) { hub->offer(std::move(delivery)); }));
    }
    link = relay::getRelay().attach(hub);
    hub->connect(*link, ends.empty() ? nullptr : ends.front().get());
    server.start(std::move(access));
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

std::string Gateway::link() const { return fImpl->address + "/#token=" + fImpl->secrets.token(); }

std::string Gateway::singleUseLink() {
    return fImpl->address + "/#code=" + fImpl->secrets.makeCode(std::chrono::steady_clock::now());
}

bool Gateway::lastPageGone() const noexcept { return fImpl->hub->lastPageGone(); }

Statistics Gateway::statistics() const { return fImpl->hub->statistics(); }

std::string Gateway::diagnostics() const {
    return fImpl->hub->diagnostics(std::chrono::steady_clock::now());
}

}  // namespace kirogateway
