#include "kirofigures/Window.hpp"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <optional>
#include <stdexcept>
#include <utility>

#include "Contact.hpp"
#include "Frames.hpp"
#include "Place.hpp"
#include "Recording.hpp"
#include "Scene.hpp"
#include "Served.hpp"
#include "Serving.hpp"
#include "Signals.hpp"
#include "Surroundings.hpp"
#include "Text.hpp"
#include "Waking.hpp"
#include "checked/Require.hpp"
#include "kiro/web/BootstrappingCommandSender.hpp"
#include "kiro/web/ConnectionStatus.hpp"
#include "kiro/web/PubSubACTRequestor.hpp"
#include "kiro/web/binary/BinaryStreamLifeCycle.hpp"
#include "process/Browser.hpp"

namespace kirofigures {

using namespace detail;
using kiro::web::BootstrappingCommandSender;
using kiro::web::PubSubACTRequestor;
using kiro::web::binary::BinaryStreamLifeCycle;

namespace {

WindowOptions checked(WindowOptions options) {
    if (options.underWay != 1 && options.underWay != 2) {
        throw std::invalid_argument("underWay is " + std::to_string(options.underWay) +
                                    ": it has to be 1 or 2");
    }
    // What is longer overflows the clock's nanoseconds.
    constexpr std::chrono::hours kLongest(24 * 366);
    if (!(options.timeout.count() > 0) || options.timeout > kLongest) {
        throw std::invalid_argument("timeout: it has to be above 0 and at most a year");
    }
    if (options.pages == 0 || options.pages > 10'000) {
        throw std::invalid_argument("pages: it has to be from 1 to 10000");
    }
    if (!isUTF8(options.title)) throw std::invalid_argument("title: not UTF-8");
    return options;
}

/// Made before the sender, whose binary channel it prepares, and let go of after it.
class BlockStream {
  public:
    explicit BlockStream(std::string channel) : fChannel(std::move(channel)) {
        BinaryStreamLifeCycle::initBinaryStream(fChannel);
    }
    ~BlockStream() {
        try {
            BinaryStreamLifeCycle::destroyBinaryStream(fChannel);
        } catch (...) {  // a destructor has nobody to tell
        }
    }
    BlockStream(const BlockStream&) = delete;
    BlockStream& operator=(const BlockStream&) = delete;

  private:
    const std::string fChannel;
};

/// Whoever draws or waits meanwhile is a callback.
class Inside {
  public:
    explicit Inside(bool& flag) : fFlag(flag) {
        if (std::exchange(fFlag, true)) throw std::logic_error("a callback draws or waits");
    }
    ~Inside() { fFlag = false; }
    Inside(const Inside&) = delete;
    Inside& operator=(const Inside&) = delete;

  private:
    bool& fFlag;
};

std::shared_ptr<kiro::web::CommandSenderInterface> makeSender(const Channels& channels) {
    auto sender = std::make_shared<BootstrappingCommandSender>(channels.commands);
    sender->setBinaryChannelName(channels.blocks);
    return sender;
}

}  // namespace

struct Window::Impl {
    Impl(WindowOptions given, const Surroundings* others);

    [[nodiscard]] Frames::Means means();
    [[nodiscard]] Surroundings ownSurroundings();
    void showLink();
    /// Hands what pages have said to whoever wants it.
    void dispatch();
    void handle(const PickEvent& event) const;
    void handle(const LimitsEvent& event) const;
    void handle(KeyEvent&& event) const;
    void handle(const ControlEvent& event) const;
    template <typename Kind>
    [[nodiscard]] Kind* find(std::uint64_t id) const {
        return dynamic_cast<Kind*>(scene.find(id));
    }
    /// Until `deadline`, or, without one, until something has come; or the window is closed.
    void wait(const std::optional<Frames::Clock::time_point>& deadline);
    [[nodiscard]] bool isOpen() const noexcept {
        return !isClosed && (signals == nullptr || !signals->came());
    }

