#include "kiro/web/BootstrappingCommandSender.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <future>
#include <latch>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <type_traits>

#include "Binary.hpp"
#include "Captures.hpp"
#include "FailingThreads.hpp"
#include "Fixture.hpp"
#include "kiro/web/JSONPayload.hpp"
#include "kiro/web/PubSubFactory.hpp"
#include "kiro/web/binary/BinaryDataPayload.hpp"

namespace {

using kiro::web::BootstrappingCommandSender;
using kiro::web::JSONPayload;
using kiro::web::PayloadInterface;
using kiro::web::PubSubFactory;
using kiro::web::Subscriber;
using kiro::web::binary::BinaryDataPayload;
using support::blockBytes;
using support::DataID;
using support::FailingThreads;
using support::Lines;
using support::LogCapture;
using support::ScopedSenderCreation;
using support::ScopedSettings;
using support::ScriptedSender;
using support::ThreadWatch;

static_assert(std::is_nothrow_destructible_v<BootstrappingCommandSender>);

const char* const kName = "/figure/1";

std::unique_ptr<Subscriber> listen(kiro::web::PubSubInterface::CallbackType callback) {
    return subscribe(PubSubFactory::pubsubInstance(), kName, std::move(callback));
}

void announce(const std::string& text = "{}") {
    support::publish(std::string(kName) + "/channelReady", text);
}

std::string command(const std::string& name) { return R"({"cmd":")" + name + "\"}"; }

std::string fallback(int id) {
    return R"({"cmd":"binarydata","data":{")" + std::to_string(id) + R"( 0":"eA=="}})";
}

BinaryDataPayload block(std::uint64_t id) {
    BinaryDataPayload payload;
    payload.addDataToPayloadInternalWithID("x", 1, DataID(id));
    return payload;
}

class Bootstrapping : public testing::Test {
  protected:
    void send(const std::string& name) { sender->sendCommand(name, {}); }
    void sendBlock(std::uint64_t id) { sender->sendBinaryData(block(id)); }
    void sendBlockAsync(std::uint64_t id) { sender->sendBinaryDataAsync(block(id)); }
    [[nodiscard]] Lines received() const { return client.messagesOn(kName); }

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

    support::Recorder client;
    std::unique_ptr<Subscriber> subscription = listen(client.callback());
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
    EXPECT_EQ(received(), (Lines{command("a"), fallback(4), fallback(5), command("b"), command("c"),
                                 fallback(6)}));
    const auto messages = client.all();
    const auto here = std::this_thread::get_id();
    for (std::size_t i = 0; i < 4; ++i) {
        EXPECT_NE(messages[i].thread, here);
        EXPECT_EQ(messages[i].thread, messages[0].thread);
    }
    EXPECT_EQ(messages[4].thread, here);
    EXPECT_EQ(messages[5].thread, here);
}

TEST_F(Bootstrapping, ReadsTheAnnouncement) {
    struct {
        const char* text;
        bool binary;
        bool fast;
    } const cases[] = {
        {R"({"binaryChannelStatus":1,"useFastBinary":1})", true, true},
        {R"({"binaryChannelStatus":1})", true, false},
        {R"({"useFastBinary":1,"other":[]})", false, true},
        {R"({"binaryChannelStatus":2,"useFastBinary":0})", false, false},
        {R"({"binaryChannelStatus":true,"useFastBinary":true})", false, false},
        {R"({"binaryChannelStatus":1.0,"useFastBinary":1.5})", true, false},
        {R"({"binaryChannelStatus":"1","useFastBinary":null})", false, false},
        {R"({"binaryChannelStatus":4294967297,"useFastBinary":-1})", false, false},
        {R"({"binaryChannelStatus":1,"useFastBinary":1)", false, false},
        {"[1]", false, false},
        {"", false, false},
        {"{}", false, false},
    };
    EXPECT_FALSE(sender->queryUsingBinary() || sender->queryUsingFastBinary());
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        sender = std::make_unique<BootstrappingCommandSender>(kName);
        announce(c.text);
        EXPECT_TRUE(sender->queryCommandSenderReadyStatus());
        EXPECT_EQ(sender->queryUsingBinary(), c.binary);
        EXPECT_EQ(sender->queryUsingFastBinary(), c.fast);
    }
}

TEST_F(Bootstrapping, LogsItsLifeAndChangesOnlyItsAnswersOnFurtherAnnouncements) {
    sender.reset();
    const LogCapture log("commandsender");
    sender = std::make_unique<BootstrappingCommandSender>(kName);
    announce();
    announce(R"({"useFastBinary":1})");
    EXPECT_TRUE(sender->queryUsingFastBinary());
    send("a");
    announce(R"({"binaryChannelStatus":1})");
    EXPECT_TRUE(sender->queryUsingBinary());
    EXPECT_FALSE(sender->queryUsingFastBinary());
    EXPECT_TRUE(sender->queryCommandSenderReadyStatus());
    sender.reset();
    announce();
    Lines expected;
    for (const auto* text : {"Created", "setBootstrapState QueueState", "channelReady",
                             "setBootstrapState PublishQueueState", "channelReady",
                             "setBootstrapState PublishDirectState", "channelReady", "Destroyed"}) {
        expected.push_back("BootstrappingCommandSender(/figure/1): " + std::string(text));
    }
    EXPECT_EQ(log.texts(), expected);
}

