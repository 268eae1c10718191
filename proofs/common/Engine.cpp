// The engine of a load: publishes numbered texts and blocks at a steady pace. Its argument is a
// JSON object with its settings; each command on its input is answered by a line of JSON.
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <boost/json.hpp>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "Buffers.hpp"
#include "Content.hpp"
#include "kirogateway/Gateway.hpp"
#include "kirohost/Controls.hpp"
#include "kirolink/Link.hpp"
#include "relay/Relay.hpp"
#include "relay/binary/experimental/BinaryStream.hpp"
#include "relay/message_service/MessageService.hpp"

namespace {

using kirogateway::Limits;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

const std::map<std::string_view, milliseconds Limits::*> kTimes{
    {"queue", &Limits::queue}, {"block", &Limits::block},       {"ping", &Limits::ping},
    {"gone", &Limits::gone},   {"comeback", &Limits::comeback}, {"close", &Limits::close}};

/// Writes a line whole; the log has threads of its own.
void say(const boost::json::object& what) { std::cout << serialize(what) + '\n' << std::flush; }

kirogateway::Options optionsOf(const boost::json::object& settings) {
    kirogateway::Options options;
    options.maySubscribe = {"/load/*"};
    options.onLastPageGone = [] {};
    options.address = settings.at("address").as_string();
    options.port = settings.at("port").to_number<std::uint16_t>();
    for (const auto& host : settings.at("hosts").as_array()) {
        options.extraHosts.emplace_back(host.as_string());
        options.extraOrigins.push_back("http://" + options.extraHosts.back());
    }
    auto& limits = options.limits;
    for (const auto& [name, time] : settings.at("milliseconds").as_object()) {
        limits.*kTimes.at(name) = milliseconds(time.to_number<int>());
    }
    limits.queueSize = settings.at("queueSize").to_number<std::size_t>();
    limits.pieceSize = 16 * kirogateway::kKiB;
    limits.connections = 250;  // those that are just closing, too
    limits.unauthenticatedConnections = 100;
    return options;
}

kirolink::Options linkOptionsOf(const boost::json::object& settings) {
    auto options = kirolink::loadOptions(std::string(settings.at("linkFile").as_string()));
    options.maySubscribe = {"/load/*"};
    options.token = settings.at("token").as_string();
    options.onLastPageGone = [] {};
    // A page of its own: types and contents of files by their paths.
    if (const auto* page = settings.if_contains("page")) {
        options.onGateway = [](const std::string& link) { say({{"page", link}}); };
        for (const auto& [path, file] : page->as_object()) {
            options.assets.push_back({std::string(path), std::string(file.at(0).as_string()),
                                      std::string(file.at(1).as_string())});
        }
    }
    return options;
}

/// Where its pages are: at a gateway in this process, or at those that a link leads to.
class Way {
  public:
    explicit Way(const boost::json::object& settings) {
        if (settings.at("linkFile").as_string().empty()) {
            fGateway.emplace(optionsOf(settings));
        } else {
            fLink.emplace(linkOptionsOf(settings));
        }
    }
    [[nodiscard]] std::string link() const { return fGateway ? fGateway->link() : ""; }
    [[nodiscard]] std::string diagnostics() const {
        return fGateway ? fGateway->diagnostics() : fLink->diagnostics();
    }

  private:
    std::optional<kirogateway::Gateway> fGateway;
    std::optional<kirolink::Link> fLink;
};

struct Outcomes {
    std::atomic<std::uint64_t> delivered = 0;
    std::atomic<std::uint64_t> givenBack = 0;
};

class Engine {
  public:
    explicit Engine(const boost::json::object& settings)
        : fTextEvery(std::chrono::seconds(1) / settings.at("texts").to_number<double>()),
          fBlockEvery(std::chrono::seconds(1) / settings.at("blocks").to_number<double>()),
          fWay(settings) {}

    /// Until the input ends.
    void run() {
        say({{"link", fWay.link()}});
        for (std::string command; std::cin;) {
            pollfd input{STDIN_FILENO, POLLIN, 0};
            ::poll(&input, 1, fIsPublishing ? 1 : -1);
            publishDue();
            if (input.revents != 0 && std::getline(std::cin, command)) obey(command);
        }
    }

