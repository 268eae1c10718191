#pragma once

#include <memory>

#include "TestableMapStorage.hpp"
#include "kiro/web/binary/BinaryDataReceiver.hpp"

namespace kiro::web::binary {

struct IdToBinaryDataReceiver::Impl {
    /// A slot may be empty: its caller fills it.
    TestableMapStorage<std::shared_ptr<BinaryDataReceiverInterface>> fReceivers;
};

}  // namespace kiro::web::binary