TEST_F(Bootstrapping, DropsCommandsOnlyWhileDisabledAndStampsTheListener) {
    sender = std::make_unique<BootstrappingCommandSender>(kName, "figure");
    for (const bool direct : {false, true}) {
        EXPECT_TRUE(sender->isEnabled());
        sender->setEnable(false);
        EXPECT_FALSE(sender->isEnabled());
        send("dropped");
        sendBlock(4);
        sender->setEnable(true);
        JSONPayload stamped;
        stamped.addDataToPayload("cmd", "own");
        stamped.addDataToPayload("commandlistener", "own too");
        sender->sendCommand("other", std::move(stamped));
        if (!direct) announce();
        send("a");
        EXPECT_EQ(received(), (Lines{fallback(4), R"({"cmd":"own","commandlistener":"own too"})",
                                     R"({"cmd":"a","commandlistener":"figure"})"}));
        client.clear();
    }
}

TEST_F(Bootstrapping, SendsNothingWhenDestroyedBeforeTheAnnouncement) {
    send("a");
    sendBlockAsync(4);
    sender.reset();
    announce();
    EXPECT_TRUE(client.all().empty());
}

TEST_F(Bootstrapping, SendsTheWholeBacklogWhenDestroyedWhileItDrains) {
    std::latch entered(1);
    std::latch gate(1);
    const auto first = listen([&](const std::string&, const PayloadInterface& payload) {
        if (payload.convertToString() != command("a")) return;
        entered.count_down();
        gate.wait();
    });
    send("a");
    sendBlock(4);
    send("b");
    announce();
    entered.wait();
    auto destroyed = startDestroying();
    EXPECT_EQ(received(), (Lines{command("a")}));
    gate.count_down();
    destroyed.get();
    EXPECT_EQ(received(), (Lines{command("a"), fallback(4), command("b")}));
}

TEST_F(Bootstrapping, StaysUsableWhenADirectSendThrows) {
    const auto thrower = listen([](const std::string&, const PayloadInterface& payload) {
        if (payload.convertToString() == command("boom")) throw std::runtime_error("boom");
    });
    send("a");
    announce();
    const LogCapture log("commandsender");
    EXPECT_THROW(send("boom"), std::runtime_error);
    EXPECT_THROW(send("boom"), std::runtime_error) << "the thread has been joined already";
    EXPECT_EQ(log.size(), 0U) << "no new state";
    sendBlockAsync(4);
    EXPECT_EQ(log.size(), 1U);
    EXPECT_THROW(send("boom"), std::runtime_error);
    send("b");
    EXPECT_EQ(log.size(), 1U);
    sender.reset();  // waits for the asynchronous send
    auto messages = received();
    EXPECT_EQ(std::count(messages.begin(), messages.end(), fallback(4)), 1);
    std::erase(messages, fallback(4));
    EXPECT_EQ(messages, (Lines{command("a"), command("boom"), command("boom"), command("boom"),
                               command("b")}));
}

TEST_F(Bootstrapping, KeepsItsQueueWhenThePublishThreadCannotBeMade) {
    send("a");
    sendBlock(4);
    {
        const FailingThreads failing;
        EXPECT_THROW(announce(R"({"useFastBinary":1})"), std::system_error);
    }
    EXPECT_FALSE(sender->queryCommandSenderReadyStatus());
    EXPECT_FALSE(sender->queryUsingFastBinary());
    send("b");
    EXPECT_TRUE(client.all().empty());
    announce();
    EXPECT_TRUE(sender->queryCommandSenderReadyStatus());
    send("c");
    EXPECT_EQ(received(), (Lines{command("a"), fallback(4), command("b"), command("c")}));
}

TEST_F(Bootstrapping, PublishesTheRestOfTheBacklogAsALaterAnnouncementSays) {
    const auto stream = std::make_shared<ScriptedSender>();
    const ScopedSenderCreation creation([&](const std::string&) { return stream; });
    sender->setBinaryChannelName("/binary");
    std::latch entered(1);
    std::latch gate(1);
    const auto first = listen([&](const std::string&, const PayloadInterface& payload) {
        if (payload.convertToString() != command("a")) return;
        entered.count_down();
        gate.wait();
    });
    send("a");
    sendBlock(4);
    announce();
    entered.wait();
    announce(R"({"binaryChannelStatus":1})");
    gate.count_down();
    sendBlock(5);
    EXPECT_EQ(received(), Lines{command("a")});
    EXPECT_EQ(stream->blocks.all(), (Lines{blockBytes(4, "x"), blockBytes(5, "x")}));
}

