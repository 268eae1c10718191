#include "Interpreter.hpp"

#include <atomic>
#include <utility>

#include "StreamsOfContext.hpp"
#include "bedrock/usm/thisthread.hpp"
#include "checked/Require.hpp"
#include "graphics_util/getContextQCRID.hpp"
#include "kirohost/Controls.hpp"
#include "process/Immortal.hpp"
#include "qvm/detail/taskRouterAccess.hpp"
#include "qvm/messages.hpp"

namespace kirohost {
namespace detail {
namespace {

/// The VM to which the thread is bound, null for none. The scope that binds it keeps it alive.
thread_local Machine* tBound = nullptr;
thread_local int tNumWaits = 0;

/// The signal thread is the one whose own number is the process's: a thread's identifier would be
/// given to another thread when the first has gone.
std::atomic<std::uint64_t> gSignalThread = 0;
thread_local std::uint64_t tSignalThread = 0;

/// The thread that loads the host begins as the signal thread.
[[maybe_unused]] const bool gAdoptedByLoading = (adoptSignalThread(), true);

/// Binds the calling thread for a scope of the source.
class Binding {
  public:
    explicit Binding(Machine& machine) : fPrevious(std::exchange(tBound, &machine)) {}
    ~Binding() { tBound = fPrevious; }
    Binding(const Binding&) = delete;
    Binding& operator=(const Binding&) = delete;

  private:
    Machine* const fPrevious;
};

std::uint64_t nextContext() {
    static std::atomic<std::uint64_t> last = 0;
    return ++last;
}

}  // namespace

Machine::Machine() : fContext{nextContext()} {}

void* Machine::findLocked(std::type_index type) const {
    for (const auto& [key, object] : fStorage) {
        if (key == type) return object.get();
    }
    return nullptr;
}

void* Machine::findOrInsert(std::type_index type,
                            const std::function<std::shared_ptr<void>()>& make) {
    {
        const annotated::Lock lock(fMutex);
        if (void* const found = findLocked(type)) return found;
    }
    auto made = make();
    const annotated::Lock lock(fMutex);
    if (void* const found = findLocked(type)) return found;
    fStorage.emplace_back(type, std::move(made));
    return fStorage.back().second.get();
}

void Machine::close() {
    fQueue->close();
    Storage storage;
    {
        const annotated::Lock lock(fMutex);
        storage.swap(fStorage);
    }
    while (!storage.empty()) storage.pop_back();
}

Interpreter& Interpreter::instance() {
    static Immortal<Interpreter> immortal;
    return *immortal;
}

Machine& Interpreter::current() { return tBound != nullptr ? *tBound : *fMain; }

void Interpreter::add(const std::shared_ptr<Machine>& machine) {
    const annotated::Lock lock(fMutex);
    fMachines.emplace(machine->context().value, machine);
}

void Interpreter::remove(const Machine& machine) {
    const annotated::Lock lock(fMutex);
    fMachines.erase(machine.context().value);
}

std::shared_ptr<Machine> Interpreter::findLocked(qnutil::contextmgr::QcrID context) const {
    if (context == fMain->context()) return fMain;
    const auto found = fMachines.find(context.value);
    return found != fMachines.end() ? found->second : nullptr;
}

std::shared_ptr<Machine> Interpreter::find(qnutil::contextmgr::QcrID context) const {
    const annotated::Lock lock(fMutex);
    return findLocked(context);
}

std::shared_ptr<Machine> Interpreter::findInReach(qnutil::contextmgr::QcrID context) const {
    const annotated::Lock lock(fMutex);
    if (fNumHidings > 0 && context == fMain->context()) return nullptr;
    return findLocked(context);
}

void Interpreter::hideMain(bool hide) {
    const annotated::Lock lock(fMutex);
    fNumHidings += hide ? 1 : -1;
}

InsideWait::InsideWait() noexcept { ++tNumWaits; }

InsideWait::~InsideWait() { --tNumWaits; }

bool InsideWait::isCallingThread() noexcept { return tNumWaits > 0; }

}  // namespace detail

using detail::Interpreter;

void adoptSignalThread() {
    static std::atomic<std::uint64_t> last = 0;
    detail::tSignalThread = ++last;
    detail::gSignalThread = detail::tSignalThread;
}

struct Vm::Impl final : detail::Machine {
    std::atomic<int> numBindings = 0;  ///< of threads, for the destructor's precondition
};

Vm::Vm() : fImpl(std::make_shared<Impl>()) { Interpreter::instance().add(fImpl); }

Vm::~Vm() {
    KIROWEB_REQUIRE(fImpl->numBindings == 0 || detail::tBound == fImpl.get());
    Interpreter::instance().remove(*fImpl);
    // What the destructors of the storage look up is this VM's, not the main one's.
    const detail::Binding binding(*fImpl);
    fImpl->close();
    relay::binary::experimental::endStreamsOf(fImpl->context());
}

qnutil::contextmgr::QcrID Vm::context() const noexcept { return fImpl->context(); }

Scope Vm::bindThisThread() {
    detail::Machine* const previous = std::exchange(detail::tBound, fImpl.get());
    ++fImpl->numBindings;
    return Scope([machine = fImpl, previous] {
        --machine->numBindings;
        detail::tBound = previous;
    });
}

Scope hideMainContext() {
    Interpreter::instance().hideMain(true);
    return Scope([] { Interpreter::instance().hideMain(false); });
}

std::size_t runPendingTasks() {
    const auto queue = Interpreter::instance().current().queue();
    const auto taking = detail::InsideWait::isCallingThread() ? detail::Taking::kInsideWait
                                                              : detail::Taking::kAtPrompt;
    std::size_t numRun = 0;
    while (const std::size_t numRound = queue->run(taking)) numRun += numRound;
    return numRun;
}

std::vector<PendingTask> pendingTasks(qnutil::contextmgr::QcrID context) {
    const auto machine = Interpreter::instance().find(context);
    return machine != nullptr ? machine->queue()->pending() : std::vector<PendingTask>();
}

void wakeInterpreter() {
    const taskrouter::RunOptions options{taskrouter::WhenToDequeue::kWhenIdle, ""};
    Interpreter::instance().main().queue()->enqueue(
        {[] {}, "kirohost::wakeInterpreter", options, qvm::detail::createID()});
}

}  // namespace kirohost

namespace taskrouter {

TaskRouter::~TaskRouter() = default;

}  // namespace taskrouter

namespace qvm::detail {

std::uint64_t createID() {
    static std::atomic<std::uint64_t> last = 0;
    return ++last;
}

TaskRouterAndSinks getTaskRouterAndSinks(qnutil::contextmgr::QcrID context,
                                         const taskrouter::RunOptions& /*options*/) {
    const auto machine = kirohost::detail::Interpreter::instance().findInReach(context);
    if (machine == nullptr) return {};
    return {machine->queue(), nullptr};
}

}  // namespace qvm::detail

namespace graphics_util {

qnutil::contextmgr::QcrID getContextQCRID() {
    return kirohost::detail::Interpreter::instance().current().context();
}

}  // namespace graphics_util

namespace bedrock::usm::thisthread::detail {

void* findOrInsert(std::type_index type, const std::function<std::shared_ptr<void>()>& make) {
    return kirohost::detail::Interpreter::instance().current().findOrInsert(type, make);
}

}  // namespace bedrock::usm::thisthread::detail

bool utIsSignalThread() {
    return kirohost::detail::tBound != nullptr ||
           kirohost::detail::tSignalThread == kirohost::detail::gSignalThread;
}
