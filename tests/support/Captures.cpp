#include "Captures.hpp"

#include <map>
#include <mutex>

#include "process/Immortal.hpp"

namespace support {

namespace {

constexpr const char* kWarnings = "warnings";

/// How often the captures in force declare each name. Immortal: a service's thread may log while
/// the process exits.
struct Declared {
    void add(const std::string& name, int more) {
        const std::lock_guard lock(mutex);
        counts[name] += more;
    }
    [[nodiscard]] bool contains(const std::string& name) {
        const std::lock_guard lock(mutex);
        return counts[name] > 0;
    }
    std::mutex mutex;
    std::map<std::string, int> counts;
};
Immortal<Declared> declared;

kirohost::Scope declare(const std::string& name) {
    declared->add(name, 1);
    return kirohost::Scope([name] { declared->add(name, -1); });
}

bool meansTrouble(const kirohost::LogRecord& record) {
    return record.logger == "relay" || (record.logger == "commandsender" &&
                                        record.text.find("no TaskRouter") != std::string::npos);
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

int runAllTests(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    const auto warnings = kirohost::observeWarnings([](const kirohost::Warning& warning) {
        if (declared->contains(kWarnings)) return;
        ADD_FAILURE() << "unexpected warning: " << textOf(warning);
    });
    const auto log = kirohost::observeLog([](const kirohost::LogRecord& record) {
        if (!meansTrouble(record) || declared->contains(record.logger)) return;
        ADD_FAILURE() << "unexpected record of " << record.logger << ": " << record.text;
    });
    return RUN_ALL_TESTS();
}

WarningCapture::WarningCapture() {
    fDeclaration = declare(kWarnings);
    fScope = kirohost::observeWarnings(
        [events = fEvents](const kirohost::Warning& warning) { events->add(warning); });
}

LogCapture::LogCapture(const std::string& logger) {
    fDeclaration = declare(logger);
    fScope = kirohost::observeLog([events = fEvents, logger](const kirohost::LogRecord& record) {
        if (record.logger == logger) events->add(record);
    });
}

AssertionCapture::AssertionCapture() {
    fScope = kirohost::setAssertionPolicy(
        kirohost::AssertionPolicy::kReport,
        [events = fEvents](const kirohost::FailedAssertion& failed) { events->add(failed); });
}

}  // namespace support
