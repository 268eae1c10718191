#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <thread>

#include "Binary.hpp"
#include "CHeap.hpp"
#include "Captures.hpp"
#include "Fixture.hpp"
#include "graphics_util/getContextQCRID.hpp"
#include "kiro/web/binary/BinaryDataReceiver.hpp"
#include "kiro/web/binary/BinaryStreamLifeCycle.hpp"

namespace {

using kiro::web::binary::BinaryDataReceiverInterface;
using kiro::web::binary::BinaryStreamLifeCycle;
using kiro::web::binary::createBinaryDataReceiver;
using kiro::web::binary::createBinaryDataSender;
using kiro::web::binary::IdToBinaryDataReceiver;
using relay::binary::experimental::BinaryStream;
using relay::binary::experimental::ReceiveCallback;
using support::blockBytes;
using support::bufferOf;
using support::bytesOf;
using support::DataBuffer;
using support::DataID;
using support::Lines;
using support::SendFuture;
namespace test = kiro::web::binary::test;

/// A stream that keeps what it is given.
class FakeStream : public BinaryStream {
  public:
    Lines blocks;
    ReceiveCallback receiver;
    bool throwOnce = false;

  protected:
    SendFuture doSend(DataBuffer&& block) override {
        if (throwOnce) {
            throwOnce = false;
            throw std::runtime_error("no room");
        }
        blocks.push_back(bytesOf(block));
        return support::answer(true);
    }
    void doReceive(ReceiveCallback callback) override { receiver = std::move(callback); }
};

class BinaryRegistry : public testing::Test {
  protected:
    ~BinaryRegistry() override {
        for (const auto* channel : {"/c", "/d", "/new", "/newer"}) {
            BinaryStreamLifeCycle::destroyBinaryStream(channel);
        }
    }
    [[nodiscard]] std::shared_ptr<FakeStream> stream() const { return streams.back().lock(); }

