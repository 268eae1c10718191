#include "Recording.hpp"

#include <algorithm>
#include <boost/json/object.hpp>
#include <boost/json/serialize.hpp>
#include <cstring>
#include <utility>

#include "PageEvents.hpp"
#include "Scene.hpp"
#include "Serving.hpp"
#include "Text.hpp"
#include "kiro/ACTRequestor.hpp"
#include "kiro/web/PayloadInterface.hpp"
#include "kiro/web/RelayPubSub.hpp"
#include "kirorecording/Recorder.hpp"
#include "kirorecording/Run.hpp"
#include "kirorecording/Writer.hpp"
#include "kiroutils/Logger.hpp"
#include "text/Escape.hpp"

namespace kirofigures::detail {

namespace json = boost::json;
using kirorecording::Recorder;
using kirorecording::Topic;

namespace {

/// How much has to be read, at most, from where everything is there: unless everything is more.
constexpr std::chrono::seconds kSnapshotPeriod{2};
constexpr std::size_t kSnapshotBytes = std::size_t{16} << 20U;

constexpr std::size_t kMostErrorBytes = std::size_t{16} << 10U;

constexpr std::uint16_t numberOf(Topic topic) { return static_cast<std::uint16_t>(topic); }

void append(std::string& text, std::uint64_t number, std::size_t size) {
    char bytes[sizeof number];
    std::memcpy(bytes, &number,
                sizeof number);  // the block's maker says that this is little-endian
    text.append(bytes, size);
}

/// Gathers commands and blocks into one message, as long as it is not too large.
class Gathering final : public Tap {
  public:
    explicit Gathering(std::size_t room) : fRoom(room) {}

    [[nodiscard]] bool isOpen() const noexcept override {
        return fCommands.size() + fBlocks.size() <= fRoom;
    }
    void command(std::string text) override {
        fCommands += fCommands.empty() ? "" : ",";
        fCommands += text;
    }
    void block(std::string_view bytes) override {
        // Beyond the room nothing is kept: it would only have to be let go again.
        fIsWhole = fIsWhole && fBlocks.size() + bytes.size() <= fRoom;
        if (!fIsWhole) return;
        append(fBlocks, bytes.size(), sizeof(std::uint64_t));
        fBlocks += bytes;
    }
    /// Empty when there was no room for all.
    [[nodiscard]] std::string message(std::uint64_t frame, std::uint64_t sequence) const {
        const std::string text = R"({"frame":)" + std::to_string(frame) + R"(,"seq":)" +
                                 std::to_string(sequence) + R"(,"commands":[)" + fCommands + "]}";
        if (!fIsWhole || text.size() + fBlocks.size() > fRoom) return {};
        std::string message;
        message.reserve(sizeof(std::uint32_t) + text.size() + fBlocks.size());
        append(message, text.size(), sizeof(std::uint32_t));
        return message += text + fBlocks;
    }

