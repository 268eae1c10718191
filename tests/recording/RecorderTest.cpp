#include "kirorecording/Recorder.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>
#include <mutex>
#include <thread>

#include "FailingNew.hpp"
#include "Memory.hpp"

namespace recording_test {
namespace {

using namespace kirorecording;
using testing::HasSubstr;

/// A disk that a test can hold up, and asked for from outside the recorder.
class Disk {
  public:
    /// What is written from now on waits for `release`.
    void hold() { fGate.lock(); }
    void release() { fGate.unlock(); }
    /// Fulfilled when so many bytes are there.
    std::future<void> reaching(std::size_t size) {
        const std::lock_guard lock(fMutex);
        fReached = {};
        fWanted = size;
        return fReached.get_future();
    }
    std::string bytes() {
        const std::lock_guard lock(fMutex);
        return fSink.bytes;
    }
    void limit(std::size_t room) {
        const std::lock_guard lock(fMutex);
        fSink.room = fSink.bytes.size() + room;
    }

    static std::unique_ptr<Sink> sinkOf(const std::shared_ptr<Disk>& disk) {
        class To : public Sink {
          public:
            explicit To(std::shared_ptr<Disk> disk) : fDisk(std::move(disk)) {}

          private:
            void doWrite(std::string_view bytes) override { fDisk->write(bytes); }
            void doTruncate(std::uint64_t size) override {
                const std::lock_guard lock(fDisk->fMutex);
                fDisk->fSink.truncate(size);
            }
            void doClose() override {}
            const std::shared_ptr<Disk> fDisk;
        };
        return std::make_unique<To>(disk);
    }

  private:
    void write(std::string_view more) {
        const std::lock_guard gate(fGate);
        const std::lock_guard lock(fMutex);
        fSink.write(more);
        if (fWanted == 0 || fSink.bytes.size() < fWanted) return;
        fWanted = 0;
        fReached.set_value();
    }

    std::mutex fGate;
    std::mutex fMutex;  // guards what follows
    MemorySink fSink;
    std::size_t fWanted = 0;
    std::promise<void> fReached;
};

class RecorderTest : public testing::Test {
  protected:
    /// The clock stands until a test moves it.
    std::unique_ptr<Recorder> make(std::size_t queueSize = 10'000,
                                   std::size_t chunkSize = std::size_t{1} << 20U) {
        RecorderOptions options;
        options.queueSize = queueSize;
        options.writer = {false, chunkSize};
        options.now = [now = fNow] { return now->load(); };
        options.onFailure = [this](const std::string& cause) {
            fCauses.push_back(cause);
            fFailed.set_value();
        };
        return std::make_unique<Recorder>(Disk::sinkOf(fDisk), std::vector{Channel{"a", "raw"}},
                                          std::move(options));
    }
    /// What is on the disk.
    std::vector<Said> said(bool isWhole = true) {
        const auto bytes = fDisk->bytes();
        const MemorySource source(bytes);
        const Reader reader(source);
        EXPECT_EQ(reader.damage().has_value(), !isWhole);
        return messagesOf(reader);
    }

    const std::shared_ptr<Disk> fDisk = std::make_shared<Disk>();
    const std::shared_ptr<std::atomic<std::uint64_t>> fNow =
        std::make_shared<std::atomic<std::uint64_t>>(100);
    std::promise<void> fFailed;
    std::vector<std::string> fCauses;
};

TEST_F(RecorderTest, WritesEverythingInTheOrderOfItsTimes) {
    const auto recorder = make();
    EXPECT_TRUE(recorder->isOn());
    recorder->add(1, "x");
    recorder->add(1, "y");
    *fNow = 50;  // a clock that goes back
    recorder->add(1, "z");
    *fNow = 200;
    recorder->add(1, {});
    recorder->stop();
    recorder->add(1, "too late");
    EXPECT_EQ(said(), (std::vector<Said>{
                          {"a", 100, "x"}, {"a", 101, "y"}, {"a", 102, "z"}, {"a", 200, ""}}));
    const auto status = recorder->status();
    EXPECT_FALSE(status.isOn);
    EXPECT_EQ(status.cause, "");
    EXPECT_EQ(status.bytes, fDisk->bytes().size());
    EXPECT_TRUE(fCauses.empty());
}

TEST_F(RecorderTest, HasWhatIsASecondOldInTheFile) {
    auto recorder = make();
    const auto before = fDisk->bytes().size();
    auto flushed = fDisk->reaching(before + 1);
    recorder->add(1, "x");
    *fNow += 1'000'000'000;
    flushed.wait();
    flushed = fDisk->reaching(fDisk->bytes().size() + 1);
    recorder->add(1, "y");
    recorder.reset();
    EXPECT_EQ(said().size(), 2U);
}

TEST_F(RecorderTest, EndsWhenItsQueueIsFullWithAFileThatIsGoodUpToThere) {
    const auto recorder = make(10'000, 1);
    fDisk->hold();
    std::size_t added = 0;
    for (; recorder->isOn(); ++added) {
        EXPECT_LT(added, 100U);
        recorder->add(1, std::string(1000, 'x'));
    }
    // The queue's bound holds for what is being written, too.
    EXPECT_EQ(added, 10U);
    fDisk->release();
    fFailed.get_future().wait();
    EXPECT_THAT(fCauses, testing::ElementsAre("its queue of 10000 bytes is full"));
    EXPECT_EQ(recorder->status().cause, fCauses.front());
    EXPECT_EQ(said().size(), added - 1);
}

TEST_F(RecorderTest, HasRoomAgainForWhatIsWritten) {
    const auto recorder = make(10'000, 1);
    for (int round = 0; round < 3; ++round) {
        const auto written = fDisk->reaching(fDisk->bytes().size() + 5000);
        for (int i = 0; i < 5; ++i) recorder->add(1, std::string(1000, 'x'));
        written.wait();
    }
    EXPECT_TRUE(recorder->isOn());
    recorder->stop();
    EXPECT_EQ(recorder->room(), 10'000U);
    EXPECT_EQ(said().size(), 15U);
}

TEST_F(RecorderTest, RefusesWhatNeverFits) {
    const auto recorder = make(1000);
    EXPECT_EQ(recorder->room(), 1000U);
    recorder->add(1, std::string(1000, 'x'));
    EXPECT_FALSE(recorder->isOn());
    fFailed.get_future().wait();
    EXPECT_TRUE(said().empty());
}

TEST_F(RecorderTest, EndsWhenThereIsNoMemory) {
    const std::string message(100, 'x');
    for (const std::size_t allocation : {1U, 2U}) {  // of the copy, of the queue
        const auto recorder = make();
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
    fDisk->limit((std::size_t{3} << 20U) + 600'000);
    while (recorder->isOn()) recorder->add(1, std::string(500'000, 'x'));
    fFailed.get_future().wait();
    EXPECT_THAT(fCauses, testing::ElementsAre(HasSubstr("No space left on device")));
    // The messages of whole chunks, which are of three each.
    EXPECT_EQ(said().size(), 6U);
    EXPECT_EQ(recorder->status().bytes, fDisk->bytes().size());
}

TEST_F(RecorderTest, ThrowsWhenNotEvenTheBeginningCanBeWritten) {
    fDisk->limit(10);
    EXPECT_THROW(make(), std::system_error);
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
