#pragma once

#include <memory>

namespace kiro::web {

class PubSubInterface;
class Subscriber;

/// Records what the client says: every message on the graphics channels and every script error,
/// into the history of `records::kDrawnowTimeoutLog`, of which the last 400 entries are kept.
class DrawnowTimeoutLogger {
  public:
    /// Signal thread.
    DrawnowTimeoutLogger();
    DrawnowTimeoutLogger(const DrawnowTimeoutLogger&) = delete;
    DrawnowTimeoutLogger& operator=(const DrawnowTimeoutLogger&) = delete;
    ~DrawnowTimeoutLogger();

  private:
    std::shared_ptr<PubSubInterface> fPubSub;
    std::unique_ptr<Subscriber> fGraphicsSubscriber;
    std::unique_ptr<Subscriber> fErrorSubscriber;
};

}  // namespace kiro::web
