#pragma once

#include <functional>
#include <memory>
#include <string>

#include "kiro/Export.hpp"

namespace relay::common {
class DataBuffer;
}

namespace kiro::web::binary {

/// Hands the blocks that arrive on the host's binary stream of one channel to a callback.
class KIROWEB_EXPORT BinaryDataReceiverInterface {
  public:
    /// Gets each block whole, header included, on the stream's thread.
    using ReceiveCallback = std::function<void(relay::common::DataBuffer&&)>;

    BinaryDataReceiverInterface() = default;
    BinaryDataReceiverInterface(const BinaryDataReceiverInterface&) = delete;
    BinaryDataReceiverInterface& operator=(const BinaryDataReceiverInterface&) = delete;
    virtual ~BinaryDataReceiverInterface();

    /// Replaces the stream's receive callback. Interpreter thread.
    virtual void receive(ReceiveCallback callback) = 0;
};

/// A receiver for `channel`, from the current creation function; by default one over the calling
/// VM's stream of that channel. Interpreter thread.
[[nodiscard]] KIROWEB_EXPORT std::shared_ptr<BinaryDataReceiverInterface> createBinaryDataReceiver(
    const std::string& channel);

/// The receivers of one interpreter VM by channel name. That VM's interpreter thread only.
class KIROWEB_EXPORT IdToBinaryDataReceiver {
  public:
    IdToBinaryDataReceiver();
    IdToBinaryDataReceiver(const IdToBinaryDataReceiver&) = delete;
    IdToBinaryDataReceiver& operator=(const IdToBinaryDataReceiver&) = delete;
    ~IdToBinaryDataReceiver();

    /// The calling VM's registry, which lives as long as the VM.
    static IdToBinaryDataReceiver& getInstance();

    /// The slot of `channel`. A missing one is added empty, for the caller to fill with
    /// `createBinaryDataReceiver(channel)`. It stays valid until the channel is removed.
    std::shared_ptr<BinaryDataReceiverInterface>& getOrCreateStreamChannel(
        const std::string& channel);

  private:
    friend class BinaryStreamLifeCycle;
    struct KIROWEB_HIDDEN Impl;
    std::unique_ptr<Impl> fImpl;
};

namespace test {

using BinaryDataReceiverCreationFunction =
    std::function<std::shared_ptr<BinaryDataReceiverInterface>(const std::string& channel)>;

/// Installs `f` process-wide and returns what was installed, to be put back in the same way.
KIROWEB_EXPORT BinaryDataReceiverCreationFunction
RegisterBinaryDataReceiverCreationFunction(BinaryDataReceiverCreationFunction f);

/// Drops the callback.
class KIROWEB_EXPORT NullBinaryDataReciever : public BinaryDataReceiverInterface {
  public:
    NullBinaryDataReciever();
    ~NullBinaryDataReciever() override;
    void receive(ReceiveCallback callback) override;
};

}  // namespace test
}  // namespace kiro::web::binary
