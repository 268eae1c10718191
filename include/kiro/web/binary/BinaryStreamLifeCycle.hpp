#pragma once

#include <string>

#include "kiro/Export.hpp"

namespace kiro::web::binary {

/// Brings the streams and receivers of the calling VM into being and lets go of them. Interpreter
/// thread.
class KIROWEB_EXPORT BinaryStreamLifeCycle {
  public:
    /// Makes sure that the VM has a stream for `channel`.
    static void initBinaryStream(const std::string& channel);
    /// Drops the VM's hold on the stream, which ends with its last sender or receiver; a block that
    /// has not been answered counts as its sender. An unknown channel is no error.
    static void destroyBinaryStream(const std::string& channel);
    /// Drops the VM's receiver of `channel`. An unknown channel is no error.
    static void destroyBinaryDataReceiver(const std::string& channel);
};

}  // namespace kiro::web::binary
