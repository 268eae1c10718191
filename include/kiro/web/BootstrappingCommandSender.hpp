#pragma once

#include <memory>
#include <string>

#include "kiro/Export.hpp"
#include "kiro/web/CommandSenderInterface.hpp"

namespace kiro::web {

/// The live sender. It holds commands and blocks back until the client announces that it is
/// ready, then sends the backlog from a thread of its own, in order, and from the next send on
/// sends directly on the caller's thread.
///
/// The client announces itself with a JSON object on the channel `name` + "/channelReady":
/// "binaryChannelStatus" and "useFastBinary", each on when it is the number 1. Each announcement
/// counts; the first one starts the traffic, later ones only change the two answers.
///
/// Threads: the engine's thread constructs (the host's signal thread, since it subscribes), sends
/// and sets names; `query...` may run on any thread. Destroying it while an announcement is being
/// handled or the backlog drains waits for both, so it must not be destroyed inside that: by an
/// observer of its log records, or by a listener of what it publishes. A backlog that no client
/// ever asked for is dropped.
class KIROWEB_EXPORT BootstrappingCommandSender : public CommandSenderInterface {
  public:
    class KIROWEB_HIDDEN Impl;

    /// `name` is the channel on which commands are published.
    explicit BootstrappingCommandSender(const std::string& name);
    /// `commandListener`, if not empty, is stamped into every command under "commandlistener".
    BootstrappingCommandSender(const std::string& name, const std::string& commandListener);
    ~BootstrappingCommandSender() override;

    /// Makes the binary sender for the client's binary channel, or lets go of it when `name` is
    /// empty. It takes no lock: call it on the engine's thread before a client can announce
    /// itself, and never while an asynchronous send runs. When the sender cannot be made, what is
    /// thrown leaves the former name and sender; the name can be set again.
    void setBinaryChannelName(const std::string& name) override;
    /// Takes no lock: engine's thread only. An exception of an ended send is dropped with it.
    void removeFinishedAsyncTasksFromCache() override;
    /// True from the first announcement on.
    [[nodiscard]] bool queryCommandSenderReadyStatus() const override;
    /// What the last announcement said.
    [[nodiscard]] bool queryUsingFastBinary() const override;
    [[nodiscard]] bool queryUsingBinary() const override;
    /// While disabled, commands are dropped without a message; binary data is not.
    void setEnable(bool enable) override;
    [[nodiscard]] bool isEnabled() const override;

  protected:
    /// What a direct send throws is passed on; the sender stays usable.
    void doSendCommand(JSONPayload&& payload) override;
    void doSendBinaryData(binary::BinaryDataPayload&& payload) override;
    void doSendBinaryDataAsync(binary::BinaryDataPayload&& payload) override;

  private:
    std::unique_ptr<Impl> fImpl;
};

}  // namespace kiro::web
