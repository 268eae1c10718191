#include "Fixture.hpp"

#include <atomic>
#include <utility>

#include "SteadyClock.hpp"
#include "kiro/web/PubSubFactory.hpp"
#include "kiro/web/StringPayload.hpp"

namespace support {

namespace {

std::atomic<std::chrono::steady_clock::duration> fakeTime;

kiro::SteadyTime fakeNow() { return kiro::SteadyTime(fakeTime.load()); }

}  // namespace

void publishOn(kiro::web::PubSubInterface& endpoint, const std::string& channel,
               const std::string& text) {
    kiro::web::StringPayload payload(text);
    endpoint.publish(channel, payload);
}

void publish(const std::string& channel, const std::string& text) {
    publishOn(*kiro::web::PubSubFactory::pubsubInstance(), channel, text);
}

kiro::web::PubSubInterface::CallbackType Recorder::callback() const {
    return [messages = fMessages](const std::string& channel,
                                  const kiro::web::PayloadInterface& payload) {
        messages->add({channel, payload.convertToString(), std::this_thread::get_id()});
    };
}

Lines Recorder::messagesOn(const std::string& channel) const {
    Lines texts;
    for (const auto& message : all()) {
        if (message.channel == channel) texts.push_back(message.text);
    }
    return texts;
}

ScopedSettings::ScopedSettings(const std::function<void(kirohost::Settings&)>& change)
    : fBefore(kirohost::settings()) {
    auto changed = fBefore;
    change(changed);
    kirohost::setSettings(std::move(changed));
}

ScopedSettings::~ScopedSettings() { kirohost::setSettings(fBefore); }

FakeClock::FakeClock() {
    fakeTime = -std::chrono::hours(24);
    kiro::replaceSteadyClock(&fakeNow);
    kirohost::setSteadyClock(&fakeNow);
}

FakeClock::~FakeClock() {
    kiro::replaceSteadyClock(nullptr);
    kirohost::setSteadyClock(nullptr);
}

void FakeClock::advance(std::chrono::steady_clock::duration duration) {
    fakeTime = fakeTime.load() + duration;
}

}  // namespace support
