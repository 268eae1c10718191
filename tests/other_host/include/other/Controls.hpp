#pragma once

#include <cstdint>
#include <functional>
#include <string>

/// What a program that embeds this host sets and sees: just enough for the conformance suite. One
/// thread at a time.
namespace other {

struct Settings {
    bool commandsOverBinary = false;
    bool fallback = true;
    bool warnAboutFallback = true;
    std::int64_t drawnowTimeout = 60;
    bool drawnowLogging = false;
    bool atOstrel = false;
    std::function<void()> drawnowHook;
};
Settings& settings();

struct Observers {
    std::function<void(const std::string& component, const std::string& key)> warning;
    std::function<void(const std::string& logger, const std::string& text)> diagnostic;
    bool showsAssertions = false;
};
Observers& observers();

void setDiagnosticLevel(const std::string& logger, int level);
void takeMemorySnapshot();
void adoptSignalThread();

/// "/*" at the end of `pattern` stands for whatever follows.
bool matches(const std::string& pattern, const std::string& name);

}  // namespace other
