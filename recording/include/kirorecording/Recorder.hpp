#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "kirorecording/Channel.hpp"
#include "kirorecording/Sink.hpp"
#include "kirorecording/Writer.hpp"

namespace kirorecording {

struct RecorderOptions {
    /// How many bytes may wait to be written, those that are being written included. One more ends
    /// the recording: nobody waits for the disk.
    std::size_t queueSize = std::size_t{64} << 20U;
    /// How old a message is at most when it is in the file.
    std::chrono::nanoseconds flushAfter = std::chrono::seconds(1);
    WriterOptions writer{};
    /// Nanoseconds since 1970. Any thread, under a lock; it must not throw.
    std::function<std::uint64_t()> now = systemNow;
    /// The recording has ended by itself, and why. Once, on the recorder's thread, without a lock;
    /// it must not stop or destroy the recorder. What it throws is dropped.
    std::function<void(const std::string& cause)> onFailure = [](const std::string&) {};

    static std::uint64_t systemNow();
};

/// Takes messages from any thread and writes them on a thread of its own. Adding never waits for
/// the disk. When the queue is full or a write fails, the recording ends: the file is good up to
/// there, and closed if there is room for its end.
class Recorder {
  public:
    struct Status {
        bool isOn = false;
        std::string cause;        ///< why something is missing; else empty
        std::uint64_t bytes = 0;  ///< of the file
    };

    /// Writes the file's beginning and starts the thread. Throws std::system_error when one of
    /// them fails.
    Recorder(std::unique_ptr<Sink> sink, const std::vector<Channel>& channels,
             RecorderOptions options = {});
    /// Stops.
    ~Recorder();
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;

    /// Queues a message, with the time. No two messages have the same time: they are in the file
    /// in the order of their times. Nothing happens when the recording is over. Any thread.
    /// REQUIRES: `channel` is the place of one of the channels, from 1.
    void add(std::uint16_t channel, std::string data) noexcept;
    /// As `add`, of a copy. There may be no memory for it: that ends the recording and nothing
    /// else.
    void addCopy(std::uint16_t channel, std::string_view data) noexcept;
    [[nodiscard]] bool isOn() const noexcept;
    /// For how many bytes there is room in the queue.
    [[nodiscard]] std::size_t room() const noexcept;
    /// Any thread.
    [[nodiscard]] Status status() const;
    /// Ends the recording for a cause of the caller's, which counts if it is the first one. What
    /// waits is still written. Any thread.
    void fail(std::string cause) noexcept;
    /// Writes what waits, closes the file and returns then. What comes later is dropped. One
    /// thread.
    void stop() noexcept;

  private:
    class Impl;
    const std::unique_ptr<Impl> fImpl;
};

}  // namespace kirorecording
