#pragma once

#include <memory>

#include "kiro/web/binary/BinaryDataSender.hpp"

namespace kiro::web::binary {

/// What the completion of a send holds of `sender`: the sender, without a share in its stream.
std::shared_ptr<BinaryDataSenderInterface> referenceForCompletion(
    const std::shared_ptr<BinaryDataSenderInterface>& sender);

}  // namespace kiro::web::binary