    const WindowOptions options;
    // The threads that come later inherit what it blocks.
    const std::shared_ptr<Signals> signals;
    const Place place;
    const Channels channels;
    const Waking waking;
    std::atomic<bool> isClosed = false;
    BlockStream blocks;
    const std::shared_ptr<kiro::web::CommandSenderInterface> sender;
    const std::shared_ptr<kiro::web::ConnectionStatus> status;
    Contact contact;
    Recording recording;
    Outlet outlet;
    Scene scene;
    const Surroundings surroundings;
    Frames frames;
    std::function<void(const Key&)> onKey;
    bool isInside = false;  ///< in draw or wait
    bool hasNews = false;   ///< has come in a draw, too late for its frame
    /// After the frames, which it answers; it goes before everything that it delivers to.
    std::unique_ptr<Served> served;
    process::Browser browser;
};

Window::Impl::Impl(WindowOptions given, const Surroundings* others)
    : options(checked(std::move(given))),
      signals(options.handlesSignals ? Signals::shared() : nullptr),
      channels(place.channels()),
      blocks(channels.blocks),
      sender(makeSender(channels)),
      status(std::make_shared<kiro::web::ConnectionStatus>(channels.reconnect, channels.newView)),
      contact(channels, waking),
      recording(channels, options.title),
      outlet(sender, recording),
      surroundings(others == nullptr ? ownSurroundings() : *others),
      frames(means()) {
    const bool isServed = options.serves && others == nullptr;
    // A program whose port is taken leaves a recording as it is; one whose file cannot be made
    // shows nobody a link.
    if (isServed) served = std::make_unique<Served>(options, channels);
    if (!options.recording.empty()) recording.start(options.recording, options.recordingQueue);
    if (isServed) showLink();
}

Surroundings Window::Impl::ownSurroundings() {
    Surroundings own;
    if (!options.serves) return own;
    own.isPageGone = [this] { return served != nullptr && served->isLastPageGone(); };
    own.numPages = [this] { return served->statistics().pages; };
    own.lateCause = [this] {
        return lateCause(sender->queryCommandSenderReadyStatus(), served->diagnostics());
    };
    return own;
}

Frames::Means Window::Impl::means() {
    Frames::Requestors requestors;
    for (int i = 0; i < options.underWay; ++i) {
        requestors.push_back(std::make_unique<PubSubACTRequestor>(sender, channels.returns[i],
                                                                  "kirofigures", "browser", false));
    }
    return {scene,
            outlet,
            contact,
            recording,
            std::move(requestors),
            surroundings,
            [this] { return isOpen(); },
            std::chrono::duration_cast<Frames::Clock::duration>(options.timeout),
            options.waitsForPage};
}

void Window::Impl::showLink() {
    auto* const gateway = served->gateway();
    // Gateways elsewhere come later, and their links with them.
    if (gateway == nullptr) return;
    if (options.printsLink) {
        std::puts(gateway->link().c_str());
        std::fflush(stdout);
    }
    if (options.opensBrowser) browser.open(gateway->singleUseLink());
}

void Window::Impl::wait(const std::optional<Frames::Clock::time_point>& deadline) {
    const auto isOver = [this, &deadline] {
        return !isOpen() || (deadline && surroundings.now() >= *deadline);
    };
    for (;;) {
        Frames::waitUntil([this, &isOver] {
            return isOver() || hasNews || contact.numEvents() > 0 || frames.isRepeatDue();
        });
        if (frames.isRepeatDue()) frames.repeat();
        const bool hasCome = std::exchange(hasNews, false) || contact.numEvents() > 0;
        dispatch();
        if (isOver() || (!deadline && hasCome)) return;
    }
}

void Window::Impl::dispatch() {
    // Not more than were there: a page may say something faster than it is handled. What a
    // callback throws leaves the rest for later.
    for (std::size_t left = contact.numEvents(); left > 0; --left) {
        auto event = contact.takeEvent();
        if (event) std::visit([this](auto& what) { handle(std::move(what)); }, *event);
    }
}

void Window::Impl::handle(const PickEvent& event) const {
    auto* const axes = find<Axes>(event.axes);
    if (axes == nullptr) return;
    Pick pick{event.x, event.y, nullptr, 0};
    if (event.series != 0) {
        // What the page saw may be gone by now.
        const auto* const series = find<Series>(event.series);
        if (series == nullptr || Node::of(*series).parent() != &Node::of(*axes)) return;
        const auto* const store = Node::of(*series).store();
        const auto index = store == nullptr ? std::nullopt : store->given(event.index);
        if (!index) return;
        pick.series = series;
        pick.index = *index;
    }
    const auto callback = axes->fOnPick;
    if (callback) callback(pick);
}

void Window::Impl::handle(const LimitsEvent& event) const {
    const auto* const axes = find<Axes>(event.axes);
    if (axes == nullptr) return;
    const auto callback = axes->fOnLimits;
    if (callback) callback(event.view);
}

void Window::Impl::handle(KeyEvent&& event) const {
    const auto* const axes = find<Axes>(event.axes);
    if (event.axes != 0 && axes == nullptr) return;
    const auto callback = onKey;
    if (callback) callback({std::move(event.key), axes});
}

void Window::Impl::handle(const ControlEvent& event) const {
    if (auto* const control = find<Control>(event.id)) control->take(event.value);
}

Window::Window(WindowOptions options)
    : fImpl(std::make_unique<Impl>(std::move(options), nullptr)) {}

Window::Window(WindowOptions options, const Surroundings& surroundings)
    : fImpl(std::make_unique<Impl>(std::move(options), &surroundings)) {}

std::unique_ptr<Window> Surroundings::open(WindowOptions options,
                                           const Surroundings& surroundings) {
    return std::unique_ptr<Window>(new Window(std::move(options), surroundings));
}

Window::~Window() = default;

Figure& Window::figure(std::string_view title) {
    return fImpl->scene.root().make<Figure>("figure", [title](Figure& made) {
        if (!title.empty()) made.title(title);
    });
}

Drawn Window::draw() {
    const Inside inside(fImpl->isInside);
    // Before the frame, which shows what callbacks change; and after it, so that what is read
    // until the next one is as new as it can be.
    fImpl->dispatch();
    Drawn drawn = fImpl->frames.draw();
    fImpl->hasNews = fImpl->contact.numEvents() > 0;
    fImpl->dispatch();
    return drawn;
}

void Window::wait() {
    const Inside inside(fImpl->isInside);
    fImpl->wait({});
}

void Window::wait(std::chrono::duration<double> time) {
    const Inside inside(fImpl->isInside);
    // What is longer overflows the clock's nanoseconds; NaN counts as nothing.
    constexpr std::chrono::duration<double> kLongest = std::chrono::hours(24 * 366);
    using Time = std::chrono::duration<double>;
    const Time bounded = time.count() > 0 ? std::min(time, kLongest) : Time::zero();
    fImpl->wait(fImpl->surroundings.now() +
                std::chrono::duration_cast<Frames::Clock::duration>(bounded));
}

bool Window::isOpen() const noexcept { return fImpl->isOpen(); }

void Window::close() noexcept {
    fImpl->isClosed = true;
    // A wait looks by itself, only later.
    try {
        fImpl->waking.wake();
    } catch (...) {
    }
}

std::string Window::link() const {
    return fImpl->served == nullptr ? std::string() : fImpl->served->link();
}

void Window::record(const std::string& path) {
    fImpl->recording.start(path, fImpl->options.recordingQueue);
    fImpl->frames.beginAnew();
}

void Window::stopRecording() noexcept { fImpl->recording.stop(); }

RecordingState Window::recording() const { return fImpl->recording.state(); }

void Window::onKey(std::function<void(const Key&)> callback) {
    fImpl->outlet.engineListensToKeys = callback != nullptr;
    fImpl->onKey = std::move(callback);
}

const std::shared_ptr<kiro::web::CommandSenderInterface>& Window::sender() const noexcept {
    return fImpl->sender;
}

PubSubACTRequestor& Window::requestor() const noexcept { return fImpl->frames.requestor(); }

const std::shared_ptr<kiro::web::ConnectionStatus>& Window::status() const noexcept {
    return fImpl->status;
}

const Channels& Window::channels() const noexcept { return fImpl->channels; }

const kirogateway::Gateway* Window::gateway() const noexcept {
    return fImpl->served == nullptr ? nullptr : fImpl->served->gateway();
}

bool Window::isServed() const noexcept { return fImpl->served != nullptr; }

kirogateway::Statistics Window::statistics() const {
    KIROWEB_REQUIRE(isServed());
    return fImpl->served->statistics();
}

std::string Window::diagnostics() const {
    KIROWEB_REQUIRE(isServed());
    return fImpl->served->diagnostics();
}

bool Window::isClientGone() const noexcept {
    return fImpl->served != nullptr && fImpl->served->isLastPageGone();
}

const char* nameOf(Outcome outcome) noexcept {
    static constexpr std::array<const char*, 8> kNames{
        "painted", "hidden", "paused", "late", "no page", "failed", "interrupted", "under way"};
    return kNames.at(static_cast<std::size_t>(outcome));
}

}  // namespace kirofigures
