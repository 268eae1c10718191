#include "kiro/web/BootstrappingCommandSender.hpp"

#include <algorithm>
#include <atomic>
#include <future>
#include <latch>
#include <system_error>

#include "Binary.hpp"
#include "FailingThreads.hpp"
#include "Fixture.hpp"

namespace {

using namespace kiro::web;
using namespace kiro::web::binary;
using namespace support;

const char* const kName = "/figure/1";
const char* const kBinary = R"({"binaryChannelStatus":1})";

void announce(const std::string& text = "{}") {
    support::publish(std::string(kName) + "/channelReady", text);
}

std::string command(const std::string& name) { return R"({"cmd":")" + name + "\"}"; }

class Bootstrapping : public testing::Test {
  protected:
    ~Bootstrapping() override { binary::test::RegisterBinaryDataSenderCreationFunction(creation); }

    void send(const std::string& name) { sender->sendCommand(name, {}); }
    void sendBlock(std::uint64_t id) { sender->sendBinaryData(payloadOf({id})); }
    void sendBlockAsync(std::uint64_t id) { sender->sendBinaryDataAsync(payloadOf({id})); }
    [[nodiscard]] Lines received() const { return client.messagesOn(kName); }

    /// Has every message handed to `see`, until the answer is destroyed.
    static std::unique_ptr<Subscriber> listen(std::function<void(const std::string&)> see) {
        return subscribe(PubSubFactory::pubsubInstance(), kName,
                         [see = std::move(see)](const std::string&, const auto& payload) {
                             see(payload.convertToString());
                         });
    }
    static std::unique_ptr<Subscriber> throwOn(const std::string& message) {
        return listen([message](const std::string& text) {
            if (text == message) throw std::runtime_error("cannot be sent");
        });
    }

    /// Past the announcement and its backlog.
    void goDirect(const std::string& announcement = "{}") {
        announce(announcement);
        send("first");
        client.clear();
    }
    /// Destroys the sender on another thread and returns when that is under way.
    std::future<void> startDestroying() {
        LogCapture log("commandsender");
        auto destroyed = std::async(std::launch::async, [this] { sender.reset(); });
        log.awaitSize(1);
        return destroyed;
    }

    std::latch gate{1};
    support::Recorder client;
    std::unique_ptr<Subscriber> subscription =
        subscribe(PubSubFactory::pubsubInstance(), kName, client.callback());
    Lines channels;  ///< of the binary senders that were made, each of which is `stream`
    std::shared_ptr<ScriptedSender> stream = std::make_shared<ScriptedSender>();
    binary::test::BinaryDataSenderCreationFunction creation =
        binary::test::RegisterBinaryDataSenderCreationFunction([this](const std::string& channel) {
            channels.push_back(channel);
            return stream;
        });
    std::unique_ptr<BootstrappingCommandSender> sender =
        std::make_unique<BootstrappingCommandSender>(kName);
};

TEST_F(Bootstrapping, SendsTheBacklogInOrderFromAThreadOfItsOwnBeforeAnythingLater) {
    send("a");
    sendBlock(4);
    sendBlockAsync(5);
    send("b");
    EXPECT_TRUE(client.all().empty()) << "before the announcement";
    EXPECT_FALSE(sender->queryCommandSenderReadyStatus());
    announce();
    EXPECT_TRUE(sender->queryCommandSenderReadyStatus());
    send("c");
    sendBlock(6);
    EXPECT_EQ(received(), (Lines{command("a"), fallback("4 0"), fallback("5 0"), command("b"),
                                 command("c"), fallback("6 0")}));
    const auto messages = client.all();
    const auto here = std::this_thread::get_id();
    const auto backlogs = messages.front().thread;
    EXPECT_NE(backlogs, here);
    for (std::size_t i = 0; i < 6; ++i) EXPECT_EQ(messages[i].thread, i < 4 ? backlogs : here);
}

