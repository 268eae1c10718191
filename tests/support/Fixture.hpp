#pragma once

#include <gmock/gmock.h>

#include <chrono>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "Captures.hpp"
#include "graphics_util/getContextQCRID.hpp"
#include "kiro/web/JSONPayload.hpp"
#include "kiro/web/PubSubFactory.hpp"
#include "kiro/web/PubSubInterface.hpp"
#include "kiro/web/Subscriber.hpp"

namespace support {

using Lines = std::vector<std::string>;

void publishOn(kiro::web::PubSubInterface& endpoint, const std::string& channel,
               const std::string& text);
/// Publishes `text` on the process-wide endpoint.
void publish(const std::string& channel, const std::string& text);

/// Records the messages that its callbacks receive. A callback may outlive it.
class Recorder {
  public:
    struct Message {
        std::string channel;
        std::string text;
        std::thread::id thread;
    };

    [[nodiscard]] kiro::web::PubSubInterface::CallbackType callback() const;

    [[nodiscard]] std::vector<Message> all() const { return fMessages->all(); }
    [[nodiscard]] Lines messagesOn(const std::string& channel) const;
    void awaitSize(std::size_t count) const { fMessages->awaitSize(count); }
    void clear() { fMessages->clear(); }

  private:
    std::shared_ptr<Collector<Message>> fMessages = std::make_shared<Collector<Message>>();
};

/// Changes the host's settings while it lives.
class ScopedSettings {
  public:
    explicit ScopedSettings(const std::function<void(kirohost::Settings&)>& change);
    ~ScopedSettings();
    ScopedSettings(const ScopedSettings&) = delete;
    ScopedSettings& operator=(const ScopedSettings&) = delete;

  private:
    kirohost::Settings fBefore;
};

/// Stands still, for the library and for the host, until a test moves it. It starts before every
/// reading of the real clock, so a wait until a deadline that it gave ends at once. One at a time.
class FakeClock {
  public:
    FakeClock();
    ~FakeClock();
    FakeClock(const FakeClock&) = delete;
    FakeClock& operator=(const FakeClock&) = delete;

    static void advance(std::chrono::steady_clock::duration duration);
    static void advanceSeconds(long seconds) { advance(std::chrono::seconds(seconds)); }
};

}  // namespace support
