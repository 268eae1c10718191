#pragma once

#include <atomic>
#include <boost/signals2/signal.hpp>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

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
extern Settings& settings;

struct Observers {
    std::function<void(const std::string& component, const std::string& key)> warning;
    std::function<void(const std::string& logger, const std::string& text)> diagnostic;
    std::atomic<int> diagnosticLevel = 0;
    bool showsAssertions = false;
    boost::signals2::signal<void()> snapshot;
};
extern Observers& observers;

void adoptSignalThread();

/// "/*" at the end of `pattern` stands for whatever follows.
bool matches(std::string_view pattern, std::string_view name);

}  // namespace other