  private:
    static constexpr milliseconds kMostLate{100};
    static constexpr std::chrono::nanoseconds kTimeUnit{100};
    using Time = std::chrono::time_point<steady_clock, std::chrono::duration<double, std::nano>>;

    void obey(const std::string& command) {
        if (command == "go") fNextText = fNextBlock = steady_clock::now();
        if (command == "go") fPublishTimes.clear();
        if (command == "go" || command == "rest") fIsPublishing = command == "go";
        say({{"texts", fText.number},
             {"blocks", fBlock.number},
             {"delivered", fOutcomes->delivered.load()},
             {"givenBack", fOutcomes->givenBack.load()},
             {"publishMicroseconds", slowPublish()},
             {"gateway", boost::json::parse(fWay.diagnostics())}});
    }

    void publishDue() {
        const auto now = steady_clock::now();
        // What a machine that is too slow does not get done is left out.
        fNextText = std::max<Time>(fNextText, now - kMostLate);
        fNextBlock = std::max<Time>(fNextBlock, now - kMostLate);
        for (; fIsPublishing && fNextText <= now; fNextText += fTextEvery) publishText();
        for (; fIsPublishing && fNextBlock <= now; fNextBlock += fBlockEvery) sendBlock();
    }

    static std::uint64_t stamp() {
        return static_cast<std::uint64_t>(steady_clock::now().time_since_epoch().count());
    }

    void publishText() {
        fText = {fText.number + 1, fText.number, stamp()};
        const auto text = load::textOf(fText);
        const auto begin = steady_clock::now();
        fService->publish(load::kTexts, {load::kTexts, text.data(), text.size()});
        ++fPublishTimes[(steady_clock::now() - begin) / kTimeUnit];
    }

    /// What 99 of 100 publishes stayed below since the stream began.
    [[nodiscard]] double slowPublish() const {
        std::uint64_t all = 0;
        for (const auto& [time, count] : fPublishTimes) all += count;
        std::uint64_t slower = 0;
        for (auto at = fPublishTimes.rbegin(); at != fPublishTimes.rend(); ++at) {
            if ((slower += at->second) * 100 > all) {
                return std::chrono::duration<double, std::micro>(kTimeUnit * (at->first + 1))
                    .count();
            }
        }
        return 0;
    }

    void sendBlock() {
        using Result = relay::binary::experimental::SendResult;
        fBlock = {fBlock.number + 1, fText.number, stamp()};
        fStream->send(support::bufferOf(load::blockOf(fBlock)))
            .then([outcomes = fOutcomes](relay::Future<Result>&& future) {
                ++(future.get().delivered ? outcomes->delivered : outcomes->givenBack);
            });
    }

    const std::chrono::duration<double, std::nano> fTextEvery;
    const std::chrono::duration<double, std::nano> fBlockEvery;
    const std::shared_ptr<relay::message_service::MessageService> fService =
        relay::message_service::createMessageService("load", {}).get();
    const std::shared_ptr<relay::binary::experimental::BinaryStream> fStream =
        relay::binary::experimental::createBinaryStream(load::kBlocks, {});
    const std::shared_ptr<Outcomes> fOutcomes = std::make_shared<Outcomes>();
    Way fWay;

    bool fIsPublishing = false;
    Time fNextText;
    Time fNextBlock;
    load::Message fText;                                  ///< the last one
    load::Message fBlock;                                 ///< the last one
    std::map<std::int64_t, std::uint64_t> fPublishTimes;  ///< how many took so many units
};

}  // namespace

int main(int /*count*/, char** arguments) try {
    relay::getRelay();
    const auto log = kirohost::observeLog([](const kirohost::LogRecord& record) {
        say({{"log", record.text}});
    });
    Engine(boost::json::parse(arguments[1]).as_object()).run();
} catch (const std::exception& error) {
    std::cerr << "engine: " << error.what() << '\n';
    return EXIT_FAILURE;
}
