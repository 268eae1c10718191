#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include "Figure.hpp"
#include "ValveService.hpp"
#include "kiro/web/BootstrappingCommandSender.hpp"
#include "kiro/web/ConnectionStatus.hpp"
#include "kiro/web/PubSubACTRequestor.hpp"
#include "kiro/web/WebBlockingOperation.hpp"

namespace bench {

namespace {

namespace service = relay::message_service;

const std::string kCommands = "/bench/flush";
const std::string kReturns = "/bench/flush/returned";

/// Where a thread sleeps until something is put there: the cheapest hand-over there is.
template <typename Item>
class Mailbox {
  public:
    void put(Item item) {
        {
            const std::lock_guard lock(fMutex);
            fItem = std::move(item);
            fIsFull = true;
        }
        fFilled.notify_one();
    }
    Item take() {
        std::unique_lock lock(fMutex);
        fFilled.wait(lock, [this] { return fIsFull; });
        fIsFull = false;
        return std::move(fItem);
    }

  private:
    std::mutex fMutex;
    std::condition_variable fFilled;
    Item fItem{};
    bool fIsFull = false;
};

/// The hand-overs of a flush and nothing else: engine, delivery thread, client, delivery thread,
/// engine. A zero ends a thread.
void ring(benchmark::State& state) {
    Mailbox<int> engine;
    Mailbox<int> delivery;
    Mailbox<int> client;
    constexpr int kOut = 1;
    constexpr int kBack = 2;
    std::thread clientThread([&client, &delivery] {
        while (client.take() != 0) delivery.put(kBack);
    });
    std::thread deliveryThread([&engine, &delivery, &client] {
        while (const int way = delivery.take()) (way == kOut ? client : engine).put(way);
    });
    for (auto _ : state) {
        delivery.put(kOut);
        engine.take();
    }
    client.put(0);
    delivery.put(0);
    clientThread.join();
    deliveryThread.join();
}

/// The page: it takes commands from the delivery thread and returns each token from its own.
class Client {
  public:
    explicit Client(service::MessageService& theService)
        : fService(theService),
          fSubscription(fService
                            .subscribe(kCommands,
                                       [this](const service::JsonMessage& message) {
                                           fInbox.put({message.json, message.length});
                                       })
                            .get()),
          fThread([this] { run(); }) {}
    ~Client() {
        fSubscription.reset();
        kirohost::waitForDelivery();
        fInbox.put({});
        fThread.join();
    }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

  private:
    /// Finds the token without reading the whole message: the client's own work is no part of
    /// what is measured.
    void run() {
        constexpr std::string_view kBegin = R"("ACT":")";
        for (auto command = fInbox.take(); !command.empty(); command = fInbox.take()) {
            const auto begin = command.find(kBegin) + kBegin.size();
            const auto length = command.find('"', begin) - begin;
            const auto reply = R"({"ACT":")" + command.substr(begin, length) + R"("})";
            fService.publish(kReturns, {kReturns, reply.data(), reply.size()});
        }
    }

    Mailbox<std::string> fInbox;
    service::MessageService& fService;
    std::shared_ptr<service::Subscription> fSubscription;
    std::thread fThread;
};

/// As an engine flushes: the token goes out behind the commands, and the wait is one that a
/// reconnection or a new view of the client would end.
void flush(benchmark::State& state) {
    auto& valve = ValveService::install();
    const auto sender = std::make_shared<kiro::web::BootstrappingCommandSender>(kCommands);
    valve.announce(kCommands);
    const Client client(valve.client());
    kiro::web::PubSubACTRequestor requestor(sender, kReturns, "bench", "bench", false);
    const auto status = std::make_shared<kiro::web::ConnectionStatus>("/bench/flush/reconnect",
                                                                      "/bench/flush/newView");
    for (auto _ : state) {
        requestor.sendACT();
        kiro::web::WebBlockingOperation::waitOrThrow(
            "flush", [&requestor] { return !requestor.isACTPending(); }, status, {});
    }
}

}  // namespace

Figure flushFigure() { return {"flush", "ns", ring, flush, 1.7}; }

}  // namespace bench
