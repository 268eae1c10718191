// The stand-in host's adapter: what an embedding program sets and sees.

#include <utility>

#include "HostAdapter.hpp"
#include "kirohost/Controls.hpp"

namespace conformance {

void adoptSignalThread() { kirohost::adoptSignalThread(); }

void apply(const Settings& settings) {
    kirohost::Settings applied;
    applied.binaryChannelForCommands = settings.binaryChannelForCommands;
    applied.binaryChannelFallback = settings.binaryChannelFallback;
    applied.warnAboutFallback = settings.warnAboutFallback;
    applied.drawnowTimeoutSeconds = settings.drawnowTimeoutSeconds;
    applied.drawnowTimeoutLogging = settings.drawnowTimeoutLogging;
    applied.atOstrel = settings.atOstrel;
    applied.drawnowTimeoutCallback = settings.drawnowTimeoutHook;
    kirohost::setSettings(std::move(applied));
}

std::vector<std::string> warningsOf(const std::function<void()>& body) {
    std::vector<std::string> warnings;
    const auto scope = kirohost::observeWarnings([&warnings](const kirohost::Warning& warning) {
        warnings.push_back(warning.id.component + ":" + warning.id.key);
    });
    body();
    return warnings;
}

void setDiagnosticLevel(const std::string& logger, int level) {
    kirohost::setDiagnosticLevel(logger, level);
}

std::vector<std::string> diagnosticsOf(const std::string& logger,
                                       const std::function<void()>& body) {
    std::vector<std::string> texts;
    const auto scope = kirohost::observeDiagnostics([&](const kirohost::LogRecord& record) {
        if (record.logger == logger) texts.push_back(record.text);
    });
    body();
    return texts;
}

void takeMemorySnapshot() { kirohost::takeMemorySnapshot(); }

void showAssertions() {}  // it does so anyway

}  // namespace conformance
