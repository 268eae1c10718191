// One interpreter with one context: tasks, waits, storage.

#include <atomic>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <thread>
#include <utility>

#include "bedrock/usm/thisthread.hpp"
#include "graphics_util/getContextQCRID.hpp"
#include "kiroutils/KiroBlockingOperation.hpp"
#include "other/Controls.hpp"
#include "other/Fault.hpp"
#include "qvm/detail/taskRouterAccess.hpp"
#include "qvm/messages.hpp"
#include "taskrouter/TaskRouter.hpp"

using other::hasFault;

namespace {

constexpr qnutil::contextmgr::QcrID kMainContext{7};

std::atomic<std::thread::id> signalThread = std::this_thread::get_id();

class Router final : public taskrouter::TaskRouter {
  public:
    static const std::shared_ptr<Router>& instance() {
        static const auto* const router = new std::shared_ptr<Router>(std::make_shared<Router>());
        return *router;
    }

    /// Runs what may run inside a wait; sleeps a little if that is nothing.
    void runTasks() {
        std::unique_lock lock(fMutex);
        if (fTasks.empty()) fQueued.wait_for(lock, std::chrono::milliseconds(5));
        auto tasks = std::exchange(fTasks, {});
        lock.unlock();
        for (const auto& task : tasks) task.run();
    }

  private:
    void doEnqueue(taskrouter::QueuedTask&& task) override {
        const bool waits =
            task.options.whenToDequeue == taskrouter::WhenToDequeue::kAtPrompt;  // there is none
        if (waits || hasFault("tasks-are-lost")) return;
        const std::lock_guard lock(fMutex);
        fTasks.push_back(std::move(task));
        fQueued.notify_all();
    }

    std::mutex fMutex;
    std::condition_variable fQueued;
    std::deque<taskrouter::QueuedTask> fTasks;
};

}  // namespace

namespace taskrouter {
TaskRouter::~TaskRouter() = default;
}

namespace qvm::detail {

std::uint64_t createID() {
    static std::atomic<std::uint64_t> last = 0;
    return ++last;
}

TaskRouterAndSinks getTaskRouterAndSinks(qnutil::contextmgr::QcrID context,
                                         const taskrouter::RunOptions& /*options*/) {
    if (context != kMainContext && !hasFault("router-for-any-context")) return {};
    return {Router::instance(), nullptr};
}

}  // namespace qvm::detail

qnutil::contextmgr::QcrID graphics_util::getContextQCRID() { return kMainContext; }

bool utIsSignalThread() {
    return signalThread == std::this_thread::get_id() || hasFault("every-thread-is-signal-thread");
}

void other::adoptSignalThread() { signalThread = std::this_thread::get_id(); }

void* bedrock::usm::thisthread::detail::findOrInsert(
    std::type_index type, const std::function<std::shared_ptr<void>()>& make) {
    static std::mutex mutex;
    using Storage = std::map<std::type_index, std::shared_ptr<void>>;
    static Storage& ofVm = *new Storage;
    static thread_local Storage ofThread;
    Storage& storage = hasFault("storage-per-thread") ? ofThread : ofVm;
    {
        const std::lock_guard lock(mutex);
        if (const auto found = storage.find(type); found != storage.end()) {
            return found->second.get();
        }
    }
    auto made = make();
    const std::lock_guard lock(mutex);
    return storage.emplace(type, std::move(made)).first->second.get();
}

namespace kiroutils {

KiroTerminatingCondition::KiroTerminatingCondition(const std::string& name,
                                                   std::function<bool()> condition,
                                                   std::chrono::seconds timeout)
    : fName(name), fCondition(std::move(condition)), fTimeout(timeout) {}

KiroTerminatingCondition::~KiroTerminatingCondition() = default;

bool KiroTerminatingCondition::shouldTerminate() {
    const auto elapsed = std::chrono::steady_clock::now() - fStart;
    const bool isLate = std::chrono::floor<std::chrono::seconds>(elapsed) >= fTimeout;
    fIsLate = isLate && hasFault("wait-asks-for-the-time-first");
    if (!fIsLate && fCondition && fCondition()) return true;
    return fIsLate = isLate;
}

bool KiroTerminatingCondition::doThrowIfError() { return false; }

void KiroBlockingOperation::waitOrThrow(std::unique_ptr<KiroTerminatingCondition> condition,
                                        std::function<void()> pump) {
    while (!condition->shouldTerminate()) {
        if (!hasFault("wait-misses-errors")) condition->doThrowIfError();
        if (pump && !hasFault("wait-without-pump")) pump();
        Router::instance()->runTasks();
    }
    if (condition->isLate()) throw TerminatingConditionException("The time has passed.");
}

}  // namespace kiroutils
