#include "kirorecording/Recorder.hpp"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <new>
#include <thread>
#include <utility>

#include "annotated/Mutex.hpp"
#include "checked/Require.hpp"
#include "process/Thread.hpp"

namespace kirorecording {

namespace {

/// How often the thread looks by itself. It is woken only when much waits: waking it costs the
/// engine more than the rest of an `add`.
constexpr std::chrono::milliseconds kPeriod{100};

/// Short enough to need none as a text.
constexpr const char* kNoMemory = "no memory";

struct Item {
    std::uint16_t channel = 0;
    std::uint64_t time = 0;
    std::string data;

    [[nodiscard]] std::size_t size() const noexcept { return sizeof *this + data.capacity(); }
};

}  // namespace

class Recorder::Impl {
  public:
    Impl(std::unique_ptr<Sink> sink, const std::vector<Channel>& channels, RecorderOptions options);

    void add(std::uint16_t channel, std::string&& data) noexcept;
    void addCopy(std::uint16_t channel, std::string_view data) noexcept;
    void fail(std::string cause) noexcept;
    void stop() noexcept;
    [[nodiscard]] Status status() const;
    [[nodiscard]] bool isOn() const noexcept { return fIsOn; }
    [[nodiscard]] std::size_t room() const noexcept {
        return fOptions.queueSize - std::min<std::size_t>(fOptions.queueSize, fHeld);
    }

  private:
    void run() noexcept;
    /// Until there is nothing more, and the file is closed.
    void record();
    /// Returns whether the thread has to know at once.
    bool addLocked(Item item) REQUIRES_LOCK(fMutex);
    /// What has been added since, perhaps nothing; false when that was the last.
    bool take(std::vector<Item>& batch);
    [[nodiscard]] bool isAwaitedLocked() const REQUIRES_LOCK(fMutex) {
        return fIsOn && (fQueue.empty() || fHeld < fWakeAt);
    }
    void waitLocked() REQUIRES_LOCK(fMutex);
    void write(std::vector<Item>& batch);
    void flushIfDue();
    /// Takes nothing more. The first cause is the one that counts; none: it was asked to end.
    void endLocked(std::string cause) noexcept REQUIRES_LOCK(fMutex);
    void end(std::string cause) noexcept;
    void endBy(const std::exception& error) noexcept;

    const RecorderOptions fOptions;
    const std::size_t fWakeAt =
        std::min<std::size_t>(fOptions.queueSize / 4, std::size_t{1} << 20U);
    const std::size_t fNumChannels;

    // Of the thread alone, once it runs.
    const std::unique_ptr<Sink> fSink;
    Writer fWriter;

    std::atomic<bool> fIsOn = true;
    std::atomic<std::size_t> fHeld = 0;  ///< bytes that wait or are being written
    std::atomic<std::uint64_t> fBytes = 0;

    mutable annotated::Mutex fMutex;
    std::condition_variable fChanged;
    std::vector<Item> fQueue GUARDED_BY(fMutex);
    std::uint64_t fLast GUARDED_BY(fMutex) = 0;
    std::string fCause GUARDED_BY(fMutex);