TEST_F(Bootstrapping, DropsCommandsWhileDisabledAndStampsTheListener) {
    sender = std::make_unique<BootstrappingCommandSender>(kName, "figure");
    sender->setEnable(false);
    send("dropped");
    sendBlock(4);
    announce();
    sender->setEnable(true);
    EXPECT_TRUE(sender->isEnabled());
    JSONPayload stamped;
    stamped.addDataToPayload("commandlistener", "own");
    sender->sendCommand("a", std::move(stamped));
    send("b");
    EXPECT_EQ(received(), (Lines{fallback("4 0"), R"({"commandlistener":"own","cmd":"a"})",
                                 R"({"cmd":"b","commandlistener":"figure"})"}));
}

TEST_F(Bootstrapping, SendsTheBacklogAsALaterAnnouncementSaysAlsoWhenDestroyedMeanwhile) {
    const auto held = listen([this](const std::string& text) {
        if (text == command("a")) gate.wait();
    });
    sender->setBinaryChannelName("/binary");
    send("a");
    sendBlock(4);
    send("b");
    announce();
    client.awaitSize(1);
    announce(kBinary);
    EXPECT_TRUE(sender->queryUsingBinary());
    auto destroyed = startDestroying();
    EXPECT_EQ(received(), Lines{command("a")});
    gate.count_down();
    destroyed.get();
    EXPECT_EQ(received(), (Lines{command("a"), command("b")}));
    EXPECT_EQ(stream->blocks.all(), Lines{blockBytes(4)});
}

TEST_F(Bootstrapping, SendsDirectlyAsTheLastAnnouncementSays) {
    const ScopedSettings settings([](auto& changed) { changed.binaryChannelForCommands = true; });
    sender->setBinaryChannelName("/binary");
    goDirect();
    send("a");  // as text, whatever the host allows
    sendBlock(4);
    announce(kBinary);
    sendBlock(5);
    sendBlockAsync(6);
    stream->blocks.awaitSize(2);
    announce(R"({"binaryChannelStatus":2})");  // only the number 1 says yes
    sendBlock(7);
    EXPECT_EQ(received(), (Lines{command("a"), fallback("4 0"), fallback("7 0")}));
    EXPECT_EQ(stream->blocks.all(), (Lines{blockBytes(5), blockBytes(6)}));
}

TEST_F(Bootstrapping, BeginsAnAsynchronousSendWhenTheBacklogHasBeenSent) {
    const auto held = listen([this](const std::string& text) {
        if (text != command("a")) return;
        // Gives a send that does not wait all the time it needs.
        for (int i = 0; i < 2000 && received().size() == 1; ++i) std::this_thread::yield();
    });
    send("a");
    send("b");
    announce();
    client.awaitSize(1);
    sendBlockAsync(4);
    client.awaitSize(3);
    EXPECT_EQ(received(), (Lines{command("a"), command("b"), fallback("4 0")}));
}

TEST_F(Bootstrapping, WaitsForTheAnnouncementThatIsBeingHandledWhenDestroyed) {
    constexpr int kCommands = 300;
    for (int i = 0; i < kCommands; ++i) send("a");
    std::latch handling{1};
    std::atomic<bool> isDestroyed = false;
    const auto observer = kirohost::observeLog([&](const kirohost::LogRecord& record) {
        if (!record.text.ends_with(": channelReady")) return;
        handling.count_down();
        gate.wait();
        // Gives a destructor that does not wait all the time it needs.
        for (int i = 0; i < 10000 && !isDestroyed; ++i) std::this_thread::yield();
    });
    const auto announced = std::async(std::launch::async, [] { announce(); });
    handling.wait();
    gate.count_down();
    sender.reset();
    isDestroyed = true;
    EXPECT_EQ(received().size(), kCommands);
}

TEST_F(Bootstrapping, KeepsItsQueueWhenThePublishThreadCannotBeMade) {
    send("a");
    withoutThreads([] {
        EXPECT_THAT([] { announce(R"({"useFastBinary":1})"); },
                    testing::ThrowsMessage<std::system_error>(
                        testing::StartsWith("no thread for the backlog: ")));
    });
    EXPECT_FALSE(sender->queryCommandSenderReadyStatus() || sender->queryUsingFastBinary());
    send("b");
    EXPECT_TRUE(client.all().empty());
    announce();
    send("c");
    EXPECT_EQ(received(), (Lines{command("a"), command("b"), command("c")}));
}

