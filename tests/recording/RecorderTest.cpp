#include "kirorecording/Recorder.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

#include "FailingNew.hpp"
#include "Memory.hpp"

namespace recording_test {
namespace {

using namespace kirorecording;

/// A disk that a test can hold up and ask, from outside the recorder.
class Disk {
  public:
    /// What a recorder writes to it.
    class Use : public Sink {
      public:
        explicit Use(Disk& disk) : fDisk(disk) {}

      private:
        void doWrite(std::string_view bytes) override {
            const std::lock_guard held(fDisk.gate);
            const std::lock_guard lock(fDisk.fMutex);
            fDisk.fSink.write(bytes);
            if (fDisk.fMore) fDisk.fMore->set_value();
            fDisk.fMore.reset();
        }
        void doTruncate(std::uint64_t size) override {
            const std::lock_guard lock(fDisk.fMutex);
            fDisk.fSink.truncate(size);
        }
        void doClose() override {}
        Disk& fDisk;
    };

    /// While it is locked, what is written waits.
    std::mutex gate;
    /// Fulfilled when more bytes are there.
    std::future<void> more() {
        const std::lock_guard lock(fMutex);
        return fMore.emplace().get_future();
    }
    std::string bytes() {
        const std::lock_guard lock(fMutex);
        return fSink.bytes;
    }
    void limit(std::size_t room) {
        const std::lock_guard lock(fMutex);
        fSink.room = fSink.bytes.size() + room;
    }

  private:
    std::mutex fMutex;  // guards what follows
    MemorySink fSink;
    std::optional<std::promise<void>> fMore;
};

class RecorderTest : public testing::Test {
  protected:
    /// The clock stands until a test moves it.
    std::unique_ptr<Recorder> make(std::size_t queueSize, std::size_t chunkSize = 1'000'000) {
        RecorderOptions options;
        options.queueSize = queueSize;
        options.writer = {false, chunkSize};
        options.now = [this] { return fNow.load(); };
        options.onFailure = [this](const std::string& cause) { fCause.set_value(cause); };
        return std::make_unique<Recorder>(std::make_unique<Disk::Use>(fDisk),
                                          std::vector{Channel{"a", "raw"}}, std::move(options));
    }
    /// What is on the disk, which is whole.
    std::vector<Said> said() {
        const auto bytes = fDisk.bytes();
        const MemorySource source(bytes);
        const Reader reader(source);
        EXPECT_FALSE(reader.damage());
        return messagesOf(reader);
    }

    Disk fDisk;
    std::atomic<std::uint64_t> fNow = 100;
    std::promise<std::string> fCause;  ///< that it has ended, which is said once
};

TEST_F(RecorderTest, WritesEverythingInTheOrderOfItsTimes) {
    const auto recorder = make(10'000);
    EXPECT_TRUE(recorder->isOn());
    recorder->add(1, "x");
    recorder->add(1, "y");
    fNow = 50;  // a clock that goes back
    recorder->add(1, "z");
    fNow = 200;
    recorder->add(1, {});
    recorder->stop();
    recorder->add(1, "too late");
    const std::vector<Said> expected{
        {"a", 100, "x"}, {"a", 101, "y"}, {"a", 102, "z"}, {"a", 200, ""}};
    EXPECT_EQ(said(), expected);
    EXPECT_EQ(recorder->status().cause, "");
    EXPECT_EQ(recorder->status().bytes, fDisk.bytes().size());
}

TEST_F(RecorderTest, HasWhatIsASecondOldInTheFile) {
    auto recorder = make(10'000);
    const auto flushed = fDisk.more();
    recorder->add(1, "x");
    fNow += 1'000'000'000;
    flushed.wait();
    recorder->add(1, "y");
    recorder.reset();
    EXPECT_EQ(said().size(), 2U);
}

TEST_F(RecorderTest, EndsWhenItsQueueIsFullWithAFileThatIsGoodUpToThere) {
    const auto recorder = make(10'000, 1);
    // What is written makes room again.
    for (int i = 0; i < 15; ++i) {
        recorder->add(1, std::string(1000, 'x'));
        while (recorder->isOn() && recorder->room() < 10'000) std::this_thread::yield();
    }
    fDisk.gate.lock();
    std::size_t added = 0;
    for (; recorder->isOn(); ++added) {
        EXPECT_LT(added, 100U);
        recorder->add(1, std::string(1000, 'x'));
    }
    // The queue's bound holds for what is being written, too.
    EXPECT_EQ(added, 10U);
    fDisk.gate.unlock();
    EXPECT_EQ(fCause.get_future().get(), "its queue of 10000 bytes is full");
    EXPECT_EQ(recorder->status().cause, "its queue of 10000 bytes is full");
    EXPECT_EQ(said().size(), 15 + added - 1);
}

TEST_F(RecorderTest, EndsWhenThereIsNoMemory) {
    const std::string message(100, 'x');
    for (const std::size_t allocation : {1U, 2U}) {  // of the copy, of the queue
        fCause = {};
        const auto recorder = make(10'000);
        const auto outcome =
            support::failingNew(allocation, [&] { recorder->addCopy(1, message); });
        EXPECT_TRUE(outcome.failed);
        EXPECT_EQ(outcome.error, "");
        recorder->stop();
        EXPECT_EQ(recorder->status().cause, "no memory");
    }
}

TEST_F(RecorderTest, EndsWhenTheDiskIsFull) {
    const auto recorder = make(std::size_t{64} << 20U);
    fDisk.limit(3'600'000);
    while (recorder->isOn()) recorder->add(1, std::string(500'000, 'x'));
    EXPECT_THAT(fCause.get_future().get(), testing::HasSubstr("No space left on device"));
    // The messages of whole chunks, which are of two each.
    EXPECT_EQ(said().size(), 6U);
    EXPECT_EQ(recorder->status().bytes, fDisk.bytes().size());
}

TEST_F(RecorderTest, SaysWhatCouldNotBeWrittenAtItsEndOrBeginning) {
    const auto recorder = make(10'000);
    fDisk.limit(10);
    recorder->add(1, "x");
    recorder->stop();
    EXPECT_THAT(recorder->status().cause, testing::HasSubstr("No space left on device"));
    EXPECT_THROW(make(1000), std::system_error);
}

TEST_F(RecorderTest, TakesMessagesOfManyThreads) {
    const auto recorder = make(std::size_t{1} << 20U);
    constexpr int kEach = 200;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int j = 0; j < kEach; ++j) recorder->add(1, "m");
            static_cast<void>(recorder->status());
        });
    }
    for (auto& thread : threads) thread.join();
    recorder->stop();
    const auto all = said();
    EXPECT_EQ(all.size(), 4U * kEach);
    EXPECT_TRUE(std::ranges::is_sorted(all, {}, &Said::time));
}

}  // namespace
}  // namespace recording_test