    Lines made;  ///< channel and option of each stream
    std::vector<std::weak_ptr<FakeStream>> streams;
    kirohost::Scope replacement =
        kirohost::replaceBinaryStream([this](const std::string& channel, bool returnOnFail) {
            auto fake = std::make_shared<FakeStream>();
            made.push_back(channel + (returnOnFail ? " returnOnFail" : ""));
            streams.push_back(fake);
            return fake;
        });
};

TEST_F(BinaryRegistry, SharesOneStreamOfAChannelUntilItIsDestroyed) {
    BinaryStreamLifeCycle::destroyBinaryStream("/c");  // an unknown one is no error
    BinaryStreamLifeCycle::initBinaryStream("/c");
    BinaryStreamLifeCycle::initBinaryStream("/c");
    auto first = createBinaryDataSender("/c");
    auto second = createBinaryDataSender("/c");
    auto receiver = createBinaryDataReceiver("/c");
    const auto other = createBinaryDataSender("/d");
    EXPECT_EQ(made, (Lines{"/c returnOnFail", "/d returnOnFail"}));

    BinaryStreamLifeCycle::destroyBinaryStream("/c");
    EXPECT_FALSE(streams[0].expired()) << "its senders hold it";
    first->send(bufferOf("whole block"));
    second->send(DataID(4), "abc", 3);
    EXPECT_EQ(streams[0].lock()->blocks, (Lines{"whole block", blockBytes(4, "abc")}));
    Lines received;
    receiver->receive([&](DataBuffer&& block) { received.push_back(bytesOf(block)); });
    streams[0].lock()->receiver(bufferOf("from the client"));
    EXPECT_EQ(received, Lines{"from the client"});

    first = createBinaryDataSender("/c");
    EXPECT_EQ(made.size(), 3U) << "a new one";
    second.reset();
    receiver.reset();
    EXPECT_TRUE(streams[0].expired());
}

TEST_F(BinaryRegistry, BelongsToOneVm) {
    auto& mine = IdToBinaryDataReceiver::getInstance().getOrCreateStreamChannel("/c");
    EXPECT_EQ(mine, nullptr) << "for the caller to fill";
    mine = createBinaryDataReceiver("/c");
    {
        kirohost::Vm vm;
        const auto bound = vm.bindThisThread();
        auto& theirs = IdToBinaryDataReceiver::getInstance().getOrCreateStreamChannel("/c");
        EXPECT_EQ(theirs, nullptr);
        theirs = createBinaryDataReceiver("/c");
        ASSERT_EQ(streams.size(), 2U);
    }
    EXPECT_TRUE(streams[1].expired()) << "gone with its VM";
    EXPECT_FALSE(streams[0].expired());
    EXPECT_EQ(&IdToBinaryDataReceiver::getInstance().getOrCreateStreamChannel("/c"), &mine);

    BinaryStreamLifeCycle::destroyBinaryStream("/c");
    EXPECT_FALSE(streams[0].expired());
    BinaryStreamLifeCycle::destroyBinaryDataReceiver("/c");
    BinaryStreamLifeCycle::destroyBinaryDataReceiver("/unknown");
    EXPECT_TRUE(streams[0].expired());
    EXPECT_EQ(IdToBinaryDataReceiver::getInstance().getOrCreateStreamChannel("/c"), nullptr);
}

TEST_F(BinaryRegistry, UsesTheCreationFunctionThatIsInstalled) {
    const auto nullSender = std::make_shared<test::NullBinaryDataSender>();
    const auto nullReceiver = std::make_shared<test::NullBinaryDataReciever>();
    Lines asked;
    const auto sender =
        test::RegisterBinaryDataSenderCreationFunction([&](const std::string& channel) {
            asked.push_back(channel);
            return nullSender;
        });
    const auto receiver = test::RegisterBinaryDataReceiverCreationFunction(
        [&](const std::string&) { return nullReceiver; });
    EXPECT_EQ(createBinaryDataSender("/c"), nullSender);
    EXPECT_EQ(createBinaryDataReceiver("/c"), nullReceiver);
    EXPECT_EQ(asked, Lines{"/c"});
    EXPECT_TRUE(made.empty());
    test::RegisterBinaryDataSenderCreationFunction(sender);
    test::RegisterBinaryDataReceiverCreationFunction(receiver);
    EXPECT_NE(createBinaryDataSender("/c"), nullSender);
    EXPECT_NE(createBinaryDataReceiver("/c"), nullReceiver);
    EXPECT_EQ(made.size(), 1U);

    const auto own = std::make_shared<FakeStream>();
    const auto stream =
        test::RegisterBinaryStreamCreationFunction([&](const std::string&) { return own; });
    createBinaryDataSender("/c")->send(bufferOf("old"));
    createBinaryDataSender("/new")->send(bufferOf("new"));
    test::RegisterBinaryStreamCreationFunction(stream);
    createBinaryDataSender("/newer")->send(bufferOf("newer"));
    EXPECT_EQ(own->blocks, Lines{"new"});
    EXPECT_EQ(made, (Lines{"/c returnOnFail", "/newer returnOnFail"}));
}

TEST(NullDoubles, SayDeliveredAndDoNothing) {
    test::NullBinaryDataSender sender;
    SendFuture futures[] = {sender.send(bufferOf("x")), sender.send(DataID(4), "x", 1)};
    for (auto& future : futures) {
        ASSERT_TRUE(future.valid() && future.isReady());
        const auto result = future.get();
        EXPECT_TRUE(result.delivered);
        EXPECT_TRUE(result.buffer.empty());
    }
    sender.warnAboutSendFailure("/c");
    sender.warnAboutOOMFailure();
    EXPECT_TRUE(kirohost::pendingTasks(graphics_util::getContextQCRID()).empty());
    test::NullBinaryDataReciever().receive([](DataBuffer&&) { FAIL(); });
}

TEST_F(BinaryRegistry, TellsTheClientWhichBlockCouldNotBeBuilt) {
    const auto sender = createBinaryDataSender("/c");
    for (const bool streamRefuses : {false, true}) {
        SCOPED_TRACE(streamRefuses);
        if (streamRefuses) {
            stream()->throwOnce = true;
        } else {
            kiro::replaceAllocate([](std::size_t) -> void* {
                kiro::replaceAllocate(nullptr);  // once
                return nullptr;
            });
        }
        EXPECT_TRUE(sender->send(DataID(9), "data", 4).valid());
        EXPECT_EQ(stream()->blocks, Lines{blockBytes(2, blockBytes(9, ""))});
        stream()->blocks.clear();
        const auto tasks = kirohost::pendingTasks(graphics_util::getContextQCRID());
        ASSERT_EQ(tasks.size(), 1U);
        EXPECT_EQ(tasks[0].source, "src/BinaryDataSender");
        EXPECT_EQ(tasks[0].whenToDequeue, 1);
        const support::WarningCapture warnings;
        EXPECT_EQ(kirohost::runPendingTasks(), 1U);
        EXPECT_EQ(warnings.texts(), Lines{"Quarn:graphics:GraphicsBinaryOOM()"});
    }
}

TEST_F(BinaryRegistry, PostsItsWarningsToTheInterpreter) {
    const auto sender = createBinaryDataSender("/c");
    const support::WarningCapture warnings;
    sender->warnAboutSendFailure("/c");
    std::thread([&] { sender->warnAboutSendFailure("/d"); }).join();
    EXPECT_EQ(warnings.size(), 0U) << "not where they arise";
    const auto tasks = kirohost::pendingTasks(graphics_util::getContextQCRID());
    ASSERT_EQ(tasks.size(), 2U) << "each time anew";
    EXPECT_EQ(tasks[0].source, "src/BinaryDataSender");
    EXPECT_NE(tasks[0].id, tasks[1].id);
    kirohost::runPendingTasks();
    EXPECT_EQ(warnings.texts(), (Lines{"Quarn:graphics:GraphicsBinarySendFailure(/c)",
                                       "Quarn:graphics:GraphicsBinarySendFailure(/d)"}));

    const support::LogCapture log("commandsender");
    const auto hidden = kirohost::hideMainContext();
    sender->warnAboutOOMFailure();
    EXPECT_EQ(log.texts(), Lines{"warning Quarn:graphics:GraphicsBinaryOOM not shown: "
                                 "no TaskRouter"});
    EXPECT_EQ(warnings.size(), 2U);
}

}  // namespace
