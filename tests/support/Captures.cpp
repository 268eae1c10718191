#include "Captures.hpp"

#include <atomic>
#include <mutex>
#include <set>
#include <utility>

#include "process/Immortal.hpp"

namespace support {

namespace {

/// The level that every diagnostic logger starts with.
constexpr int kUsualLevel = 4;

/// What the captures in force declare. Immortal: a service's thread may log while the process
/// exits.
struct Declared {
    static Declared& instance() {
        static Immortal<Declared> declared;
        return *declared;
    }

    bool contains(const std::string& logger) {
        const std::lock_guard lock(mutex);
        return loggers.count(logger) != 0;
    }
    void add(const std::string& logger) {
        const std::lock_guard lock(mutex);
        loggers.insert(logger);
    }
    void remove(const std::string& logger) {
        const std::lock_guard lock(mutex);
        loggers.erase(loggers.find(logger));
    }

    std::atomic<int> warnings = 0;
    std::mutex mutex;
    std::multiset<std::string> loggers;
};

bool meansTrouble(const kirohost::LogRecord& record) {
    return record.logger == "relay" ||
           (record.logger == "commandsender" && record.text.find("not shown") != std::string::npos);
}

}  // namespace

std::string textOf(const kirohost::Warning& warning) {
    std::string text = warning.id.component + ":" + warning.id.key + "(";
    for (const auto& argument : warning.arguments) {
        if (text.back() != '(') text += ", ";
        text += argument;
    }
    return text + ")";
}

std::string textOf(const kirohost::LogRecord& record) { return record.text; }

std::string textOf(const kirohost::FailedAssertion& failed) {
    return failed.source + ":" + std::to_string(failed.line) + ": " + failed.condition;
}

ExpectNoSurprises::ExpectNoSurprises()
    : fWarnings(kirohost::observeWarnings([](const kirohost::Warning& warning) {
          if (Declared::instance().warnings == 0) {
              ADD_FAILURE() << "unexpected warning: " << textOf(warning);
          }
      })),
      fLog(kirohost::observeLog([](const kirohost::LogRecord& record) {
          if (meansTrouble(record) && !Declared::instance().contains(record.logger)) {
              ADD_FAILURE() << "unexpected record of " << record.logger << ": " << record.text;
          }
      })) {}

void ExpectNoSurprises::install() {
    testing::UnitTest::GetInstance()->listeners().Append(new ExpectNoSurprises);
}

WarningCapture::WarningCapture() {
    ++Declared::instance().warnings;
    fScope = kirohost::observeWarnings(
        [events = fEvents](const kirohost::Warning& warning) { events->add(warning); });
}

WarningCapture::~WarningCapture() { --Declared::instance().warnings; }

LogCapture::LogCapture(std::string logger) : fLogger(std::move(logger)) {
    Declared::instance().add(fLogger);
    fScope =
        kirohost::observeLog([events = fEvents, name = fLogger](const kirohost::LogRecord& record) {
            if (record.logger == name) events->add(record);
        });
}

LogCapture::~LogCapture() { Declared::instance().remove(fLogger); }

DiagnosticCapture::DiagnosticCapture(const std::string& logger, int level) : fLogger(logger) {
    kirohost::setDiagnosticLevel(logger, level);
    fScope =
        kirohost::observeDiagnostics([events = fEvents, logger](const kirohost::LogRecord& record) {
            if (record.logger == logger) events->add(record);
        });
}

DiagnosticCapture::~DiagnosticCapture() { kirohost::setDiagnosticLevel(fLogger, kUsualLevel); }

AssertionCapture::AssertionCapture() {
    fScope = kirohost::setAssertionPolicy(
        kirohost::AssertionPolicy::kReport,
        [events = fEvents](const kirohost::FailedAssertion& failed) { events->add(failed); });
}

}  // namespace support
