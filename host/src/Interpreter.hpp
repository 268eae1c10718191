#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <typeindex>
#include <utility>
#include <vector>

#include "TaskQueue.hpp"
#include "annotated/Mutex.hpp"
#include "qnutil/contextmgr/QcrID.hpp"

namespace kirohost::detail {

/// One interpreter VM: its context, its task queue and its storage. Any thread.
class Machine {
  public:
    Machine();

    [[nodiscard]] qnutil::contextmgr::QcrID context() const noexcept { return fContext; }
    [[nodiscard]] const std::shared_ptr<TaskQueue>& queue() const noexcept { return fQueue; }

    /// The object of type `type`, made with `make` when it is not there. `make` runs without the
    /// lock, so it may ask for other types. When two threads make one at the same time, one of
    /// the two objects is destroyed again before anybody has seen it.
    void* findOrInsert(std::type_index type, const std::function<std::shared_ptr<void>()>& make);
    /// Drops the queued tasks, then the storage, the youngest object first.
    void close();

  private:
    /// In the order of their making; so few that a search from end to end is the quickest.
    using Storage = std::vector<std::pair<std::type_index, std::shared_ptr<void>>>;

    void* findLocked(std::type_index type) const REQUIRES_LOCK(fMutex);

    const qnutil::contextmgr::QcrID fContext;
    const std::shared_ptr<TaskQueue> fQueue = std::make_shared<TaskQueue>();
    annotated::Mutex fMutex;
    Storage fStorage GUARDED_BY(fMutex);
};

/// The interpreter's VMs, and which thread belongs to which. One, kept until the process ends.
class Interpreter {
  public:
    static Interpreter& instance();

    /// The calling thread's VM: the main one for a thread that is bound to none.
    Machine& current();
    Machine& main() { return *fMain; }

    void add(const std::shared_ptr<Machine>& machine);
    void remove(const Machine& machine);
    /// The VM of `context`, null when it is gone.
    std::shared_ptr<Machine> find(qnutil::contextmgr::QcrID context) const;
    /// As `find`, null also for a main context that is hidden.
    std::shared_ptr<Machine> findInReach(qnutil::contextmgr::QcrID context) const;
    void hideMain(bool hide);

  private:
    std::shared_ptr<Machine> findLocked(qnutil::contextmgr::QcrID context) const
        REQUIRES_LOCK(fMutex);

    const std::shared_ptr<Machine> fMain = std::make_shared<Machine>();
    mutable annotated::Mutex fMutex;
    /// The further VMs by their context.
    std::map<std::uint64_t, std::shared_ptr<Machine>> fMachines GUARDED_BY(fMutex);
    /// How many scopes hide the main context.
    int fNumHidings GUARDED_BY(fMutex) = 0;
};

/// Says that the calling thread is inside a blocking wait while it lives; waits may nest.
class InsideWait {
  public:
    InsideWait() noexcept;
    ~InsideWait();
    InsideWait(const InsideWait&) = delete;
    InsideWait& operator=(const InsideWait&) = delete;

    [[nodiscard]] static bool isCallingThread() noexcept;
};

}  // namespace kirohost::detail
