#pragma once

#include <memory>
#include <optional>

#include "engine/QuakeFigure.hpp"

namespace kiro::web::binary {
class BinaryDataReceiverInterface;
}

namespace monitor::engine {

/// Receives the places at which somebody points, as blocks of two 32-bit floats. Blocks of any
/// other size are dropped silently. Interpreter thread.
class PickReceiver {
  public:
    PickReceiver();
    ~PickReceiver();
    PickReceiver(const PickReceiver&) = delete;
    PickReceiver& operator=(const PickReceiver&) = delete;

    /// The latest place since the last call.
    [[nodiscard]] std::optional<Pick> take();

  private:
    class Mailbox;
    /// Shared with the stream's callback, which runs on the client's thread.
    std::shared_ptr<Mailbox> fMailbox;
    std::shared_ptr<kiro::web::binary::BinaryDataReceiverInterface> fReceiver;
};

}  // namespace monitor::engine
