// One interpreter with one context: tasks, waits, storage.

#include <atomic>
#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "bedrock/usm/thisthread.hpp"
#include "graphics_util/getContextQCRID.hpp"
#include "kirohost/Controls.hpp"
#include "kiroutils/KiroBlockingOperation.hpp"
#include "qvm/detail/taskRouterAccess.hpp"
#include "qvm/messages.hpp"
#include "taskrouter/TaskRouter.hpp"

namespace {

constexpr qnutil::contextmgr::QcrID kMainContext{7};

std::atomic<std::thread::id> signalThread = std::this_thread::get_id();

class Router final : public taskrouter::TaskRouter {
  public:
    static const std::shared_ptr<Router>& instance() {
        static const auto& router = *new std::shared_ptr<Router>(std::make_shared<Router>());
        return router;
    }

    /// Runs what may run inside a wait; sleeps a little if that is nothing.
    void runTasks() {
        std::unique_lock lock(fMutex);
        if (fTasks.empty()) fQueued.wait_for(lock, std::chrono::milliseconds(5));
        const auto tasks = std::exchange(fTasks, {});
        lock.unlock();
        for (const auto& task : tasks) task.run();
    }

  private:
    void doEnqueue(taskrouter::QueuedTask&& task) override {
        // There is no prompt at which the others would run.
        if (task.options.whenToDequeue == taskrouter::WhenToDequeue::kAtPrompt) return;
        const std::lock_guard lock(fMutex);
        fTasks.push_back(std::move(task));
        fQueued.notify_all();
    }

    std::mutex fMutex;
    std::condition_variable fQueued;
    std::vector<taskrouter::QueuedTask> fTasks;
};

}  // namespace

taskrouter::TaskRouter::~TaskRouter() = default;

std::uint64_t qvm::detail::createID() {
    static std::atomic<std::uint64_t> last = 0;
    return ++last;
}

qvm::detail::TaskRouterAndSinks qvm::detail::getTaskRouterAndSinks(
    qnutil::contextmgr::QcrID context, const taskrouter::RunOptions& /*options*/) {
    if (context != kMainContext) return {};
    return {Router::instance(), nullptr};
}

qnutil::contextmgr::QcrID graphics_util::getContextQCRID() { return kMainContext; }

bool utIsSignalThread() { return signalThread == std::this_thread::get_id(); }
void kirohost::adoptSignalThread() { signalThread = std::this_thread::get_id(); }

void* bedrock::usm::thisthread::detail::findOrInsert(
    std::type_index type, const std::function<std::shared_ptr<void>()>& make) {
    // What is made may ask for another.
    static auto& mutex = *new std::recursive_mutex;
    static auto& storage = *new std::map<std::type_index, std::shared_ptr<void>>;
    const std::lock_guard lock(mutex);
    if (!storage.contains(type)) storage.emplace(type, make());
    return storage.at(type).get();
}

namespace kiroutils {

void KiroBlockingOperation::waitOrThrow(std::unique_ptr<KiroTerminatingCondition> condition,
                                        std::function<void()> pump) {
    while (!condition->shouldTerminate()) {
        condition->doThrowIfError();
        if (pump) pump();
        Router::instance()->runTasks();
    }
    if (condition->hasTimedOut()) throw TerminatingConditionException("The time has passed.");
}

}  // namespace kiroutils
