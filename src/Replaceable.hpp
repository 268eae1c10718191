#pragma once

#include <atomic>
#include <functional>
#include <utility>

#include "annotated/Mutex.hpp"

namespace kiro {

template <typename Signature>
class Replaceable;

/// A process-wide function that another one can be put in place of. A call of the usual one costs
/// a load more than the call itself. Any thread.
template <typename Result, typename... Arguments>
class Replaceable<Result(Arguments...)> {
  public:
    using Usual = Result (*)(Arguments...);
    using Function = std::function<Result(Arguments...)>;

    explicit Replaceable(Usual usual) : fUsual(usual), fFunction(usual) {}

    /// Calls the installed function, with no lock held.
    Result operator()(Arguments... arguments) EXCLUDES_LOCK(fMutex) {
        if (!fIsReplaced.load(std::memory_order_acquire)) return fUsual(arguments...);
        return installed()(arguments...);
    }

    /// Installs `function` and returns what was installed.
    Function exchange(Function function) EXCLUDES_LOCK(fMutex) {
        const annotated::Lock lock(fMutex);
        const auto* const pointer = function.template target<Usual>();
        fIsReplaced.store(pointer == nullptr || *pointer != fUsual, std::memory_order_release);
        return std::exchange(fFunction, std::move(function));
    }

  private:
    [[nodiscard]] Function installed() EXCLUDES_LOCK(fMutex) {
        const annotated::Lock lock(fMutex);
        return fFunction;
    }

    const Usual fUsual;
    std::atomic<bool> fIsReplaced = false;
    annotated::Mutex fMutex;
    Function fFunction GUARDED_BY(fMutex);
};

}  // namespace kiro
