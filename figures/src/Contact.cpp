#include "Contact.hpp"

#include <algorithm>
#include <atomic>
#include <deque>
#include <utility>

#include "annotated/Mutex.hpp"
#include "kiro/web/PayloadInterface.hpp"
#include "kiro/web/PubSubFactory.hpp"
#include "kiro/web/PubSubInterface.hpp"

namespace kirofigures::detail {

namespace {

/// Two frames are under way; what else is kept was said of others.
constexpr std::size_t kMostReports = 16;

}  // namespace

struct Contact::State {
    explicit State(const Waking& given) : waking(given) {}

    void arrive() {
        ++arrivals;
        waking.wake();
    }
    void take(PageEvent&& event);
    void add(InputEvent&& event) REQUIRES_LOCK(mutex);

    const Waking waking;
    std::atomic<std::uint64_t> arrivals = 0;

    mutable annotated::Mutex mutex;
    std::deque<FrameReport> reports GUARDED_BY(mutex);
    std::deque<InputEvent> events GUARDED_BY(mutex);
};

void Contact::State::take(PageEvent&& event) {
    {
        const annotated::Lock lock(mutex);
        if (auto* const report = std::get_if<FrameReport>(&event)) {
            if (reports.size() == kMostReports) reports.pop_front();
            // Its token follows, and wakes whoever waits for it.
            reports.push_back(std::move(*report));
            return;
        }
        auto* const input = std::get_if<InputEvent>(&event);
        if (input == nullptr) return;
        add(std::move(*input));
    }
    waking.wake();
}

void Contact::State::add(InputEvent&& event) {
    if (events.size() == kMostEvents) {
        const auto limits = std::ranges::find_if(
            events, [](const InputEvent& one) { return std::holds_alternative<LimitsEvent>(one); });
        events.erase(limits == events.end() ? events.begin() : limits);
    }
    events.push_back(std::move(event));
}

Contact::Contact(const Channels& channels, const Waking& waking)
    : fState(std::make_shared<State>(waking)) {
    const auto listen = [this](const std::string& channel,
                               kiro::web::PubSubInterface::CallbackType callback) {
        fSubscribers.push_back(kiro::web::subscribe(kiro::web::PubSubFactory::pubsubInstance(),
                                                    channel, std::move(callback)));
    };
    for (const auto& channel : {channels.newView, channels.reconnect}) {
        listen(channel, [state = fState](const std::string&, const kiro::web::PayloadInterface&) {
            state->arrive();
        });
    }
    listen(channels.events,
           [state = fState](const std::string&, const kiro::web::PayloadInterface& payload) {
               state->take(readEvent(payload.convertToString()));
           });
}

Contact::~Contact() = default;

std::uint64_t Contact::arrivals() const noexcept { return fState->arrivals; }

std::optional<FrameReport> Contact::takeReport(std::uint64_t frame, std::uint64_t attempt) {
    const annotated::Lock lock(fState->mutex);
    auto& reports = fState->reports;
    const auto found = std::ranges::find_if(reports, [frame, attempt](const FrameReport& one) {
        return one.frame == frame && one.attempt == attempt;
    });
    if (found == reports.end()) return {};
    auto report = std::move(*found);
    reports.erase(found);
    return report;
}

std::size_t Contact::numEvents() const {
    const annotated::Lock lock(fState->mutex);
    return fState->events.size();
}

std::optional<InputEvent> Contact::takeEvent() {
    const annotated::Lock lock(fState->mutex);
    if (fState->events.empty()) return {};
    std::optional<InputEvent> event(std::move(fState->events.front()));
    fState->events.pop_front();
    return event;
}

}  // namespace kirofigures::detail
