#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "kiro/Export.hpp"

namespace kiro::web {

class JSONPayload;
namespace binary {
class BinaryDataPayload;
}

/// Sends commands and binary data blocks to the client. Used from the engine's thread; it takes
/// no lock of its own.
class KIROWEB_EXPORT CommandSenderInterface {
  public:
    CommandSenderInterface();
    CommandSenderInterface(const CommandSenderInterface&) = delete;
    CommandSenderInterface& operator=(const CommandSenderInterface&) = delete;
    virtual ~CommandSenderInterface();

    /// Names the binary channel of the client; an empty name means none.
    virtual void setBinaryChannelName(const std::string& name) = 0;
    /// Lets go of asynchronous sends that have ended. Never blocks.
    virtual void removeFinishedAsyncTasksFromCache() = 0;
    /// Whether the client has announced itself. False here, like the two below.
    [[nodiscard]] virtual bool queryCommandSenderReadyStatus() const;
    [[nodiscard]] virtual bool queryUsingFastBinary() const;
    [[nodiscard]] virtual bool queryUsingBinary() const;
    virtual void setEnable(bool enable) = 0;
    [[nodiscard]] virtual bool isEnabled() const = 0;

    /// Stamps `command` under "cmd" and sends. A payload that has a "cmd" already keeps it: the
    /// first value of a key stays.
    void sendCommand(const std::string& command, JSONPayload&& payload);
    void sendBinaryData(binary::BinaryDataPayload&& payload);
    /// As above, without waiting for the send; the order against other sends is not kept.
    void sendBinaryDataAsync(binary::BinaryDataPayload&& payload);

    /// Switches the size statistics, off at start. A change of the switch, either way, empties
    /// both lists and releases their storage; setting it to what it is does nothing. While on,
    /// every command is serialised once more to be measured.
    void setSizeStatsEnabled(bool on);
    /// Bytes of each command's JSON text, in the order of sending, while statistics were on.
    [[nodiscard]] const std::vector<std::uint64_t>& getPublishSizeInBytes() const;
    /// Bytes of each binary payload, headers included, likewise.
    [[nodiscard]] const std::vector<std::uint64_t>& getBinarySizeInBytes() const;

  protected:
    virtual void doSendCommand(JSONPayload&& payload) = 0;
    virtual void doSendBinaryData(binary::BinaryDataPayload&& payload) = 0;
    virtual void doSendBinaryDataAsync(binary::BinaryDataPayload&& payload) = 0;

  private:
    struct KIROWEB_HIDDEN Impl;
    std::unique_ptr<Impl> fImpl;
};

}  // namespace kiro::web
