#include "kiro/web/binary/BinaryDataSender.hpp"

#include <stdexcept>
#include <utility>

#include "BinaryStreams.hpp"
#include "Block.hpp"
#include "InterpreterWarnings.hpp"
#include "Replaceable.hpp"
#include "component_Quarn/catalog_graphics.hpp"
#include "process/Immortal.hpp"

namespace kiro::web::binary {

namespace catalog = component_Quarn::catalog_graphics;
using relay::binary::experimental::SendResult;
using relay::common::DataBuffer;

namespace {

constexpr const char* kSource = "src/BinaryDataSender";

class BinaryDataSender : public BinaryDataSenderInterface {
  public:
    explicit BinaryDataSender(std::shared_ptr<relay::binary::experimental::BinaryStream> stream)
        : fStream(std::move(stream)) {}

    SendFuture send(DataBuffer&& block) override { return fStream->send(std::move(block)); }

    SendFuture send(DataID id, const char* data, std::size_t length) override {
        try {
            return fStream->send(buildBlock(id, data, length));
        } catch (const std::runtime_error&) {
            warnAboutOOMFailure();
            char missing[kBlockHeaderSize];
            writeID(id, missing);
            return fStream->send(buildBlock(kOutOfMemoryID, missing, sizeof missing));
        }
    }

    void warnAboutSendFailure(const std::string& channel) override {
        postWarning(bedrock::core::messageId<catalog::key_GraphicsBinarySendFailure>(), {channel},
                    kSource);
    }

    void warnAboutOOMFailure() override { postOutOfMemoryWarning(kSource); }

  private:
    std::shared_ptr<relay::binary::experimental::BinaryStream> fStream;
};

using SenderCreation = Replaceable<std::shared_ptr<BinaryDataSenderInterface>(const std::string&)>;

std::shared_ptr<BinaryDataSenderInterface> createSender(const std::string& channel) {
    return std::make_shared<BinaryDataSender>(streamOfChannel(channel));
}

SenderCreation& senderCreation() {
    static Immortal<SenderCreation> creation(&createSender);
    return *creation;
}

}  // namespace

BinaryDataSenderInterface::~BinaryDataSenderInterface() = default;

std::shared_ptr<BinaryDataSenderInterface> createBinaryDataSender(const std::string& channel) {
    return senderCreation()(channel);
}

namespace test {

BinaryDataSenderCreationFunction RegisterBinaryDataSenderCreationFunction(
    BinaryDataSenderCreationFunction f) {
    return senderCreation().exchange(std::move(f));
}

NullBinaryDataSender::NullBinaryDataSender() = default;
NullBinaryDataSender::~NullBinaryDataSender() = default;

BinaryDataSenderInterface::SendFuture NullBinaryDataSender::send(DataBuffer&& block) {
    const DataBuffer dropped = std::move(block);
    return relay::makeReadyFuture(SendResult{true, {}});
}

BinaryDataSenderInterface::SendFuture NullBinaryDataSender::send(DataID /*id*/,
                                                                 const char* /*data*/,
                                                                 std::size_t /*length*/) {
    return relay::makeReadyFuture(SendResult{true, {}});
}

void NullBinaryDataSender::warnAboutSendFailure(const std::string& /*channel*/) {}
void NullBinaryDataSender::warnAboutOOMFailure() {}

}  // namespace test
}  // namespace kiro::web::binary
