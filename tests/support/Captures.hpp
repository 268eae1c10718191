#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "Collector.hpp"
#include "kirohost/Controls.hpp"

/// A warning that no test asked for, a log line that means trouble and a failed assertion are
/// faults: a listener fails the running test on them, and a scoped capture declares and collects
/// those that the test provokes. All of this may be used on any thread.
namespace support {

/// The whole of `main`. It fails the running test on every warning outside a `WarningCapture`, and
/// on every log record that means trouble (a handler that threw, a warning that could not be shown)
/// outside a `LogCapture` of its logger. A failed assertion outside an `AssertionCapture` ends the
/// process.
int runAllTests(int argc, char** argv);

/// The text that tests compare: "component:key(argument, argument)", a record's own text, and
/// "source:line: condition".
std::string textOf(const kirohost::Warning& warning);
std::string textOf(const kirohost::LogRecord& record);
std::string textOf(const kirohost::FailedAssertion& failed);

template <typename Event>
class Capture {
  public:
    Capture() = default;
    Capture(const Capture&) = delete;
    Capture& operator=(const Capture&) = delete;

    [[nodiscard]] std::vector<Event> all() const { return fEvents->all(); }
    [[nodiscard]] std::vector<std::string> texts() const {
        std::vector<std::string> texts;
        for (const auto& event : all()) texts.push_back(textOf(event));
        return texts;
    }
    [[nodiscard]] std::size_t size() const { return fEvents->size(); }
    void awaitSize(std::size_t count) const { fEvents->awaitSize(count); }
    void clear() { fEvents->clear(); }

  protected:
    /// Shared with the observer, which may still run when its scope has just ended.
    std::shared_ptr<Collector<Event>> fEvents = std::make_shared<Collector<Event>>();
    kirohost::Scope fDeclaration;  ///< of what is no surprise meanwhile
    kirohost::Scope fScope;
};

/// Declares and collects the host's warnings.
struct WarningCapture : Capture<kirohost::Warning> {
    WarningCapture();
};

/// Declares and collects the records of one log of `kiroutils::Logger`.
struct LogCapture : Capture<kirohost::LogRecord> {
    explicit LogCapture(const std::string& logger);
};

/// Has failed assertions reported instead of ending the process, and collects them.
struct AssertionCapture : Capture<kirohost::FailedAssertion> {
    AssertionCapture();
};

}  // namespace support
