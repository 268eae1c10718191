#pragma once

#include <memory>

namespace kiro::web {

class PubSubInterface;
class Subscriber;

/// The host log whose history explains a drawnow time-out.
inline constexpr const char* kDrawnowTimeoutLog = "DrawnowTimeout";

/// Records what the client says: every message on the graphics channels and every script error,
/// into the history of `kDrawnowTimeoutLog`, of which the last 400 entries are kept.
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
