#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "kiro/web/binary/DataID.hpp"

namespace kiro::web {
class CommandSenderInterface;
class JSONPayload;
}  // namespace kiro::web

namespace monitor::engine {

/// What has left through an outlet, the token commands of the flush included.
struct Traffic {
    std::uint64_t commands = 0;
    std::uint64_t commandBytes = 0;
    std::uint64_t blocks = 0;
    std::uint64_t blockBytes = 0;  ///< headers included
};

/// The figures' way out: numbers the commands and hands commands and blocks to each of its
/// senders in turn. Engine's thread only.
class Outlet {
  public:
    using Senders = std::vector<std::shared_ptr<kiro::web::CommandSenderInterface>>;
    /// Writes a command's fields; called once for each sender.
    using Fill = std::function<void(kiro::web::JSONPayload&)>;

    /// With `countsTraffic` the traffic is counted on the first of `senders`, which makes the text
    /// of each of its commands once more.
    /// REQUIRES: there is a first sender, and nobody else uses its size statistics.
    explicit Outlet(Senders senders, bool countsTraffic = false);

    void command(const std::string& name, const Fill& fill);

    /// Sends the numbers as one block of 32-bit little-endian floats, which a later command may
    /// name by the identifier returned. No numbers make a block without data.
    kiro::web::binary::DataID block(std::span<const float> numbers);
    /// As above, without keeping the order against other sends.
    kiro::web::binary::DataID blockAsync(std::span<const float> numbers);

    /// Reads what the first sender's statistics hold into the traffic, and empties them. The
    /// traffic stays empty when it is not counted.
    const Traffic& countTraffic();

  private:
    const Senders fSenders;
    const bool fCountsTraffic;
    std::uint64_t fSequence = 0;
    Traffic fTraffic;
};

}  // namespace monitor::engine
