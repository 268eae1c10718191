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

/// The smaller, the more somebody has seen of the frame, or has to know.
int rank(Outcome outcome) {
    switch (outcome) {
        case Outcome::kPainted:
            return 0;
        case Outcome::kFailed:
            return 1;
        case Outcome::kPaused:
            return 2;
        default:
            return 3;
    }
}

}  // namespace

struct Contact::State {
    explicit State(const Waking& given) : waking(given) {}

    void arrive() {
        ++arrivals;
        waking.wake();
    }
    void take(PageEvent&& event);
    /// Returns whether it is not the first of its frame.
    bool add(FrameReport&& report) REQUIRES_LOCK(mutex);
    [[nodiscard]] Reports find(std::uint64_t frame, std::uint64_t attempt) const
        REQUIRES_LOCK(mutex);
    void add(InputEvent&& event) REQUIRES_LOCK(mutex);

    const Waking waking;
    std::atomic<std::uint64_t> arrivals = 0;

    mutable annotated::Mutex mutex;
    std::deque<Reports> reports GUARDED_BY(mutex);
    std::deque<InputEvent> events GUARDED_BY(mutex);
};

void Contact::State::take(PageEvent&& event) {
    {
        const annotated::Lock lock(mutex);
        if (auto* const report = std::get_if<FrameReport>(&event)) {
            // The token of the first follows, and wakes whoever waits for it.
            if (!add(std::move(*report))) return;
        } else if (auto* const input = std::get_if<InputEvent>(&event)) {
            add(std::move(*input));
        } else {
            return;
        }
    }
    waking.wake();
}

bool Contact::State::add(FrameReport&& report) {
    for (auto& [count, best] : reports) {
        if (best->frame != report.frame || best->attempt != report.attempt) continue;
        ++count;
        if (rank(report.outcome) < rank(best->outcome)) best = std::move(report);
        return true;
    }
    if (reports.size() == kMostReports) reports.pop_front();
    reports.push_back({1, std::move(report)});
    return false;
}

Contact::Reports Contact::State::find(std::uint64_t frame, std::uint64_t attempt) const {
    for (const auto& one : reports) {
        if (one.best->frame == frame && one.best->attempt == attempt) return one;
    }
    return {};
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

Contact::Reports Contact::reports(std::uint64_t frame, std::uint64_t attempt) const {
    const annotated::Lock lock(fState->mutex);
    return fState->find(frame, attempt);
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
