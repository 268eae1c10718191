#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>

#include "FixedAssertion.hpp"
#include "SteadyClock.hpp"
#include "kiroutils/KiroTerminatingCondition.hpp"
#include "qvm/messages.hpp"
#include "relay/Future.hpp"

namespace kiro::web {

/// Waits for a future of the message service.
template <typename VALUE_TYPE>
class RelayFuture {
  public:
    /// `description` names the wait.
    RelayFuture(relay::Future<VALUE_TYPE> future, std::string description)
        : fFuture(std::move(future)), fDescription(std::move(description)) {}

    /// Blocks until the value is there and returns it. Signal thread only, once.
    ///
    /// It runs no interpreter tasks: one that asked for the endpoint that is being made would
    /// wait for itself. It has no time-out of its own.
    VALUE_TYPE wait() {
        assertAt({"src/RelayFuture", 50, "VALUE_TYPE kiro::web::RelayFuture<VALUE_TYPE>::wait()"},
                 utIsSignalThread(), "utIsSignalThread()");
        // Mostly the service has answered within the call: there is nothing to wait for then.
        if (fFuture.valid() && fFuture.isReady()) return fFuture.get();
        const auto shared = std::make_shared<relay::Future<VALUE_TYPE>>(std::move(fFuture));
        kiroutils::KiroTerminatingCondition condition(
            fDescription,
            [weak = std::weak_ptr<relay::Future<VALUE_TYPE>>(shared)] { return isReady(weak); },
            std::chrono::seconds::max());
        while (!condition.shouldTerminate()) {
        }
        return shared->get();
    }

    /// One look of the wait: true when the value is there. Blocks for about 100 ms at most, so
    /// that the host's loop around it stays responsive.
    static bool isReady(const std::weak_ptr<relay::Future<VALUE_TYPE>>& weak) {
        const auto deadline = steadyNow() + std::chrono::milliseconds(100);
        const auto future = weak.lock();
        if (future == nullptr) qxErrMsgId({"Quarn:class", "InvalidHandle"}, {});
        const auto state = future->state();
        if (state == nullptr) throw std::runtime_error("Future state isn't valid!");
        std::unique_lock lock(state->mutex);
        while (!state->ready) {
            if (state->condition.wait_until(lock, deadline) == std::cv_status::timeout) break;
        }
        return state->ready;
    }

  private:
    relay::Future<VALUE_TYPE> fFuture;
    std::string fDescription;
};

}  // namespace kiro::web
