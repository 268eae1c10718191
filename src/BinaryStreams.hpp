#pragma once

#include <memory>
#include <string>

#include "relay/binary/experimental/BinaryStream.hpp"

namespace kiro::web::binary {

/// The calling VM's stream of `channel`, made with the current creation function when the VM has
/// none yet. Throws `std::runtime_error` when that makes none. Interpreter thread.
std::shared_ptr<relay::binary::experimental::BinaryStream> streamOfChannel(
    const std::string& channel);

}  // namespace kiro::web::binary