  private:
    const std::size_t fRoom;
    bool fIsWhole = true;
    std::string fCommands;
    std::string fBlocks;
};

std::string errorOf(std::string text) {
    if (!isUTF8(text) || text.size() > kMostErrorBytes) text = text::escaped(text, kMostErrorBytes);
    return json::serialize(json::object{{"error", text}});
}

void log(const std::string& path, const std::string& cause) {
    kiroutils::Logger::instance().log(
        "recording", text::escaped("the recording " + path + " has ended: " + cause, 1000));
}

}  // namespace

Recording::Recording(const Channels& channels, std::string title)
    : fChannels(channels), fTitle(std::move(title)) {}

Recording::~Recording() { stop(); }

void Recording::start(const std::string& path, std::size_t queueSize) {
    stop();
    fRecorder.reset();
    kirorecording::RecorderOptions options;
    options.queueSize = queueSize;
    options.onFailure = [path](const std::string& cause) { log(path, cause); };
    fRecorder = std::make_shared<Recorder>(std::make_unique<kirorecording::FileSink>(path),
                                           kirorecording::runChannels(), std::move(options));
    fIsGone = false;
    try {
        fRecorder->add(numberOf(Topic::kConnections),
                       json::serialize(json::object{
                           {"event", "begin"}, {"vocabulary", kVocabulary}, {"title", fTitle}}));
        hear();
    } catch (...) {
        stop();
        throw;
    }
}

void Recording::hear() {
    fEndpoint = std::make_shared<kiro::web::RelayPubSub>();
    const auto listen = [this](const std::string& channel, Topic topic, auto messageOf) {
        fSubscribers.push_back(kiro::web::subscribe(
            fEndpoint, channel,
            [recorder = fRecorder, topic, messageOf](const std::string&,
                                                     const kiro::web::PayloadInterface& payload) {
                auto message = messageOf(payload.convertToString());
                if (!message.empty()) recorder->add(numberOf(topic), std::move(message));
            }));
    };
    listen(fChannels.newView, Topic::kConnections,
           [](const std::string&) -> std::string { return R"({"event":"new view"})"; });
    listen(fChannels.reconnect, Topic::kConnections,
           [](const std::string&) -> std::string { return R"({"event":"return"})"; });
    listen(fChannels.events, Topic::kControls, [](std::string text) -> std::string {
        return std::holds_alternative<InputEvent>(readEvent(text)) ? std::move(text)
                                                                   : std::string();
    });
    listen(kErrorChannel, Topic::kErrors, &errorOf);
}

void Recording::stop() noexcept {
    fSubscribers.clear();
    fEndpoint.reset();
    if (fRecorder != nullptr) fRecorder->stop();
}

RecordingState Recording::state() const {
    if (fRecorder == nullptr) return {};
    auto status = fRecorder->status();
    using Phase = RecordingState::Phase;
    const Phase phase = status.isOn            ? Phase::kOn
                        : status.cause.empty() ? Phase::kOff
                                               : Phase::kEnded;
    return {phase, std::move(status.cause), status.bytes};
}

bool Recording::isOpen() const noexcept { return fRecorder != nullptr && fRecorder->isOn(); }

void Recording::command(std::string text) {
    fFrameBytes += text.size();
    fRecorder->add(numberOf(Topic::kCommands), std::move(text));
}

void Recording::block(std::string_view bytes) {
    fFrameBytes += bytes.size();
    fRecorder->addCopy(numberOf(Topic::kBlocks), bytes);
}

void Recording::begin(const FrameMark& mark) noexcept {
    fMark = mark;
    fFrameBytes = 0;
}

template <typename Operation>
void Recording::attempt(const Operation& operation) noexcept {
    if (!isOpen()) return;
    try {
        operation();
    } catch (...) {
        fRecorder->fail("no memory");  // short enough to need none
    }
}

void Recording::sent(const Scene& scene, const Outlet& outlet, Time now) noexcept {
    attempt([&] { addFrame(scene, outlet, now); });
}

void Recording::addFrame(const Scene& scene, const Outlet& outlet, Time now) {
    const std::size_t bytes = fFrameBytes;
    fIsGone = false;
    fRecorder->add(numberOf(Topic::kFrames),
                   json::serialize(json::object{{"frame", fMark.frame},
                                                {"attempt", fMark.attempt},
                                                {"kind", fMark.isWhole ? "whole" : "changes"},
                                                {"bytes", bytes},
                                                {"seq", outlet.sequence()}}));
    if (fMark.isWhole) {
        fWholeTime = now;
        fWholeBytes = bytes;
        fBytesSince = 0;
        return;
    }
    fBytesSince += bytes;
    if (!isSnapshotDue(now)) return;
    fWholeTime = now;
    fBytesSince = 0;
    addSnapshot(scene, outlet);
}

bool Recording::isSnapshotDue(Time now) const noexcept {
    // Not before as much was sent as the last one takes, so that a file is about twice what has
    // travelled, at most three times: where a scene grows, the new one is as large as both. To wait
    // for the new one's size would leave such a scene without any.
    return fBytesSince >= fWholeBytes &&
           (fBytesSince >= kSnapshotBytes || now - fWholeTime >= kSnapshotPeriod);
}

void Recording::addSnapshot(const Scene& scene, const Outlet& outlet) {
    // Half of the queue is left for what travels, which matters more.
    Gathering gathering(std::min(fRecorder->room() / 2, kirorecording::Writer::kMostBytes));
    Outlet all({}, gathering);
    all.engineListensToKeys = outlet.engineListensToKeys;
    all.beginFrame(fMark.frame, fMark.attempt, true);
    scene.sendSnapshot(all);
    auto message = gathering.message(fMark.frame, outlet.sequence());
    if (message.empty()) return;
    fWholeBytes = message.size();
    fRecorder->add(numberOf(Topic::kSnapshots), std::move(message));
}

void Recording::over(const FrameReport& report, const kiro::ACTRequestor* requestor) noexcept {
    attempt([&] { addToken(report, requestor); });
}

void Recording::addToken(const FrameReport& report, const kiro::ACTRequestor* requestor) {
    if (report.outcome == Outcome::kNoPage) {
        const bool wasGone = std::exchange(fIsGone, true);
        // Nobody keeps the engine's pace then: it may draw as fast as it can.
        if (wasGone && report.attempt == 0) return;
        if (!wasGone) fRecorder->add(numberOf(Topic::kConnections), R"({"event":"gone"})");
    }
    kiro::ACTRequestor::TimeStamps last;
    if (requestor != nullptr && requestor->hasTimeStamps()) {
        last = requestor->getTimeStampLog().back();
    }
    // Another page may have shown more than the one whose token this is.
    const bool isItsPage = report.clientSend == last.clientSend;
    fRecorder->add(numberOf(Topic::kTokens),
                   json::serialize(json::object{{"frame", report.frame},
                                                {"attempt", report.attempt},
                                                {"outcome", nameOf(report.outcome)},
                                                {"reason", report.error},
                                                {"serverSend", last.serverSend},
                                                {"clientReceive", last.clientReceive},
                                                {"clientPaint", isItsPage ? report.clientPaint : 0},
                                                {"clientSend", last.clientSend},
                                                {"serverReceive", last.serverReceive}}));
}

}  // namespace kirofigures::detail
