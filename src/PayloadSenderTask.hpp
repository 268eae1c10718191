#pragma once

#include <memory>
#include <string>

#include "ChannelInfo.hpp"
#include "kiro/web/JSONPayload.hpp"
#include "kiro/web/binary/BinaryDataPayload.hpp"

namespace kiro::web {

/// One send, so that it can wait in a queue and be run on any thread. Sent at most once.
class PayloadSenderTask {
  public:
    PayloadSenderTask() = default;
    PayloadSenderTask(const PayloadSenderTask&) = delete;
    PayloadSenderTask& operator=(const PayloadSenderTask&) = delete;
    virtual ~PayloadSenderTask();

    /// Sends on `channel`; `sender` may be empty. What a send throws is passed on.
    virtual void send(ChannelInfo info, std::shared_ptr<binary::BinaryDataSenderInterface>& sender,
                      std::string& channel) = 0;
};

/// Publishes a command, or sends it as a block when the client and the host allow that.
class JSONPayloadSenderTask : public PayloadSenderTask {
  public:
    explicit JSONPayloadSenderTask(JSONPayload&& payload);
    void send(ChannelInfo info, std::shared_ptr<binary::BinaryDataSenderInterface>& sender,
              std::string& channel) override;

  private:
    JSONPayload fPayload;
};

/// Sends data blocks, over the binary channel when the client has it up.
class BinaryPayloadSenderTask : public PayloadSenderTask {
  public:
    explicit BinaryPayloadSenderTask(binary::BinaryDataPayload&& payload);
    void send(ChannelInfo info, std::shared_ptr<binary::BinaryDataSenderInterface>& sender,
              std::string& channel) override;

  private:
    binary::BinaryDataPayload fPayload;
};

}  // namespace kiro::web
