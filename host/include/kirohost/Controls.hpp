#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bedrock/core/except/Exception.hpp"
#include "kirohost/Export.hpp"
#include "qnutil/contextmgr/QcrID.hpp"

namespace relay {
template <typename VALUE_TYPE>
class Future;
namespace message_service {
class MessageService;
}
namespace binary::experimental {
class BinaryStream;
}
}  // namespace relay

/// The controls of the stand-in host: for a program that embeds the library without a host
/// application of its own, and for tests. All of them may be called on any thread unless they
/// say otherwise.
///
/// What an observer must not do: an observer runs on the thread that logs or warns, and that
/// thread may hold locks of the library (a token's return is logged under the token manager's
/// two mutexes). It must not call into the library, wait for another thread, or throw. It may
/// record what it saw.
///
/// One trap of `kiro::web::test::FakePubSub`: it delivers on the publishing thread, so a command's
/// callback runs under the mutex of the bootstrapping sender that sends the command. Announcing
/// "channel ready" to that sender from inside the callback, sending through it or destroying it
/// there would lock the sender against itself.
namespace kirohost {

/// Keeps an observer or a replacement in force while it lives. Movable.
class KIROHOST_EXPORT Scope {
  public:
    Scope() noexcept = default;
    explicit Scope(std::function<void()> end) noexcept;
    Scope(Scope&&) noexcept;
    Scope& operator=(Scope&&) noexcept;
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;
    ~Scope();

  private:
    std::function<void()> fEnd;
};

// --- What is observed ------------------------------------------------------------------------

struct Warning {
    bedrock::core::MessageId id;
    std::vector<std::string> arguments;
    std::string text;
    std::thread::id thread;
};

/// A record of `kiroutils::Logger` (`level` 0) or of a diagnostic logger.
struct LogRecord {
    std::string logger;
    std::string text;
    int level = 0;
    std::thread::id thread;
};

struct FailedAssertion {
    std::string condition;
    std::string source;
    int line = 0;
    std::string function;
};

[[nodiscard]] KIROHOST_EXPORT Scope observeWarnings(std::function<void(const Warning&)> observer);
[[nodiscard]] KIROHOST_EXPORT Scope observeLog(std::function<void(const LogRecord&)> observer);
[[nodiscard]] KIROHOST_EXPORT Scope
observeDiagnostics(std::function<void(const LogRecord&)> observer);
/// The threshold of the diagnostic loggers called `logger`, see `basic_diagnostic_logger`.
KIROHOST_EXPORT void setDiagnosticLevel(const std::string& logger, int level);
/// Whether diagnostic records are written at all. Starts on.
KIROHOST_EXPORT void setDiagnosticsEnabled(bool enabled);

/// What a failed assertion does: the default prints it on standard error and aborts; `kReport`
/// calls `observer` and goes on. A terminate ends the process under both.
enum class AssertionPolicy { kEndProcess, kReport };
[[nodiscard]] KIROHOST_EXPORT Scope
setAssertionPolicy(AssertionPolicy policy, std::function<void(const FailedAssertion&)> observer);

// --- Settings --------------------------------------------------------------------------------

/// The graphics settings and the switches, with their defaults.
struct Settings {
    bool binaryChannelForCommands = false;
    bool binaryChannelFallback = true;
    bool warnAboutFallback = true;
    std::int64_t drawnowTimeoutSeconds = 60;  ///< 0: never
    bool drawnowTimeoutLogging = false;
    bool atOstrel = false;
    /// Called by `kiroInvokeDrawnowTimeoutCallback`, on its thread; may be empty.
    std::function<void()> drawnowTimeoutCallback;
    /// If not empty, asked instead of `warnAboutFallback`, each time, on the asking thread.
    std::function<bool()> answerWarnAboutFallback;
};

[[nodiscard]] KIROHOST_EXPORT Settings settings();
KIROHOST_EXPORT void setSettings(Settings settings);

/// Replaces the steady clock of the host's time-outs (not of its waits); an empty function
/// restores the real one.
KIROHOST_EXPORT void setSteadyClock(std::function<std::chrono::steady_clock::time_point()> clock);

// --- Interpreter -----------------------------------------------------------------------------

/// Makes the calling thread the signal thread and the main context's interpreter thread.
KIROHOST_EXPORT void adoptSignalThread();

/// An interpreter VM with one context. The main one is there from the start and stays; further
/// ones live as long as their object. Destroying one drops its queued tasks and its per-VM
/// storage, and ends the binary streams that were made in it; tasks sent to it later find no task
/// router. REQUIRES: when it is destroyed, no thread is bound to it but the destroying one.
class KIROHOST_EXPORT Vm {
  public:
    Vm();
    ~Vm();
    Vm(const Vm&) = delete;
    Vm& operator=(const Vm&) = delete;

    [[nodiscard]] qnutil::contextmgr::QcrID context() const noexcept;
    /// Makes the calling thread this VM's interpreter thread while the scope lives; the scope
    /// ends on the same thread.
    [[nodiscard]] Scope bindThisThread();

  private:
    struct Impl;
    std::shared_ptr<Impl> fImpl;
};

/// Takes the main context out of reach, so that no task router is found for it, while the scope
/// lives.
[[nodiscard]] KIROHOST_EXPORT Scope hideMainContext();

/// Runs the tasks queued for the calling thread's context, those that they queue included;
/// returns how many ran. What a task throws is kept in its future.
KIROHOST_EXPORT std::size_t runPendingTasks();

struct PendingTask {
    std::uint64_t id = 0;
    std::string source;
    int whenToDequeue = 0;
};
/// The tasks queued for `context`, oldest first.
[[nodiscard]] KIROHOST_EXPORT std::vector<PendingTask> pendingTasks(
    qnutil::contextmgr::QcrID context);

/// Queues an empty task for the main context: a blocking wait there looks at its condition.
KIROHOST_EXPORT void wakeInterpreter();

/// Sends the memory-snapshot event.
KIROHOST_EXPORT void takeMemorySnapshot();

// --- Services --------------------------------------------------------------------------------

/// Blocks until every message published before the call has been delivered to this process's
/// subscribers. REQUIRES: not called on the delivery thread.
KIROHOST_EXPORT void waitForDelivery();

using MessageServiceFactory =
    std::function<relay::Future<std::shared_ptr<relay::message_service::MessageService>>(
        const std::string& name)>;
/// What `createMessageService` answers from now on, while the scope lives.
[[nodiscard]] KIROHOST_EXPORT Scope replaceMessageService(MessageServiceFactory factory);

using BinaryStreamFactory =
    std::function<std::shared_ptr<relay::binary::experimental::BinaryStream>(
        const std::string& channel, bool returnOnFail)>;
/// What `createBinaryStream` answers from now on, while the scope lives.
[[nodiscard]] KIROHOST_EXPORT Scope replaceBinaryStream(BinaryStreamFactory factory);

}  // namespace kirohost
