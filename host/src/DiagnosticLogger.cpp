#include "bedrock/log/basic_diagnostic_logger.hpp"

#include <atomic>
#include <boost/log/utility/formatting_ostream.hpp>
#include <locale>
#include <map>
#include <thread>
#include <utility>

#include "Observers.hpp"
#include "annotated/Mutex.hpp"
#include "kirohost/Controls.hpp"
#include "process/Immortal.hpp"

namespace bedrock::log {
namespace {

constexpr int kStartLevel = 4;

using kirohost::LogRecord;

/// What all diagnostic loggers share.
class Diagnostics {
  public:
    using Level = std::shared_ptr<std::atomic<int>>;

    static Diagnostics& instance() {
        static Immortal<Diagnostics> immortal;
        return *immortal;
    }

    /// The level of the loggers called `name`, which is there from the first question on.
    Level level(const std::string& name) {
        const annotated::Lock lock(fMutex);
        Level& level = fLevels[name];
        if (level == nullptr) level = std::make_shared<std::atomic<int>>(kStartLevel);
        return level;
    }

    std::atomic<bool> enabled = true;
    kirohost::detail::Observers<LogRecord> observers;

  private:
    annotated::Mutex fMutex;
    std::map<std::string, Level> fLevels GUARDED_BY(fMutex);
};

}  // namespace

struct diagnostic_record::Impl {
    Impl(std::string logger, int level)
        : record{std::move(logger), {}, level, std::this_thread::get_id()}, stream(record.text) {
        stream.imbue(std::locale::classic());
    }

    LogRecord record;
    boost::log::formatting_ostream stream;
};

diagnostic_record::diagnostic_record(std::unique_ptr<Impl> impl) noexcept
    : fImpl(std::move(impl)) {}

diagnostic_record::diagnostic_record(diagnostic_record&&) noexcept = default;

diagnostic_record::~diagnostic_record() {
    if (fImpl == nullptr) return;
    try {
        fImpl->stream.flush();
        Diagnostics::instance().observers.notify(fImpl->record);
    } catch (...) {  // NOLINT(bugprone-empty-catch): a destructor has nobody to tell
    }
}

diagnostic_record& diagnostic_record::operator<<(std::string_view text) {
    fImpl->stream.write(text.data(), static_cast<std::streamsize>(text.size()));
    return *this;
}

diagnostic_record& diagnostic_record::operator<<(unsigned long number) {
    fImpl->stream << number;
    return *this;
}

struct basic_diagnostic_logger::Impl {
    const std::string name;
    const Diagnostics::Level level;
};

basic_diagnostic_logger::basic_diagnostic_logger(std::string name) {
    auto level = Diagnostics::instance().level(name);
    fImpl.reset(new Impl{std::move(name), std::move(level)});
}

basic_diagnostic_logger::~basic_diagnostic_logger() = default;

bool basic_diagnostic_logger::enabled(int level) const noexcept {
    return Diagnostics::instance().enabled && level <= *fImpl->level;
}

diagnostic_record basic_diagnostic_logger::record(int level) const {
    return diagnostic_record(std::make_unique<diagnostic_record::Impl>(fImpl->name, level));
}

}  // namespace bedrock::log

namespace kirohost {

Scope observeDiagnostics(std::function<void(const LogRecord&)> observer) {
    return bedrock::log::Diagnostics::instance().observers.add(std::move(observer));
}

void setDiagnosticLevel(const std::string& logger, int level) {
    *bedrock::log::Diagnostics::instance().level(logger) = level;
}

void setDiagnosticsEnabled(bool enabled) {
    bedrock::log::Diagnostics::instance().enabled = enabled;
}

}  // namespace kirohost
