#pragma once

#include <algorithm>
#include <memory>
#include <utility>
#include <vector>

#include "annotated/Mutex.hpp"
#include "kirohost/Controls.hpp"

/// The functions that stand in for one of the host's factories. The youngest whose scope still
/// lives is in force. Any thread. Lives as long as the process, since its scopes refer to it.
template <typename Function>
class Replacement {
  public:
    [[nodiscard]] kirohost::Scope install(Function function) {
        auto shared = std::make_shared<const Function>(std::move(function));
        annotated::Lock lock(fMutex);
        fInstalled.push_back(shared);
        return kirohost::Scope([this, shared] { remove(shared); });
    }

    /// The function in force, empty when there is none.
    [[nodiscard]] std::shared_ptr<const Function> current() const {
        annotated::Lock lock(fMutex);
        return fInstalled.empty() ? nullptr : fInstalled.back();
    }

  private:
    void remove(const std::shared_ptr<const Function>& function) {
        annotated::Lock lock(fMutex);
        std::erase(fInstalled, function);
    }

    mutable annotated::Mutex fMutex;
    std::vector<std::shared_ptr<const Function>> fInstalled GUARDED_BY(fMutex);
};
