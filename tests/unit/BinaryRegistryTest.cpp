#include "Binary.hpp"
#include "CHeap.hpp"
#include "Fixture.hpp"
#include "InterpreterTasks.hpp"
#include "kiro/web/binary/BinaryDataReceiver.hpp"
#include "kiro/web/binary/BinaryStreamLifeCycle.hpp"

namespace {

using namespace kiro::web::binary;
using relay::binary::experimental::BinaryStream;
using relay::binary::experimental::ReceiveCallback;
using namespace support;
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
        for (const auto* channel : {"/c", "/d"}) {
            BinaryStreamLifeCycle::destroyBinaryStream(channel);
        }
    }
    /// Runs the interpreter's tasks, which must come from the sender; answers their warnings.
    static Lines warningsOfTasks() {
        for (const auto& task : kirohost::pendingTasks(graphics_util::getContextQCRID())) {
            EXPECT_EQ(task.source, "src/BinaryDataSender");
            EXPECT_EQ(task.whenToDequeue, 1);
        }
        const support::WarningCapture warnings;
        kirohost::runPendingTasks();
        return warnings.texts();
    }

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
    auto sender = createBinaryDataSender("/c");
    auto receiver = createBinaryDataReceiver("/c");
    const auto other = createBinaryDataSender("/d");
    EXPECT_EQ(made, (Lines{"/c returnOnFail", "/d returnOnFail"}));

    BinaryStreamLifeCycle::destroyBinaryStream("/c");
    ASSERT_FALSE(streams[0].expired()) << "its sender holds it";
    sender->send(bufferOf("whole block"));
    sender->send(DataID(4), "abc", 3);
    EXPECT_EQ(streams[0].lock()->blocks, (Lines{"whole block", blockBytes(4, "abc")}));
    receiver->receive([](auto&& block) { EXPECT_EQ(bytesOf(block), "from the client"); });
    streams[0].lock()->receiver(bufferOf("from the client"));

    sender = createBinaryDataSender("/c");
    EXPECT_EQ(made.size(), 3U) << "a new one";
    receiver.reset();
    EXPECT_TRUE(streams[0].expired());
}

TEST_F(BinaryRegistry, BelongsToOneVm) {
    const auto slot = []() -> auto& {
        return IdToBinaryDataReceiver::getInstance().getOrCreateStreamChannel("/c");
    };
    EXPECT_EQ(slot(), nullptr) << "for the caller to fill";
    slot() = createBinaryDataReceiver("/c");
    {
        kirohost::Vm vm;
        const auto bound = vm.bindThisThread();
        EXPECT_EQ(slot(), nullptr);
        slot() = createBinaryDataReceiver("/c");
        ASSERT_EQ(streams.size(), 2U);
    }
    EXPECT_TRUE(streams[1].expired()) << "gone with its VM";
    BinaryStreamLifeCycle::destroyBinaryStream("/c");
    EXPECT_FALSE(streams[0].expired()) << "its receiver holds it";
    BinaryStreamLifeCycle::destroyBinaryDataReceiver("/c");
    BinaryStreamLifeCycle::destroyBinaryDataReceiver("/unknown");
    EXPECT_TRUE(streams[0].expired());
    EXPECT_EQ(slot(), nullptr);
}

TEST_F(BinaryRegistry, UsesTheCreationFunctionsThatAreInstalledAndHasNullDoubles) {
    const auto ownSender = std::make_shared<test::NullBinaryDataSender>();
    const auto ownReceiver = std::make_shared<test::NullBinaryDataReciever>();
    const auto ownStream = std::make_shared<FakeStream>();
    const auto senders =
        test::RegisterBinaryDataSenderCreationFunction([&](const auto&) { return ownSender; });
    EXPECT_EQ(createBinaryDataSender("/c"), ownSender);
    test::RegisterBinaryDataSenderCreationFunction(senders);
    const auto before =
        test::RegisterBinaryStreamCreationFunction([&](const auto&) { return ownStream; });
    createBinaryDataSender("/d")->send(bufferOf("new"));
    test::RegisterBinaryStreamCreationFunction(before);
    EXPECT_EQ(ownStream->blocks, Lines{"new"});
    const auto receivers =
        test::RegisterBinaryDataReceiverCreationFunction([&](const auto&) { return ownReceiver; });
    EXPECT_EQ(createBinaryDataReceiver("/c"), ownReceiver);
    ownReceiver->receive([](DataBuffer&&) { FAIL(); });
    test::RegisterBinaryDataReceiverCreationFunction(receivers);
    EXPECT_TRUE(made.empty());

    EXPECT_TRUE(ownSender->send(bufferOf("x")).get().delivered);
    EXPECT_TRUE(ownSender->send(DataID(4), "x", 1).get().delivered);
    ownSender->warnAboutSendFailure("/c");
    ownSender->warnAboutOOMFailure();
    EXPECT_TRUE(warningsOfTasks().empty());
}

TEST_F(BinaryRegistry, TellsTheClientWhichBlockCouldNotBeBuilt) {
    const auto sender = createBinaryDataSender("/c");
    const auto stream = streams[0].lock();
    kiro::replaceAllocate([](std::size_t) -> void* {
        kiro::replaceAllocate(nullptr);  // once
        return nullptr;
    });
    for (const bool streamRefuses : {false, true}) {
        stream->throwOnce = streamRefuses;
        EXPECT_TRUE(sender->send(DataID(9), "data", 4).valid());
        EXPECT_EQ(stream->blocks, Lines{blockBytes(2, blockBytes(9, ""))}) << streamRefuses;
        EXPECT_EQ(warningsOfTasks(), Lines{"Quarn:graphics:GraphicsBinaryOOM()"});
        stream->blocks.clear();
    }
}

TEST_F(BinaryRegistry, PostsItsWarningsToTheInterpreter) {
    const auto sender = createBinaryDataSender("/c");
    sender->warnAboutSendFailure("/c");
    EXPECT_EQ(warningsOfTasks(), Lines{"Quarn:graphics:GraphicsBinarySendFailure(/c)"});
    const support::LogCapture log("commandsender");
    const auto hidden = kirohost::hideMainContext();
    sender->warnAboutOOMFailure();
    EXPECT_EQ(log.texts(), Lines{"warning Quarn:graphics:GraphicsBinaryOOM not shown: "
                                 "no TaskRouter"});
    for (const int status : {1, 2}) {  // of a task that has run already and threw, and of none
        auto task = boost::make_exceptional_future<void>(taskrouter::RuntimeException("", status));
        EXPECT_EQ(kiro::isNotQueued(task), status == 2);
    }
}

}  // namespace
