#pragma once

#include <string>

#include "relay/common/DataBuffer.hpp"

/// A block that does not travel over the binary stream: one message with its data in Base64.
namespace kiro::web::binary {

/// Publishes `block` on `channel` as text through the process-wide endpoint. When there is not
/// enough memory for the text, the interpreter warns and the client gets a notice instead; what
/// publishing throws is passed on. REQUIRES: the block has its header.
void sendUsingPubSub(relay::common::DataBuffer&& block, const std::string& channel);

/// As above, for a block that failed on a stream's thread. When nobody has asked for the endpoint
/// yet, which only the signal thread may make, the interpreter publishes the block as a task.
void sendFailedBlock(relay::common::DataBuffer&& block, const std::string& channel);

}  // namespace kiro::web::binary
