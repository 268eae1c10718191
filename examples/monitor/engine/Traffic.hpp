#pragma once

#include <cstdint>
#include <memory>

namespace kiro::web {
class CommandSenderInterface;
}

namespace monitor::engine {

/// What has been sent, the token commands included.
struct Traffic {
    std::uint64_t commands = 0;
    std::uint64_t commandBytes = 0;
    std::uint64_t blocks = 0;
    std::uint64_t blockBytes = 0;  ///< headers included
};

/// Counts what a sender sends, which makes the text of each command once more. Engine's thread.
class TrafficCount {
  public:
    /// REQUIRES: nobody else uses the sender's size statistics.
    explicit TrafficCount(std::shared_ptr<kiro::web::CommandSenderInterface> sender);

    /// What was sent from the start. To be asked now and then: what is counted in between is kept.
    const Traffic& upToNow();

  private:
    const std::shared_ptr<kiro::web::CommandSenderInterface> fSender;
    Traffic fTraffic;
};

}  // namespace monitor::engine
