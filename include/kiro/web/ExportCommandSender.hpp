#pragma once

#include <memory>
#include <string>
#include <vector>

#include "kiro/Export.hpp"
#include "kiro/web/CommandSenderInterface.hpp"

namespace kiro::web {

/// Sends nothing and records every command as text. One thread at a time.
class KIROWEB_EXPORT ExportCommandSender : public CommandSenderInterface {
  public:
    ExportCommandSender();
    ~ExportCommandSender() override;

    /// Does nothing.
    void setBinaryChannelName(const std::string& name) override;
    /// Does nothing.
    void removeFinishedAsyncTasksFromCache() override;
    /// Answered by `isEnabled`; recording does not ask it.
    void setEnable(bool enable) override;
    [[nodiscard]] bool isEnabled() const override;

    /// The recorded texts in the order of sending. A binary payload is one text, its blocks in
    /// Base64, without the command stamp of `sendCommand`.
    [[nodiscard]] const std::vector<std::string>& getCommandsAsStrings() const;
    /// Forgets what was recorded.
    void reset();

  protected:
    void doSendCommand(JSONPayload&& payload) override;
    void doSendBinaryData(binary::BinaryDataPayload&& payload) override;
    void doSendBinaryDataAsync(binary::BinaryDataPayload&& payload) override;

  private:
    struct KIROWEB_HIDDEN Impl;
    std::unique_ptr<Impl> fImpl;
};

}  // namespace kiro::web
