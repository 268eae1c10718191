// The conformance suite's adapter for this host.

#include "HostAdapter.hpp"
#include "other/Controls.hpp"

namespace conformance {

void adoptSignalThread() { other::adoptSignalThread(); }

void apply(const Settings& settings) {
    other::settings = {settings.binaryChannelForCommands, settings.binaryChannelFallback,
                       settings.warnAboutFallback,        settings.drawnowTimeoutSeconds,
                       settings.drawnowTimeoutLogging,    settings.atOstrel,
                       settings.drawnowTimeoutHook};
}

std::vector<std::string> warningsOf(const std::function<void()>& body) {
    std::vector<std::string> warnings;
    other::observers.warning = [&](const std::string& component, const std::string& key) {
        warnings.push_back(component + ":" + key);
    };
    body();
    other::observers.warning = nullptr;
    return warnings;
}

void setDiagnosticLevel(const std::string& /*logger: all*/, int level) {
    other::observers.diagnosticLevel = level;
}

std::vector<std::string> diagnosticsOf(const std::string& logger,
                                       const std::function<void()>& body) {
    std::vector<std::string> texts;
    other::observers.diagnostic = [&](const std::string& name, const std::string& text) {
        if (name == logger) texts.push_back(text);
    };
    body();
    other::observers.diagnostic = nullptr;
    return texts;
}

void takeMemorySnapshot() { other::observers.snapshot(); }

void showAssertions() { other::observers.showsAssertions = true; }

}  // namespace conformance