TEST_F(Bootstrapping, LetsGoOfEveryFinishedAsynchronousSendInOneCall) {
    goDirect();
    static std::atomic<int> ended = 0;
    const auto counting = listen([](const std::string&) {
        struct Counted {
            ~Counted() { ++ended; }
        };
        thread_local const Counted atTheEndOfItsThread;
    });
    const auto joined = joinedThreads();
    for (std::uint64_t id = 4; id < 9; ++id) sendBlockAsync(id);
    withoutThreads([this] { sendBlockAsync(9); });  // put off for ever
    for (std::uint64_t id = 10; id < 12; ++id) sendBlockAsync(id);
    while (ended < 7) std::this_thread::yield();
    EXPECT_EQ(joinedThreads(), joined);
    sender->removeFinishedAsyncTasksFromCache();
    EXPECT_EQ(joinedThreads(), joined + 7);
    sender.reset();
    const auto messages = received();
    EXPECT_EQ(messages.size(), 7U);
    EXPECT_EQ(std::count(messages.begin(), messages.end(), fallback("9 0")), 0);
    for (const auto& message : client.all()) EXPECT_NE(message.thread, std::this_thread::get_id());
}

TEST_F(Bootstrapping, WaitsForAsynchronousSendsWhenDestroyedAndDropsWhatTheyThrow) {
    goDirect();
    support::Collector<std::string> sent;
    const auto slow = listen([&](const std::string& text) {
        gate.wait();
        sent.add(text);
    });
    const auto thrower = throwOn(fallback("5 0"));
    sendBlockAsync(4);
    sendBlockAsync(5);
    client.awaitSize(2);
    sender->removeFinishedAsyncTasksFromCache();  // does not wait for them
    auto destroyed = startDestroying();
    EXPECT_EQ(sent.size(), 0U);
    gate.count_down();
    destroyed.get();
    EXPECT_EQ(sent.size(), 2U);
}

TEST_F(Bootstrapping, MakesABinarySenderForEachNewChannelName) {
    goDirect(kBinary);
    sendBlock(4);  // nowhere to send it but as text
    for (const auto* name : {"", "/b1", "/b1", "/b2", "/b1"}) sender->setBinaryChannelName(name);
    EXPECT_EQ(channels, (Lines{"/b1", "/b2", "/b1"}));
    const auto working = binary::test::RegisterBinaryDataSenderCreationFunction(
        [](const std::string&) -> std::shared_ptr<BinaryDataSenderInterface> {
            throw std::runtime_error("no stream");
        });
    EXPECT_THROW(sender->setBinaryChannelName("/b3"), std::runtime_error);
    binary::test::RegisterBinaryDataSenderCreationFunction(working);
    sendBlock(5);  // with the former sender
    sender->setBinaryChannelName("/b3");
    EXPECT_EQ(channels.back(), "/b3") << "may be named again";
    for (const bool allowed : {true, false}) {
        const ScopedSettings settings(
            [allowed](auto& changed) { changed.binaryChannelForCommands = allowed; });
        send(allowed ? "streamed" : "forbidden");
    }
    sender->setBinaryChannelName("");
    EXPECT_EQ(stream.use_count(), 1) << "no longer the sender's";
    sendBlock(6);
    EXPECT_EQ(received(), (Lines{fallback("4 0"), command("forbidden"), fallback("6 0")}));
    EXPECT_EQ(stream->blocks.all(), (Lines{blockBytes(5), blockBytes(1, command("streamed"))}));
}

using BootstrappingDeathTest = Bootstrapping;

TEST_F(BootstrappingDeathTest, EndsTheProcessWhenTheBacklogCannotBeSent) {
    const auto thrower = throwOn(command("a"));
    send("a");
    EXPECT_DEATH((announce(), sender.reset()), "cannot be sent");
}

}  // namespace
