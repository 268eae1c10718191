#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "kiro/Export.hpp"
#include "kiro/web/binary/DataID.hpp"

namespace relay {
template <typename VALUE_TYPE>
class Future;
namespace common {
class DataBuffer;
}
namespace binary::experimental {
class BinaryStream;
struct SendResult;
}  // namespace binary::experimental
}  // namespace relay

namespace kiro::web::binary {

/// Puts blocks on the host's binary stream of one channel. Sends run on the thread that sends
/// commands, warnings on the stream's threads too.
class KIROWEB_EXPORT BinaryDataSenderInterface {
  public:
    using SendFuture = relay::Future<relay::binary::experimental::SendResult>;

    BinaryDataSenderInterface() = default;
    BinaryDataSenderInterface(const BinaryDataSenderInterface&) = delete;
    BinaryDataSenderInterface& operator=(const BinaryDataSenderInterface&) = delete;
    virtual ~BinaryDataSenderInterface();

    /// Sends a ready-made block, header included.
    virtual SendFuture send(relay::common::DataBuffer&& block) = 0;
    /// Builds a block from `id` and a copy of `length` bytes and sends it. When it cannot be
    /// built, the user is warned and the client gets a 16-byte notice in its place: the
    /// identifier 2, then `id`, both little-endian.
    virtual SendFuture send(DataID id, const char* data, std::size_t length) = 0;
    /// Has the interpreter warn that a block was not delivered on `channel`. Any thread; returns
    /// at once.
    virtual void warnAboutSendFailure(const std::string& channel) = 0;
    /// Has the interpreter warn of lack of memory. Any thread; returns at once.
    virtual void warnAboutOOMFailure() = 0;
};

/// A sender for `channel`, from the current creation function; by default one over the calling
/// VM's stream of that channel. Interpreter thread.
[[nodiscard]] KIROWEB_EXPORT std::shared_ptr<BinaryDataSenderInterface> createBinaryDataSender(
    const std::string& channel);

namespace test {

using BinaryDataSenderCreationFunction =
    std::function<std::shared_ptr<BinaryDataSenderInterface>(const std::string& channel)>;
using BinaryStreamCreationFunction =
    std::function<std::shared_ptr<relay::binary::experimental::BinaryStream>(
        const std::string& channel)>;

/// Installs `f` process-wide and returns what was installed, to be put back in the same way.
KIROWEB_EXPORT BinaryDataSenderCreationFunction
RegisterBinaryDataSenderCreationFunction(BinaryDataSenderCreationFunction f);
/// As above, for the streams that a VM does not have yet.
KIROWEB_EXPORT BinaryStreamCreationFunction
RegisterBinaryStreamCreationFunction(BinaryStreamCreationFunction f);

/// Drops every block and says that it was delivered.
class KIROWEB_EXPORT NullBinaryDataSender : public BinaryDataSenderInterface {
  public:
    NullBinaryDataSender();
    ~NullBinaryDataSender() override;
    SendFuture send(relay::common::DataBuffer&& block) override;
    SendFuture send(DataID id, const char* data, std::size_t length) override;
    void warnAboutSendFailure(const std::string& channel) override;
    void warnAboutOOMFailure() override;
};

}  // namespace test
}  // namespace kiro::web::binary
