#include "kirogateway/Gateway.hpp"

#include <boost/json.hpp>
#include <boost/system/system_error.hpp>
#include <chrono>
#include <stdexcept>
#include <system_error>
#include <unordered_set>
#include <utility>
#include <vector>

#include "Hub.hpp"
#include "Server.hpp"
#include "annotated/Mutex.hpp"
#include "graphics_util/getContextQCRID.hpp"
#include "qvm/detail/taskRouterAccess.hpp"
#include "taskrouter/TaskRouter.hpp"

namespace kirogateway {
namespace {

using relay::binary::experimental::ClientEnd;
using relay::binary::experimental::Delivery;

void require(bool condition, const char* what) {
    if (!condition) throw std::invalid_argument(what);
}

Options checked(Options options) {
    boost::json::error_code error;
    const auto configuration = boost::json::parse(options.configuration, error);
    require(!error && configuration.is_object(), "configuration: not a JSON object");
    require(options.certificateFile.empty() == options.keyFile.empty(),
            "certificateFile and keyFile: one without the other");
    std::unordered_set<std::string> names;
    for (const auto& asset : options.assets) {
        require(asset.name.starts_with('/'), "assets: a name without its slash");
        require(names.insert(asset.name).second, "assets: a name given twice");
        require(asset.contentType.find_first_of("\r\n") == std::string::npos,
                "assets: a type with a line end");
    }
    const auto& limits = options.limits;
    for (const auto size :
         {limits.headerSize, limits.messageSize, limits.connections,
          limits.unauthenticatedConnections, limits.queueSize, limits.blocksUnderWay,
          limits.bytesUnderWay, limits.pieceSize, limits.batchSize}) {
        require(size > 0, "limits: zero");
    }
    for (const auto time : {limits.request, limits.hello, limits.queue, limits.block, limits.ping,
                            limits.gone, limits.comeback, limits.close, limits.code}) {
        require(time.count() > 0, "limits: a time that is not positive");
    }
    return options;
}

/// Queues an empty task, so that a blocking wait looks at its condition.
void wakeInterpreter(qnutil::contextmgr::QcrID context) {
    const taskrouter::RunOptions options{taskrouter::WhenToDequeue::kWhenIdle, ""};
    const auto router = qvm::detail::getTaskRouterAndSinks(context, options).router;
    if (router == nullptr) return;
    router->enqueueWithFuture(taskrouter::PackagedTaskIIP<void>({[] {}}, "kirogateway::Gateway"),
                              options, qvm::detail::createID());
}

std::function<void()> wakeOf(const Options& options) {
    if (options.onLastPageGone) return options.onLastPageGone;
    return [context = graphics_util::getContextQCRID()] { wakeInterpreter(context); };
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
    auto door = std::make_unique<Door>(hub->options(), server.port(), secrets);
    address = door->address();
    for (const auto& channel : hub->options().blockChannels) {
        // The end's handler may still run when this gateway is gone.
        ends.push_back(std::make_unique<ClientEnd>(
            channel, [hub = hub](Delivery delivery) { hub->offer(std::move(delivery)); }));
    }
    link = relay::getRelay().attach(hub);
    hub->connect(*link, ends.empty() ? nullptr : ends.front().get());
    server.start(std::move(door));
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
    throw std::system_error(error.code(), error.what());  // a type that needs no Boost to catch
}

Gateway::~Gateway() { stop(); }

void Gateway::stop() noexcept { fImpl->stop(); }

std::uint16_t Gateway::port() const noexcept { return fImpl->server.port(); }

std::string Gateway::link() const { return fImpl->address + "/?token=" + fImpl->secrets.token(); }

std::string Gateway::singleUseLink() {
    return fImpl->address + "/?code=" + fImpl->secrets.makeCode(std::chrono::steady_clock::now());
}

bool Gateway::lastPageGone() const noexcept { return fImpl->hub->lastPageGone(); }

Statistics Gateway::statistics() const { return fImpl->hub->statistics(); }

std::string Gateway::diagnostics() const {
    return fImpl->hub->diagnostics(std::chrono::steady_clock::now());
}

}  // namespace kirogateway
