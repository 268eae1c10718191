#include <atomic>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "Console.hpp"
#include "Options.hpp"
#include "PageRun.hpp"
#include "Progress.hpp"
#include "Report.hpp"
#include "Signals.hpp"
#include "WarningLog.hpp"
#include "client/HeadlessClient.hpp"
#include "client/ReferenceData.hpp"
#include "engine/DataSet.hpp"
#include "engine/Engine.hpp"
#include "engine/Recorder.hpp"
#include "kirohost/Controls.hpp"

namespace {

using namespace monitor;

/// Exit statuses; --help says what they mean.
enum Status { kGood = 0, kNotDrawn = 1, kWrongOption = 2, kNoOutput = 3 };

/// The client begins anew early, twice if there are frames enough.
client::Script scriptFor(const Options& options) {
    client::Script script;
    script.silent = options.silent;
    script.dropEvery = options.dropEvery;
    script.failEvery = options.failEvery;
    if (options.silent) return script;
    constexpr std::uint64_t kReconnectAt = 10;
    constexpr std::uint64_t kNewViewAt = 20;
    const std::uint64_t frames = options.frames.value_or(kNewViewAt + 1);
    script.reconnectAt = frames > kNewViewAt ? kReconnectAt : (frames - 1) / 2;
    script.newViewAt = frames > kNewViewAt ? kNewViewAt : frames - 1;
    if (script.newViewAt == script.reconnectAt) script.newViewAt.reset();
    return script;
}

/// Makes the host what the options want: a run that loses tokens is the developers' own host,
/// which also gets the internal warnings and the recorded history.
void configureHost(const Options& options,
                   const std::shared_ptr<std::atomic<std::uint64_t>>& hooks) {
    auto settings = kirohost::settings();
    settings.drawnowTimeoutSeconds = options.timeout.count();
    settings.drawnowTimeoutLogging = options.losesTokens();
    settings.atOstrel = options.losesTokens();
    settings.drawnowTimeoutCallback = [hooks] { ++*hooks; };
    kirohost::setSettings(std::move(settings));
}

void draw(const engine::DataSet& data, engine::Recorder* recorder, client::HeadlessClient& page,
          const Signals& signals, Run& run) {
    Progress progress(run.options.frames);
    // Announced from inside the first wait, so that all of the first frame is held back.
    engine::Engine::Hooks hooks;
    hooks.waiting = [&page, announced = false]() mutable {
        if (!std::exchange(announced, true)) page.announce();
    };
    hooks.frameOver = [&progress](const engine::EngineResult& soFar) {
        progress.frameOver(soFar.frames);
    };
    hooks.stopped = [&signals] { return signals.came(); };
    // What engine and client have counted can be compared only when no frame is cut in two. A
    // silent client has counted nothing, and there is no use in waiting for it.
    hooks.finishesFrames = !run.options.silent;
    hooks.countsTraffic = true;
    engine::Engine engine(data, recorder, hooks);
    run.engine = engine.run({run.options.frames, run.options.duration, run.options.speed});
    kirohost::waitForDelivery();
    run.client = page.finish();
    // Warnings that the last frame's blocks may have left.
    kirohost::runPendingTasks();
    progress.end();
}

Run runHeadless(const Options& options, const Signals& signals) {
    const engine::DataSet data = engine::readDataSet(options.data);
    const client::ReferenceData reference = client::readReferenceData(options.data.string());
    std::optional<engine::Recorder> recorder;
    if (options.record) recorder.emplace(*options.record);

    Run run;
    run.options = options;
    run.script = scriptFor(options);
    const auto timeoutHooks = std::make_shared<std::atomic<std::uint64_t>>(0);
    configureHost(options, timeoutHooks);
    const WarningLog warnings;
    {
        client::HeadlessClient page(reference, run.script);
        draw(data, recorder ? &*recorder : nullptr, page, signals, run);
    }
    run.warnings = warnings.counts();
    run.timeoutHooks = *timeoutHooks;
    run.errorsLogged = warnings.errorsLogged();
    if (recorder) run.recordedLines = recorder->lines();
    return run;
}

int report(const Run& run) {
    std::string text = tableText(run);
    const auto complaints = judge(run);
    for (const std::string& complaint : complaints) text += complaint + '\n';
    const bool faults = run.options.losesTokens() || run.options.failEvery != 0;
    text += !complaints.empty() ? "FAILED\n"
            : faults            ? "Every fault met its stated reaction.\n"
                                : "Every frame is complete.\n";
    print(text);
    return complaints.empty() ? kGood : kNotDrawn;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        const ParsedOptions parsed = parseOptions(argc, argv);
        if (!parsed.options) {
            print(parsed.text);
            return kGood;
        }
        const Options& options = *parsed.options;
        // Until the end, or a second signal would keep the result from being printed.
        const Signals signals([] { kirohost::wakeInterpreter(); });
        if (options.headless) return report(runHeadless(options, signals));
        return runForPages(options, signals) ? kGood : kNotDrawn;
    } catch (const OptionError& error) {
        say(error.what());
        return kWrongOption;
    } catch (const OutputError& error) {
        say(error.what());
        return kNoOutput;
    } catch (const std::exception& error) {
        say(error.what());
        return kNotDrawn;
    }
}