    std::thread fThread;
};

Recorder::Impl::Impl(std::unique_ptr<Sink> sink, const std::vector<Channel>& channels,
                     RecorderOptions options)
    : fOptions(std::move(options)),
      fNumChannels(channels.size()),
      fSink(std::move(sink)),
      fWriter(*fSink, fOptions.writer) {
    for (const auto& channel : channels) fWriter.add(channel);
    // At once, so that a disk without room is found here, and every file names its channels.
    fWriter.flush();
    fBytes.store(fWriter.size());
    fThread = process::makeThread("the recording", [this] { run(); });
}

void Recorder::Impl::add(std::uint16_t channel, std::string&& data) noexcept {
    KIROWEB_REQUIRE(channel > 0 && channel <= fNumChannels);
    if (!fIsOn) return;
    bool wakes = true;
    {
        const annotated::Lock lock(fMutex);
        try {
            wakes = addLocked({channel, 0, std::move(data)});
        } catch (const std::exception&) {
            endLocked(kNoMemory);
        }
    }
    if (wakes) fChanged.notify_one();
}

void Recorder::Impl::addCopy(std::uint16_t channel, std::string_view data) noexcept {
    if (!fIsOn) return;
    try {
        add(channel, std::string(data));
    } catch (const std::exception&) {
        end(kNoMemory);
        fChanged.notify_one();
    }
}

bool Recorder::Impl::addLocked(Item item) {
    if (!fIsOn) return false;
    const std::size_t size = item.size();
    const std::size_t held = fHeld;
    if (size > fOptions.queueSize - std::min(held, fOptions.queueSize)) {
        endLocked("its queue of " + std::to_string(fOptions.queueSize) + " bytes is full");
        return true;
    }
    if (item.data.size() > Writer::kMostBytes) {
        endLocked("a message of " + std::to_string(item.data.size()) + " bytes is too large");
        return true;
    }
    item.time = std::max(fOptions.now(), fLast + 1);
    fLast = item.time;
    fQueue.push_back(std::move(item));
    fHeld += size;
    return held < fWakeAt && held + size >= fWakeAt;
}

void Recorder::Impl::endLocked(std::string cause) noexcept {
    fIsOn = false;
    // What goes wrong after it was asked to end is a cause as well: something is missing.
    if (fCause.empty()) fCause = std::move(cause);
}

void Recorder::Impl::end(std::string cause) noexcept {
    const annotated::Lock lock(fMutex);
    endLocked(std::move(cause));
}

void Recorder::Impl::endBy(const std::exception& error) noexcept {
    try {
        end(error.what());
    } catch (const std::bad_alloc&) {
        end(kNoMemory);
    }
}

void Recorder::Impl::fail(std::string cause) noexcept {
    end(std::move(cause));
    fChanged.notify_one();
}

void Recorder::Impl::stop() noexcept {
    fail({});
    if (fThread.joinable()) fThread.join();
}

Recorder::Status Recorder::Impl::status() const {
    const annotated::Lock lock(fMutex);
    return {fIsOn, fCause, fBytes};
}

void Recorder::Impl::run() noexcept {
    try {
        record();
    } catch (const std::exception& error) {
        endBy(error);
        try {
            fWriter.closeEarly();
        } catch (const std::exception&) {  // it is read up to its last whole chunk
        }
    }
    fBytes = fWriter.size();
    {
        const annotated::Lock lock(fMutex);
        fQueue = {};
        fHeld = 0;
    }
    try {
        const auto cause = status().cause;
        if (!cause.empty()) fOptions.onFailure(cause);
    } catch (...) {  // there is nobody left to tell, or no memory to do it with
    }
}

void Recorder::Impl::record() {
    std::vector<Item> batch;
    for (bool isMore = true; isMore;) {
        isMore = take(batch);
        write(batch);
        batch.clear();
        flushIfDue();
        fBytes = fWriter.size();
    }
    fWriter.close();
}

bool Recorder::Impl::take(std::vector<Item>& batch) {
    const annotated::Lock lock(fMutex);
    if (isAwaitedLocked()) waitLocked();
    batch.swap(fQueue);
    return fIsOn;
}

void Recorder::Impl::waitLocked() {
    std::unique_lock native(fMutex.native(), std::adopt_lock);
    // Woken for nothing it finds little to write, and comes again.
    fChanged.wait_for(native, kPeriod);
    native.release();
}

void Recorder::Impl::write(std::vector<Item>& batch) {
    for (auto& item : batch) {
        fWriter.write(item.channel, item.time, item.data);
        const std::size_t size = item.size();
        item.data = std::string();
        fHeld -= size;
    }
}

void Recorder::Impl::flushIfDue() {
    const std::uint64_t since = fWriter.waitsSince();
    if (since == 0) return;
    const auto now = fOptions.now();
    const auto age = static_cast<std::uint64_t>(fOptions.flushAfter.count());
    // Either way: a clock that was set back says nothing about an age.
    if ((now > since ? now - since : since - now) >= age) fWriter.flush();
}

Recorder::Recorder(std::unique_ptr<Sink> sink, const std::vector<Channel>& channels,
                   RecorderOptions options)
    : fImpl(std::make_unique<Impl>(std::move(sink), channels, std::move(options))) {}

Recorder::~Recorder() { fImpl->stop(); }

void Recorder::add(std::uint16_t channel, std::string data) noexcept {
    fImpl->add(channel, std::move(data));
}

void Recorder::addCopy(std::uint16_t channel, std::string_view data) noexcept {
    fImpl->addCopy(channel, data);
}

bool Recorder::isOn() const noexcept { return fImpl->isOn(); }
std::size_t Recorder::room() const noexcept { return fImpl->room(); }
Recorder::Status Recorder::status() const { return fImpl->status(); }
void Recorder::fail(std::string cause) noexcept { fImpl->fail(std::move(cause)); }
void Recorder::stop() noexcept { fImpl->stop(); }

std::uint64_t RecorderOptions::systemNow() {
    using namespace std::chrono;
    return static_cast<std::uint64_t>(
        duration_cast<nanoseconds>(system_clock::now().time_since_epoch()).count());
}

}  // namespace kirorecording
