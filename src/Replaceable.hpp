#pragma once

#include <functional>
#include <utility>

#include "annotated/Mutex.hpp"

namespace kiro {

/// A process-wide function that tests put another in place of. Any thread.
template <typename Signature>
class Replaceable {
  public:
    explicit Replaceable(std::function<Signature> function) : fFunction(std::move(function)) {}

    /// A copy, to be called with no lock held.
    [[nodiscard]] std::function<Signature> current() EXCLUDES_LOCK(fMutex) {
        const annotated::Lock lock(fMutex);
        return fFunction;
    }

    /// Installs `function` and returns what was installed.
    std::function<Signature> exchange(std::function<Signature> function) EXCLUDES_LOCK(fMutex) {
        const annotated::Lock lock(fMutex);
        return std::exchange(fFunction, std::move(function));
    }

  private:
    annotated::Mutex fMutex;
    std::function<Signature> fFunction GUARDED_BY(fMutex);
};

}  // namespace kiro