TEST_F(Bootstrapping, LetsGoOfEveryFinishedAsynchronousSendInOneCall) {
    goDirect();
    const ThreadWatch threads;
    for (std::uint64_t id = 4; id < 9; ++id) sendBlockAsync(id);
    {
        const FailingThreads failing;  // no thread: the send is put off for ever
        sendBlockAsync(9);
    }
    for (std::uint64_t id = 10; id < 12; ++id) sendBlockAsync(id);
    threads.awaitEnded(7);
    EXPECT_EQ(threads.joined(), 0U);
    sender->removeFinishedAsyncTasksFromCache();
    EXPECT_EQ(threads.joined(), 7U);
    sender->removeFinishedAsyncTasksFromCache();
    sender.reset();
    auto messages = received();
    EXPECT_EQ(messages.size(), 7U);
    EXPECT_EQ(std::count(messages.begin(), messages.end(), fallback(9)), 0);
    for (const auto& message : client.all()) EXPECT_NE(message.thread, std::this_thread::get_id());
}

TEST_F(Bootstrapping, WaitsForAsynchronousSendsWhenDestroyedAndDropsWhatTheyThrow) {
    goDirect();
    std::latch entered(2);
    std::latch gate(1);
    const auto slow = listen([&](const std::string&, const PayloadInterface& payload) {
        entered.count_down();
        gate.wait();
        if (payload.convertToString() == fallback(5)) throw std::runtime_error("unseen");
        client.callback()("/after the gate", payload);
    });
    sendBlockAsync(4);
    sendBlockAsync(5);
    entered.wait();
    sender->removeFinishedAsyncTasksFromCache();  // does not wait for them
    auto destroyed = startDestroying();
    EXPECT_TRUE(client.messagesOn("/after the gate").empty());
    gate.count_down();
    destroyed.get();
    EXPECT_EQ(client.messagesOn("/after the gate"), Lines{fallback(4)});
}

TEST_F(Bootstrapping, SendsCommandsOverTheBinaryChannelWhenClientAndHostAllowIt) {
    const char* const kBinary = R"({"binaryChannelStatus":1})";
    struct {
        const char* announcement;
        bool allowed;
        bool overStream;
    } const cases[] = {
        {kBinary, true, true}, {kBinary, false, false}, {R"({"useFastBinary":1})", true, false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.announcement) + (c.allowed ? " allowed" : ""));
        const ScopedSettings settings(
            [&](auto& changed) { changed.binaryChannelForCommands = c.allowed; });
        const auto stream = std::make_shared<ScriptedSender>();
        const ScopedSenderCreation creation([&](const std::string&) { return stream; });
        sender = std::make_unique<BootstrappingCommandSender>(kName);
        sender->setBinaryChannelName("/binary");
        send("queued");
        announce(c.announcement);
        send("direct");
        const Lines texts{command("queued"), command("direct")};
        EXPECT_EQ(
            stream->blocks.all(),
            c.overStream ? (Lines{blockBytes(1, texts[0]), blockBytes(1, texts[1])}) : Lines());
        EXPECT_EQ(received(), c.overStream ? Lines() : texts);
        client.clear();
    }
}

TEST_F(Bootstrapping, MakesABinarySenderForEachNewChannelName) {
    Lines made;
    const auto stream = std::make_shared<ScriptedSender>();
    const ScopedSenderCreation creation([&](const std::string& channel) {
        made.push_back(channel);
        return stream;
    });
    goDirect(R"({"binaryChannelStatus":1})");
    sendBlock(4);  // nowhere to send it but as text
    sender->setBinaryChannelName("");
    for (const auto* name : {"/b1", "/b1", "/b2", "/b1"}) sender->setBinaryChannelName(name);
    EXPECT_EQ(made, (Lines{"/b1", "/b2", "/b1"}));
    EXPECT_EQ(stream.use_count(), 2) << "here and in the sender";
    sendBlock(5);
    sender->setBinaryChannelName("");
    EXPECT_EQ(stream.use_count(), 1);
    sendBlock(6);
    EXPECT_EQ(received(), (Lines{fallback(4), fallback(6)}));
    EXPECT_EQ(stream->blocks.all(), Lines{blockBytes(5, "x")});
}

using BootstrappingDeathTest = Bootstrapping;

TEST_F(BootstrappingDeathTest, EndsTheProcessWhenTheBacklogCannotBeSent) {
    const auto thrower = listen([](const std::string&, const PayloadInterface&) {
        throw std::runtime_error("cannot be sent");
    });
    send("a");
    EXPECT_DEATH(
        {
            announce();
            sender.reset();
        },
        "cannot be sent");
}

}  // namespace
