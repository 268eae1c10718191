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

/// Fails the running test on every warning outside a `WarningCapture`, and on every log record
/// that means trouble (a handler that threw, a warning that could not be shown) outside a
/// `LogCapture` of its logger. A failed assertion outside an `AssertionCapture` ends the process.
class ExpectNoSurprises : public testing::EmptyTestEventListener {
  public:
    /// Adds one to the running test program. Called by `main`, after `InitGoogleTest`.
    static void install();

    ExpectNoSurprises();

  private:
    kirohost::Scope fWarnings;
    kirohost::Scope fLog;
};

/// Shared with the observer, which may still run when its scope has just ended.
template <typename Event>
class Capture {
  public:
    [[nodiscard]] std::vector<Event> all() const { return fEvents->all(); }
    [[nodiscard]] std::size_t size() const { return fEvents->size(); }
    void awaitSize(std::size_t count) const { fEvents->awaitSize(count); }
    void clear() { fEvents->clear(); }

  protected:
    std::shared_ptr<Collector<Event>> fEvents = std::make_shared<Collector<Event>>();
    /// Ends before the collector is let go.
    kirohost::Scope fScope;
};

/// Declares and collects the host's warnings.
class WarningCapture : public Capture<kirohost::Warning> {
  public:
    WarningCapture();
    ~WarningCapture();
    WarningCapture(const WarningCapture&) = delete;
    WarningCapture& operator=(const WarningCapture&) = delete;
    /// "component:key(argument, argument)" of each.
    [[nodiscard]] std::vector<std::string> texts() const;
};

/// Declares and collects the records of one log of `kiroutils::Logger`.
class LogCapture : public Capture<kirohost::LogRecord> {
  public:
    explicit LogCapture(std::string logger);
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
    [[nodiscard]] std::vector<std::string> texts() const;

  private:
    std::string fLogger;
};

/// Collects the records of one diagnostic logger, whose level it sets meanwhile.
class DiagnosticCapture : public Capture<kirohost::LogRecord> {
  public:
    DiagnosticCapture(const std::string& logger, int level);
    ~DiagnosticCapture();
    DiagnosticCapture(const DiagnosticCapture&) = delete;
    DiagnosticCapture& operator=(const DiagnosticCapture&) = delete;
    [[nodiscard]] std::vector<std::string> texts() const;

  private:
    std::string fLogger;
};

/// Has failed assertions reported instead of ending the process, and collects them.
class AssertionCapture : public Capture<kirohost::FailedAssertion> {
  public:
    AssertionCapture();
    /// "source:line: condition" of each.
    [[nodiscard]] std::vector<std::string> texts() const;
};

}  // namespace support
