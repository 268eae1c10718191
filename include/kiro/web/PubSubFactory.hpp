#pragma once

#include <atomic>
#include <functional>
#include <memory>

#include "kiro/Export.hpp"

namespace kiro::web {

class PubSubInterface;

/// Hands out the process-wide endpoint.
class KIROWEB_EXPORT PubSubFactory {
  public:
    using pubsub_creation_fcn = std::function<std::shared_ptr<PubSubInterface>()>;

    PubSubFactory() = delete;

    /// Installs the function that makes the process-wide endpoint. Once, during start-up, before
    /// any other thread uses the factory: no lock is taken. A second call, or one after
    /// `pubsubInstance()` has installed the default, fails the host's assertion.
    static void setPubSubCreationFcn(pubsub_creation_fcn fcn);

    /// The process-wide endpoint, made on the first call (by default a `RelayPubSub`, which can
    /// be made on the host's signal thread only) and kept until the process ends. Any thread;
    /// concurrent first callers wait for one another. What the creation function throws is
    /// passed on, and the next call tries again.
    static std::shared_ptr<PubSubInterface> pubsubInstance();

    /// The process-wide endpoint when a creation function was installed from outside, otherwise
    /// a new endpoint from `defaultFcn` on every call. The asymmetry is deliberate: a test that
    /// installs its function first steers every component onto one endpoint.
    /// REQUIRES: `defaultFcn` is not empty (the host's assertion, then `std::bad_function_call`).
    static std::shared_ptr<PubSubInterface> makePubSubWithDefault(pubsub_creation_fcn defaultFcn);

    /// What was installed; empty at start.
    static pubsub_creation_fcn fPubSubCreationFcn;

  private:
    /// Read without a lock by `makePubSubWithDefault` while `pubsubInstance` may set it.
    static std::atomic<bool> fDefaultInUse;
};

}  // namespace kiro::web
