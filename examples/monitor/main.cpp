#include <atomic>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "Console.hpp"
#include "Options.hpp"
#include "PageRun.hpp"
#include "Progress.hpp"
#include "Report.hpp"
#include "WarningLog.hpp"
#include "client/HeadlessClient.hpp"
#include "client/ReferenceData.hpp"
#include "engine/DataSet.hpp"
#include "engine/Engine.hpp"
#include "engine/Traffic.hpp"
#include "graphics_util/getContextQCRID.hpp"
#include "kirofigures/Window.hpp"
#include "kirohost/Controls.hpp"
#include "qvm/detail/taskRouterAccess.hpp"
#include "taskrouter/TaskRouter.hpp"

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

/// Has the interpreter run `task` in its next wait.
void queueTask(std::function<void()> task) {
    const taskrouter::RunOptions options{taskrouter::WhenToDequeue::kWhenIdle, ""};
    const auto context = graphics_util::getContextQCRID();
    qvm::detail::getTaskRouterAndSinks(context, options)
        .router->enqueueWithFuture(taskrouter::PackagedTaskIIP<void>({std::move(task)}, "monitor"),
                                   options, qvm::detail::createID());
}

void draw(kirofigures::Window& window, const engine::DataSet& data, client::HeadlessClient& page,
          Run& run) {
    Progress progress(run.options.frames);
    engine::TrafficCount traffic(window.sender());
    engine::Engine::Hooks hooks;
    hooks.frameOver = [&](const engine::EngineResult& soFar) {
        requireRecording(window);
        run.traffic = traffic.upToNow();
        progress.frameOver(soFar.frames);
    };
    engine::Engine engine(window, data, std::move(hooks));
    page.beginView();
    kirohost::waitForDelivery();
    // Ready from inside the first wait on, so that all of the first frame is held back.
    queueTask([&] {
        run.backlog = traffic.upToNow();
        page.announceReady();
    });
    run.engine = engine.run({run.options.frames, run.options.duration, run.options.speed});
    kirohost::waitForDelivery();
    run.client = page.finish();
    // Warnings that the last frame's blocks may have left.
    kirohost::runPendingTasks();
    progress.end();
}

Run runHeadless(const Options& options) {
    const engine::DataSet data = engine::readDataSet(options.data);
    const client::ReferenceData reference = client::readReferenceData(options.data.string());

    Run run;
    run.options = options;
    run.script = scriptFor(options);
    const auto timeoutHooks = std::make_shared<std::atomic<std::uint64_t>>(0);
    configureHost(options, timeoutHooks);
    const WarningLog warnings;
    {
        auto settings = windowOptions(options);
        settings.serves = false;
        settings.waitsForPage = false;
        kirofigures::Window window(std::move(settings));
        const auto& channels = window.channels();
        run.commandChannel = channels.commands;
        client::HeadlessClient page(reference, run.script, channels);
        draw(window, data, page, run);
        window.stopRecording();
        requireRecording(window);
        run.recordedBytes = window.recording().bytes;
    }
    run.warnings = warnings.counts();
    run.timeoutHooks = *timeoutHooks;
    run.errorsLogged = warnings.errorsLogged();
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
        if (options.headless) return report(runHeadless(options));
        return runForPages(options) ? kGood : kNotDrawn;
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
