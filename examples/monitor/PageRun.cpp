#include "PageRun.hpp"

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <fstream>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include "Console.hpp"
#include "Diagnostics.hpp"
#include "History.hpp"
#include "PageWatch.hpp"
#include "Report.hpp"
#include "engine/DataSet.hpp"
#include "engine/Engine.hpp"
#include "kiro/web/PayloadInterface.hpp"
#include "kiro/web/PubSubFactory.hpp"
#include "kiro/web/PubSubInterface.hpp"
#include "kiro/web/Subscriber.hpp"
#include "kirofigures/Window.hpp"
#include "kirogateway/Gateway.hpp"
#include "kirohost/Controls.hpp"
#include "process/Environment.hpp"
#include "process/Thread.hpp"

namespace monitor {

namespace {

/// Where a page reports its script errors, whatever it is a page of.
constexpr const char* kErrorChannel = "/services/ErrorLoggingService/JSErrors";

/// The time-out logging must be on before the window makes its requestor.
void configureHost(const Options& options) {
    auto settings = kirohost::settings();
    settings.drawnowTimeoutSeconds = options.timeout.count();
    settings.drawnowTimeoutLogging = true;
    kirohost::setSettings(std::move(settings));
}

/// Before anything else, instead of at the first time-out. Throws `std::runtime_error`.
void requireWritable(const std::filesystem::path& file) {
    if (!std::ofstream(file, std::ios::app)) {
        throw std::runtime_error(file.string() +
                                 ": cannot be written: " + std::generic_category().message(errno));
    }
}

/// What the gateway logs has no line breaks, and comes at a bounded rate; of a recording there is
/// one line at most.
kirohost::Scope sayWhatIsLogged() {
    return kirohost::observeLog([](const kirohost::LogRecord& record) {
        if (record.logger == "gateway") say("gateway: " + record.text);
        if (record.logger == "recording") say(record.text);
    });
}

void sayTimeout(const Options& options, const Timeout& timeout, const History& history) {
    say("a flush timed out: " + timeout.cause);
    if (!options.diagnostics) return;
    try {
        writeFile(*options.diagnostics, diagnosticsText(options, timeout, history));
    } catch (const std::runtime_error& error) {
        say(error.what());
    }
}

std::unique_ptr<kirofigures::Window> openWindow(const Options& options) {
    auto window = windowOptions(options);
    window.port = options.port;
    window.opensBrowser = options.opensBrowser;
    try {
        return std::make_unique<kirofigures::Window>(std::move(window));
    } catch (const std::system_error& error) {
        const bool isPort = error.code() == std::errc::address_in_use ||
                            error.code() == std::errc::permission_denied;
        if (options.port == 0 || !isPort) throw;
        throw std::runtime_error("--port " + std::to_string(options.port) + ": " +
                                 error.code().message() +
                                 "; take another one, or leave it out for one that is free");
    }
}

/// `errors` is shared with the callback, which may still run when nobody is subscribed any more.
std::unique_ptr<kiro::web::Subscriber> sayErrors(const std::shared_ptr<ErrorLines>& errors) {
    return kiro::web::subscribe(
        kiro::web::PubSubFactory::pubsubInstance(), kErrorChannel,
        [errors](const std::string&, const kiro::web::PayloadInterface& error) {
            errors->add(error.convertToString());
        });
}

void repeatLink(const kirofigures::Window& window) {
    if (window.link().empty()) return say("no gateway serves the page yet");
    say("nobody has come yet; the link once more:");
    try {
        print(window.link() + '\n');
    } catch (const OutputError&) {  // found out again when the result is printed
    }
}

/// Calls a function at intervals while it lives, on a thread of its own.
class Ticking {
  public:
    explicit Ticking(std::function<void()> tick)
        : fThread(process::makeThread<std::jthread>(
              "looking at the pages", [tick = std::move(tick)](const std::stop_token& stop) {
                  constexpr std::chrono::milliseconds kPeriod{100};
                  std::mutex mutex;
                  std::condition_variable_any stopped;
                  std::unique_lock lock(mutex);
                  while (!stop.stop_requested()) {
                      tick();
                      stopped.wait_for(lock, stop, kPeriod, [] { return false; });
                  }
              })) {}

  private:
    std::jthread fThread;
};

}  // namespace

kirofigures::WindowOptions windowOptions(const Options& options) {
    kirofigures::WindowOptions window;
    window.title = "Monitor";
    // Who prints it finds out whether that works; those of gateways elsewhere come by and by.
    window.printsLink = !process::environmentText("KIROWEB_LINK").empty();
    // The host's time-out comes first.
    constexpr std::chrono::hours kYear(24 * 365);
    window.timeout = kYear;
    if (options.record) window.recording = options.record->string();
    return window;
}

void requireRecording(const kirofigures::Window& window) {
    const auto recording = window.recording();
    if (recording.phase != kirofigures::RecordingState::Phase::kEnded) return;
    throw std::runtime_error("the recording has ended: " + recording.cause);
}

bool runForPages(const Options& options) {
    const auto started = std::chrono::system_clock::now();
    const engine::DataSet data = engine::readDataSet(options.data);
    if (options.diagnostics) requireWritable(*options.diagnostics);
    configureHost(options);
    const History history;
    const kirohost::Scope log = sayWhatIsLogged();
    const auto window = openWindow(options);
    if (window->gateway() != nullptr) print(window->link() + '\n');

    const auto errors = std::make_shared<ErrorLines>();
    const auto reports = sayErrors(errors);
    PageWatch pages({.ask = [&window] { return window->statistics(); },
                     .isGone = [&window] { return window->isClientGone(); },
                     .say = &say,
                     .repeatLink = [&window] { repeatLink(*window); }},
                    options.remind);
    const Ticking ticking([&pages, errors] {
        pages.look();
        errors->look();
    });
    engine::Engine::Hooks hooks;
    hooks.waiting = [&pages](bool waits) { pages.waiting(waits); };
    hooks.timedOut = [&](const std::string& cause, const std::deque<engine::Latency>& latest) {
        const auto now = std::chrono::system_clock::now();
        sayTimeout(options, {started, now, cause, window->diagnostics(), latest}, history);
    };
    engine::Engine engine(*window, data, std::move(hooks));
    const auto result =
        engine.run({options.frames, options.duration, options.speed, options.timeout});
    errors->end();
    print(summaryText(result) + '\n');
    window->stopRecording();
    // It has said so itself.
    const bool isRecorded = window->recording().phase != kirofigures::RecordingState::Phase::kEnded;
    return isAllDrawn(options, result) && isRecorded;
}

}  // namespace monitor
